#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace quorlin {

// One prepared statement on an AuditDatabase connection. Every failure throws
// AuditLogStoreError with SQLite's message or the store's own words. Bind indexes count
// from 1 and column indexes from 0, as in SQLite.
class AuditStatement {
public:
    void bindText(int index, std::string_view text);
    void bindOptionalText(int index, const std::optional<std::string>& text);
    void bindInteger(int index, std::int64_t value);
    void bindReal(int index, double value);
    void bindNull(int index);

    // One step: true with a row to read, false when done.
    bool step();
    // Steps a statement that returns no rows to its end.
    void run();
    // Ready for new bindings and another pass.
    void reset();

    // A NULL where text is required throws "Unexpected null text column at index <i>".
    std::string text(int column) const;
    std::optional<std::string> optionalText(int column) const;
    // The text without a copy, valid until the next step or reset.
    std::optional<std::string_view> textView(int column) const;
    std::int64_t integer(int column) const;
    double real(int column) const;

private:
    friend class AuditDatabase;
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const;
    };
    explicit AuditStatement(sqlite3_stmt* statement) : statement_(statement) {}

    [[noreturn]] void fail() const;

    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

// A connection to the audit database, closed when the object goes away. Statements
// prepared from it must go away first, which declaring them after it ensures.
class AuditDatabase {
public:
    // Opens read-write, creating the file if needed.
    static AuditDatabase open(const std::filesystem::path& path);

    // Runs one or more statements that return no rows.
    void execute(const char* sql);
    AuditStatement prepare(std::string_view sql);

    // Runs body inside "BEGIN IMMEDIATE" ... "COMMIT". If body or the commit throws, the
    // transaction is rolled back and that first error goes on; a failing rollback can't
    // hide it.
    template <typename Body> void inTransaction(Body body) {
        execute("BEGIN IMMEDIATE TRANSACTION;");
        try {
            body();
            execute("COMMIT;");
        } catch (...) {
            rollbackQuietly();
            throw;
        }
    }

    // Runs body inside "BEGIN" ... "COMMIT" and gives what it returns: all it reads is one
    // snapshot, whatever other connections commit meanwhile.
    template <typename Body> auto inReadTransaction(Body body) {
        execute("BEGIN;");
        try {
            auto result = body();
            execute("COMMIT;");
            return result;
        } catch (...) {
            rollbackQuietly();
            throw;
        }
    }

private:
    struct Close {
        void operator()(sqlite3* database) const;
    };
    explicit AuditDatabase(sqlite3* database) : database_(database) {}

    void rollbackQuietly() noexcept;

    std::unique_ptr<sqlite3, Close> database_;
};

} // namespace quorlin
