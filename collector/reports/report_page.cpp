#include "collector/reports/report_page.hpp"

#include <fstream>
#include <sstream>

#include <strings.h>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include "collector/reports/report_assets.hpp"

namespace usemeter_collector {

const char* const chart_js_path = "/usr/share/javascript/chart.js/chart.min.js";

namespace {

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

// JSON inside <script>: no <, > or & at all (a label "<!--<script>" would otherwise change how
// the page parses). Outside strings JSON has none of them, so every one is in a string.
std::string json_in_html(const nlohmann::json& data)
{
    const std::string text = data.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    std::string safe;
    for (char c : text)
        safe += c == '<' ? "\\u003c" : c == '>' ? "\\u003e" : c == '&' ? "\\u0026" : std::string(1, c);
    return safe;
}

outcome_t all_reports(report_source_t& source, const report_query_t& query, nlohmann::json& data)
{
    data = {{"scope", {{"product", query.product}, {"version", query.version}}}};
    for (const report_kind_t kind : every_report_kind()) {
        report_t report;
        if (outcome_t made = make_report(source, kind, query, report); !made)
            return made;
        data[report_kind_name(kind)] = report_json(report);
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

// The Host header's name without its port: "127.0.0.1", "[::1]", "localhost".
std::string host_name(const std::string& host)
{
    if (!host.empty() && host[0] == '[')
        return host.substr(0, host.find(']') + 1);
    return host.substr(0, host.find(':'));
}

bool names_loopback(const std::string& host)
{
    const std::string name = host_name(host);
    return name == "127.0.0.1" || name == "[::1]" || ::strcasecmp(name.c_str(), "localhost") == 0;
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

void set_security_headers(http_response_t& response)
{
    response.set_header("Content-Security-Policy", served_policy);
    response.set_header("X-Content-Type-Options", "nosniff");
    response.set_header("Referrer-Policy", "no-referrer");
    response.set_header("Cache-Control", "no-store");
}

void answer_error(http_response_t& response, int status, const std::string& why)
{
    response.status = status;
    response.set_content(nlohmann::json{{"error", why}}.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n",
                         "application/json");
}

}  // namespace

int report_access_verdict(const http_request_t& request, const std::string& token)
{
    if (is_loopback_address(request.remote_addr) && names_loopback(request.header("Host")))
        return 0;
    if (token.empty())
        return 403;
    return same_secret(request.header("Authorization"), "Bearer " + token) ? 0 : 401;
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
                                json_in_html(data) + ";</script>\n<script>" +
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

void report_routes_t::mount(http_server_t& server)
{
    auto handler = [this](const http_request_t& request, http_response_t& response) {
        handle(request, response);
    };
    for (const char* path : {"/report", "/report/chart.js", "/report/report.js", "/report/report.css"})
        server.route({"GET", path, handler});
    server.route({"GET", "/api/stats/", handler, 0, true});
}

void report_routes_t::handle(const http_request_t& request, http_response_t& response)
{
    set_security_headers(response);
    if (const int refused = report_access_verdict(request, token_)) {
        if (refused == 401)
            response.set_header("WWW-Authenticate", "Bearer");
        response.reason = "no_access";
        answer_error(response, refused, refused == 401 ? "the reports need a token from this address"
                                                       : "the reports need a token, and the collector has none");
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

void report_routes_t::serve_stats(const std::string& kind_name, const http_request_t& request,
                                  http_response_t& response)
{
    report_kind_t kind;
    if (!report_kind_named(kind_name, kind))
        return answer_error(response, 404, "no report named " + kind_name);
    report_query_t query{request.param("product"), request.param("version"), request.param("since"),
                         request.param("until")};
    if (request.has_param("top") && !parse_top(request.param("top"), query.top))
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
    response.set_content(report_json(report).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n",
                         "application/json");
}

report_source_t* report_routes_t::source(std::string& error)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (!source_)
        source_ = open_report_source(store_, error);
    return source_.get();
}

std::string script_safe(std::string text)
{
    for (std::size_t at = 0; (at = text.find("</", at)) != std::string::npos; at += 3)
        text.replace(at, 2, "<\\/");
    return text;
}

}  // namespace usemeter_collector
