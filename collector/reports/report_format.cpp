#include "collector/reports/report_format.hpp"

#include <algorithm>
#include <sstream>

namespace usemeter_collector {

namespace {

using json = nlohmann::json;

struct layout_t {
    report_kind_t kind;
    const char* name;  // the command's and the endpoint's word, and the JSON key but for active
    const char* key;
    std::vector<std::string> columns;
};

const layout_t layouts[] = {
    {report_kind_t::active, "active", "days", {"day", "dau", "wau", "mau", "new", "active_share", "stickiness"}},
    {report_kind_t::features, "features", "features", {"category", "label", "hits", "users"}},
    {report_kind_t::versions, "versions", "versions", {"day", "version", "users"}},
    {report_kind_t::systems, "systems", "systems", {"system", "users"}},
    // In a table or CSV, returning[k] is the column wk.
    {report_kind_t::retention, "retention", "cohorts", {"week", "users"}},
    {report_kind_t::adoption, "adoption", "adoption", {"version", "category", "users", "share"}},
};

const layout_t& layout_of(report_kind_t kind)
{
    return *std::find_if(std::begin(layouts), std::end(layouts),
                         [kind](const layout_t& layout) { return layout.kind == kind; });
}

json rows_json(const report_t& report)
{
    json rows = json::array();
    for (const active_day_t& d : report.days)
        rows.push_back({{"day", d.day}, {"dau", d.dau}, {"wau", d.wau}, {"mau", d.mau},
                        {"new", d.fresh}, {"active_share", d.active_share}, {"stickiness", d.stickiness}});
    for (const feature_row_t& f : report.features)
        rows.push_back({{"category", f.category},
                        {"label", f.label ? json(*f.label) : json(nullptr)},
                        {"hits", f.hits}, {"users", f.users}});
    for (const version_row_t& v : report.versions)
        rows.push_back({{"day", v.day}, {"version", v.version}, {"users", v.users}});
    for (const system_row_t& s : report.systems)
        rows.push_back({{"system", s.system}, {"users", s.users}});
    for (const cohort_t& c : report.cohorts)
        rows.push_back({{"week", c.week}, {"users", c.users}, {"returning", c.returning}});
    for (const adoption_row_t& a : report.adoption)
        rows.push_back({{"version", a.version}, {"category", a.category}, {"users", a.users}, {"share", a.share}});
    return rows;
}

// The cohorts' returning counts as columns w0, w1, ...; the triangle leaves later cells empty.
layout_t spread_returning(layout_t layout, json& rows)
{
    std::size_t widest = 0;
    for (json& row : rows) {
        if (!row.contains("returning"))
            continue;
        const json returning = row["returning"];
        row.erase("returning");
        for (std::size_t k = 0; k < returning.size(); ++k)
            row["w" + std::to_string(k)] = returning[k];
        widest = std::max(widest, returning.size());
    }
    for (std::size_t k = 0; k < widest; ++k)
        layout.columns.push_back("w" + std::to_string(k));
    return layout;
}

// A row's cell of column, or an empty string for a column it lacks.
template <typename format_fn>
std::string cell_text(const json& row, const std::string& column, format_fn format)
{
    return row.contains(column) ? format(row[column]) : std::string();
}

// A null is an empty field, an empty text a quoted one, so the two stay apart.
std::string csv_cell(const json& value)
{
    if (value.is_null())
        return "";
    return value.is_string() ? csv_field(value.get<std::string>(), true) : value.dump();
}

std::string table_cell(const json& value)
{
    if (value.is_null())
        return "(all)";
    return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string csv(const layout_t& layout, const json& rows)
{
    std::ostringstream out;
    for (std::size_t c = 0; c < layout.columns.size(); ++c)
        out << (c ? "," : "") << layout.columns[c];
    out << "\n";
    for (const json& row : rows) {
        for (std::size_t c = 0; c < layout.columns.size(); ++c)
            out << (c ? "," : "") << cell_text(row, layout.columns[c], csv_cell);
        out << "\n";
    }
    return out.str();
}

// Text columns left-aligned, numbers right-aligned, two spaces between columns.
std::string table(const layout_t& layout, const json& rows)
{
    std::vector<std::size_t> widths;
    for (const std::string& column : layout.columns)
        widths.push_back(column.size());
    for (const json& row : rows)
        for (std::size_t c = 0; c < widths.size(); ++c)
            widths[c] = std::max(widths[c], cell_text(row, layout.columns[c], table_cell).size());
    auto line = [&](auto cell_of, auto numeric) {
        std::string text;
        for (std::size_t c = 0; c < widths.size(); ++c) {
            const std::string cell = cell_of(c);
            const std::string pad(widths[c] - cell.size(), ' ');
            text += (c ? "  " : "") + (numeric(c) ? pad + cell : cell + pad);
        }
        text.erase(text.find_last_not_of(' ') + 1);
        return text + "\n";
    };
    const json* first = rows.empty() ? nullptr : &rows.front();
    auto numeric = [&](std::size_t c) { return first && first->contains(layout.columns[c]) &&
                                                (*first)[layout.columns[c]].is_number(); };
    std::string out = line([&](std::size_t c) { return layout.columns[c]; }, numeric);
    for (const json& row : rows)
        out += line([&](std::size_t c) { return cell_text(row, layout.columns[c], table_cell); }, numeric);
    return out;
}

// The table's closing line of the versions report.
std::string newest_line(const std::optional<newest_version_t>& newest)
{
    if (!newest)
        return "";
    return "newest version " + newest->version + " on " + newest->day + ": " + std::to_string(newest->users) +
           " of " + std::to_string(newest->dau) + " users (" + json(newest->share).dump() + ")\n";
}

}  // namespace

bool report_kind_named(const std::string& name, report_kind_t& kind)
{
    for (const layout_t& layout : layouts)
        if (name == layout.name) {
            kind = layout.kind;
            return true;
        }
    return false;
}

const std::vector<report_kind_t>& every_report_kind()
{
    static const std::vector<report_kind_t> kinds = [] {
        std::vector<report_kind_t> all;
        for (const layout_t& layout : layouts)
            all.push_back(layout.kind);
        return all;
    }();
    return kinds;
}

const char* report_kind_name(report_kind_t kind)
{
    return layout_of(kind).name;
}

bool report_format_named(const std::string& name, report_format_t& format)
{
    const std::pair<const char*, report_format_t> formats[] = {
        {"table", report_format_t::table}, {"csv", report_format_t::csv}, {"json", report_format_t::json}};
    for (const auto& known : formats)
        if (name == known.first) {
            format = known.second;
            return true;
        }
    return false;
}

outcome_t make_report(report_source_t& source, report_kind_t kind, const report_query_t& query,
                      report_t& report)
{
    report = report_t{};
    report.kind = kind;
    switch (kind) {
    case report_kind_t::active:
        return active_report(source, query, report.days);
    case report_kind_t::features: {
        const outcome_t made = features_report(source, query, report.features);
        return made ? weekly_trend(source, query, report.features, report.trend) : made;
    }
    case report_kind_t::versions: {
        const outcome_t made = versions_report(source, query, report.versions);
        return made ? newest_version(source, query, report.versions, report.newest) : made;
    }
    case report_kind_t::systems:
        return systems_report(source, query, report.systems);
    case report_kind_t::retention:
        return retention_report(source, query, report.cohorts);
    case report_kind_t::adoption:
        return adoption_report(source, query, report.adoption);
    }
    return outcome_t::failure("unknown report");
}

nlohmann::json report_json(const report_t& report)
{
    json doc = {{layout_of(report.kind).key, rows_json(report)}};
    if (report.kind == report_kind_t::features) {
        doc["trend"] = json::array();
        for (const trend_row_t& t : report.trend)
            doc["trend"].push_back({{"week", t.week}, {"category", t.category}, {"hits", t.hits}});
    }
    if (report.kind == report_kind_t::versions)
        doc["newest"] = report.newest ? json{{"day", report.newest->day}, {"version", report.newest->version},
                                             {"users", report.newest->users}, {"dau", report.newest->dau},
                                             {"share", report.newest->share}}
                                      : json(nullptr);
    return doc;
}

std::string format_report(const report_t& report, report_format_t format)
{
    json rows = rows_json(report);
    const layout_t layout = spread_returning(layout_of(report.kind), rows);
    switch (format) {
    case report_format_t::csv:
        return csv(layout, rows);
    case report_format_t::table:
        return table(layout, rows) + newest_line(report.newest);
    case report_format_t::json:
        break;
    }
    return report_json(report).dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace usemeter_collector
