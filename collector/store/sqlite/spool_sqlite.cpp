#include "collector/store/sqlite/spool_sqlite.hpp"

#include <mutex>
#include <random>
#include <utility>

#include "collector/store/sqlite/sqlite_db.hpp"

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

}  // namespace

struct spool_t::connection_t {
    std::mutex mutex;
    sqlite3* db = nullptr;
    std::string path;
    std::unique_ptr<statement_t> select;  // the reader's, prepared once

    ~connection_t() { sqlite3_close_v2(db); }

    bool exec(const char* sql) { return sqlite_exec(db, sql); }

    outcome_t failed(const std::string& what)
    {
        return outcome_t::failure(what + " in the spool " + path + ": " + sqlite_reason(db));
    }

    outcome_t rolled_back(const std::string& what)
    {
        outcome_t outcome = failed(what);
        exec("ROLLBACK");
        return outcome;
    }

    outcome_t open(durability_t durability)
    {
        std::string failed_step;
        db = open_sqlite(path, sqlite_access_t::read_write, durability, failed_step);
        return failed_step.empty() ? outcome_t() : failed(failed_step);
    }

    // The first column of the first row of a query, as text ("" when there is none).
    outcome_t scalar(const char* sql, std::string& value)
    {
        statement_t query(db, sql);
        value.clear();
        return query.each([&] { value = query.text(0); }) ? outcome_t() : failed("cannot query");
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
    return set_up_reader(durability);
}

// The forwarder's connection, with its read prepared once.
outcome_t spool_t::set_up_reader(durability_t durability)
{
    connection_t& c = *reader_;
    const outcome_t outcome = c.open(durability);
    if (!outcome)
        return outcome;
    c.select = std::make_unique<statement_t>(c.db, std::string("SELECT seq, received, ") + hit_field_columns +
                                                       " FROM spool WHERE seq > ? ORDER BY seq LIMIT ?");
    return c.select->prepared() ? outcome_t() : c.failed("cannot prepare the read");
}

outcome_t spool_t::append(const std::vector<hit_t>& hits)
{
    connection_t& c = *writer_;
    std::lock_guard<std::mutex> lock(c.mutex);
    statement_t insert(c.db, std::string("INSERT INTO spool (received, ") + hit_field_columns +
                                 ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    if (!insert.prepared())
        return c.failed("cannot prepare the insert");
    if (!c.exec("BEGIN IMMEDIATE"))
        return c.failed("cannot begin a transaction");
    for (const hit_t& hit : hits) {
        insert.bind(1, hit.received);
        int index = 2;
        for (const std::string* field : hit.fields())
            insert.bind(index++, *field);
        if (!insert.run())
            return c.rolled_back("cannot store a hit");
    }
    if (!c.exec("COMMIT"))
        return c.rolled_back("cannot commit");
    size_ += static_cast<std::int64_t>(hits.size());
    return {};
}

outcome_t spool_t::read_after(std::int64_t seq, std::size_t limit,
                             const std::function<void(const spooled_row_t&)>& take)
{
    connection_t& c = *reader_;
    std::lock_guard<std::mutex> lock(c.mutex);
    statement_t& select = *c.select;
    select.bind(1, seq);
    select.bind(2, static_cast<std::int64_t>(limit));
    spooled_row_t row;
    const bool read_all = select.each([&] {
        row.seq = select.number(0);
        row.received = select.number(1);
        for (std::size_t field = 0; field < row.fields.size(); ++field)
            row.fields[field] = select.view(static_cast<int>(field) + 2);
        take(row);
    });
    return read_all ? outcome_t() : c.failed("reading stopped");
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
