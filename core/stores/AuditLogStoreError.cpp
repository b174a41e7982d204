#include "AuditLogStoreError.h"

namespace quorlin {

AuditLogStoreError AuditLogStoreError::sqlite(std::string detail) {
    return {Kind::sqlite, std::move(detail)};
}

AuditLogStoreError::AuditLogStoreError(Kind kind, std::string detail)
    : Error("Audit SQLite access failed: " + detail), kind_(kind), detail_(std::move(detail)) {}

} // namespace quorlin
