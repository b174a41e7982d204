#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace quorlin::testing {

// Direct access to a SQLite file, to arrange databases the store didn't write and to
// look at what it did write. Failures throw std::runtime_error.

using SqlRows = std::vector<std::vector<std::optional<std::string>>>;

void sqlExecute(const std::filesystem::path& database, const std::string& sql);

// Every row of one query, each column as text or NULL.
SqlRows sqlQuery(const std::filesystem::path& database, const std::string& sql);

} // namespace quorlin::testing
