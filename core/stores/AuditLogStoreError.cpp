#include "AuditLogStoreError.h"

namespace quorlin {

namespace {

std::string describe(AuditLogStoreError::Kind kind, const std::string& detail,
                     const std::filesystem::path& path) {
    switch (kind) {
    case AuditLogStoreError::Kind::sqlite:
        break;
    case AuditLogStoreError::Kind::notWritable:
        return "The audit log " + path.string() +
               " can't be written, so no run is started (a run must be recorded): " + detail;
    }
    return "Audit SQLite access failed: " + detail;
}

} // namespace

AuditLogStoreError AuditLogStoreError::sqlite(std::string detail) {
    return {Kind::sqlite, std::move(detail)};
}

AuditLogStoreError AuditLogStoreError::notWritable(const std::filesystem::path& path,
                                                   std::string detail) {
    return {Kind::notWritable, std::move(detail), path};
}

AuditLogStoreError::AuditLogStoreError(Kind kind, std::string detail,
                                       const std::filesystem::path& path)
    : Error(describe(kind, detail, path)), kind_(kind), detail_(std::move(detail)) {}

} // namespace quorlin
