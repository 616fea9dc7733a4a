#include "support/fake_proxy.hpp"

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace usemeter_test {

namespace {

using headers_t = std::vector<std::pair<std::string, std::string>>;

const std::size_t max_head_size = 64 * 1024;

bool send_all(int fd, const std::string& data)
{
    std::size_t sent = 0;
    while (sent < data.size()) {
        // MSG_NOSIGNAL: a peer that went away must not kill the test with SIGPIPE.
        const ssize_t n = ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

// Appends whatever arrives; false on end of stream or error.
bool receive_more(int fd, std::string& buffer)
{
    char chunk[16 * 1024];
    for (;;) {
        const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        buffer.append(chunk, static_cast<std::size_t>(n));
        return true;
    }
}

// Reads until buffer holds a complete head; returns its length including the blank line, or 0.
std::size_t receive_head(int fd, std::string& buffer)
{
    for (;;) {
        const std::size_t end = buffer.find("\r\n\r\n");
        if (end != std::string::npos)
            return end + 4;
        if (buffer.size() > max_head_size || !receive_more(fd, buffer))
            return 0;
    }
}

bool receive_at_least(int fd, std::string& buffer, std::size_t size)
{
    while (buffer.size() < size)
        if (!receive_more(fd, buffer))
            return false;
    return true;
}

// Splits "start line\r\nName: value\r\n...\r\n\r\n".
std::string parse_head(const std::string& head, headers_t& headers)
{
    std::size_t line_end = head.find("\r\n");
    const std::string start_line = head.substr(0, line_end);
    for (std::size_t pos = line_end + 2; pos < head.size(); pos = line_end + 2) {
        line_end = head.find("\r\n", pos);
        if (line_end == std::string::npos || line_end == pos)
            break;
        const std::string line = head.substr(pos, line_end - pos);
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos)
            continue;
        const std::size_t value = line.find_first_not_of(" \t", colon + 1);
        headers.emplace_back(line.substr(0, colon),
                             value == std::string::npos ? std::string() : line.substr(value));
    }
    return start_line;
}

std::size_t content_length(const http_request_t& message)
{
    const std::string value = message.header("Content-Length");
    return value.empty() ? 0 : std::strtoul(value.c_str(), nullptr, 10);
}

bool equals_ignoring_case(std::string text, const char* expected)
{
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text == expected;
}

// Takes one request off the connection; pending keeps bytes that arrived beyond it.
bool receive_request(int fd, std::string& pending, http_request_t& request)
{
    const std::size_t head_size = receive_head(fd, pending);
    if (head_size == 0)
        return false;
    const std::string start_line = parse_head(pending.substr(0, head_size), request.headers);
    pending.erase(0, head_size);
    const std::size_t first = start_line.find(' ');
    const std::size_t second = start_line.find(' ', first + 1);
    if (first == std::string::npos || second == std::string::npos)
        return false;
    request.method = start_line.substr(0, first);
    request.target = start_line.substr(first + 1, second - first - 1);
    request.version = start_line.substr(second + 1);

    const std::size_t length = content_length(request);
    // libcurl sends large bodies only after this go-ahead.
    if (pending.size() < length && equals_ignoring_case(request.header("Expect"), "100-continue")
        && !send_all(fd, "HTTP/1.1 100 Continue\r\n\r\n"))
        return false;
    if (!receive_at_least(fd, pending, length))
        return false;
    request.body = pending.substr(0, length);
    pending.erase(0, length);
    return true;
}

bool wants_keep_alive(const http_request_t& request)
{
    if (request.version == "HTTP/1.0")
        return false;
    return !equals_ignoring_case(request.header("Connection"), "close")
           && !equals_ignoring_case(request.header("Proxy-Connection"), "close");
}

const char* reason_phrase(int status)
{
    switch (status) {
    case 200: return "OK";
    case 204: return "No Content";
    case 400: return "Bad Request";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 407: return "Proxy Authentication Required";
    case 500: return "Internal Server Error";
    case 502: return "Bad Gateway";
    case 503: return "Service Unavailable";
    case 504: return "Gateway Timeout";
    default: return "Status";
    }
}

bool has_no_body(int status)
{
    return (status >= 100 && status < 200) || status == 204 || status == 304;
}

std::string status_response(int status, bool keep_alive)
{
    std::string response =
        "HTTP/1.1 " + std::to_string(status) + " " + reason_phrase(status) + "\r\n";
    if (!has_no_body(status))
        response += "Content-Length: 0\r\n";
    if (!keep_alive)
        response += "Connection: close\r\n";
    return response + "\r\n";
}

// "http://host:port/path?query" -> "/path?query"; other forms pass unchanged.
std::string origin_form(const std::string& target)
{
    const std::size_t scheme = target.find("://");
    if (scheme == std::string::npos)
        return target;
    const std::size_t path = target.find('/', scheme + 3);
    return path == std::string::npos ? "/" : target.substr(path);
}

std::string upstream_request(const http_request_t& request)
{
    std::string text = request.method + " " + origin_form(request.target) + " " + request.version
                       + "\r\n";
    for (const auto& h : request.headers) {
        // The body is already here, so no go-ahead is needed from upstream.
        if (equals_ignoring_case(h.first, "proxy-connection")
            || equals_ignoring_case(h.first, "proxy-authorization")
            || equals_ignoring_case(h.first, "expect"))
            continue;
        text += h.first + ": " + h.second + "\r\n";
    }
    return text + "\r\n" + request.body;
}

int connect_loopback(int port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

// A kept connection that the server has closed while idle shows up as readable (EOF).
bool still_open(int fd)
{
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 0) == 0;
}

enum class relay_t { keep_both, close_upstream, close_both };

// Sends one request upstream and copies the whole response to the client.
relay_t relay(const std::string& request, bool head_request, int upstream, int client)
{
    std::string buffer;
    if (!send_all(upstream, request))
        return relay_t::close_both;
    for (;;) {
        const std::size_t head_size = receive_head(upstream, buffer);
        if (head_size == 0)
            return relay_t::close_both;  // the client gets no answer either
        http_request_t response;  // only the headers are used
        const std::string status_line = parse_head(buffer.substr(0, head_size), response.headers);
        const int status = status_line.size() > 9 ? std::atoi(status_line.c_str() + 9) : 0;
        if (status >= 100 && status < 200) {  // interim answer: wait for the real one
            buffer.erase(0, head_size);
            continue;
        }
        relay_t result = equals_ignoring_case(response.header("Connection"), "close")
                             ? relay_t::close_upstream
                             : relay_t::keep_both;
        if (head_request || has_no_body(status)) {
            buffer.resize(head_size);
        } else if (!response.header("Content-Length").empty()) {
            const std::size_t total = head_size + content_length(response);
            if (!receive_at_least(upstream, buffer, total))
                return relay_t::close_both;
            buffer.resize(total);
        } else {
            // Delimited by the end of the connection, so the client's must end too.
            while (receive_more(upstream, buffer)) {
            }
            result = relay_t::close_both;
        }
        return send_all(client, buffer) ? result : relay_t::close_both;
    }
}

}  // namespace

fake_proxy_t::fake_proxy_t()
{
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_ < 0
        || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0
        || ::listen(listener_, 64) != 0
        || ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (listener_ >= 0)
            ::close(listener_);
        throw std::runtime_error("cannot listen for the loopback proxy");
    }
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread(&fake_proxy_t::accept_loop, this);
}

fake_proxy_t::~fake_proxy_t()
{
    stop();
}

std::string fake_proxy_t::url() const
{
    return "http://127.0.0.1:" + std::to_string(port_);
}

void fake_proxy_t::answer(int status)
{
    set_reply(reply_t{mode_t::answer, status, 0, std::chrono::milliseconds(0)});
}

void fake_proxy_t::forward_to(int port)
{
    set_reply(reply_t{mode_t::forward, 0, port, std::chrono::milliseconds(0)});
}

void fake_proxy_t::hang(std::chrono::milliseconds delay, int status)
{
    set_reply(reply_t{mode_t::hang, status, 0, delay});
}

void fake_proxy_t::close_without_answer()
{
    set_reply(reply_t{mode_t::close, 0, 0, std::chrono::milliseconds(0)});
}

void fake_proxy_t::set_reply(const reply_t& reply)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        reply_ = reply;
        ++generation_;
    }
    changed_.notify_all();
}

void fake_proxy_t::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_)
            return;
        stopping_ = true;
        for (int fd : open_sockets_)
            ::shutdown(fd, SHUT_RDWR);
    }
    changed_.notify_all();
    ::shutdown(listener_, SHUT_RDWR);  // wakes accept()
    acceptor_.join();
    // The acceptor has ended, so connections_ no longer changes.
    for (std::thread& connection : connections_)
        connection.join();
    ::close(listener_);
}

bool fake_proxy_t::track(int fd)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_)
        return false;
    open_sockets_.insert(fd);
    return true;
}

// A descriptor leaves the set before it is closed, so stop() never shuts down a reused number.
void fake_proxy_t::untrack_and_close(int fd)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        open_sockets_.erase(fd);
    }
    ::close(fd);
}

void fake_proxy_t::accept_loop()
{
    for (;;) {
        const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            return;  // stop() shut the listener down
        }
        const int on = 1;
        ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) {
            ::close(client);
            return;
        }
        open_sockets_.insert(client);
        connections_.emplace_back(&fake_proxy_t::serve, this, client);
    }
}

void fake_proxy_t::serve(int client)
{
    std::string pending;
    upstream_t upstream;
    for (;;) {
        http_request_t request;
        if (!receive_request(client, pending, request))
            break;
        bool keep_alive = wants_keep_alive(request);
        log_.add(request);

        std::unique_lock<std::mutex> lock(mutex_);
        reply_t reply = reply_;
        while (reply.mode == mode_t::hang && !stopping_) {
            const unsigned seen = generation_;
            if (!changed_.wait_for(lock, reply.delay,
                                   [&] { return stopping_ || generation_ != seen; }))
                break;
            reply = reply_;
        }
        if (stopping_ || reply.mode == mode_t::close)
            break;
        lock.unlock();

        if (reply.mode == mode_t::forward)
            keep_alive = forward(request, reply.upstream_port, upstream, client) && keep_alive;
        else if (!send_all(client, status_response(reply.status, keep_alive)))
            break;
        if (!keep_alive)
            break;
    }
    if (upstream.fd >= 0)
        untrack_and_close(upstream.fd);
    untrack_and_close(client);
}

bool fake_proxy_t::forward(const http_request_t& request, int port, upstream_t& upstream,
                           int client)
{
    if (upstream.fd >= 0 && (upstream.port != port || !still_open(upstream.fd))) {
        untrack_and_close(upstream.fd);
        upstream.fd = -1;
    }
    if (upstream.fd < 0) {
        const int fd = connect_loopback(port);
        if (fd < 0)
            return send_all(client, status_response(502, true));
        if (!track(fd)) {
            ::close(fd);
            return false;
        }
        upstream = upstream_t{fd, port};
    }
    const relay_t result =
        relay(upstream_request(request), request.method == "HEAD", upstream.fd, client);
    if (result != relay_t::keep_both) {
        untrack_and_close(upstream.fd);
        upstream.fd = -1;
    }
    return result != relay_t::close_both;
}

}  // namespace usemeter_test
