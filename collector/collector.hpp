// The collector: receives hits over HTTP, validates them and answers 200 only once every
// valid hit of a request is committed to the store. It also serves host developers and the
// test suite as a loopback endpoint and proxy with fault modes (answer a status, hold,
// reset the connection) and an observer that sees every hit request as it arrived.
//
// Threads: the HTTP layer's (http_server_t: one per connection), one store writer
// (commit_queue_t), one retention timer. mutex_ guards the fault mode and the observer; the
// counters are metrics_t's own. stop() stops accepting, lets requests in progress finish
// (their commits included), closes the remaining connections and joins every thread.
#ifndef USEMETER_COLLECTOR_COLLECTOR_HPP
#define USEMETER_COLLECTOR_COLLECTOR_HPP

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "collector/store/hit.hpp"
#include "collector/ingest/http_server.hpp"
#include "collector/ingest/metrics.hpp"
#include "collector/store/store.hpp"

namespace usemeter_collector {

// One hit request as received.
struct hit_request_t {
    std::string method;
    // "/collect" when addressed directly, "http://host:port/collect" as a proxy.
    std::string target;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    // The first value of a header, name compared case-insensitively; "" when absent.
    std::string header(const std::string& name) const;
};

struct collector_options_t {
    std::string listen = "127.0.0.1:8080";  // "ADDR:PORT", "[::1]:PORT"; port 0: any free port
    std::string store = "sqlite:usemeter-hits.db";
    durability_t durability = durability_t::normal;
    // The ClickHouse store's local spool.
    spool_options_t spool{"usemeter-spool.db"};
    // Fault modes from the start (see the methods of the same names below).
    int answer = 0;    // non-zero: answer every hit request with this status, store nothing
    int hold_ms = 0;   // non-zero: hold every hit request this long before serving it
    bool reset = false;
    // Each hit request decoded on standard output.
    bool print = false;
    // Non-zero: hits received more than this many UTC days before today are deleted at start
    // and then hourly.
    int retention_days = 0;
    // Connections, header deadline, idle time-out; and the access log (off by default).
    http_limits_t limits;
    access_log_t access_log;
    // The first line of --report-token-file: what /rejections needs, as the reports do.
    std::string report_token;
    // Used instead of opening `store` when set (tests give a store that fails on demand).
    std::shared_ptr<store_t> store_instance;
    // Called once before listening, to add routes (the reports mount theirs here).
    std::function<void(http_server_t&)> mount;
};

// True for a numeric "ADDR:PORT" or "[ADDR6]:PORT" that --listen accepts.
bool is_listen_address(const std::string& text);

class collector_t {
public:
    using observer_t = std::function<void(const hit_request_t&)>;

    explicit collector_t(collector_options_t options);
    // Stops (see stop()).
    ~collector_t();

    collector_t(const collector_t&) = delete;
    collector_t& operator=(const collector_t&) = delete;

    // Opens the store, binds and starts serving. After success port() is known.
    outcome_t start();
    // Idempotent; afterwards the port refuses connections and every queued hit is committed.
    void stop();

    int port() const { return port_; }
    // "http://ADDR:PORT", as printed in the listening line and as the value for http_proxy.
    std::string base_url() const;
    std::string url(const std::string& path = "/collect") const { return base_url() + path; }

    // Fault modes for every following hit request; each replaces the previous one.
    // Validate and store (the normal mode).
    void serve_normally();
    // Answer with status, store nothing.
    void answer(int status);
    // Hold each request until delay has passed (then serve it normally), the mode is changed
    // (then follow the new mode) or stop() is called. A zero delay holds until then.
    void hold(std::chrono::milliseconds delay);
    // Close the connection without sending a byte of response.
    void reset_connections();

    // Called for every hit request (POST /collect, POST /batch) before it is judged, on the
    // connection's thread.
    void set_observer(observer_t observer);

    const metrics_t& metrics() const { return metrics_; }
    std::size_t hit_requests() const { return hit_requests_; }
    // True as soon as n hit requests have arrived (whatever the mode); false after timeout.
    bool wait_for_hit_requests(std::size_t n, std::chrono::milliseconds timeout) const;
    // True while the store accepts commits.
    bool healthy() const { return healthy_; }

private:
    enum class mode_t { store, answer, hold, reset };
    struct impl_t;

    outcome_t open_storage();
    void on_commit(const outcome_t& outcome, std::size_t hits, double seconds);
    void start_retention();
    void add_routes();
    void on_post(const http_request_t& req, http_response_t& res);
    void on_rejections(const http_request_t& req, http_response_t& res);
    void on_hit_request(const http_request_t& req, int& status, std::string& reason);
    mode_t wait_out_hold(int& status);
    int ingest(const std::string& path, const std::string& body, std::string& reason);
    static int size_verdict(const std::string& path, const std::string& body);
    int commit(std::vector<hit_t> hits);
    void run_retention();
    void set_mode(mode_t mode, int status, std::chrono::milliseconds delay);

    collector_options_t options_;
    std::unique_ptr<impl_t> impl_;
    metrics_t metrics_;
    int port_ = -1;
    std::atomic<std::size_t> hit_requests_{0};
    std::atomic<bool> healthy_{true};

    std::mutex mutex_;  // guards the mode, the observer and stopping_
    std::condition_variable mode_changed_;
    mode_t mode_ = mode_t::store;
    int answer_status_ = 200;
    std::chrono::milliseconds hold_delay_{0};
    unsigned generation_ = 0;  // counts mode changes, so held requests notice one
    bool stopping_ = false;
    observer_t observer_;
};

}  // namespace usemeter_collector

#endif
