#include "support/http_server.hpp"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <httplib.h>

namespace usemeter_test {

namespace {

bool same_text_ignoring_case(const std::string& a, const std::string& b)
{
    return a.size() == b.size()
           && std::equal(a.begin(), a.end(), b.begin(), [](unsigned char x, unsigned char y) {
                  return std::tolower(x) == std::tolower(y);
              });
}

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
    std::vector<int> matches;
    while (dirent* entry = ::readdir(dir)) {
        const int fd = std::atoi(entry->d_name);
        if (fd <= 2 || fd == ::dirfd(dir))
            continue;
        const int peer = port_of(fd, true);
        if (port_of(fd, false) == server_port && peer >= 0
            && (remote_port < 0 || peer == remote_port))
            matches.push_back(fd);
    }
    ::closedir(dir);
    // httplib closes the descriptor itself once its read or write fails.
    for (int fd : matches)
        ::shutdown(fd, SHUT_RDWR);
}

}  // namespace

std::string http_request_t::header(const std::string& name) const
{
    for (const auto& h : headers)
        if (same_text_ignoring_case(h.first, name))
            return h.second;
    return std::string();
}

std::string http_request_t::request_line() const
{
    return method + " " + target + " " + version;
}

void request_log_t::add(http_request_t request)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++count_;
        if (keep_)
            requests_.push_back(std::move(request));
        if (targets_.empty() || count_ < *targets_.begin())
            return;
    }
    added_.notify_all();
}

std::vector<http_request_t> request_log_t::all() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

std::size_t request_log_t::size() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
}

void request_log_t::keep_details(bool keep)
{
    std::lock_guard<std::mutex> lock(mutex_);
    keep_ = keep;
}

bool request_log_t::wait_for(std::size_t n, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    const auto target = targets_.insert(n);
    const bool reached = added_.wait_for(lock, timeout, [&] { return count_ >= n; });
    targets_.erase(target);
    return reached;
}

int unused_loopback_port()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0
        || ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (fd >= 0)
            ::close(fd);
        throw std::runtime_error("cannot bind a loopback port");
    }
    // Never listened on, so connections to it are refused once it is closed.
    ::close(fd);
    return ntohs(address.sin_port);
}

struct http_server_t::impl_t {
    httplib::Server server;
    std::thread thread;

    std::mutex mutex;  // guards everything below
    std::condition_variable changed;  // the mode changed or stopping began
    bool stopping = false;
    unsigned generation = 0;  // counts mode changes, so that held requests notice one
    enum class mode_t { answer, hang, close } mode = mode_t::answer;
    int status = 200;
    std::chrono::milliseconds delay{0};

    void set(mode_t new_mode, int new_status, std::chrono::milliseconds new_delay)
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            mode = new_mode;
            status = new_status;
            delay = new_delay;
            ++generation;
        }
        changed.notify_all();
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

    auto handler = [this](const httplib::Request& req, httplib::Response& res) {
        http_request_t request;
        request.method = req.method;
        request.target = req.target;
        request.version = req.version;
        request.headers.assign(req.headers.begin(), req.headers.end());
        request.body = req.body;
        log_.add(std::move(request));

        std::unique_lock<std::mutex> lock(impl_->mutex);
        while (impl_->mode == impl_t::mode_t::hang && !impl_->stopping) {
            const unsigned seen = impl_->generation;
            if (!impl_->changed.wait_for(lock, impl_->delay, [&] {
                    return impl_->stopping || impl_->generation != seen;
                }))
                break;
        }
        res.status = impl_->status;
        if (impl_->mode == impl_t::mode_t::close) {
            lock.unlock();
            shut_down_connections(port_, req.remote_port);
        }
    };
    const std::string any = ".*";
    server.Get(any, handler);
    server.Post(any, handler);
    server.Put(any, handler);
    server.Patch(any, handler);
    server.Delete(any, handler);
    server.Options(any, handler);

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
    impl_->set(impl_t::mode_t::answer, status, std::chrono::milliseconds(0));
}

void http_server_t::hang(std::chrono::milliseconds delay, int status)
{
    impl_->set(impl_t::mode_t::hang, status, delay);
}

void http_server_t::close_without_answer()
{
    impl_->set(impl_t::mode_t::close, 0, std::chrono::milliseconds(0));
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
