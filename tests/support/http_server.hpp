// A real HTTP/1.1 server on 127.0.0.1 for tests and benchmarks: keep-alive, Nagle off, answers
// POSTs with a status chosen at run time, can hang, drop connections or forward, and records
// every request. It also serves as the proxy named by "http_proxy": it takes absolute-form
// requests ("POST http://host/collect HTTP/1.1") and answers them itself.
#ifndef USEMETER_TESTS_HTTP_SERVER_HPP
#define USEMETER_TESTS_HTTP_SERVER_HPP

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace usemeter_test {

// One request as the server received it.
struct http_request_t {
    std::string method;
    // As received: "/collect" when addressed directly, "http://host:port/collect" as a proxy.
    std::string target;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    // The first value of a header, name compared case-insensitively; "" when absent.
    std::string header(const std::string& name) const;
};

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
    // "http://127.0.0.1:<port>", the value for "http_proxy".
    std::string proxy_url() const { return url(""); }

    // Answer every following request with this status and an empty body.
    void answer(int status);
    // Hold every following request until delay has passed (then answer with status), the mode
    // is changed (then follow the new mode) or stop() is called.
    void hang(std::chrono::milliseconds delay, int status = 200);
    // Drop the connection of every following request without sending a byte of response.
    void close_without_answer();
    // Pass every following request on to 127.0.0.1:<port> in origin form and relay the status
    // (502 when nothing answers there). Whatever host a request names, only loopback is reached.
    void forward_to(int port);

    // Requests are recorded on arrival, whatever the mode.
    std::vector<http_request_t> requests() const;
    // With false, later requests are only counted (request_count) and not kept: long benchmark
    // runs would fill memory.
    void keep_request_details(bool keep);
    std::size_t request_count() const;
    // True as soon as at least n requests have arrived; false when timeout passes first.
    bool wait_for_requests(std::size_t n, std::chrono::milliseconds timeout) const;

    // Releases hanging requests, closes every connection and joins the server's threads.
    // Idempotent; afterwards the port refuses connections.
    void stop();

private:
    struct impl_t;
    std::unique_ptr<impl_t> impl_;
    int port_;
};

}  // namespace usemeter_test

#endif
