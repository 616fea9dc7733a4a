#include "report_page.hpp"

#include <fstream>
#include <sstream>

#include <httplib.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include "report_assets.hpp"

namespace usemeter_collector {

const char* const chart_js_path = "/usr/share/javascript/chart.js/chart.min.js";

namespace {

const report_kind_t every_kind[] = {report_kind_t::active,   report_kind_t::features,
                                    report_kind_t::versions, report_kind_t::systems,
                                    report_kind_t::retention, report_kind_t::adoption};
const char* const every_kind_name[] = {"active", "features", "versions", "systems", "retention", "adoption"};

// Served: only the collector's own files may run, style or be fetched.
const char* const served_policy =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
    "img-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
// The file: its inline scripts and style, and nothing from any network.
const char* const file_policy =
    "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
    "script-src 'unsafe-inline'; style-src 'unsafe-inline'\">";

log4cplus::Logger logger()
{
    return log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("usemeter.collector.reports"));
}

bool read_file(const std::string& path, std::string& content)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    content = text.str();
    return in.good() || in.eof() ? !content.empty() : false;
}

std::string fill_in(std::string page, const std::string& placeholder, const std::string& value)
{
    const std::size_t at = page.find(placeholder);
    return at == std::string::npos ? page : page.replace(at, placeholder.size(), value);
}

std::string page(const std::string& policy, const std::string& style, const std::string& scripts)
{
    return fill_in(fill_in(fill_in(report_template, "@POLICY@", policy), "@STYLE@", style), "@SCRIPTS@",
                scripts);
}

// Text inside <script> must not close the element early.
std::string script_safe(std::string text)
{
    for (std::size_t at = 0; (at = text.find("</", at)) != std::string::npos; at += 3)
        text.replace(at, 2, "<\\/");
    return text;
}

outcome_t all_reports(report_source_t& source, const report_query_t& query, nlohmann::json& data)
{
    data = {{"scope", {{"product", query.product}, {"version", query.version}}}};
    for (std::size_t i = 0; i < std::size(every_kind); ++i) {
        report_t report;
        if (outcome_t made = make_report(source, every_kind[i], query, report); !made)
            return made;
        data[every_kind_name[i]] = report_json(report);
    }
    // The headline figures' comparison: the range of the same length just before.
    report_query_t previous = query;
    const std::int64_t since = day_number(query.since), length = day_number(query.until) - since + 1;
    previous.since = day_text(since - length);
    previous.until = day_text(since - 1);
    report_t report;
    if (outcome_t made = make_report(source, report_kind_t::active, previous, report); !made)
        return made;
    data["previous"] = report_json(report);
    return {};
}

bool is_loopback(const std::string& address)
{
    return address.compare(0, 4, "127.") == 0 || address == "::1" ||
           address.compare(0, 11, "::ffff:127.") == 0;
}

// Every byte compared, so the time taken tells nothing about the token.
bool same_secret(const std::string& given, const std::string& expected)
{
    if (given.size() != expected.size())
        return false;
    unsigned char difference = 0;
    for (std::size_t i = 0; i < given.size(); ++i)
        difference |= static_cast<unsigned char>(given[i] ^ expected[i]);
    return difference == 0;
}

void set_security_headers(httplib::Response& response)
{
    response.set_header("Content-Security-Policy", served_policy);
    response.set_header("X-Content-Type-Options", "nosniff");
    response.set_header("Referrer-Policy", "no-referrer");
    response.set_header("Cache-Control", "no-store");
}

void answer_error(httplib::Response& response, int status, const std::string& why)
{
    response.status = status;
    response.set_content(nlohmann::json{{"error", why}}.dump() + "\n", "application/json");
}

}  // namespace

bool report_access_allowed(const std::string& remote_addr, const std::string& authorization,
                           const std::string& token)
{
    if (is_loopback(remote_addr))
        return true;
    return !token.empty() && same_secret(authorization, "Bearer " + token);
}

outcome_t read_report_token(const std::string& path, std::string& token)
{
    std::ifstream in(path);
    if (!in || !std::getline(in, token))
        return outcome_t::failure("cannot read the report token from " + path);
    if (!token.empty() && token.back() == '\r')
        token.pop_back();
    if (token.empty())
        return outcome_t::failure("the first line of " + path + " is empty; it must hold the token");
    return {};
}

outcome_t write_report_file(report_source_t& source, const report_query_t& query,
                            const std::string& path)
{
    std::string chart;
    if (!read_file(chart_js_path, chart))
        return outcome_t::failure(std::string("cannot read Chart.js at ") + chart_js_path +
                                  " (package libjs-chart.js)");
    nlohmann::json data;
    if (outcome_t made = all_reports(source, query, data); !made)
        return made;
    const std::string scripts = "<script>" + script_safe(chart) + "</script>\n<script>window.usemeterReport = " +
                                script_safe(data.dump()) + ";</script>\n<script>" +
                                script_safe(report_script) + "</script>";
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << page(file_policy, std::string("<style>") + report_style + "</style>", scripts);
    out.close();
    if (!out)
        return outcome_t::failure("cannot write " + path);
    return {};
}

report_routes_t::report_routes_t(std::string store, std::string token)
    : store_(std::move(store)), token_(std::move(token))
{
}

void report_routes_t::mount(httplib::Server& server)
{
    auto handler = [this](const httplib::Request& request, httplib::Response& response) {
        handle(request, response);
    };
    server.Get("/report", handler);
    server.Get("/report/(chart\\.js|report\\.js|report\\.css)", handler);
    server.Get("/api/stats/([a-z]+)", handler);
}

void report_routes_t::handle(const httplib::Request& request, httplib::Response& response)
{
    set_security_headers(response);
    if (!report_access_allowed(request.remote_addr, request.get_header_value("Authorization"),
                               token_)) {
        response.set_header("WWW-Authenticate", "Bearer");
        answer_error(response, 401, "the reports need a token from this address");
        return;
    }
    response.status = 200;
    const std::string& path = request.path;
    const std::string stats = "/api/stats/";
    if (path.compare(0, stats.size(), stats) == 0)
        return serve_stats(path.substr(stats.size()), request, response);
    if (path == "/report")
        return response.set_content(
            page("", "<link rel=\"stylesheet\" href=\"/report/report.css\">",
                 "<script src=\"/report/chart.js\"></script>\n<script src=\"/report/report.js\"></script>"),
            "text/html; charset=utf-8");
    if (path == "/report/report.css")
        return response.set_content(report_style, "text/css");
    if (path == "/report/report.js")
        return response.set_content(report_script, "application/javascript");
    std::string chart;
    if (!read_file(chart_js_path, chart)) {
        LOG4CPLUS_ERROR(logger(), "cannot read Chart.js at " << chart_js_path);
        return answer_error(response, 503, "Chart.js is not installed");
    }
    response.set_content(chart, "application/javascript");
}

void report_routes_t::serve_stats(const std::string& kind_name, const httplib::Request& request,
                                  httplib::Response& response)
{
    report_kind_t kind;
    if (!report_kind_named(kind_name, kind))
        return answer_error(response, 404, "no report named " + kind_name);
    report_query_t query{request.get_param_value("product"), request.get_param_value("version"),
                         request.get_param_value("since"), request.get_param_value("until")};
    if (request.has_param("top") && !parse_top(request.get_param_value("top"), query.top))
        return answer_error(response, 400, "top must be a whole number");
    if (outcome_t complete = complete_query(query, std::time(nullptr)); !complete)
        return answer_error(response, 400, complete.error);
    std::string error;
    report_source_t* reports = source(error);
    report_t report;
    outcome_t made = reports ? make_report(*reports, kind, query, report) : outcome_t::failure(error);
    if (!made) {
        LOG4CPLUS_ERROR(logger(), "report " << kind_name << ": " << made.error);
        return answer_error(response, 503, made.error);
    }
    response.set_content(report_json(report).dump() + "\n", "application/json");
}

report_source_t* report_routes_t::source(std::string& error)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (!source_)
        source_ = open_report_source(store_, error);
    return source_.get();
}

}  // namespace usemeter_collector
