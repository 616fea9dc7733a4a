// The report page, served by the collector (GET /report, its scripts, and the JSON it reads
// under /api/stats/) and written as one self-contained file. Both come from one template.
//
// Access: only a loopback peer that names a loopback host (127.0.0.1, [::1], localhost) reads
// without a token, so neither a same-host reverse proxy nor a rebound DNS name opens the
// reports; every other request needs "Authorization: Bearer TOKEN". The page and its scripts
// are behind the same rule as the data.
#ifndef USEMETER_COLLECTOR_REPORT_PAGE_HPP
#define USEMETER_COLLECTOR_REPORT_PAGE_HPP

#include <memory>
#include <mutex>
#include <string>

#include "collector/ingest/http_server.hpp"
#include "collector/reports/report_format.hpp"
#include "collector/reports/reports.hpp"

namespace usemeter_collector {

// Debian's libjs-chart.js.
extern const char* const chart_js_path;

// 0 when the request may read the reports (and /rejections), else its status: 401 without
// the right token, 403 when there is no token to give.
int report_access_verdict(const http_request_t& request, const std::string& token);

// A script inlined in the page: every "</" becomes "<\/", so no text in it (Chart.js is
// Debian's, of any version) can close the element early.
std::string script_safe(std::string text);

// The first line of a token file; an error when it is missing, unreadable or empty.
outcome_t read_report_token(const std::string& path, std::string& token);

// The self-contained page: Chart.js, the scripts and the four reports of query inlined.
outcome_t write_report_file(report_source_t& source, const report_query_t& query,
                            const std::string& path);

class report_routes_t {
public:
    // store: the URI the collector stores into; read through its own read-only connection.
    report_routes_t(std::string store, std::string token);

    // Adds GET /report, /report/{chart,report}.js, /report/report.css, /api/stats/KIND.
    void mount(http_server_t& server);
    // The routes' one handler (public so that access can be tried without a network).
    void handle(const http_request_t& request, http_response_t& response);

private:
    void serve_stats(const std::string& kind, const http_request_t& request, http_response_t& response);
    report_source_t* source(std::string& error);

    const std::string store_, token_;
    std::mutex mutex_;  // guards opening source_
    std::unique_ptr<report_source_t> source_;
};

}  // namespace usemeter_collector

#endif
