#pragma once

#include "core/foundation/Error.h"

#include <filesystem>
#include <string>

namespace quorlin {

class AuditLogStoreError : public Error {
public:
    enum class Kind { sqlite, notWritable };

    static AuditLogStoreError sqlite(std::string detail);
    // The database at path can't take a run's row now; detail says why.
    static AuditLogStoreError notWritable(const std::filesystem::path& path, std::string detail);

    // detail: SQLite's own message, or ours where it has none.
    AuditLogStoreError(Kind kind, std::string detail, const std::filesystem::path& path = {});

    Kind kind() const { return kind_; }
    const std::string& detail() const { return detail_; }

private:
    Kind kind_;
    std::string detail_;
};

} // namespace quorlin
