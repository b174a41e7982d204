#pragma once

#include <filesystem>

namespace quorlin {

// Makes sure the folder, the file, the tables and the indexes of the audit database
// exist, and brings a database from before error_json, or from before the kept totals and
// the query indexes, up to date.
void prepareAuditDatabase(const std::filesystem::path& path);

// Imports the old JSON history beside the database into a database that holds no run
// yet. The file stays where it is; a file that can't be read or decoded throws.
void importLegacyAuditLog(const std::filesystem::path& databasePath,
                          const std::filesystem::path& legacyPath);

} // namespace quorlin
