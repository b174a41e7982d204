#include "AuditDatabase.h"

#include "core/stores/AuditLogStoreError.h"

#include <cstdint>

#include <sqlite3.h>

namespace quorlin {

namespace {

// SQLite's message for the connection's last failure.
std::string lastMessage(sqlite3* database) {
    const char* message = database ? sqlite3_errmsg(database) : nullptr;
    return message && *message ? message : "Unknown SQLite error";
}

// SQLITE_TRANSIENT without its C-style cast: SQLite copies the text before the bind
// returns, so no buffer has to outlive it.
const sqlite3_destructor_type transientCopy =
    reinterpret_cast<sqlite3_destructor_type>(static_cast<std::intptr_t>(-1));

// How long a connection waits for another one (this process or another: the app and a
// `quorlin` command may write at the same time) to release its lock before giving up
// with "database is locked". Writes here take milliseconds; a full load of a large
// history a fraction of a second.
// Another process (a second quorlin, the desktop app) may hold the write lock for a
// while; a finished run waits this long for its turn rather than go unrecorded.
constexpr int busyTimeoutMilliseconds = 30'000;

} // namespace

void AuditStatement::Finalize::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

void AuditStatement::fail() const {
    throw AuditLogStoreError::sqlite(lastMessage(sqlite3_db_handle(statement_.get())));
}

void AuditStatement::bindText(int index, std::string_view text) {
    if (sqlite3_bind_text64(statement_.get(), index, text.data(), text.size(), transientCopy,
                            SQLITE_UTF8) != SQLITE_OK) {
        throw AuditLogStoreError::sqlite("Unable to bind text value");
    }
}

void AuditStatement::bindOptionalText(int index, const std::optional<std::string>& text) {
    if (text) {
        bindText(index, *text);
    } else {
        bindNull(index);
    }
}

void AuditStatement::bindInteger(int index, std::int64_t value) {
    if (sqlite3_bind_int64(statement_.get(), index, value) != SQLITE_OK) {
        throw AuditLogStoreError::sqlite("Unable to bind integer value");
    }
}

void AuditStatement::bindReal(int index, double value) {
    if (sqlite3_bind_double(statement_.get(), index, value) != SQLITE_OK) {
        throw AuditLogStoreError::sqlite("Unable to bind real value");
    }
}

void AuditStatement::bindNull(int index) {
    if (sqlite3_bind_null(statement_.get(), index) != SQLITE_OK) {
        throw AuditLogStoreError::sqlite("Unable to bind null value");
    }
}

bool AuditStatement::step() {
    switch (sqlite3_step(statement_.get())) {
    case SQLITE_ROW:
        return true;
    case SQLITE_DONE:
        return false;
    default:
        fail();
    }
}

void AuditStatement::run() {
    while (step()) {
    }
}

void AuditStatement::reset() {
    // The step's own failure was already reported; reset repeats its code, so it is not
    // checked again here.
    sqlite3_reset(statement_.get());
    sqlite3_clear_bindings(statement_.get());
}

std::string AuditStatement::text(int column) const {
    const auto value = textView(column);
    if (!value) {
        throw AuditLogStoreError::sqlite("Unexpected null text column at index " +
                                         std::to_string(column));
    }
    return std::string(*value);
}

std::optional<std::string> AuditStatement::optionalText(int column) const {
    const auto value = textView(column);
    return value ? std::optional<std::string>(*value) : std::nullopt;
}

// Read through the column's value, so the connection's lock is taken once for the column
// rather than once for its text and again for its size; in a long load that is a tenth of
// the time. SQLite calls the value unprotected, safe only on the statement's own thread,
// which is the only one a statement is ever used on.
std::optional<std::string_view> AuditStatement::textView(int column) const {
    sqlite3_value* value = sqlite3_column_value(statement_.get(), column);
    const unsigned char* text = sqlite3_value_text(value);
    if (text == nullptr) {
        if (sqlite3_value_type(value) != SQLITE_NULL) {
            fail(); // out of memory while converting the value to text
        }
        return std::nullopt;
    }
    return std::string_view(reinterpret_cast<const char*>(text),
                            static_cast<std::size_t>(sqlite3_value_bytes(value)));
}

std::int64_t AuditStatement::integer(int column) const {
    return sqlite3_column_int64(statement_.get(), column);
}

double AuditStatement::real(int column) const {
    return sqlite3_column_double(statement_.get(), column);
}

void AuditDatabase::Close::operator()(sqlite3* database) const {
    sqlite3_close(database);
}

AuditDatabase AuditDatabase::open(const std::filesystem::path& path) {
    sqlite3* raw = nullptr;
    const int status = sqlite3_open_v2(
        path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
        nullptr);
    AuditDatabase database(raw);
    if (status != SQLITE_OK) {
        const char* message = raw ? sqlite3_errmsg(raw) : nullptr;
        throw AuditLogStoreError::sqlite(message && *message ? std::string(message)
                                                             : "Unable to open " + path.string());
    }
    sqlite3_busy_timeout(raw, busyTimeoutMilliseconds);
    // The totals triggers take a run that INSERT OR REPLACE replaces off in their BEFORE
    // INSERT trigger; with recursive triggers on, the replace would fire the delete trigger
    // too and take it off twice. Off is SQLite's default, said here for builds that change it.
    database.execute("PRAGMA recursive_triggers = OFF;");
    return database;
}

void AuditDatabase::execute(const char* sql) {
    char* rawMessage = nullptr;
    const int status = sqlite3_exec(database_.get(), sql, nullptr, nullptr, &rawMessage);
    const std::unique_ptr<char, decltype(&sqlite3_free)> message(rawMessage, sqlite3_free);
    if (status != SQLITE_OK) {
        throw AuditLogStoreError::sqlite(message && *message ? std::string(message.get())
                                                             : lastMessage(database_.get()));
    }
}

AuditStatement AuditDatabase::prepare(std::string_view sql) {
    sqlite3_stmt* raw = nullptr;
    const int status = sqlite3_prepare_v2(database_.get(), sql.data(), static_cast<int>(sql.size()),
                                          &raw, nullptr);
    AuditStatement statement(raw);
    if (status != SQLITE_OK || raw == nullptr) {
        throw AuditLogStoreError::sqlite(lastMessage(database_.get()));
    }
    return statement;
}

void AuditDatabase::rollbackQuietly() noexcept {
    // Deliberately unchecked: the error that led here is the one to report, and a
    // transaction SQLite already ended by itself makes ROLLBACK fail harmlessly.
    sqlite3_exec(database_.get(), "ROLLBACK;", nullptr, nullptr, nullptr);
}

} // namespace quorlin
