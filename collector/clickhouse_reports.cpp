#include "clickhouse_reports.hpp"

#include <algorithm>
#include <ctime>
#include <map>
#include <tuple>
#include <utility>

#include "store_clickhouse.hpp"

namespace usemeter_collector {

namespace {

std::int64_t day_start(const std::string& day)
{
    std::tm parts{};
    parts.tm_year = std::stoi(day.substr(0, 4)) - 1900;
    parts.tm_mon = std::stoi(day.substr(5, 2)) - 1;
    parts.tm_mday = std::stoi(day.substr(8, 2));
    return static_cast<std::int64_t>(timegm(&parts));
}

std::string date(const std::string& day)
{
    return "toDate(" + sql_quoted(day) + ")";
}

// The product (and version) filter; with_version false for "first hit in the whole store".
std::string matching(const report_filter_t& filter, bool with_version = true)
{
    std::string condition = "1";
    if (!filter.product.empty())
        condition += " AND an = " + sql_quoted(filter.product);
    if (with_version && !filter.version.empty())
        condition += " AND av = " + sql_quoted(filter.version);
    return condition;
}

std::string in_range(const std::string& since, const std::string& until)
{
    return " AND day BETWEEN " + date(since) + " AND " + date(until);
}

std::uint64_t number(const std::string& text)
{
    return std::stoull(text);
}

outcome_t check_range(const report_filter_t& filter)
{
    return is_day(filter.since) && is_day(filter.until) && filter.since <= filter.until
               ? outcome_t()
               : outcome_t::failure("a report needs a range of days YYYY-MM-DD, not \"" + filter.since +
                                    "\" to \"" + filter.until + "\"");
}

}  // namespace

std::vector<std::string> days_between(const std::string& since, const std::string& until)
{
    std::vector<std::string> days;
    if (!is_day(since) || !is_day(until))
        return days;
    for (std::int64_t t = day_start(since), end = day_start(until); t <= end; t += 86400)
        days.push_back(utc_day(t));
    return days;
}

std::string days_before(const std::string& day, int n)
{
    return utc_day(day_start(day) - std::int64_t(n) * 86400);
}

clickhouse_reports_t::clickhouse_reports_t(clickhouse_address_t address)
    : address_(std::move(address)), table_(clickhouse_hits_table(address_.database))
{
}

outcome_t clickhouse_reports_t::select(const std::string& statement,
                                       std::vector<std::vector<std::string>>& rows) const
{
    clickhouse_http_t http(address_.server);
    std::string result;
    outcome_t outcome = create_clickhouse_schema(http, address_.database);
    if (outcome)
        outcome = http.run(statement + " FORMAT TabSeparated", std::string(), &result);
    if (outcome)
        rows = parse_tsv(result);
    return outcome;
}

outcome_t clickhouse_reports_t::count_by_day(const std::string& statement,
                                             std::vector<std::pair<std::string, std::uint64_t>>& counts) const
{
    std::vector<std::vector<std::string>> rows;
    const outcome_t outcome = select(statement, rows);
    for (const auto& row : rows)
        counts.emplace_back(row.at(0), number(row.at(1)));
    return outcome;
}

outcome_t clickhouse_reports_t::active(const report_filter_t& filter, std::vector<active_row_t>& rows) const
{
    if (!check_range(filter))
        return check_range(filter);
    const std::vector<std::string> days = days_between(filter.since, filter.until);
    std::map<std::string, active_row_t> by_day;
    std::vector<std::vector<std::string>> daily;
    outcome_t outcome = select("SELECT toString(day), uniqExact(cid), uniqExactIf(cid, cd3 = 'y') FROM " +
                                   table_ + " WHERE " + matching(filter) + in_range(filter.since, filter.until) +
                                   " GROUP BY day",
                               daily);
    std::map<std::string, std::uint64_t> active_users;
    for (const auto& row : daily) {
        by_day[row.at(0)].dau = number(row.at(1));
        active_users[row.at(0)] = number(row.at(2));
    }
    // Each user-day counts for the window days that end on it or in the span after it.
    const std::pair<int, std::uint64_t active_row_t::*> windows[] = {{7, &active_row_t::wau},
                                                                    {30, &active_row_t::mau}};
    for (const auto& window : windows) {
        std::vector<std::pair<std::string, std::uint64_t>> counts;
        if (outcome)
            outcome = count_by_day(
                "SELECT toString(day + i) AS d, uniqExact(cid) FROM (SELECT cid, day FROM " + table_ +
                    " WHERE " + matching(filter) + in_range(days_before(filter.since, window.first - 1), filter.until) +
                    " GROUP BY cid, day) ARRAY JOIN range(" + std::to_string(window.first) +
                    ") AS i WHERE day + i BETWEEN " + date(filter.since) + " AND " + date(filter.until) +
                    " GROUP BY d",
                counts);
        for (const auto& count : counts)
            by_day[count.first].*window.second = count.second;
    }
    std::vector<std::pair<std::string, std::uint64_t>> newcomers;
    if (outcome)
        outcome = count_by_day("SELECT toString(day), uniqExact(cid) FROM " + table_ + " WHERE " +
                                   matching(filter) + in_range(filter.since, filter.until) +
                                   " AND (cid, day) IN (SELECT cid, min(day) FROM " + table_ + " WHERE " +
                                   matching(filter, false) + " GROUP BY cid) GROUP BY day",
                               newcomers);
    for (const auto& count : newcomers)
        by_day[count.first].new_users = count.second;
    if (!outcome)
        return outcome;
    rows.clear();
    for (const std::string& day : days) {
        active_row_t row = by_day[day];
        row.day = day;
        row.active_share = row.dau ? double(active_users[day]) / double(row.dau) : 0.0;
        rows.push_back(row);
    }
    return {};
}

outcome_t clickhouse_reports_t::features(const report_filter_t& filter, std::vector<feature_row_t>& rows) const
{
    if (!check_range(filter))
        return check_range(filter);
    const std::string where = " FROM " + table_ + " WHERE " + matching(filter) + in_range(filter.since, filter.until);
    std::vector<std::vector<std::string>> result;
    const outcome_t outcome =
        select("SELECT ec, el, 0, uniqExact(collector, seq), uniqExact(cid)" + where + " GROUP BY ec, el"
               " UNION ALL SELECT ec, '', 1, uniqExact(collector, seq), uniqExact(cid)" + where + " GROUP BY ec",
               result);
    if (!outcome)
        return outcome;
    rows.clear();
    for (const auto& row : result)
        rows.push_back({row.at(0), row.at(2) == "1", row.at(1), number(row.at(3)), number(row.at(4))});
    std::sort(rows.begin(), rows.end(), [](const feature_row_t& a, const feature_row_t& b) {
        return std::make_tuple(a.category, !a.is_subtotal, a.label) <
               std::make_tuple(b.category, !b.is_subtotal, b.label);
    });
    return {};
}

outcome_t clickhouse_reports_t::versions(const report_filter_t& filter, std::vector<version_row_t>& rows) const
{
    if (!check_range(filter))
        return check_range(filter);
    std::vector<std::vector<std::string>> result;
    const outcome_t outcome = select("SELECT toString(day), av, uniqExact(cid) FROM " + table_ + " WHERE " +
                                         matching(filter) + in_range(filter.since, filter.until) +
                                         " GROUP BY day, av",
                                     result);
    if (!outcome)
        return outcome;
    rows.clear();
    for (const auto& row : result)
        rows.push_back({row.at(0), row.at(1), number(row.at(2))});
    std::sort(rows.begin(), rows.end(), [](const version_row_t& a, const version_row_t& b) {
        return std::tie(a.day, a.version) < std::tie(b.day, b.version);
    });
    return {};
}

outcome_t clickhouse_reports_t::systems(const report_filter_t& filter, std::vector<system_row_t>& rows) const
{
    if (!check_range(filter))
        return check_range(filter);
    std::vector<std::vector<std::string>> result;
    const outcome_t outcome = select("SELECT cd2, uniqExact(cid) FROM " + table_ + " WHERE " +
                                         matching(filter) + in_range(filter.since, filter.until) +
                                         " GROUP BY cd2",
                                     result);
    if (!outcome)
        return outcome;
    rows.clear();
    for (const auto& row : result)
        rows.push_back({row.at(0), number(row.at(1))});
    std::sort(rows.begin(), rows.end(), [](const system_row_t& a, const system_row_t& b) {
        return a.users != b.users ? a.users > b.users : a.system < b.system;
    });
    return {};
}

}  // namespace usemeter_collector
