// The reports' questions answered by the SQLite store's rollups (user_days, feature_days,
// first_seen), never by the hits table. One read-only connection, one query at a time.
#include <mutex>


#include "collector/reports/reports.hpp"
#include "collector/store/sqlite/sqlite_db.hpp"

namespace usemeter_collector {

namespace {

// The product and version filters, as the rollup tables name them; values are always bound.
// The rollups' keys begin (an, day): naming every product when none is asked for lets SQLite
// seek to the range of days in each, instead of reading every day of every product.
std::string filters(const report_query_t& query)
{
    std::string sql = " day BETWEEN :first AND :last";
    sql += query.product.empty() ? " AND an IN (SELECT DISTINCT an FROM first_seen)" : " AND an = :an";
    if (!query.version.empty())
        sql += " AND av = :av";
    return sql;
}

const std::string user_days_sql =
    "SELECT day, cid, active FROM user_days WHERE%F";
const std::string first_days_sql =
    "SELECT cid, min(day) AS first FROM first_seen %P GROUP BY cid"
    " HAVING first BETWEEN :first AND :last";
const std::string features_sql = "SELECT ec, el, cid, hits FROM feature_days WHERE%F";
// Grouped in the key's order (a row per version too), so SQLite sums as it reads instead of
// sorting the range first.
const std::string category_days_sql =
    "SELECT day, ec, sum(hits) FROM feature_days WHERE%F GROUP BY an, day, av, ec";
const std::string versions_sql =
    "SELECT day, av, count(DISTINCT cid) FROM user_days WHERE%F GROUP BY day, av";
const std::string version_categories_sql = "SELECT DISTINCT av, ec, cid FROM feature_days WHERE%F";
const std::string systems_sql =
    "SELECT cd2, count(DISTINCT cid) FROM user_days WHERE%F GROUP BY cd2";

std::string with_filters(std::string sql, const report_query_t& query)
{
    for (std::size_t at; (at = sql.find("%F")) != std::string::npos;)
        sql.replace(at, 2, filters(query));
    if (const std::size_t at = sql.find("%P"); at != std::string::npos)
        sql.replace(at, 2, query.product.empty() ? "" : "WHERE an = :an");
    return sql;
}

class sqlite_report_source_t : public report_source_t {
public:
    explicit sqlite_report_source_t(sqlite3* db) : db_(db) {}
    ~sqlite_report_source_t() override { sqlite3_close_v2(db_); }
    sqlite3* handle() const { return db_; }

    outcome_t user_days(const report_query_t& query, const std::string& first,
                        const std::string& last, const user_day_sink_t& sink) override
    {
        std::string day, cid;
        return ask(user_days_sql, query, first, last, [&](const statement_t& row) {
            sink(row.text(0, day), row.text(1, cid), row.number(2) != 0);
        });
    }

    outcome_t first_days(const report_query_t& query,
                         std::vector<std::pair<std::string, std::string>>& firsts) override
    {
        return ask(first_days_sql, query, query.since, query.until,
                   [&](const statement_t& row) { firsts.emplace_back(row.text(0), row.text(1)); });
    }

    outcome_t feature_uses(const report_query_t& query, const feature_sink_t& sink) override
    {
        std::string category, label, cid;
        return ask(features_sql, query, query.since, query.until, [&](const statement_t& row) {
            sink(row.text(0, category), row.text(1, label), row.text(2, cid), row.number(3));
        });
    }

    outcome_t category_days(const report_query_t& query, const category_day_sink_t& sink) override
    {
        std::string day, category;
        return ask(category_days_sql, query, query.since, query.until, [&](const statement_t& row) {
            sink(row.text(0, day), row.text(1, category), row.number(2));
        });
    }

    outcome_t versions(const report_query_t& query, std::vector<version_row_t>& rows) override
    {
        return ask(versions_sql, query, query.since, query.until, [&](const statement_t& row) {
            rows.push_back({row.text(0), row.text(1), row.number(2)});
        });
    }

    outcome_t version_categories(const report_query_t& query, const version_category_sink_t& sink) override
    {
        std::string version, category, cid;
        return ask(version_categories_sql, query, query.since, query.until, [&](const statement_t& row) {
            sink(row.text(0, version), row.text(1, category), row.text(2, cid));
        });
    }

    outcome_t systems(const report_query_t& query, std::vector<system_row_t>& rows) override
    {
        return ask(systems_sql, query, query.since, query.until,
                   [&](const statement_t& row) { rows.push_back({row.text(0), row.number(1)}); });
    }

private:
    // One question: the range and filters bound by name, each row handed to row(); a failure
    // names SQLite's reason.
    template <typename row_fn>
    outcome_t ask(const std::string& sql, const report_query_t& query, const std::string& first,
                  const std::string& last, row_fn row)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        statement_t select(db_, with_filters(sql, query));
        select.bind(":first", first);
        select.bind(":last", last);
        select.bind(":an", query.product);
        select.bind(":av", query.version);
        if (select.each([&] { row(select); }))
            return {};
        return outcome_t::failure("cannot read the report: " + sqlite_reason(db_));
    }

    std::mutex mutex_;  // one statement at a time on the connection
    sqlite3* db_;
};

}  // namespace

std::unique_ptr<report_source_t> open_sqlite_report_source(const std::string& path, std::string& error)
{
    std::string failed_step;
    auto source = std::make_unique<sqlite_report_source_t>(
        open_sqlite(path, sqlite_access_t::read_only, durability_t::normal, failed_step));
    if (!failed_step.empty()) {
        error = "cannot open " + path + ": " + sqlite_reason(source->handle());
        return nullptr;
    }
    return source;
}

}  // namespace usemeter_collector
