// The SQLite access every SQLite piece of the collector shares (the store, its report source and
// the ClickHouse spool): opening a database the one way they need, and one prepared statement.
#ifndef USEMETER_COLLECTOR_SQLITE_DB_HPP
#define USEMETER_COLLECTOR_SQLITE_DB_HPP

#include <cstdint>
#include <string>
#include <string_view>

#include <sqlite3.h>

#include "collector/store/store.hpp"

namespace usemeter_collector {

enum class sqlite_access_t { read_only, read_write };

// Opens path, waiting up to 10 s whenever another connection holds the write lock. Read-write
// creates the file 0600 if missing and turns on write-ahead logging at the durability's
// synchronous level. Returns the handle, which the caller closes with sqlite3_close_v2 even
// when failed_step is set ("cannot open", "cannot switch to write-ahead logging" or "cannot set
// durability"); it may be null when SQLite ran out of memory.
sqlite3* open_sqlite(const std::string& path, sqlite_access_t access, durability_t durability,
                     std::string& failed_step);

// The reason SQLite gives for the last failure on db (which may be null).
std::string sqlite_reason(sqlite3* db);

bool sqlite_exec(sqlite3* db, const char* sql);

// A prepared statement, finalized when it goes; prepared() is false when the SQL did not prepare.
class statement_t {
public:
    statement_t(sqlite3* db, const std::string& sql);
    ~statement_t() { sqlite3_finalize(stmt_); }
    statement_t(const statement_t&) = delete;
    statement_t& operator=(const statement_t&) = delete;

    bool prepared() const { return stmt_ != nullptr; }
    // Texts bound by index must outlive the next step: no copy is made.
    void bind(int index, const std::string& text);
    void bind(int index, std::int64_t number) { sqlite3_bind_int64(stmt_, index, number); }
    // A copy is bound; a name the SQL does not use is ignored.
    void bind(const char* name, const std::string& text);
    // One step to completion, then ready for the next use.
    bool run();
    // Calls row() for each result row; true when every row was read.
    template <typename row_fn>
    bool each(row_fn row)
    {
        if (!stmt_)
            return false;
        int rc;
        while ((rc = sqlite3_step(stmt_)) == SQLITE_ROW)
            row();
        sqlite3_reset(stmt_);
        return rc == SQLITE_DONE;
    }
    std::string text(int column) const;
    // The same text into a buffer the caller keeps, so that a long scan allocates only once.
    const std::string& text(int column, std::string& buffer) const;
    // The column's text in place, valid until the next step.
    std::string_view view(int column) const;
    std::int64_t number(int column) const { return sqlite3_column_int64(stmt_, column); }

private:
    sqlite3_stmt* stmt_ = nullptr;
};

}  // namespace usemeter_collector

#endif
