#pragma once

#include "core/foundation/Error.h"

#include <string>

namespace quorlin {

class AuditLogStoreError : public Error {
public:
    enum class Kind { sqlite };

    static AuditLogStoreError sqlite(std::string detail);

    // detail: SQLite's own message, or ours where it has none.
    AuditLogStoreError(Kind kind, std::string detail);

    Kind kind() const { return kind_; }
    const std::string& detail() const { return detail_; }

private:
    Kind kind_;
    std::string detail_;
};

} // namespace quorlin
