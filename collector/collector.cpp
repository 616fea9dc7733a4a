#include "collector/collector.hpp"

#include <cstring>
#include <iostream>

#include <arpa/inet.h>
#include <strings.h>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include "collector/ingest/commit_queue.hpp"
#include "collector/ingest/hit_form.hpp"
#include "collector/ingest/printer.hpp"
#include "collector/reports/report_page.hpp"

namespace usemeter_collector {

namespace {

log4cplus::Logger logger()
{
    return log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("usemeter.collector"));
}

struct endpoint_t {
    std::string host;  // numeric, without brackets
    int port = -1;
    bool v6 = false;
};

bool parse_endpoint(const std::string& text, endpoint_t& endpoint)
{
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon + 1 == text.size() ||
        text.find_first_not_of("0123456789", colon + 1) != std::string::npos ||
        text.size() - colon > 6)
        return false;
    endpoint.host = text.substr(0, colon);
    endpoint.port = std::stoi(text.substr(colon + 1));
    if (endpoint.host.size() > 2 && endpoint.host.front() == '[' && endpoint.host.back() == ']')
        endpoint.host = endpoint.host.substr(1, endpoint.host.size() - 2);
    // Numeric only: a name would cost a DNS query and could mean more than one address.
    unsigned char address[16];
    endpoint.v6 = inet_pton(AF_INET6, endpoint.host.c_str(), address) == 1;
    return endpoint.port <= 65535 &&
           (endpoint.v6 || inet_pton(AF_INET, endpoint.host.c_str(), address) == 1);
}

// Control bytes and backslashes as \xNN, so that reading /rejections in a terminal is safe.
std::string escaped_controls(const std::string& text)
{
    static const char hex[] = "0123456789abcdef";
    std::string shown;
    for (unsigned char c : text)
        if (c < 0x20 || c == 0x7f || c == '\\')
            shown += std::string("\\x") + hex[c >> 4] + hex[c & 15];
        else
            shown += static_cast<char>(c);
    return shown;
}

}  // namespace

bool is_listen_address(const std::string& text)
{
    endpoint_t endpoint;
    return parse_endpoint(text, endpoint);
}

std::string hit_request_t::header(const std::string& name) const
{
    for (const auto& h : headers)
        if (::strcasecmp(h.first.c_str(), name.c_str()) == 0)
            return h.second;
    return std::string();
}

struct collector_t::impl_t {
    impl_t(const collector_options_t& options) : server(options.limits, options.access_log) {}

    http_server_t server;
    endpoint_t endpoint;
    std::shared_ptr<store_t> store;
    std::unique_ptr<commit_queue_t> queue;
    std::thread retention;
    std::condition_variable retention_wake;
    std::mutex print_mutex;
};

collector_t::collector_t(collector_options_t options)
    : options_(std::move(options)), impl_(new impl_t(options_))
{
    if (options_.answer)
        answer(options_.answer);
    if (options_.hold_ms)
        hold(std::chrono::milliseconds(options_.hold_ms));
    if (options_.reset)
        reset_connections();
}

collector_t::~collector_t()
{
    stop();
}

std::string collector_t::base_url() const
{
    const endpoint_t& endpoint = impl_->endpoint;
    return "http://" + (endpoint.v6 ? "[" + endpoint.host + "]" : endpoint.host) + ":" +
           std::to_string(port_);
}

outcome_t collector_t::start()
{
    if (!parse_endpoint(options_.listen, impl_->endpoint))
        return outcome_t::failure("--listen needs a numeric ADDR:PORT, not \"" + options_.listen + "\"");
    const outcome_t opened = open_storage();
    if (!opened)
        return opened;
    if (options_.retention_days > 0)
        start_retention();
    add_routes();
    const endpoint_t& endpoint = impl_->endpoint;
    const outcome_t listening = impl_->server.listen(endpoint.host, endpoint.port, endpoint.v6);
    if (!listening)
        return outcome_t::failure("cannot listen on " + options_.listen + ": " + listening.error);
    port_ = impl_->server.port();
    return {};
}

outcome_t collector_t::open_storage()
{
    impl_->store = options_.store_instance;
    if (!impl_->store) {
        std::string error;
        impl_->store = open_store(options_.store, options_.durability, error, options_.spool);
        if (!impl_->store)
            return outcome_t::failure(error);
    }
    impl_->queue = std::make_unique<commit_queue_t>(
        *impl_->store, [this](const outcome_t& outcome, std::size_t hits, double seconds) {
            on_commit(outcome, hits, seconds);
        });
    return {};
}

// On the writer thread after every group commit.
void collector_t::on_commit(const outcome_t& outcome, std::size_t hits, double seconds)
{
    metrics_.record_commit(outcome.ok, seconds);
    if (outcome.ok)
        metrics_.count_stored(hits);
    if (outcome.ok == healthy_.exchange(outcome.ok))
        return;
    if (outcome.ok)
        LOG4CPLUS_WARN(logger(), "the store commits again; answering 200");
    else
        LOG4CPLUS_ERROR(logger(), "the store cannot commit, answering 503 until it can: " << outcome.error);
}

void collector_t::start_retention()
{
    run_retention();
    impl_->retention = std::thread([this] {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!impl_->retention_wake.wait_for(lock, std::chrono::hours(1), [&] { return stopping_; })) {
            lock.unlock();
            run_retention();
            lock.lock();
        }
    });
}

void collector_t::on_post(const http_request_t& req, http_response_t& res)
{
    int status = 200;
    on_hit_request(req, status, res.reason);
    res.drop = status < 0;
    res.status = status;
}

void collector_t::on_rejections(const http_request_t& req, http_response_t& res)
{
    if (const int refused = report_access_verdict(req, options_.report_token)) {
        res.status = refused;
        res.reason = "no_access";
        return;
    }
    std::string text;
    for (rejection_t reason : every_rejection())
        for (const std::string& body : metrics_.recent_rejections(reason))
            text += std::string(name_of(reason)) + " " + escaped_controls(body) + "\n";
    res.set_content(text, "text/plain; charset=utf-8");
}

void collector_t::add_routes()
{
    http_server_t& server = impl_->server;
    auto on_post = [this](const http_request_t& req, http_response_t& res) { this->on_post(req, res); };
    // A proxy's requests name an absolute URL; only the hit endpoints serve them.
    server.route({"POST", "/collect", on_post, hit_body_limit, false, true});
    server.route({"POST", "/batch", on_post, batch_body_limit, false, true});
    server.route({"GET", "/healthz", [this](const http_request_t&, http_response_t& res) {
        res.status = healthy_ ? 200 : 503;
        res.set_content(healthy_ ? "ok\n" : "the store cannot commit\n", "text/plain");
    }});
    server.route({"GET", "/metrics", [this](const http_request_t&, http_response_t& res) {
        res.set_content(metrics_.prometheus_text(impl_->queue->depth()) + impl_->store->metrics_text(),
                        "text/plain; version=0.0.4");
    }});
    server.route({"GET", "/rejections", [this](const http_request_t& req, http_response_t& res) {
        on_rejections(req, res);
    }});
    if (options_.mount)
        options_.mount(server);
}

void collector_t::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_)
            return;
        stopping_ = true;
        ++generation_;
    }
    mode_changed_.notify_all();
    impl_->retention_wake.notify_all();
    impl_->server.stop();
    if (impl_->retention.joinable())
        impl_->retention.join();
    if (impl_->queue)
        impl_->queue->stop();
}

void collector_t::serve_normally()
{
    set_mode(mode_t::store, 200, {});
}

void collector_t::answer(int status)
{
    set_mode(mode_t::answer, status, {});
}

void collector_t::hold(std::chrono::milliseconds delay)
{
    set_mode(mode_t::hold, 200, delay);
}

void collector_t::reset_connections()
{
    set_mode(mode_t::reset, 200, {});
}

bool collector_t::wait_for_hit_requests(std::size_t n, std::chrono::milliseconds timeout) const
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (hit_requests_ < n && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return hit_requests_ >= n;
}

void collector_t::set_observer(observer_t observer)
{
    std::lock_guard<std::mutex> lock(mutex_);
    observer_ = std::move(observer);
}

void collector_t::set_mode(mode_t mode, int status, std::chrono::milliseconds delay)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        mode_ = mode;
        answer_status_ = status;
        hold_delay_ = delay;
        ++generation_;
    }
    mode_changed_.notify_all();
}

// status: the answer, or -1 to reset the connection.
void collector_t::on_hit_request(const http_request_t& req, int& status, std::string& reason)
{
    const std::size_t number = ++hit_requests_;
    observer_t observer;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        observer = observer_;
    }
    // Copied only for someone who looks: the common path stays free of it.
    if (observer || options_.print) {
        const hit_request_t request{req.method, req.target, req.headers, req.body};
        if (observer)
            observer(request);
        if (options_.print) {
            std::lock_guard<std::mutex> lock(impl_->print_mutex);
            std::cout << describe_hit_request(request, number) << std::flush;
        }
    }
    switch (wait_out_hold(status)) {
    case mode_t::answer:
        return;
    case mode_t::reset:
        status = -1;
        return;
    default:
        status = ingest(req.path, req.body, reason);
    }
}

// Returns the mode to serve in once any hold is over; status is the one to answer with.
collector_t::mode_t collector_t::wait_out_hold(int& status)
{
    std::unique_lock<std::mutex> lock(mutex_);
    bool held_long_enough = false;
    while (mode_ == mode_t::hold && !stopping_ && !held_long_enough) {
        const unsigned seen = generation_;
        auto changed = [&] { return stopping_ || generation_ != seen; };
        if (hold_delay_.count() == 0)
            mode_changed_.wait(lock, changed);
        else
            held_long_enough = !mode_changed_.wait_for(lock, hold_delay_, changed);
    }
    status = answer_status_;
    return mode_ == mode_t::hold ? mode_t::store : mode_;
}

int collector_t::ingest(const std::string& path, const std::string& body, std::string& reason)
{
    if (const int refused = size_verdict(path, body)) {
        reason = "body_too_large";
        return refused;
    }
    const std::int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count();
    std::vector<hit_t> hits;
    for (const std::string& line : path == "/batch" ? batch_lines(body) : std::vector<std::string>{body}) {
        hit_t hit;
        const rejection_t rejected = read_hit(line, now, hit);
        if (rejected == rejection_t::none) {
            hits.push_back(std::move(hit));
        } else {
            metrics_.count_rejected(rejected, line);
            reason = name_of(rejected);
        }
    }
    return commit(std::move(hits));
}

// 413 for what is over the protocol's limits, else 0.
int collector_t::size_verdict(const std::string& path, const std::string& body)
{
    if (path != "/batch")
        return body.size() > hit_body_limit ? 413 : 0;
    if (body.size() > batch_body_limit)
        return 413;
    const std::vector<std::string> lines = batch_lines(body);
    if (lines.size() > batch_hit_limit)
        return 413;
    for (const std::string& line : lines)
        if (line.size() > hit_body_limit)
            return 413;
    return 0;
}

int collector_t::commit(std::vector<hit_t> hits)
{
    return impl_->queue->commit(std::move(hits)) ? 200 : 503;
}

void collector_t::run_retention()
{
    const std::int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count();
    const std::string first_kept = utc_day(now - std::int64_t(options_.retention_days) * 86400);
    std::int64_t erased = 0;
    const outcome_t outcome = impl_->store->erase_before(first_kept, erased);
    if (outcome)
        LOG4CPLUS_INFO(logger(), "retention: erased " << erased << " hits received before " << first_kept);
    else
        LOG4CPLUS_ERROR(logger(), "retention: " << outcome.error);
}

}  // namespace usemeter_collector
