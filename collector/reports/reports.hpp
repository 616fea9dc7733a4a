// The reports: what the product's owners read from the stored hits. Every number has one
// definition here, and every output (command line, JSON endpoints, the page) goes through it.
//
// A store answers through report_source_t from its rollups; each of its methods is one query,
// so a second store gives the same numbers by answering the same five questions. Windows,
// first-seen logic, rounding and order are decided here, never in a store.
#ifndef USEMETER_COLLECTOR_REPORTS_HPP
#define USEMETER_COLLECTOR_REPORTS_HPP

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "collector/store/hit.hpp"

namespace usemeter_collector {

// Which hits a report counts. Empty product or version: all of them. since and until are
// UTC days, inclusive.
struct report_query_t {
    std::string product, version, since, until;
    std::size_t top = 0;  // features: only the N categories with the most hits (0: all)
};

struct active_day_t {
    std::string day;
    std::int64_t dau = 0, wau = 0, mau = 0, fresh = 0;
    double active_share = 0;  // 0..1, rounded to 4 decimals
    double stickiness = 0;    // dau / mau, rounded to 4 decimals
};

struct feature_row_t {
    std::string category;
    std::optional<std::string> label;  // none: the category's subtotal
    std::int64_t hits = 0, users = 0;
};

// Hits of a category in the ISO week (Monday to Sunday) starting on week, counting only the
// days of the range.
struct trend_row_t {
    std::string week, category;
    std::int64_t hits = 0;
};

struct version_row_t {
    std::string day, version;
    std::int64_t users = 0;
};

// The newest version's share of the last day: the last version (in release order) among the
// versions rows of that day, its users over the day's distinct client ids (dau).
struct newest_version_t {
    std::string day, version;
    std::int64_t users = 0, dau = 0;
    double share = 0;  // 0..1, rounded to 4 decimals
};

// A weekly cohort: the client ids whose first hit in the whole store fell in the ISO week
// starting on week; returning[k]: how many of them had a hit in the week 7*k days later.
struct cohort_t {
    std::string week;
    std::int64_t users = 0;
    std::vector<std::int64_t> returning;
};

// Of a version's users in the range, those who used a category with it.
struct adoption_row_t {
    std::string version, category;
    std::int64_t users = 0;
    double share = 0;  // of the version's users, 0..1, rounded to 4 decimals
};

struct system_row_t {
    std::string system;
    std::int64_t users = 0;
};

// The rollup questions a store answers. Filters are the query's product and version.
class report_source_t {
public:
    using user_day_sink_t =
        std::function<void(const std::string& day, const std::string& cid, bool active)>;

    virtual ~report_source_t() = default;

    // The client ids of each day first..last (inclusive) that they reported on, in any
    // order and possibly more than once a day; active: one of those hits carried cd3=y.
    virtual outcome_t user_days(const report_query_t& query, const std::string& first,
                                const std::string& last, const user_day_sink_t& sink) = 0;
    // Client ids of the query's product (any version) whose first hit in the whole store
    // falls on since..until, each with that day.
    virtual outcome_t first_days(const report_query_t& query,
                                 std::vector<std::pair<std::string, std::string>>& firsts) = 0;
    using feature_sink_t = std::function<void(const std::string& category, const std::string& label,
                                              const std::string& cid, std::int64_t hits)>;
    // Hits of since..until per category, label and client id, in any order and possibly
    // split into several rows (per day and version).
    virtual outcome_t feature_uses(const report_query_t& query, const feature_sink_t& sink) = 0;
    using category_day_sink_t =
        std::function<void(const std::string& day, const std::string& category, std::int64_t hits)>;
    // Hits of since..until per day and category, possibly split into several rows.
    virtual outcome_t category_days(const report_query_t& query, const category_day_sink_t& sink) = 0;
    virtual outcome_t versions(const report_query_t& query, std::vector<version_row_t>& rows) = 0;
    using version_category_sink_t =
        std::function<void(const std::string& version, const std::string& category, const std::string& cid)>;
    // The client ids that used each category with each version over since..until, in any
    // order and possibly more than once.
    virtual outcome_t version_categories(const report_query_t& query, const version_category_sink_t& sink) = 0;
    virtual outcome_t systems(const report_query_t& query, std::vector<system_row_t>& rows) = 0;

    // A store may work out the active report's counts itself, with the same definitions, for
    // each day of since..until; answered stays false when it leaves them to user_days and
    // first_days (the default).
    struct day_counts_t {
        std::int64_t dau = 0, wau = 0, mau = 0, fresh = 0, active = 0;
    };
    virtual outcome_t active_counts(const report_query_t& /*query*/, std::vector<day_counts_t>& /*days*/,
                                    bool& answered)
    {
        answered = false;
        return {};
    }
};

// Opens a read-only source on the store a URI names; nullptr with error set when it cannot.
std::unique_ptr<report_source_t> open_report_source(const std::string& uri, std::string& error);
// The drivers it picks from: a SQLite file (read-only) and clickhouse+http://HOST:PORT[,HOST:PORT...]/DATABASE.
std::unique_ptr<report_source_t> open_sqlite_report_source(const std::string& path, std::string& error);
std::unique_ptr<report_source_t> open_clickhouse_report_source(const std::string& uri, std::string& error);

// Fills in the default range (the 30 days ending today, UTC) and checks the days; an error
// names the bad field.
outcome_t complete_query(report_query_t& query, std::int64_t now_seconds);

// top as given on a command line or in a query: digits only.
bool parse_top(const std::string& text, std::size_t& top);

// Every day of the range, zeros where nobody reported.
outcome_t active_report(report_source_t& source, const report_query_t& query,
                        std::vector<active_day_t>& days);
// Categories by hits (most first), each subtotal followed by its labels by hits.
outcome_t features_report(report_source_t& source, const report_query_t& query,
                          std::vector<feature_row_t>& rows);
// Every week of the range for each category of rows (a features report), in rows' order.
outcome_t weekly_trend(report_source_t& source, const report_query_t& query,
                       const std::vector<feature_row_t>& rows, std::vector<trend_row_t>& trend);
// By day, then version in release order ("2.10" after "2.9").
outcome_t versions_report(report_source_t& source, const report_query_t& query,
                          std::vector<version_row_t>& rows);
// From the versions report's rows; none when nobody reported on the query's last day.
outcome_t newest_version(report_source_t& source, const report_query_t& query,
                         const std::vector<version_row_t>& rows, std::optional<newest_version_t>& newest);
// One cohort per week of the range, oldest first; the query's version is ignored.
outcome_t retention_report(report_source_t& source, const report_query_t& query,
                           std::vector<cohort_t>& cohorts);
// By version in release order, then users (most first), then category.
outcome_t adoption_report(report_source_t& source, const report_query_t& query,
                          std::vector<adoption_row_t>& rows);
// By users, most first.
outcome_t systems_report(report_source_t& source, const report_query_t& query,
                         std::vector<system_row_t>& rows);

// True when a sorts before b as versions: digit runs compare as numbers.
bool version_less(const std::string& a, const std::string& b);

}  // namespace usemeter_collector

#endif
