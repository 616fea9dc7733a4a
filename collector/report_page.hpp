// The report page, served by the collector (GET /report, its scripts, and the JSON it reads
// under /api/stats/) and written as one self-contained file. Both come from one template.
//
// Access: over loopback anyone may read; from any other address every report route needs
// "Authorization: Bearer TOKEN". The page and its scripts are behind the same rule as the
// data, so a remote reader comes through a proxy that adds the header, or a tunnel.
#ifndef USEMETER_COLLECTOR_REPORT_PAGE_HPP
#define USEMETER_COLLECTOR_REPORT_PAGE_HPP

#include <memory>
#include <mutex>
#include <string>

#include "report_format.hpp"
#include "reports.hpp"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace usemeter_collector {

// Debian's libjs-chart.js.
extern const char* const chart_js_path;

// True when a request from remote_addr with this Authorization header may read the reports.
// An empty token admits only loopback.
bool report_access_allowed(const std::string& remote_addr, const std::string& authorization,
                           const std::string& token);

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
    void mount(httplib::Server& server);
    // The routes' one handler (public so that access can be tried without a network).
    void handle(const httplib::Request& request, httplib::Response& response);

private:
    void serve_stats(const std::string& kind, const httplib::Request& request,
                     httplib::Response& response);
    report_source_t* source(std::string& error);

    const std::string store_, token_;
    std::mutex mutex_;  // guards opening source_
    std::unique_ptr<report_source_t> source_;
};

}  // namespace usemeter_collector

#endif
