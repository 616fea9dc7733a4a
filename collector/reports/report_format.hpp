// The reports as people and scripts read them: an aligned table, CSV and JSON. The JSON
// objects are the stable schema of `usemeter stats --format json` and of /api/stats/...
#ifndef USEMETER_COLLECTOR_REPORT_FORMAT_HPP
#define USEMETER_COLLECTOR_REPORT_FORMAT_HPP

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "collector/reports/reports.hpp"

namespace usemeter_collector {

enum class report_kind_t { active, features, versions, systems, retention, adoption };
enum class report_format_t { table, csv, json };

// false for a name that is none of active, features, versions, systems, retention, adoption.
bool report_kind_named(const std::string& name, report_kind_t& kind);
// Every kind, in the order the command lists them, and the word that names each.
const std::vector<report_kind_t>& every_report_kind();
const char* report_kind_name(report_kind_t kind);
bool report_format_named(const std::string& name, report_format_t& format);

// One report's rows; only the vector of its kind is filled.
struct report_t {
    report_kind_t kind = report_kind_t::active;
    std::vector<active_day_t> days;
    std::vector<feature_row_t> features;
    std::vector<trend_row_t> trend;  // features only
    std::vector<version_row_t> versions;
    std::optional<newest_version_t> newest;  // versions only
    std::vector<system_row_t> systems;
    std::vector<cohort_t> cohorts;
    std::vector<adoption_row_t> adoption;
};

outcome_t make_report(report_source_t& source, report_kind_t kind, const report_query_t& query,
                      report_t& report);

nlohmann::json report_json(const report_t& report);
// Each ends with a line break; JSON is one line.
std::string format_report(const report_t& report, report_format_t format);

}  // namespace usemeter_collector

#endif
