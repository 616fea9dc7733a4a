// The reports answered from ClickHouse, with the definitions of the SQLite store's reports:
// days are UTC days of receipt; dau/wau/mau count distinct client ids over 1, 7 and 30 days
// ending that day; new counts client ids whose first hit in the whole store (for the product,
// if one is given) is that day; active_share is the fraction of that day's client ids with a
// hit carrying cd3=y. Hits are counted by their (collector, seq) key, so a batch that reached
// ClickHouse twice counts once.
//
// Each call opens its own connection, so one object serves any number of threads.
#ifndef USEMETER_COLLECTOR_CLICKHOUSE_REPORTS_HPP
#define USEMETER_COLLECTOR_CLICKHOUSE_REPORTS_HPP

#include <cstdint>
#include <string>
#include <vector>

#include "clickhouse_http.hpp"

namespace usemeter_collector {

// since and until ("YYYY-MM-DD", inclusive) are required; empty product or version: all.
struct report_filter_t {
    std::string product, version, since, until;
};

// One per day of the range, zeros where nobody reported.
struct active_row_t {
    std::string day;
    std::uint64_t dau = 0, wau = 0, mau = 0, new_users = 0;
    double active_share = 0;
};
// Per category its subtotal row first (is_subtotal, label empty; JSON label null), then one
// row per label; categories and labels in byte order.
struct feature_row_t {
    std::string category;
    bool is_subtotal = false;
    std::string label;
    std::uint64_t hits = 0, users = 0;
};
// By day, then version.
struct version_row_t {
    std::string day, version;
    std::uint64_t users = 0;
};
// Most users first, ties by system.
struct system_row_t {
    std::string system;
    std::uint64_t users = 0;
};

class clickhouse_reports_t {
public:
    explicit clickhouse_reports_t(clickhouse_address_t address);

    outcome_t active(const report_filter_t& filter, std::vector<active_row_t>& rows) const;
    outcome_t features(const report_filter_t& filter, std::vector<feature_row_t>& rows) const;
    outcome_t versions(const report_filter_t& filter, std::vector<version_row_t>& rows) const;
    outcome_t systems(const report_filter_t& filter, std::vector<system_row_t>& rows) const;

private:
    outcome_t select(const std::string& statement, std::vector<std::vector<std::string>>& rows) const;
    // "day" -> the first number of each row of a (day, number) query.
    outcome_t count_by_day(const std::string& statement,
                           std::vector<std::pair<std::string, std::uint64_t>>& counts) const;

    const clickhouse_address_t address_;
    const std::string table_;
};

// The days since..until inclusive, "YYYY-MM-DD"; empty when either is not a day.
std::vector<std::string> days_between(const std::string& since, const std::string& until);
// The day n days before (negative n: after) day.
std::string days_before(const std::string& day, int n);

}  // namespace usemeter_collector

#endif
