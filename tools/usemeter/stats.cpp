// `stats`: the reports on a store, as a table, CSV or JSON, or the self-contained page
// (`stats --html FILE`). The numbers themselves are defined in collector/reports.
#include <ctime>
#include <iostream>
#include <string>
#include <vector>

#include "collector/reports/report_format.hpp"
#include "collector/reports/report_page.hpp"
#include "common.hpp"

namespace usemeter_tool {

namespace {

namespace uc = usemeter_collector;

// "active|features|..." from the reports' own list.
std::string report_names(const char* separator)
{
    std::vector<std::string> names;
    for (uc::report_kind_t kind : uc::every_report_kind())
        names.push_back(uc::report_kind_name(kind));
    return join(names, separator);
}

std::string usage()
{
    return "usemeter stats " + report_names("|") + " --store URI [--product P] [--version V]\n"
           "       [--since DAY] [--until DAY] [--top N] [--format table|csv|json]\n"
           "   or: usemeter stats --html FILE --store URI [--product P] [--version V] [--since DAY] [--until DAY]";
}

struct stats_options_t {
    std::string store = "sqlite:usemeter-hits.db", format = "table", html, top;
    uc::report_query_t query;
};

// Exactly one report name, or --html and none.
uc::report_kind_t kind_of(const po::variables_map& values, const stats_options_t& options)
{
    const auto names = values.count("args") ? values["args"].as<std::vector<std::string>>()
                                            : std::vector<std::string>();
    uc::report_kind_t kind = uc::report_kind_t::active;
    if (!options.html.empty() && names.empty())
        return kind;
    if (names.size() != 1 || !options.html.empty())
        throw usage_error("name one report (" + report_names(", ") + ") or give --html FILE");
    if (!uc::report_kind_named(names.front(), kind))
        throw usage_error("no report named '" + names.front() + "' (" + report_names(", ") + ")");
    return kind;
}

std::unique_ptr<uc::report_source_t> open_source(const std::string& uri)
{
    std::string error;
    auto source = uc::open_report_source(uri, error);
    if (!source)
        throw command_error(error);
    return source;
}

}  // namespace

int run_stats(int argc, char** argv)
{
    stats_options_t config;
    po::options_description options("stats options");
    options.add_options()
        ("store", po::value(&config.store)->default_value(config.store), "store URI: sqlite:PATH")
        ("product", po::value(&config.query.product), "count only this product (default: all)")
        ("version", po::value(&config.query.version), "count only this product version")
        ("since", po::value(&config.query.since), "first day YYYY-MM-DD (UTC; default: 29 days before --until)")
        ("until", po::value(&config.query.until), "last day YYYY-MM-DD (UTC; default: today)")
        ("top", po::value(&config.top), "features: only the N categories with the most hits")
        ("format", po::value(&config.format)->default_value(config.format), "table, csv or json")
        ("html", po::value(&config.html), "write the report page, self-contained, to FILE");
    po::variables_map values;
    if (!parse_command_line(argc, argv, usage(), options, values, true))
        return exit_ok;
    const uc::report_kind_t kind = kind_of(values, config);
    uc::report_format_t format;
    if (!uc::report_format_named(config.format, format))
        throw usage_error("--format must be table, csv or json, not '" + config.format + "'");
    if (!config.top.empty() && !uc::parse_top(config.top, config.query.top))
        throw usage_error("--top must be a whole number, not '" + config.top + "'");
    if (const uc::outcome_t complete = uc::complete_query(config.query, std::time(nullptr)); !complete)
        throw usage_error("--" + complete.error);

    auto source = open_source(config.store);
    if (!config.html.empty()) {
        if (const uc::outcome_t written = uc::write_report_file(*source, config.query, config.html); !written)
            throw command_error(written.error);
        std::cout << "report written to " << config.html << "\n";
        return exit_ok;
    }
    uc::report_t report;
    if (const uc::outcome_t made = uc::make_report(*source, kind, config.query, report); !made)
        throw command_error(made.error);
    std::cout << uc::format_report(report, format);
    return exit_ok;
}

}  // namespace usemeter_tool
