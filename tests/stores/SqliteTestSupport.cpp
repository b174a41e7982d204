#include "tests/stores/SqliteTestSupport.h"

#include <memory>
#include <stdexcept>

#include <sqlite3.h>

namespace quorlin::testing {

namespace {

struct Close {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
};
struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Connection = std::unique_ptr<sqlite3, Close>;

Connection open(const std::filesystem::path& path) {
    sqlite3* raw = nullptr;
    const int status = sqlite3_open(path.c_str(), &raw);
    Connection connection(raw);
    if (status != SQLITE_OK) {
        throw std::runtime_error("cannot open " + path.string());
    }
    return connection;
}

} // namespace

void sqlExecute(const std::filesystem::path& database, const std::string& sql) {
    const auto connection = open(database);
    if (sqlite3_exec(connection.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        throw std::runtime_error(sqlite3_errmsg(connection.get()));
    }
}

SqlRows sqlQuery(const std::filesystem::path& database, const std::string& sql) {
    const auto connection = open(database);
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(connection.get(), sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) {
        throw std::runtime_error(sqlite3_errmsg(connection.get()));
    }
    const std::unique_ptr<sqlite3_stmt, Finalize> statement(raw);
    SqlRows rows;
    int status = SQLITE_ROW;
    while ((status = sqlite3_step(raw)) == SQLITE_ROW) {
        auto& row = rows.emplace_back();
        for (int column = 0; column < sqlite3_column_count(raw); ++column) {
            const auto* text = sqlite3_column_text(raw, column);
            row.push_back(text ? std::optional<std::string>(reinterpret_cast<const char*>(text))
                               : std::nullopt);
        }
    }
    if (status != SQLITE_DONE) {
        throw std::runtime_error(sqlite3_errmsg(connection.get()));
    }
    return rows;
}

} // namespace quorlin::testing
