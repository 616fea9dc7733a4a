#include "collector/store/sqlite/sqlite_db.hpp"

namespace usemeter_collector {

sqlite3* open_sqlite(const std::string& path, sqlite_access_t access, durability_t durability,
                     std::string& failed_step)
{
    const bool writable = access == sqlite_access_t::read_write;
    if (writable)
        create_private_file(path);
    const int flags = (writable ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE : SQLITE_OPEN_READONLY) |
                      SQLITE_OPEN_NOMUTEX;
    sqlite3* db = nullptr;
    failed_step.clear();
    if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) != SQLITE_OK) {
        failed_step = "cannot open";
        return db;
    }
    sqlite3_busy_timeout(db, 10000);
    if (!writable)
        return db;
    if (!sqlite_exec(db, "PRAGMA journal_mode = WAL"))
        failed_step = "cannot switch to write-ahead logging";
    else if (!sqlite_exec(db, durability == durability_t::full ? "PRAGMA synchronous = FULL"
                                                               : "PRAGMA synchronous = NORMAL"))
        failed_step = "cannot set durability";
    return db;
}

std::string sqlite_reason(sqlite3* db)
{
    return db ? sqlite3_errmsg(db) : "out of memory";
}

bool sqlite_exec(sqlite3* db, const char* sql)
{
    return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

statement_t::statement_t(sqlite3* db, const std::string& sql)
{
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt_, nullptr) != SQLITE_OK) {
        sqlite3_finalize(stmt_);
        stmt_ = nullptr;
    }
}

void statement_t::bind(int index, const std::string& text)
{
    sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

void statement_t::bind(const char* name, const std::string& text)
{
    const int index = sqlite3_bind_parameter_index(stmt_, name);
    if (index > 0)
        sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

bool statement_t::run()
{
    const int rc = sqlite3_step(stmt_);
    sqlite3_reset(stmt_);
    return rc == SQLITE_DONE;
}

std::string statement_t::text(int column) const
{
    std::string text;
    this->text(column, text);
    return text;
}

const std::string& statement_t::text(int column, std::string& buffer) const
{
    const auto* bytes = sqlite3_column_text(stmt_, column);
    if (!bytes)
        buffer.clear();
    else
        buffer.assign(reinterpret_cast<const char*>(bytes),
                      static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)));
    return buffer;
}

// Through the column's value: one look-up of the column instead of one per call. The value
// is "unprotected", which only matters to a connection shared between threads; ours are not.
std::string_view statement_t::view(int column) const
{
    sqlite3_value* value = sqlite3_column_value(stmt_, column);
    const auto* bytes = sqlite3_value_text(value);
    return bytes ? std::string_view(reinterpret_cast<const char*>(bytes),
                                    static_cast<std::size_t>(sqlite3_value_bytes(value)))
                 : std::string_view();
}

}  // namespace usemeter_collector
