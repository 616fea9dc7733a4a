#include "collector/ingest/http_server.hpp"

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <ctime>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <microhttpd.h>

namespace usemeter_collector {

using clock_type = std::chrono::steady_clock;

struct http_server_t::connection_t {
    int fd = -1;
    std::string address;
    clock_type::time_point waiting_since = clock_type::now();  // for the next request's headers
    bool in_request = false;
    bool dropped = false;
};

struct http_server_t::request_t {
    http_request_t request;
    connection_t* connection = nullptr;
    const route_t* route = nullptr;
    bool begun = false;
    bool answered = false;
};

namespace {

log4cplus::Logger logger()
{
    return log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("usemeter.collector.http"));
}

const std::size_t log_path_limit = 200;
const std::size_t thread_stack_bytes = 1024 * 1024;

std::string first_value(const header_list_t& list, const std::string& name, bool& found)
{
    for (const auto& item : list)
        if (::strcasecmp(item.first.c_str(), name.c_str()) == 0) {
            found = true;
            return item.second;
        }
    found = false;
    return std::string();
}

std::string numeric_address(const sockaddr* address)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (address && address->sa_family == AF_INET)
        ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text, sizeof text);
    else if (address && address->sa_family == AF_INET6)
        ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, text, sizeof text);
    return text;
}

// "/collect" of "http://host:port/collect?x".
std::string path_of_absolute(const std::string& target)
{
    const std::size_t scheme = target.find("://");
    const std::size_t start = scheme == std::string::npos ? std::string::npos : target.find('/', scheme + 3);
    if (start == std::string::npos)
        return "/";
    return target.substr(start, target.find('?', start) - start);
}

// A path as the access log shows it: printable ASCII, the rest %XX, bounded.
std::string loggable(const std::string& text)
{
    static const char hex[] = "0123456789ABCDEF";
    std::string shown;
    for (std::size_t i = 0; i < text.size() && shown.size() < log_path_limit; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c > 0x20 && c < 0x7f && c != '%')
            shown += static_cast<char>(c);
        else
            shown += std::string("%") + hex[c >> 4] + hex[c & 15];
    }
    return shown.empty() ? "-" : shown;
}

MHD_Result collect_value(void* list, MHD_ValueKind, const char* key, const char* value)
{
    static_cast<header_list_t*>(list)->emplace_back(key ? key : "", value ? value : "");
    return MHD_YES;
}

header_list_t values_of(MHD_Connection* connection, MHD_ValueKind kind)
{
    header_list_t list;
    MHD_get_connection_values(connection, kind, &collect_value, &list);
    return list;
}

std::size_t header_bytes(const header_list_t& headers)
{
    std::size_t bytes = 0;
    for (const auto& header : headers)
        bytes += header.first.size() + header.second.size() + 4;  // ": " and CRLF
    return bytes;
}

}  // namespace

std::string http_request_t::header(const std::string& name) const
{
    bool found = false;
    return first_value(headers, name, found);
}

std::string http_request_t::param(const std::string& name) const
{
    bool found = false;
    return first_value(params, name, found);
}

bool http_request_t::has_param(const std::string& name) const
{
    bool found = false;
    first_value(params, name, found);
    return found;
}

void http_response_t::set_header(const std::string& name, const std::string& value)
{
    headers.emplace_back(name, value);
}

void http_response_t::set_content(std::string content, const std::string& type)
{
    body = std::move(content);
    set_header("Content-Type", type);
}

std::string http_response_t::header(const std::string& name) const
{
    bool found = false;
    return first_value(headers, name, found);
}

bool is_loopback_address(const std::string& address)
{
    return address.compare(0, 4, "127.") == 0 || address == "::1" ||
           address.compare(0, 11, "::ffff:127.") == 0;
}

// libmicrohttpd's entry points, each handing over to the server.
struct callbacks_t {
    static MHD_Result access(void* self, MHD_Connection* connection, const char* url, const char* method,
                             const char*, const char* data, std::size_t* size, void** context)
    {
        auto* server = static_cast<http_server_t*>(self);
        auto* request = static_cast<http_server_t::request_t*>(*context);
        if (!request)
            return MHD_NO;
        if (!request->begun)
            return MHD_Result(server->begin(connection, *request, url, method));
        if (*size || request->answered)
            return MHD_Result(server->receive(*request, data, size));
        http_response_t response;
        ++server->in_flight_;
        request->route->handler(request->request, response);
        --server->in_flight_;
        return MHD_Result(server->answer(connection, *request, std::move(response)));
    }

    static void* request_line(void* self, const char* uri, MHD_Connection* connection)
    {
        auto* request = new http_server_t::request_t;
        request->request.target = uri ? uri : "";
        const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
        request->connection = info ? static_cast<http_server_t::connection_t*>(info->socket_context) : nullptr;
        static_cast<void>(self);
        return request;
    }

    static void completed(void* self, MHD_Connection* connection, void** context, MHD_RequestTerminationCode why)
    {
        auto* request = static_cast<http_server_t::request_t*>(*context);
        *context = nullptr;
        static_cast<http_server_t*>(self)->request_done(connection, request,
                                                        why != MHD_REQUEST_TERMINATED_COMPLETED_OK);
    }

    static void connection(void* self, MHD_Connection* connection, void** context, MHD_ConnectionNotificationCode what)
    {
        auto* server = static_cast<http_server_t*>(self);
        std::lock_guard<std::mutex> lock(server->mutex_);
        if (what == MHD_CONNECTION_NOTIFY_STARTED) {
            auto* state = new http_server_t::connection_t;
            if (const MHD_ConnectionInfo* fd = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD))
                state->fd = fd->connect_fd;
            if (const MHD_ConnectionInfo* peer = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS))
                state->address = numeric_address(peer->client_addr);
            server->connections_.insert(state);
            *context = state;
        } else {
            auto* state = static_cast<http_server_t::connection_t*>(*context);
            server->connections_.erase(state);
            delete state;
            *context = nullptr;
        }
    }

    static void log(void*, const char* format, va_list arguments)
    {
        char text[512];
        std::vsnprintf(text, sizeof text, format, arguments);
        LOG4CPLUS_TRACE(logger(), text);
    }
};

http_server_t::http_server_t(http_limits_t limits, access_log_t log) : limits_(limits), log_(std::move(log))
{
}

http_server_t::~http_server_t()
{
    stop();
}

void http_server_t::route(route_t route)
{
    routes_.push_back(std::move(route));
}

outcome_t http_server_t::listen(const std::string& host, int port, bool v6)
{
    if (!log_.path.empty()) {
        const int fd = ::open(log_.path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
        log_file_.reset(fd < 0 ? nullptr : ::fdopen(fd, "a"));
        if (!log_file_)
            return outcome_t::failure("cannot open the access log " + log_.path + ": " + std::strerror(errno));
    }
    if (const outcome_t bound = bind_socket(host, port, v6); !bound)
        return bound;
    if (!start_daemon(v6)) {
        ::close(listen_fd_);
        listen_fd_ = -1;
        return outcome_t::failure("the HTTP daemon did not start");
    }
    sweeper_ = std::thread([this] { sweep(); });
    return {};
}

// Bound here rather than by the library, so that a failure names its reason.
outcome_t http_server_t::bind_socket(const std::string& host, int port, bool v6)
{
    sockaddr_storage address{};
    socklen_t length = v6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    auto* in4 = reinterpret_cast<sockaddr_in*>(&address);
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&address);
    address.ss_family = v6 ? AF_INET6 : AF_INET;
    (v6 ? in6->sin6_port : in4->sin_port) = htons(static_cast<std::uint16_t>(port));
    ::inet_pton(address.ss_family, host.c_str(), v6 ? static_cast<void*>(&in6->sin6_addr) : &in4->sin_addr);
    listen_fd_ = ::socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int yes = 1;
    // SO_REUSEADDR only: SO_REUSEPORT would let a second collector share the port silently.
    if (listen_fd_ < 0 || ::setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) != 0 ||
        ::bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(listen_fd_, 511) != 0 ||
        ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        const std::string reason = std::strerror(errno);
        if (listen_fd_ >= 0)
            ::close(listen_fd_);
        listen_fd_ = -1;
        return outcome_t::failure(reason);
    }
    port_ = ntohs(v6 ? in6->sin6_port : in4->sin_port);
    return {};
}

bool http_server_t::start_daemon(bool v6)
{
    const unsigned flags = MHD_USE_THREAD_PER_CONNECTION | MHD_USE_POLL_INTERNAL_THREAD | MHD_USE_ITC |
                           MHD_USE_ERROR_LOG | (v6 ? MHD_USE_IPv6 : 0);
    daemon_ = MHD_start_daemon(
        flags, 0, nullptr, nullptr, &callbacks_t::access, this,
        MHD_OPTION_LISTEN_SOCKET, listen_fd_,
        MHD_OPTION_CONNECTION_LIMIT, static_cast<unsigned>(limits_.max_connections),
        MHD_OPTION_PER_IP_CONNECTION_LIMIT, static_cast<unsigned>(limits_.max_connections_per_address),
        // The pool holds the request line and the headers: room for what is allowed, and no more.
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, static_cast<std::size_t>(2 * limits_.header_bytes),
        MHD_OPTION_CONNECTION_TIMEOUT, static_cast<unsigned>(limits_.idle_seconds),
        MHD_OPTION_THREAD_STACK_SIZE, thread_stack_bytes,
        MHD_OPTION_URI_LOG_CALLBACK, &callbacks_t::request_line, this,
        MHD_OPTION_NOTIFY_COMPLETED, &callbacks_t::completed, this,
        MHD_OPTION_NOTIFY_CONNECTION, &callbacks_t::connection, this,
        MHD_OPTION_EXTERNAL_LOGGER, &callbacks_t::log, this,
        MHD_OPTION_END);
    return daemon_ != nullptr;
}

void http_server_t::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_)
            return;
        stopping_ = true;
    }
    sweep_wake_.notify_all();
    if (sweeper_.joinable())
        sweeper_.join();
    if (!daemon_)
        return;
    MHD_quiesce_daemon(daemon_);
    // Handlers in progress finish (their commits included) before connections close.
    while (in_flight_ > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    MHD_stop_daemon(daemon_);
    daemon_ = nullptr;
    ::close(listen_fd_);
    listen_fd_ = -1;
}

int http_server_t::begin(MHD_Connection* connection, request_t& state, const char* url, const char* method)
{
    state.begun = true;
    http_request_t& request = state.request;
    if (state.connection) {
        std::lock_guard<std::mutex> lock(mutex_);
        state.connection->in_request = true;
        request.remote_addr = state.connection->address;
    }
    request.method = method;
    request.path = request.target.empty() || request.target[0] == '/' ? url : path_of_absolute(request.target);
    request.headers = values_of(connection, MHD_HEADER_KIND);
    request.params = values_of(connection, MHD_GET_ARGUMENT_KIND);
    if (request.headers.size() > limits_.header_lines || header_bytes(request.headers) > limits_.header_bytes)
        return refuse(connection, state, MHD_HTTP_REQUEST_HEADER_FIELDS_TOO_LARGE, "headers_too_large");
    const std::string encoding = request.header("Content-Encoding");
    if (!encoding.empty() && ::strcasecmp(encoding.c_str(), "identity") != 0)
        return refuse(connection, state, MHD_HTTP_UNSUPPORTED_MEDIA_TYPE, "encoded_body");
    bool path_known = false;
    state.route = find_route(request, path_known);
    if (!state.route)
        return refuse(connection, state, path_known ? MHD_HTTP_METHOD_NOT_ALLOWED : MHD_HTTP_NOT_FOUND,
                      path_known ? "method" : "path");
    const std::string length = request.header("Content-Length");
    if (!length.empty() && std::strtoull(length.c_str(), nullptr, 10) > state.route->body_limit)
        return refuse(connection, state, MHD_HTTP_CONTENT_TOO_LARGE, "body_too_large");
    return MHD_YES;
}

int http_server_t::receive(request_t& state, const char* data, std::size_t* size)
{
    const std::size_t bytes = *size;
    *size = 0;
    if (state.answered)
        return MHD_YES;
    if (state.request.body.size() + bytes > state.route->body_limit)
        return refuse_mid_body(state);
    state.request.body.append(data, bytes);
    return MHD_YES;
}

int http_server_t::refuse(MHD_Connection* connection, request_t& state, int status, const char* reason)
{
    http_response_t response;
    response.status = status;
    response.reason = reason;
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED)
        response.set_header("Allow", state.route ? state.route->method : "GET, POST");
    response.set_content(std::string(reason) + "\n", "text/plain");
    return answer(connection, state, std::move(response));
}

// The library queues no answer in the middle of a body (chunked, or longer than announced),
// so the 413 goes out on the socket directly and the connection closes: nothing was sent on
// it since the previous request's answer, so the client reads the answers in order.
int http_server_t::refuse_mid_body(request_t& state)
{
    state.answered = true;
    static const char answer[] = "HTTP/1.1 413 Content Too Large\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
    const bool sent = state.connection && ::send(state.connection->fd, answer, sizeof answer - 1, MSG_NOSIGNAL) > 0;
    if (sent)
        ::shutdown(state.connection->fd, SHUT_WR);
    write_access(state.connection ? state.connection->address : "", sent ? "413" : "-", state.request.body.size(),
                 state.request.path, "body_too_large");
    return MHD_NO;
}

int http_server_t::answer(MHD_Connection* connection, request_t& state, http_response_t response)
{
    state.answered = true;
    const std::string address = state.connection ? state.connection->address : "";
    const std::string path = state.request.path.empty() ? state.request.target : state.request.path;
    if (response.drop) {
        write_access(address, "-", state.request.body.size(), path, "dropped");
        return MHD_NO;
    }
    MHD_Response* answer = MHD_create_response_from_buffer(response.body.size(), response.body.data(),
                                                          MHD_RESPMEM_MUST_COPY);
    for (const auto& header : response.headers)
        MHD_add_response_header(answer, header.first.c_str(), header.second.c_str());
    const MHD_Result queued = MHD_queue_response(connection, static_cast<unsigned>(response.status), answer);
    MHD_destroy_response(answer);
    write_access(address, queued == MHD_YES ? std::to_string(response.status) : "-",
                 state.request.body.size(), path, response.reason);
    return queued;
}

void http_server_t::request_done(MHD_Connection*, request_t* request, bool failed)
{
    if (!request)
        return;
    bool dropped = false;
    if (request->connection) {
        std::lock_guard<std::mutex> lock(mutex_);
        request->connection->in_request = false;
        request->connection->waiting_since = clock_type::now();
        dropped = request->connection->dropped;
    }
    if (!request->answered && !dropped)
        write_access(request->connection ? request->connection->address : "", "-", request->request.body.size(),
                     request->request.target.substr(0, request->request.target.find('?')),
                     failed ? "malformed_or_closed" : "unanswered");
    delete request;
}

const http_server_t::route_t* http_server_t::find_route(const http_request_t& request, bool& path_known) const
{
    const bool absolute = !request.target.empty() && request.target[0] != '/';
    const std::string method = request.method == "HEAD" ? "GET" : request.method;
    path_known = false;
    for (const route_t& route : routes_) {
        const bool matches = route.prefix ? request.path.compare(0, route.path.size(), route.path) == 0
                                          : request.path == route.path;
        if (!matches || (absolute && !route.proxied))
            continue;
        path_known = true;
        if (route.method == method)
            return &route;
    }
    return nullptr;
}

// Drops every connection whose next request's headers are overdue. shutdown() under mutex_:
// a connection's fd stays open until its CLOSED notice, which takes mutex_ first.
void http_server_t::sweep()
{
    std::unique_lock<std::mutex> lock(mutex_);
    while (!sweep_wake_.wait_for(lock, std::chrono::milliseconds(250), [&] { return stopping_; })) {
        const auto deadline = clock_type::now() - std::chrono::seconds(limits_.header_seconds);
        for (connection_t* connection : connections_) {
            if (connection->in_request || connection->dropped || connection->waiting_since > deadline)
                continue;
            connection->dropped = true;
            ::shutdown(connection->fd, SHUT_RDWR);
            write_access(connection->address, "-", 0, "-", "headers_too_slow");
        }
    }
}

void http_server_t::write_access(const std::string& address, const std::string& status, std::size_t bytes,
                                 const std::string& path, const std::string& reason)
{
    if (!log_file_)
        return;
    std::string line = utc_timestamp(std::time(nullptr));
    if (log_.addresses)
        line += " " + (address.empty() ? std::string("-") : address);
    line += " " + status + " " + std::to_string(bytes) + " " + loggable(path);
    if (!reason.empty())
        line += " " + reason;
    line += "\n";
    std::lock_guard<std::mutex> lock(log_mutex_);
    std::fwrite(line.data(), 1, line.size(), log_file_.get());
    std::fflush(log_file_.get());
}

}  // namespace usemeter_collector
