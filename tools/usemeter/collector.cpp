// `collector`: a Measurement Protocol endpoint on 127.0.0.1 that shows each hit it gets.
// It accepts both request forms the library produces: "POST /collect" when it is reached
// directly and "POST http://host/collect" when it stands in as the "http_proxy".
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <pthread.h>

#include <httplib.h>

#include "common.hpp"

namespace usemeter_tool {

namespace {

// Hits longer than the protocol allows are still shown (and flagged); anything far
// beyond it is not a hit at all and is refused unread.
const std::size_t protocol_body_limit = 8192;
const std::size_t refused_body_size = 64 * 1024;

struct parameter_t {
    std::string key;
    std::string value;  // decoded
    bool malformed;     // a "%" not followed by two hexadecimal digits
};

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::string form_decode(const std::string& text, bool& malformed)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            out += ' ';
        } else if (text[i] == '%' && i + 2 < text.size() && hex_digit(text[i + 1]) >= 0 &&
                   hex_digit(text[i + 2]) >= 0) {
            out += static_cast<char>(hex_digit(text[i + 1]) * 16 + hex_digit(text[i + 2]));
            i += 2;
        } else {
            if (text[i] == '%')
                malformed = true;
            out += text[i];
        }
    }
    return out;
}

std::vector<parameter_t> parse_form(const std::string& body)
{
    std::vector<parameter_t> parameters;
    std::size_t start = 0;
    while (start <= body.size()) {
        std::size_t end = body.find('&', start);
        if (end == std::string::npos)
            end = body.size();
        const std::string pair = body.substr(start, end - start);
        if (!pair.empty()) {
            const std::size_t equals = pair.find('=');
            parameter_t parameter{"", "", false};
            parameter.key = form_decode(pair.substr(0, equals), parameter.malformed);
            if (equals != std::string::npos)
                parameter.value = form_decode(pair.substr(equals + 1), parameter.malformed);
            parameters.push_back(std::move(parameter));
        }
        start = end + 1;
    }
    return parameters;
}

const char* meaning_of(const std::string& key)
{
    static const std::pair<const char*, const char*> meanings[] = {
        {"v", "protocol version"},
        {"tid", "tracking id"},
        {"cid", "client id (anonymous per-user identifier)"},
        {"an", "application name (product)"},
        {"av", "application version"},
        {"cd1", "custom dimension 1: OS family"},
        {"cd2", "custom dimension 2: OS name"},
        {"cd3", "custom dimension 3: active user (y/n)"},
        {"t", "hit type"},
        {"ec", "event category"},
        {"ea", "event action"},
        {"el", "event label"},
        {"ev", "event value"},
    };
    for (const auto& meaning : meanings)
        if (key == meaning.first)
            return meaning.second;
    return "";
}

// The documented byte limit of a parameter's value, or 0 for none.
std::size_t limit_of(const std::string& key)
{
    if (key == "an" || key == "av")
        return 100;
    if (key == "ec")
        return 150;
    if (key == "el")
        return 500;
    if (key.size() > 2 && key.compare(0, 2, "cd") == 0 &&
        key.find_first_not_of("0123456789", 2) == std::string::npos)
        return 150;
    return 0;
}

// Control characters and other bytes that would garble the terminal are shown escaped.
std::string printable(const std::string& text)
{
    std::string out;
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

class collector_t {
public:
    explicit collector_t(int answer) : answer_(answer) {}

    void on_post(const httplib::Request& req, httplib::Response& res)
    {
        const bool proxy_form = req.target.compare(0, 7, "http://") == 0;
        const std::string path = proxy_form ? path_of_absolute(req.target) : req.path;
        if (path != "/collect") {
            reject(req, res, 404, "POST to " + printable(req.target) + " (hits go to /collect)");
            return;
        }
        const std::vector<parameter_t> parameters = parse_form(req.body);
        bool has_version = false;
        for (const parameter_t& parameter : parameters)
            has_version |= parameter.key == "v";
        if (!has_version) {
            reject(req, res, 400,
                   "POST /collect with a body that is not a hit (no \"v\" parameter, " +
                       std::to_string(req.body.size()) + " bytes)");
            return;
        }

        std::ostringstream out;
        std::lock_guard<std::mutex> guard(mutex_);
        ++hits_;
        out << "hit " << hits_ << ": POST " << printable(req.target) << " from " << req.remote_addr
            << (proxy_form ? " (proxy form)" : " (direct)") << ", " << req.body.size()
            << " bytes, answered " << answer_ << "\n";
        for (const parameter_t& parameter : parameters) {
            out << "  " << std::left << std::setw(5) << printable(parameter.key) << " "
                << std::setw(40) << printable(parameter.value) << " " << meaning_of(parameter.key)
                << "\n";
        }
        std::vector<std::string> flags;
        if (req.body.size() > protocol_body_limit)
            flags.push_back("body is " + std::to_string(req.body.size()) +
                            " bytes, over the protocol's 8192");
        for (const parameter_t& parameter : parameters) {
            const std::size_t limit = limit_of(parameter.key);
            if (limit && parameter.value.size() > limit)
                flags.push_back(parameter.key + " is " + std::to_string(parameter.value.size()) +
                                " bytes, over the protocol's " + std::to_string(limit));
            if (parameter.malformed)
                flags.push_back(parameter.key + " has a malformed %-escape");
        }
        for (const std::string& flag : flags)
            out << "  ! " << flag << "\n";
        std::cout << out.str() << std::flush;
        res.status = answer_;
    }

    void reject(const httplib::Request& req, httplib::Response& res, int status,
                const std::string& what)
    {
        res.status = status;
        res.set_content(what + "\n", "text/plain");
        note_rejection(req, status, what);
    }

    // httplib answers malformed and oversized requests itself and only then calls here.
    void on_error(const httplib::Request& req, const httplib::Response& res)
    {
        if (res.status == 404 && !req.method.empty() && res.body.empty()) {
            note_rejection(req, res.status, printable(req.method) + " " + printable(req.target) +
                                                " (only POST /collect is a hit)");
        } else if (res.status == 413) {
            note_rejection(req, res.status, "request body over " +
                                                std::to_string(refused_body_size) + " bytes");
        } else if (res.status == 400 && res.body.empty()) {
            note_rejection(req, res.status, "not an HTTP request");
        } else if (res.status >= 400 && res.body.empty()) {
            note_rejection(req, res.status, "malformed request");
        }
    }

    int hits() const { return hits_; }
    int rejected() const { return rejected_; }

private:
    static std::string path_of_absolute(const std::string& target)
    {
        const std::size_t slash = target.find('/', 7);
        if (slash == std::string::npos)
            return "/";
        return target.substr(slash, target.find('?', slash) - slash);
    }

    void note_rejection(const httplib::Request& req, int status, const std::string& what)
    {
        std::lock_guard<std::mutex> guard(mutex_);
        ++rejected_;
        std::cerr << "usemeter collector: rejected (" << status << ") from "
                  << (req.remote_addr.empty() ? "?" : req.remote_addr) << ": " << what << "\n"
                  << std::flush;
    }

    const int answer_;
    std::mutex mutex_;
    int hits_ = 0;
    int rejected_ = 0;
};

}  // namespace

int run_collector(int argc, char** argv)
{
    int port = 0;
    int answer = 200;
    po::options_description options("collector options");
    options.add_options()
        ("port", po::value(&port)->default_value(0),
         "TCP port on 127.0.0.1 (0: any free port, printed at start)")
        ("status", po::value(&answer)->default_value(200),
         "HTTP status to answer hits with (the library counts only 200 as delivered)");
    po::variables_map values;
    if (!parse_command_line(argc, argv, "usemeter collector [--port N] [--status CODE]", options,
                            values, false))
        return exit_ok;
    if (port < 0 || port > 65535)
        throw usage_error("--port must be between 0 and 65535, not " + std::to_string(port));
    if (answer < 200 || answer > 599)
        throw usage_error("--status must be an HTTP status between 200 and 599, not " +
                          std::to_string(answer));

    // Block the stop signals before httplib starts threads, so that only the waiter
    // below receives them.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    collector_t collector(answer);
    httplib::Server server;
    // httplib's default also sets SO_REUSEPORT, which would let a second collector share
    // the port silently instead of reporting it occupied.
    server.set_socket_options([](socket_t sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    server.set_payload_max_length(refused_body_size);
    server.set_read_timeout(5, 0);
    server.set_keep_alive_timeout(5);
    server.Post(".*", [&](const httplib::Request& req, httplib::Response& res) {
        collector.on_post(req, res);
    });
    server.set_error_handler([&](const httplib::Request& req, httplib::Response& res) {
        collector.on_error(req, res);
    });

    const char* const host = "127.0.0.1";
    errno = 0;
    const int bound = port == 0 ? server.bind_to_any_port(host)
                                : (server.bind_to_port(host, port) ? port : -1);
    if (bound < 0) {
        const std::string reason = errno ? std::strerror(errno) : "bind failed";
        throw command_error("cannot listen on " + std::string(host) + ":" + std::to_string(port) +
                            ": " + reason);
    }

    std::cout << "usemeter collector: listening on http://" << host << ":" << bound
              << "/collect, answering " << answer << "\n"
              << "note: the library's event hits carry no \"ea\" (event action), which the "
                 "protocol documents as required; this is how the library sends them and is "
                 "not flagged per hit\n"
              << std::flush;

    std::atomic<bool> finished{false};
    std::thread waiter([&] {
        int received = 0;
        sigwait(&stop_signals, &received);
        // stop() is lost if it comes before listen has started; repeat until it ends.
        while (!finished) {
            server.stop();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });

    server.listen_after_bind();
    finished = true;
    pthread_kill(waiter.native_handle(), SIGTERM);
    waiter.join();

    std::cout << "usemeter collector: stopped after " << collector.hits() << " hit(s), "
              << collector.rejected() << " rejected request(s)\n"
              << std::flush;
    return collector.rejected() ? exit_failure : exit_ok;
}

}  // namespace usemeter_tool
