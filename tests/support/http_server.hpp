// A real HTTP/1.1 server on 127.0.0.1 for tests and benchmarks: keep-alive, Nagle off, answers
// with a status chosen at run time, can hang or drop connections, and records every request.
#ifndef USEMETER_TESTS_HTTP_SERVER_HPP
#define USEMETER_TESTS_HTTP_SERVER_HPP

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace usemeter_test {

// One request as a loopback double received it.
struct http_request_t {
    std::string method;
    // As received: "/collect" at the server, "http://host:port/collect" at the proxy.
    std::string target;
    std::string version;  // "HTTP/1.1"
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    // The first value of a header, name compared case-insensitively; "" when absent.
    std::string header(const std::string& name) const;
    // "POST http://host:port/collect HTTP/1.1"
    std::string request_line() const;
};

// Thread-safe list of received requests, in arrival order.
class request_log_t {
public:
    void add(http_request_t request);
    // The requests kept so far (see keep_details).
    std::vector<http_request_t> all() const;
    // How many requests arrived, kept or not.
    std::size_t size() const;
    // True as soon as at least n requests have arrived; false when timeout passes first.
    bool wait_for(std::size_t n, std::chrono::milliseconds timeout) const;
    // With false, later requests are only counted: long benchmark runs would fill memory.
    void keep_details(bool keep);

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable added_;
    std::vector<http_request_t> requests_;
    std::size_t count_ = 0;
    bool keep_ = true;
    // The counts that waiters wait for: add() wakes them only when the smallest is reached,
    // so that a waiter does not compete with the server for the processor on every request.
    mutable std::multiset<std::size_t> targets_;
};

// A loopback port that nothing listens on (bound once, then closed): connecting is refused.
int unused_loopback_port();

class http_server_t {
public:
    // Listens on 127.0.0.1 at a free port before returning; answers 200 until told otherwise.
    http_server_t();
    // Stops the server (see stop()).
    ~http_server_t();

    http_server_t(const http_server_t&) = delete;
    http_server_t& operator=(const http_server_t&) = delete;

    int port() const { return port_; }
    // "http://127.0.0.1:<port><path>"
    std::string url(const std::string& path = "/collect") const;

    // Answer every following request with this status and an empty body.
    void answer(int status);
    // Hold every following request until delay has passed (then answer with status), the mode
    // is changed (then follow the new mode) or stop() is called.
    void hang(std::chrono::milliseconds delay, int status = 200);
    // Drop the connection of every following request without sending a byte of response.
    void close_without_answer();

    // Requests are recorded on arrival, whatever the mode.
    std::vector<http_request_t> requests() const { return log_.all(); }
    // With false, later requests are only counted (request_count) and not kept.
    void keep_request_details(bool keep) { log_.keep_details(keep); }
    std::size_t request_count() const { return log_.size(); }
    bool wait_for_requests(std::size_t n, std::chrono::milliseconds timeout) const
    {
        return log_.wait_for(n, timeout);
    }

    // Releases hanging requests, closes every connection and joins the server's threads.
    // Idempotent; afterwards the port refuses connections.
    void stop();

private:
    struct impl_t;
    request_log_t log_;
    std::unique_ptr<impl_t> impl_;
    int port_;
};

}  // namespace usemeter_test

#endif
