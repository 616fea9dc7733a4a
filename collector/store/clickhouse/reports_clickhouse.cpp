// The reports' questions answered by ClickHouse from the aggregates it keeps itself
// (clickhouse_schema.cpp): user_days for users, feature_days for hit counts, so the cost of
// a report grows with users, days and labels, not with hits. Rows of an aggregate not yet
// merged are merged by the GROUP BY of each query; copies in user_days change no set.
//
// On several shards, each question is asked of every shard and the answers combined: a
// client id's hits all live on one shard, so per-user answers (first days, masks, user-days)
// are the shard's own, and distinct counts of different shards add up exactly.
//
// Every call has its own connections, so the collector's threads may share one source.
#include <atomic>
#include <map>

#include "collector/reports/reports.hpp"
#include "collector/store/clickhouse/clickhouse_http.hpp"
#include "collector/store/clickhouse/clickhouse_schema.hpp"
#include "collector/store/clickhouse/store_clickhouse.hpp"

namespace usemeter_collector {

namespace {

using row_t = std::vector<std::string>;

std::string date(const std::string& day)
{
    return "toDate(" + sql_quoted(day) + ")";
}

// The query's product and version, and the days first..last (never day 0, the collectors'
// marks in feature_days).
std::string matching(const report_query_t& query, const std::string& first, const std::string& last)
{
    std::string condition = "day BETWEEN " + date(first) + " AND " + date(last) + " AND day > toDate(0)";
    if (!query.product.empty())
        condition += " AND an = " + sql_quoted(query.product);
    if (!query.version.empty())
        condition += " AND av = " + sql_quoted(query.version);
    return condition;
}

bool is_count(const std::string& text)
{
    return !text.empty() && text.size() < 19 && text.find_first_not_of("0123456789") == std::string::npos;
}

class clickhouse_report_source_t : public report_source_t {
public:
    explicit clickhouse_report_source_t(clickhouse_address_t address)
        : address_(std::move(address)), user_days_(address_.database + ".user_days"),
          feature_days_(address_.database + ".feature_days"), schema_ready_(address_.servers.size())
    {
    }

    outcome_t user_days(const report_query_t& query, const std::string& first,
                        const std::string& last, const user_day_sink_t& sink) override
    {
        // Ungrouped: the report code merges a user's rows of a day, faster than ClickHouse would.
        return select("SELECT day, cid, active FROM " + user_days_ + " WHERE " + matching(query, first, last),
                      3, [&](const row_t& row) { sink(row[0], row[1], row[2] == "1"); });
    }

    outcome_t first_days(const report_query_t& query,
                         std::vector<std::pair<std::string, std::string>>& firsts) override
    {
        const std::string product = query.product.empty() ? "1" : "an = " + sql_quoted(query.product);
        return select("SELECT cid, toString(min(day)) FROM " + user_days_ + " WHERE " + product +
                          " GROUP BY cid HAVING min(day) BETWEEN " + date(query.since) + " AND " +
                          date(query.until),
                      2, [&](const row_t& row) { firsts.emplace_back(row[0], row[1]); }, false);
    }

    outcome_t feature_uses(const report_query_t& query, const feature_sink_t& sink) override
    {
        return select("SELECT ec, el, cid, sumMerge(hits) FROM " + feature_days_ + " WHERE " +
                          matching(query, query.since, query.until) + " GROUP BY ec, el, cid",
                      4, [&](const row_t& row) { sink(row[0], row[1], row[2], std::stoll(row[3])); });
    }

    outcome_t category_days(const report_query_t& query, const category_day_sink_t& sink) override
    {
        return select("SELECT day, ec, sumMerge(hits) FROM " + feature_days_ + " WHERE " +
                          matching(query, query.since, query.until) + " GROUP BY day, ec",
                      3, [&](const row_t& row) { sink(row[0], row[1], std::stoll(row[2])); });
    }

    // Users per day and version, summed over the shards.
    outcome_t versions(const report_query_t& query, std::vector<version_row_t>& rows) override
    {
        std::map<std::pair<std::string, std::string>, std::int64_t> users;
        const outcome_t read = select("SELECT day, av, uniqExact(cid) FROM " + user_days_ + " WHERE " +
                                          matching(query, query.since, query.until) + " GROUP BY day, av",
                                      3, [&](const row_t& row) { users[{row[0], row[1]}] += std::stoll(row[2]); });
        for (const auto& [day_version, count] : users)
            rows.push_back({day_version.first, day_version.second, count});
        return read;
    }

    // Users per system, summed over the shards.
    outcome_t systems(const report_query_t& query, std::vector<system_row_t>& rows) override
    {
        std::map<std::string, std::int64_t> users;
        const outcome_t read = select("SELECT cd2, uniqExact(cid) FROM " + user_days_ + " WHERE " +
                                          matching(query, query.since, query.until) + " GROUP BY cd2",
                                      2, [&](const row_t& row) { users[row[0]] += std::stoll(row[1]); });
        for (const auto& [system, count] : users)
            rows.push_back({system, count});
        return read;
    }

    // The active report inside ClickHouse when the range and the 29 days before it fit in one
    // 64-bit mask per user: the user's days as bits (m), the days with cd3=y (am) and the first
    // day of all, when the user was seen on it (fm). On report day t, a user counts for dau,
    // wau and mau when m has bit t, one of the bits t-6..t, one of the bits t-29..t. Each
    // shard's counts add to the others'.
    outcome_t active_counts(const report_query_t& query, std::vector<day_counts_t>& days, bool& answered) override
    {
        const std::int64_t first = day_number(query.since) - 29, length = day_number(query.until) - first + 1;
        answered = length <= 64;
        if (!answered)
            return {};
        std::string offsets;
        for (std::int64_t t = 29; t < length; ++t)
            offsets += (t == 29 ? "[" : ",") + std::to_string(t);
        offsets += "]";
        const auto per_day = [&](const char* mask, const char* bits) {
            return "arrayMap((t, x) -> toUInt64(bitAnd(x, " + std::string(bits) + ") != 0), " + offsets +
                   ", replicate(" + mask + ", " + offsets + "))";
        };
        const std::string from = date(day_text(first));
        const std::string bit = "bitShiftLeft(toUInt64(1), toUInt64(greatest(day, " + from + ") - " + from + "))";
        const std::string seen = "day >= " + from + (query.version.empty() ? "" : " AND av = " + sql_quoted(query.version));
        const std::string users =
            "SELECT groupBitOrIf(" + bit + ", " + seen + ") AS m, groupBitOrIf(" + bit + ", " + seen +
            " AND active = 1) AS am, bitAnd(m, bitShiftLeft(toUInt64(1), toUInt64(greatest(min(day), " + from +
            ") - " + from + "))) * (min(day) >= " + from + ") AS fm FROM " + user_days_ + " WHERE " +
            (query.product.empty() ? "1" : "an = " + sql_quoted(query.product)) + " AND day <= " +
            date(query.until) + " GROUP BY cid";
        const std::string counts =
            "SELECT " + per_day("m", "bitShiftLeft(toUInt64(1), t)") + " AS dau, " +
            per_day("m", "bitShiftLeft(toUInt64(127), t - 6)") + " AS wau, " +
            per_day("m", "bitShiftLeft(toUInt64(1073741823), t - 29)") + " AS mau, " +
            per_day("fm", "bitShiftLeft(toUInt64(1), t)") + " AS fresh, " +
            per_day("am", "bitShiftLeft(toUInt64(1), t)") + " AS act FROM (" + users + ")";
        days.assign(static_cast<std::size_t>(length - 29), {});
        bool shaped = true;
        const outcome_t read = select("SELECT sumForEach(dau), sumForEach(wau), sumForEach(mau),"
                                      " sumForEach(fresh), sumForEach(act) FROM (" + counts + ")",
                                      5, [&](const row_t& row) {
                                          for (std::size_t column = 0; column < 5; ++column)
                                              shaped = take_counts(row[column], days, column) && shaped;
                                      }, false);
        return !read || shaped ? read : outcome_t::failure("ClickHouse answered counts of an unexpected shape");
    }

    outcome_t version_categories(const report_query_t& query, const version_category_sink_t& sink) override
    {
        return select("SELECT av, ec, cid FROM " + feature_days_ + " WHERE " + matching(query, query.since, query.until) +
                          " GROUP BY av, ec, cid",
                      3, [&](const row_t& row) { sink(row[0], row[1], row[2]); }, false);
    }

private:
    // One array "[n,n,...]" of per-day counts added to days' field number column; "[]" when
    // nobody reported adds nothing. False for anything else.
    static bool take_counts(const std::string& text, std::vector<day_counts_t>& days, std::size_t column)
    {
        std::int64_t day_counts_t::*const fields[] = {&day_counts_t::dau, &day_counts_t::wau, &day_counts_t::mau,
                                                      &day_counts_t::fresh, &day_counts_t::active};
        std::vector<std::int64_t> numbers;
        std::size_t at = 1;
        while (at < text.size() && is_count(text.substr(at, text.find_first_of(",]", at) - at))) {
            const std::size_t end = text.find_first_of(",]", at);
            numbers.push_back(std::stoll(text.substr(at, end - at)));
            at = end + 1;
        }
        for (std::size_t day = 0; numbers.size() == days.size() && day < days.size(); ++day)
            days[day].*fields[column] += numbers[day];
        return text == "[]" || (numbers.size() == days.size() && at == text.size());
    }

    // Runs a SELECT on every shard at once and hands each row to take, one shard after the
    // other, once it has the expected width and (unless ends_in_count is false) a count in its
    // last column. The schema is created first, so that a collector whose forwarder has not
    // reached ClickHouse yet reports zeros.
    template <typename take_fn>
    outcome_t select(const std::string& statement, std::size_t columns, take_fn take, bool ends_in_count = true)
    {
        std::vector<std::string> results(address_.servers.size());
        const outcome_t outcome = on_every_shard(address_.servers, [&](clickhouse_http_t& http, std::size_t shard) {
            const shard_place_t place{shard, address_.servers.size()};
            outcome_t asked = schema_ready_[shard] ? outcome_t() : create_clickhouse_schema(http, address_.database, place);
            schema_ready_[shard] = schema_ready_[shard] || asked.ok;
            return asked ? http.run(statement + " FORMAT TabSeparated", std::string(), &results[shard]) : asked;
        });
        if (!outcome)
            return outcome_t::failure("cannot read the report from ClickHouse: " + outcome.error);
        bool shaped = true;
        for (const std::string& result : results)
            each_tsv_row(result, [&](const row_t& row) {
                shaped = shaped && row.size() == columns && (!ends_in_count || is_count(row.back()));
                if (shaped)
                    take(row);
            });
        return shaped ? outcome_t() : outcome_t::failure("ClickHouse answered rows of an unexpected shape");
    }

    const clickhouse_address_t address_;
    const std::string user_days_, feature_days_;
    std::vector<std::atomic<bool>> schema_ready_;  // by shard
};

}  // namespace

std::unique_ptr<report_source_t> open_clickhouse_report_source(const std::string& uri, std::string& error)
{
    clickhouse_address_t address;
    if (!parse_clickhouse_uri(uri, address, error))
        return nullptr;
    return std::make_unique<clickhouse_report_source_t>(std::move(address));
}

}  // namespace usemeter_collector
