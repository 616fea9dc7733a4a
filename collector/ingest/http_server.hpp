// The collector's HTTP layer, on libmicrohttpd: a daemon made for exposed servers. It bounds
// what a sender can make it hold (connections in all and per address, a fixed memory pool per
// connection that holds the request line and headers, bodies read only as far as the route's
// limit whatever their framing), answers pipelined requests in order and has no Range support.
// On top of it this class drops a connection whose headers are not complete header_seconds
// after it began waiting for them, counts header lines and bytes, refuses encoded bodies and
// writes the access log.
//
// Threads: one polling thread accepts, each connection has a thread of its own (handlers may
// wait for a commit or a fault mode without holding anyone else up), one sweeper enforces the
// header deadline. mutex_ guards connections_; the access log has a mutex of its own.
#ifndef USEMETER_COLLECTOR_HTTP_SERVER_HPP
#define USEMETER_COLLECTOR_HTTP_SERVER_HPP

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "collector/store/hit.hpp"

struct MHD_Connection;
struct MHD_Daemon;

namespace usemeter_collector {

using header_list_t = std::vector<std::pair<std::string, std::string>>;

struct http_request_t {
    std::string method;
    std::string target;  // as received: "/collect?x", or "http://host/collect" to a proxy
    std::string path;    // decoded, without the query; of an absolute target its path
    std::string remote_addr;
    header_list_t headers;
    header_list_t params;  // the query's, decoded
    std::string body;

    // First value, name compared case-insensitively; "" when absent.
    std::string header(const std::string& name) const;
    std::string param(const std::string& name) const;
    bool has_param(const std::string& name) const;
};

struct http_response_t {
    int status = 200;
    header_list_t headers;
    std::string body;
    std::string reason;  // why a request was refused, for the access log
    bool drop = false;   // close the connection without answering

    void set_header(const std::string& name, const std::string& value);
    void set_content(std::string content, const std::string& type);
    std::string header(const std::string& name) const;
};

using http_handler_t = std::function<void(const http_request_t&, http_response_t&)>;

struct http_limits_t {
    std::size_t max_connections = 512;
    std::size_t max_connections_per_address = 64;  // 0: no limit
    std::size_t header_lines = 100;
    std::size_t header_bytes = 16384;
    int header_seconds = 10;
    int idle_seconds = 5;  // a connection silent this long is closed
};

// Where the access log goes: one line per request; the client address only when asked.
struct access_log_t {
    std::string path;  // "" for none
    bool addresses = false;
};

class http_server_t {
public:
    http_server_t(http_limits_t limits, access_log_t log);
    ~http_server_t();

    http_server_t(const http_server_t&) = delete;
    http_server_t& operator=(const http_server_t&) = delete;

    // Routes are matched on the path (or a path prefix); body_limit: bytes of body read at
    // most, past which the answer is 413. Only proxied routes take an absolute target.
    struct route_t {
        std::string method, path;
        http_handler_t handler;
        std::size_t body_limit = 0;
        bool prefix = false;
        bool proxied = false;
    };
    void route(route_t route);

    // Binds the numeric host and port (0: any) and starts serving.
    outcome_t listen(const std::string& host, int port, bool v6);
    int port() const { return port_; }
    // Stops accepting, lets handlers in progress finish, closes every connection. Idempotent.
    void stop();

    struct connection_t;
    struct request_t;

private:
    friend struct callbacks_t;  // libmicrohttpd's entry points

    outcome_t bind_socket(const std::string& host, int port, bool v6);
    bool start_daemon(bool v6);

    int begin(MHD_Connection* connection, request_t& request, const char* url, const char* method);
    int receive(request_t& request, const char* data, std::size_t* size);
    int answer(MHD_Connection* connection, request_t& request, http_response_t response);
    int refuse(MHD_Connection* connection, request_t& request, int status, const char* reason);
    int refuse_mid_body(request_t& request);
    void request_done(MHD_Connection* connection, request_t* request, bool failed);
    const route_t* find_route(const http_request_t& request, bool& path_known) const;
    void sweep();
    void write_access(const std::string& address, const std::string& status, std::size_t bytes,
                      const std::string& path, const std::string& reason);

    const http_limits_t limits_;
    const access_log_t log_;
    std::vector<route_t> routes_;
    MHD_Daemon* daemon_ = nullptr;
    int listen_fd_ = -1;
    int port_ = -1;
    std::atomic<int> in_flight_{0};

    std::mutex mutex_;  // guards connections_ and stopping_
    std::condition_variable sweep_wake_;
    std::set<connection_t*> connections_;
    bool stopping_ = false;
    std::thread sweeper_;

    std::mutex log_mutex_;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> log_file_{nullptr, &std::fclose};
};

// True for 127.0.0.0/8, ::1 and their IPv4-mapped forms.
bool is_loopback_address(const std::string& address);

}  // namespace usemeter_collector

#endif
