// A loopback HTTP proxy for tests: clients name it in "http_proxy" and send absolute-form
// requests ("POST http://host:port/collect HTTP/1.1"). It records each request and then answers
// by itself, forwards to a loopback server, hangs or drops the connection. Whatever host a
// request names, the proxy never connects anywhere but 127.0.0.1.
#ifndef USEMETER_TESTS_FAKE_PROXY_HPP
#define USEMETER_TESTS_FAKE_PROXY_HPP

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/http_server.hpp"

namespace usemeter_test {

class fake_proxy_t {
public:
    // Listens on 127.0.0.1 at a free port before returning; answers 200 itself until told
    // otherwise. Connections are kept alive; bodies need a Content-Length.
    fake_proxy_t();
    // Stops the proxy (see stop()).
    ~fake_proxy_t();

    fake_proxy_t(const fake_proxy_t&) = delete;
    fake_proxy_t& operator=(const fake_proxy_t&) = delete;

    int port() const { return port_; }
    // "http://127.0.0.1:<port>", the value for "http_proxy".
    std::string url() const;

    // Answer every following request itself with this status and an empty body.
    void answer(int status);
    // Pass every following request on to 127.0.0.1:<port> in origin form and relay the answer
    // (502 when that port does not answer).
    void forward_to(int port);
    // Hold every following request until delay has passed (then answer with status), the mode
    // is changed (then follow the new mode; a test can thus release held requests at a moment
    // of its choosing) or stop() is called.
    void hang(std::chrono::milliseconds delay, int status = 200);
    // Drop the connection of every following request without answering.
    void close_without_answer();

    // Requests as the proxy received them (absolute-form target), recorded whatever the mode.
    std::vector<http_request_t> requests() const { return log_.all(); }
    std::size_t request_count() const { return log_.size(); }
    bool wait_for_requests(std::size_t n, std::chrono::milliseconds timeout) const
    {
        return log_.wait_for(n, timeout);
    }

    // Releases hanging requests, closes every connection and joins the proxy's threads.
    // Idempotent; afterwards the port refuses connections.
    void stop();

private:
    enum class mode_t { answer, forward, hang, close };
    struct reply_t {
        mode_t mode;
        int status;
        int upstream_port;
        std::chrono::milliseconds delay;
    };

    // The connection to the server that one client connection's requests are forwarded over.
    struct upstream_t {
        int fd = -1;
        int port = 0;
    };

    void set_reply(const reply_t& reply);
    void accept_loop();
    void serve(int client);
    // Relays one request to 127.0.0.1:port over the kept upstream connection (opened on
    // demand); false when the client connection has to end afterwards.
    bool forward(const http_request_t& request, int port, upstream_t& upstream, int client);
    // Registers a socket so that stop() can unblock whoever reads it; false once stopping.
    bool track(int fd);
    void untrack_and_close(int fd);

    request_log_t log_;
    int listener_;
    int port_;
    std::thread acceptor_;

    mutable std::mutex mutex_;  // guards everything below
    std::condition_variable changed_;  // the reply changed or stopping began
    bool stopping_ = false;
    unsigned generation_ = 0;  // counts reply changes, so that held requests notice one
    reply_t reply_{mode_t::answer, 200, 0, std::chrono::milliseconds(0)};
    std::set<int> open_sockets_;
    std::vector<std::thread> connections_;
};

}  // namespace usemeter_test

#endif
