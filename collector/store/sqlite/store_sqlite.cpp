#include "collector/store/sqlite/store_sqlite.hpp"

#include "collector/store/clickhouse/store_clickhouse.hpp"

#include <mutex>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "collector/store/sqlite/sqlite_db.hpp"

namespace usemeter_collector {

namespace {

// Each entry moves the schema one version up; a store at user_version N runs entries N and
// later in one transaction. Entries are never edited once released, only appended.
const char* const migrations[] = {
    // 1: hits, and the rollups of the reports: one row per user and day (with whether any
    // hit carried the active-user verdict), per user, day and feature, and each user's first day.
    "CREATE TABLE hits ("
    "  id INTEGER PRIMARY KEY, received INTEGER NOT NULL, day TEXT NOT NULL,"
    "  tid TEXT NOT NULL, cid TEXT NOT NULL, an TEXT NOT NULL, av TEXT NOT NULL,"
    "  cd1 TEXT NOT NULL, cd2 TEXT NOT NULL, cd3 TEXT NOT NULL, ec TEXT NOT NULL, el TEXT NOT NULL);"
    "CREATE INDEX hits_by_day ON hits(day);"
    "CREATE INDEX hits_by_cid ON hits(cid);"
    "CREATE TABLE user_days ("
    "  an TEXT NOT NULL, day TEXT NOT NULL, av TEXT NOT NULL, cd2 TEXT NOT NULL, cid TEXT NOT NULL,"
    "  hits INTEGER NOT NULL, active INTEGER NOT NULL,"
    "  PRIMARY KEY (an, day, av, cd2, cid)) WITHOUT ROWID;"
    "CREATE INDEX user_days_by_cid ON user_days(cid, an);"
    "CREATE TABLE feature_days ("
    "  an TEXT NOT NULL, day TEXT NOT NULL, av TEXT NOT NULL, ec TEXT NOT NULL, el TEXT NOT NULL,"
    "  cid TEXT NOT NULL, hits INTEGER NOT NULL,"
    "  PRIMARY KEY (an, day, av, ec, el, cid)) WITHOUT ROWID;"
    "CREATE INDEX feature_days_by_cid ON feature_days(cid);"
    "CREATE TABLE first_seen ("
    "  an TEXT NOT NULL, cid TEXT NOT NULL, day TEXT NOT NULL,"
    "  PRIMARY KEY (an, cid)) WITHOUT ROWID;"
    "CREATE INDEX first_seen_by_day ON first_seen(day);",
};
const int schema_version = sizeof migrations / sizeof migrations[0];

const std::string insert_hit_sql = std::string("INSERT INTO hits (received, day, ") + hit_field_columns +
                                   ") VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11)";
const char* const count_user_day_sql =
    "INSERT INTO user_days VALUES (?5, ?2, ?6, ?8, ?4, 1, ?9 = 'y')"
    " ON CONFLICT DO UPDATE SET hits = hits + 1, active = max(active, excluded.active)";
const char* const count_feature_day_sql =
    "INSERT INTO feature_days VALUES (?5, ?2, ?6, ?10, ?11, ?4, 1)"
    " ON CONFLICT DO UPDATE SET hits = hits + 1";
const char* const note_first_seen_sql =
    "INSERT INTO first_seen VALUES (?5, ?4, ?2)"
    " ON CONFLICT DO UPDATE SET day = excluded.day WHERE excluded.day < day";

void bind_hit(statement_t& stmt, const hit_t& hit, const std::string& day)
{
    stmt.bind(1, hit.received);
    stmt.bind(2, day);
    int index = 3;
    for (const std::string* field : hit.fields())
        stmt.bind(index++, *field);
}

class sqlite_store_t : public store_t {
public:
    explicit sqlite_store_t(sqlite3* db, std::string path) : db_(db), path_(std::move(path)) {}
    ~sqlite_store_t() override
    {
        inserts_.clear();
        sqlite3_close_v2(db_);
    }

    outcome_t append(const std::vector<hit_t>& hits) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (inserts_.empty() && !prepare_inserts())
            return failed("cannot prepare the insert statements");
        if (!exec("BEGIN IMMEDIATE"))
            return failed("cannot begin a transaction");
        std::int64_t day_of = -1;
        std::string day;
        for (const hit_t& hit : hits) {
            if (hit.received != day_of)
                day = utc_day(day_of = hit.received);
            for (auto& insert : inserts_) {
                bind_hit(*insert, hit, day);
                if (!insert->run())
                    return rolled_back("cannot store a hit");
            }
        }
        if (!exec("COMMIT"))
            return rolled_back("cannot commit");
        return {};
    }

    outcome_t export_csv(std::ostream& out, const std::string& since,
                         const std::string& until) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        statement_t select(db_,
                           std::string("SELECT received, ") + hit_field_columns +
                               " FROM hits WHERE day >= ?1 AND day <= ?2 ORDER BY id");
        if (!select.prepared())
            return failed("cannot read hits");
        const std::string last_day = until.empty() ? std::string("9999-99-99") : until;
        select.bind(1, since);
        select.bind(2, last_day);
        out << export_csv_header;
        const bool read_all = select.each([&] {
            out << utc_timestamp(select.number(0));
            for (int column = 1; column < 10; ++column) {
                out << ',';
                write_csv_field(out, select.text(column));
            }
            out << '\n';
        });
        if (!read_all)
            return failed("reading hits stopped");
        return {};
    }

    outcome_t erase_client(const std::string& cid, std::int64_t& erased) override
    {
        return erase_where("cid = ?1", cid, erased, false);
    }

    outcome_t erase_before(const std::string& first_kept_day, std::int64_t& erased) override
    {
        return erase_where("day < ?1", first_kept_day, erased, true);
    }

    sqlite3* handle() const { return db_; }
    outcome_t failed(const std::string& what) const
    {
        return outcome_t::failure(what + " in " + path_ + ": " + sqlite_reason(db_));
    }

private:
    bool exec(const char* sql) { return sqlite_exec(db_, sql); }

    outcome_t rolled_back(const std::string& what)
    {
        outcome_t outcome = failed(what);
        exec("ROLLBACK");
        return outcome;
    }

    bool prepare_inserts()
    {
        for (const char* sql :
             {insert_hit_sql.c_str(), count_user_day_sql, count_feature_day_sql, note_first_seen_sql}) {
            inserts_.push_back(std::make_unique<statement_t>(db_, sql));
            if (!inserts_.back()->prepared()) {
                inserts_.clear();
                return false;
            }
        }
        return true;
    }

    int stored_version()
    {
        statement_t query(db_, "PRAGMA user_version");
        int version = -1;
        query.each([&] { version = static_cast<int>(query.number(0)); });
        return version;
    }

public:
    // A current store is only read, so that export and erase never wait for a running
    // collector's write lock just to open it.
    outcome_t migrate()
    {
        if (stored_version() == schema_version)
            return {};
        if (!exec("BEGIN IMMEDIATE"))
            return failed("cannot read the schema version");
        const int version = stored_version();
        if (version < 0 || version > schema_version) {
            exec("ROLLBACK");
            return outcome_t::failure(path_ + " has schema version " + std::to_string(version) +
                                      "; this collector knows up to " + std::to_string(schema_version));
        }
        for (int step = version; step < schema_version; ++step)
            if (!exec(migrations[step]))
                return rolled_back("cannot migrate to schema version " + std::to_string(step + 1));
        const std::string set_version = "PRAGMA user_version = " + std::to_string(schema_version);
        if (!exec(set_version.c_str()) || !exec("COMMIT"))
            return rolled_back("cannot record the schema version");
        return {};
    }

private:
    // Hits and every rollup row they fed go in one transaction. A user's first day is
    // recomputed from what is left, so "new users" stays true to the remaining hits.
    outcome_t erase_where(const std::string& condition, const std::string& value,
                          std::int64_t& erased, bool recompute_first_seen)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        erased = 0;
        if (!exec("BEGIN IMMEDIATE"))
            return failed("cannot begin a transaction");
        for (const char* table : {"hits", "user_days", "feature_days", "first_seen"}) {
            statement_t erase(db_, "DELETE FROM " + std::string(table) + " WHERE " + condition);
            if (!erase.prepared())
                return rolled_back("cannot erase");
            erase.bind(1, value);
            if (!erase.run())
                return rolled_back("cannot erase");
            if (table == std::string("hits"))
                erased = sqlite3_changes64(db_);
        }
        if (recompute_first_seen &&
            !exec("INSERT INTO first_seen SELECT an, cid, min(day) FROM user_days u"
                  " WHERE NOT EXISTS (SELECT 1 FROM first_seen f WHERE f.an = u.an AND f.cid = u.cid)"
                  " GROUP BY an, cid"))
            return rolled_back("cannot recompute first days");
        if (!exec("COMMIT"))
            return rolled_back("cannot erase");
        return {};
    }

    std::mutex mutex_;  // one statement at a time on the connection
    sqlite3* db_;
    const std::string path_;
    std::vector<std::unique_ptr<statement_t>> inserts_;  // in bind_hit's parameter order
};

}  // namespace

int sqlite_schema_version()
{
    return schema_version;
}

void create_private_file(const std::string& path)
{
    if (path == ":memory:")  // SQLite's in-memory database: no file at all
        return;
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0)
        ::close(fd);
}

std::unique_ptr<store_t> open_sqlite_store(const std::string& path, durability_t durability,
                                           std::string& error)
{
    std::string failed_step;
    auto store = std::make_unique<sqlite_store_t>(
        open_sqlite(path, sqlite_access_t::read_write, durability, failed_step), path);
    const outcome_t ready = failed_step.empty() ? store->migrate() : store->failed(failed_step);
    if (failed_step == "cannot open")
        error = "cannot open " + path + ": " + sqlite_reason(store->handle());
    if (!ready) {
        if (error.empty())
            error = ready.error;
        return nullptr;
    }
    return store;
}

}  // namespace usemeter_collector
