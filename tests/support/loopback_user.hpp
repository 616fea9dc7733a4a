// The loopback stage of end-to-end tests: a collector that records every hit request and keeps nothing,
// and a user in a temporary HOME whose hits go to it as "http_proxy", collection forced on.
#ifndef USEMETER_TESTS_LOOPBACK_USER_HPP
#define USEMETER_TESTS_LOOPBACK_USER_HPP

#include <mutex>
#include <vector>

#include "collector/collector.hpp"
#include "support/temp_home.hpp"

namespace usemeter_test {

using usemeter_collector::hit_request_t;

// Listening once constructed. Benchmarks pass record = false: long runs would fill memory.
class loopback_collector_t : public usemeter_collector::collector_t {
public:
    explicit loopback_collector_t(bool record = true) : collector_t(options())
    {
        if (record)
            set_observer([this](const hit_request_t& request) {
                std::lock_guard<std::mutex> lock(mutex_);
                requests_.push_back(request);
            });
        start();
    }
    // Stopped before the recorded requests go: the observer may still be running.
    ~loopback_collector_t() { stop(); }
    std::vector<hit_request_t> requests() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }
    std::vector<std::string> bodies() const
    {
        std::vector<std::string> out;
        for (const hit_request_t& request : requests())
            out.push_back(request.body);
        return out;
    }
    std::size_t request_count() const { return hit_requests(); }
    bool wait_for_requests(std::size_t n) const { return wait_for_hit_requests(n, std::chrono::seconds(20)); }

private:
    static usemeter_collector::collector_options_t options()
    {
        usemeter_collector::collector_options_t options;
        options.listen = "127.0.0.1:0";
        options.store = "sqlite::memory:";
        return options;
    }
    mutable std::mutex mutex_;
    std::vector<hit_request_t> requests_;
};

struct loopback_user_t {
    clean_env_t clean_env;
    temp_home_t home;
    loopback_collector_t proxy;
    scoped_env_t proxy_var{"http_proxy", proxy.base_url().c_str()};
    scoped_env_t force{"NORVEL_FORCE_FEEDBACK", "1"};
};

}  // namespace usemeter_test

#endif
