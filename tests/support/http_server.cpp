#include "support/http_server.hpp"

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>

#include <httplib.h>

namespace usemeter_test {

namespace {

int port_of(int fd, bool peer)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    int rc = peer ? ::getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length)
                  : ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    if (rc != 0 || address.sin_family != AF_INET)
        return -1;
    return ntohs(address.sin_port);
}

// httplib hands a handler no access to its connection. The accepted socket is found instead by
// its two loopback endpoints; remote_port < 0 selects every accepted socket of the server.
// The client side of the same connection (when the client lives in this process) has the ports
// the other way round and is left alone.
void shut_down_connections(int server_port, int remote_port)
{
    DIR* dir = ::opendir("/proc/self/fd");
    if (!dir)
        return;
    // httplib closes the descriptor itself once its read or write fails.
    while (dirent* entry = ::readdir(dir)) {
        const int fd = std::atoi(entry->d_name);
        const int peer = fd > 2 ? port_of(fd, true) : -1;
        if (peer >= 0 && port_of(fd, false) == server_port && (remote_port < 0 || peer == remote_port))
            ::shutdown(fd, SHUT_RDWR);
    }
    ::closedir(dir);
}

// Origin form of an absolute-form target: "http://host:port/path?q" -> "/path?q".
std::string origin_form(const std::string& target)
{
    const std::size_t scheme = target.find("://");
    if (scheme == std::string::npos)
        return target;
    const std::size_t path = target.find('/', scheme + 3);
    return path == std::string::npos ? "/" : target.substr(path);
}

}  // namespace

std::string http_request_t::header(const std::string& name) const
{
    for (const auto& h : headers)
        if (::strcasecmp(h.first.c_str(), name.c_str()) == 0)
            return h.second;
    return std::string();
}

struct http_server_t::impl_t {
    httplib::Server server;
    std::thread thread;

    std::mutex mutex;  // guards everything below
    std::condition_variable arrived;  // a count that a waiter waits for was reached
    std::condition_variable changed;  // the mode changed or stopping began
    std::vector<http_request_t> requests;
    std::size_t count = 0;
    bool keep = true;
    // The counts that waiters wait for: a request wakes them only when the smallest is reached,
    // so that a waiter does not compete with the server for the processor on every request.
    std::multiset<std::size_t> awaited;
    bool stopping = false;
    unsigned generation = 0;  // counts mode changes, so that held requests notice one
    enum class mode_t { answer, hang, close, forward } mode = mode_t::answer;
    int value = 200;  // the status to answer with, or the port to forward to
    std::chrono::milliseconds delay{0};

    void set(mode_t new_mode, int new_value, std::chrono::milliseconds new_delay = {})
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            mode = new_mode;
            value = new_value;
            delay = new_delay;
            ++generation;
        }
        changed.notify_all();
    }

    void handle(const httplib::Request& req, httplib::Response& res, int port)
    {
        std::unique_lock<std::mutex> lock(mutex);
        ++count;
        if (keep)
            requests.push_back({req.method, req.target, {req.headers.begin(), req.headers.end()},
                                req.body});
        if (!awaited.empty() && count >= *awaited.begin())
            arrived.notify_all();
        while (mode == mode_t::hang && !stopping) {
            const unsigned seen = generation;
            if (!changed.wait_for(lock, delay, [&] { return stopping || generation != seen; }))
                break;
        }
        const mode_t now = mode;
        const int now_value = value;
        lock.unlock();

        res.status = now_value;
        if (now == mode_t::close) {
            shut_down_connections(port, req.remote_port);
        } else if (now == mode_t::forward) {
            httplib::Client upstream("127.0.0.1", now_value);
            const auto answer = upstream.Post(origin_form(req.target).c_str(), req.body,
                                              req.get_header_value("Content-Type").c_str());
            res.status = answer ? answer->status : 502;
        }
    }
};

http_server_t::http_server_t() : impl_(new impl_t), port_(-1)
{
    httplib::Server& server = impl_->server;
    // Without these, each request on a kept-alive connection waits for a delayed ACK and the
    // connection is closed every few requests.
    server.set_tcp_nodelay(true);
    server.set_keep_alive_max_count(1000000);
    // Idle kept-alive connections end this soon after a client stops sending.
    server.set_keep_alive_timeout(1);
    // Every kept-alive or hanging connection holds one pool thread.
    server.new_task_queue = [] { return new httplib::ThreadPool(32); };
    // ".*" also matches absolute-form targets, so the server can stand in for a proxy.
    server.Post(".*", [this](const httplib::Request& req, httplib::Response& res) {
        impl_->handle(req, res, port_);
    });

    port_ = server.bind_to_any_port("127.0.0.1");
    if (port_ <= 0)
        throw std::runtime_error("cannot bind the loopback HTTP server");
    impl_->thread = std::thread([this] { impl_->server.listen_after_bind(); });
    // stop() does nothing to a server that has not begun listening yet.
    while (!server.is_running())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

http_server_t::~http_server_t()
{
    stop();
}

std::string http_server_t::url(const std::string& path) const
{
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

void http_server_t::answer(int status)
{
    impl_->set(impl_t::mode_t::answer, status);
}

void http_server_t::hang(std::chrono::milliseconds delay, int status)
{
    impl_->set(impl_t::mode_t::hang, status, delay);
}

void http_server_t::close_without_answer()
{
    impl_->set(impl_t::mode_t::close, 500);
}

void http_server_t::forward_to(int port)
{
    impl_->set(impl_t::mode_t::forward, port);
}

std::vector<http_request_t> http_server_t::requests() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->requests;
}

void http_server_t::keep_request_details(bool keep)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->keep = keep;
}

std::size_t http_server_t::request_count() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->count;
}

bool http_server_t::wait_for_requests(std::size_t n, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(impl_->mutex);
    const auto entry = impl_->awaited.insert(n);
    const bool reached =
        impl_->arrived.wait_for(lock, timeout, [&] { return impl_->count >= n; });
    impl_->awaited.erase(entry);
    return reached;
}

void http_server_t::stop()
{
    if (!impl_->thread.joinable())
        return;
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        impl_->stopping = true;
    }
    impl_->changed.notify_all();
    impl_->server.stop();
    // The pool threads serve kept-alive connections until these close.
    shut_down_connections(port_, -1);
    impl_->thread.join();
}

}  // namespace usemeter_test
