#include "collector/store/sqlite/spool_sqlite.hpp"

#include <mutex>
#include <random>
#include <utility>

#include <sqlite3.h>

namespace usemeter_collector {

namespace {

const char* const schema =
    "CREATE TABLE IF NOT EXISTS spool ("
    "  seq INTEGER PRIMARY KEY AUTOINCREMENT, received INTEGER NOT NULL,"
    "  tid TEXT NOT NULL, cid TEXT NOT NULL, an TEXT NOT NULL, av TEXT NOT NULL,"
    "  cd1 TEXT NOT NULL, cd2 TEXT NOT NULL, cd3 TEXT NOT NULL, ec TEXT NOT NULL, el TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS instance (id TEXT NOT NULL);";

std::string random_instance_id()
{
    std::random_device source;
    std::uniform_int_distribution<int> digit(0, 15);
    std::string id;
    for (int i = 0; i < 32; ++i)
        id += "0123456789abcdef"[digit(source)];
    return id;
}

std::string column_text(sqlite3_stmt* stmt, int column)
{
    const auto* bytes = sqlite3_column_text(stmt, column);
    return bytes ? std::string(reinterpret_cast<const char*>(bytes),
                               static_cast<std::size_t>(sqlite3_column_bytes(stmt, column)))
                 : std::string();
}

}  // namespace

struct spool_t::connection_t {
    std::mutex mutex;
    sqlite3* db = nullptr;
    std::string path;

    ~connection_t() { sqlite3_close_v2(db); }

    bool exec(const char* sql) { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }

    outcome_t failed(const std::string& what)
    {
        return outcome_t::failure(what + " in the spool " + path + ": " +
                                  (db ? sqlite3_errmsg(db) : "out of memory"));
    }

    outcome_t rolled_back(const std::string& what)
    {
        outcome_t outcome = failed(what);
        exec("ROLLBACK");
        return outcome;
    }

    outcome_t open(durability_t durability)
    {
        create_private_file(path);
        if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE |
                                                   SQLITE_OPEN_NOMUTEX, nullptr) != SQLITE_OK)
            return failed("cannot open");
        sqlite3_busy_timeout(db, 10000);
        const char* sync = durability == durability_t::full ? "PRAGMA synchronous = FULL"
                                                            : "PRAGMA synchronous = NORMAL";
        if (!exec("PRAGMA journal_mode = WAL") || !exec(sync))
            return failed("cannot set up write-ahead logging");
        return {};
    }

    using statement_t = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)>;

    // A prepared statement, finalized when it goes; null when sql does not prepare.
    statement_t prepare(const char* sql)
    {
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK)
            stmt = nullptr;
        return statement_t(stmt, sqlite3_finalize);
    }

    // The first column of the first row of a query, as text ("" when there is none).
    outcome_t scalar(const char* sql, std::string& value)
    {
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK)
            return failed("cannot query");
        const int rc = sqlite3_step(stmt);
        value = rc == SQLITE_ROW ? column_text(stmt, 0) : std::string();
        sqlite3_finalize(stmt);
        return rc == SQLITE_ROW || rc == SQLITE_DONE ? outcome_t() : failed("cannot query");
    }
};

spool_t::spool_t(std::string path) : path_(std::move(path)) {}

spool_t::~spool_t() = default;

std::unique_ptr<spool_t> spool_t::open(const std::string& path, durability_t durability,
                                       std::string& error)
{
    std::unique_ptr<spool_t> spool(new spool_t(path));
    const outcome_t outcome = spool->set_up(durability);
    if (!outcome) {
        error = outcome.error;
        return nullptr;
    }
    return spool;
}

outcome_t spool_t::set_up(durability_t durability)
{
    writer_ = std::make_unique<connection_t>();
    reader_ = std::make_unique<connection_t>();
    writer_->path = reader_->path = path_;
    outcome_t outcome = writer_->open(durability);
    if (!outcome)
        return outcome;
    if (!writer_->exec("BEGIN IMMEDIATE") || !writer_->exec(schema))
        return writer_->rolled_back("cannot create the tables");
    if (!(outcome = writer_->scalar("SELECT id FROM instance", instance_)))
        return outcome;
    if (instance_.empty()) {
        instance_ = random_instance_id();
        const std::string insert = "INSERT INTO instance VALUES ('" + instance_ + "')";
        if (!writer_->exec(insert.c_str()))
            return writer_->rolled_back("cannot record the instance id");
    }
    std::string count;
    if (!(outcome = writer_->scalar("SELECT count(*) FROM spool", count)))
        return outcome;
    if (!writer_->exec("COMMIT"))
        return writer_->rolled_back("cannot commit");
    size_ = std::stoll(count);
    return reader_->open(durability);
}

outcome_t spool_t::append(const std::vector<hit_t>& hits)
{
    connection_t& c = *writer_;
    std::lock_guard<std::mutex> lock(c.mutex);
    const auto insert = c.prepare("INSERT INTO spool (received, tid, cid, an, av, cd1, cd2, cd3,"
                                  " ec, el) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    if (!insert)
        return c.failed("cannot prepare the insert");
    sqlite3_stmt* stmt = insert.get();
    if (!c.exec("BEGIN IMMEDIATE"))
        return c.failed("cannot begin a transaction");
    for (const hit_t& hit : hits) {
        sqlite3_bind_int64(stmt, 1, hit.received);
        int index = 2;
        for (const std::string* field : {&hit.tid, &hit.cid, &hit.an, &hit.av, &hit.cd1, &hit.cd2,
                                         &hit.cd3, &hit.ec, &hit.el})
            sqlite3_bind_text(stmt, index++, field->data(), static_cast<int>(field->size()),
                              SQLITE_STATIC);
        const int rc = sqlite3_step(stmt);
        sqlite3_reset(stmt);
        if (rc != SQLITE_DONE)
            return c.rolled_back("cannot store a hit");
    }
    if (!c.exec("COMMIT"))
        return c.rolled_back("cannot commit");
    size_ += static_cast<std::int64_t>(hits.size());
    return {};
}

outcome_t spool_t::read_after(std::int64_t seq, std::size_t limit, std::vector<spooled_hit_t>& hits)
{
    connection_t& c = *reader_;
    std::lock_guard<std::mutex> lock(c.mutex);
    const auto select = c.prepare("SELECT seq, received, tid, cid, an, av, cd1, cd2, cd3, ec, el"
                                  " FROM spool WHERE seq > ? ORDER BY seq LIMIT ?");
    if (!select)
        return c.failed("cannot read");
    sqlite3_stmt* stmt = select.get();
    sqlite3_bind_int64(stmt, 1, seq);
    sqlite3_bind_int64(stmt, 2, static_cast<sqlite3_int64>(limit));
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        spooled_hit_t spooled;
        spooled.seq = sqlite3_column_int64(stmt, 0);
        hit_t& hit = spooled.hit;
        hit.received = sqlite3_column_int64(stmt, 1);
        int column = 2;
        for (std::string* field : {&hit.tid, &hit.cid, &hit.an, &hit.av, &hit.cd1, &hit.cd2,
                                   &hit.cd3, &hit.ec, &hit.el})
            *field = column_text(stmt, column++);
        hits.push_back(std::move(spooled));
    }
    return rc == SQLITE_DONE ? outcome_t() : c.failed("reading stopped");
}

outcome_t spool_t::remove_through(std::int64_t seq)
{
    connection_t& c = *reader_;
    std::lock_guard<std::mutex> lock(c.mutex);
    const std::string sql = "DELETE FROM spool WHERE seq <= " + std::to_string(seq);
    if (!c.exec(sql.c_str()))
        return c.failed("cannot remove forwarded hits");
    size_ -= sqlite3_changes(c.db);
    return {};
}

}  // namespace usemeter_collector
