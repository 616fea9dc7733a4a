// The host's cost of reporting, measured against floors taken in the same run.
//
// - enabled: one notify_feature_usage with a whitelisted name on an enabled backend whose hits
//   go to a loopback proxy, against the floor: the same body built by plain concatenation and
//   pushed into a boost::sync_queue whose consumer thread waits on it the same way.
// - disabled: the same call on a backend switched off by the environment. Its floor is the
//   INFO level test and the activity record, which every call makes even with sending off.
// - hanging route: per-call 99th percentile while the proxy holds every request, against the
//   healthy figure (the host never waits on the network).
// - memory: resident-set growth of 100,000 hits queued behind the hanging proxy, against the
//   bytes of their bodies.
//
// Prints "RATIO <name> <value> (target ...)" lines after Google Benchmark's own table.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/thread/sync_queue.hpp>

#include "support/loopback_user.hpp"
#include "prodenv/fixed_locations.hpp"
#include "support/temp_home.hpp"
#include "usemeter/sys/statistic_impl_ga.hpp"

namespace {

using usemeter_1_5_7::statistic_impl_ga_t;
using clock_type = std::chrono::steady_clock;

const char* const feature = "gui.toolbar.open";

// Per-call cost in ns by benchmark name, from the last run of each.
std::map<std::string, double> mean_ns;
std::map<std::string, double> p99_ns;

// One temporary user with a whitelist and consent forced on, shared by every benchmark.
struct setting_t {
    usemeter_test::clean_env_t clean_env;
    usemeter_test::temp_home_t home;
    usemeter_test::temp_dir_t data;
    usemeter_test::loopback_collector_t proxy{false};
    usemeter_test::scoped_env_t proxy_var{"http_proxy", proxy.base_url().c_str()};
    usemeter_test::scoped_env_t force{"NORVEL_FORCE_FEEDBACK", "1"};
    prodenv::fixed_locations_t locations;

    setting_t()
    {
        usemeter_test::make_dirs(data / "statistic");
        usemeter_test::write_file(data / "statistic/enabled_stat_events.xml",
                                  "<bag><event type=\"bag\"><name type=\"string\">gui</name></event></bag>");
        locations.data_dir = data.path();
    }
};

setting_t& setting()
{
    static setting_t instance;
    return instance;
}

double percentile(std::vector<double> samples, double fraction)
{
    if (samples.empty())
        return 0;
    std::sort(samples.begin(), samples.end());
    return samples[std::min(samples.size() - 1, static_cast<std::size_t>(fraction * samples.size()))];
}

// Times single calls of `call`, reporting mean and 99th percentile under `name`.
template <class Call>
void time_calls(benchmark::State& state, const std::string& name, Call call)
{
    std::vector<double> samples;
    samples.reserve(1 << 20);
    for (auto _ : state) {
        const clock_type::time_point start = clock_type::now();
        call();
        const double ns = std::chrono::duration<double, std::nano>(clock_type::now() - start).count();
        if (samples.size() < samples.capacity())
            samples.push_back(ns);
    }
    double sum = 0;
    for (double s : samples)
        sum += s;
    mean_ns[name] = samples.empty() ? 0 : sum / samples.size();
    p99_ns[name] = percentile(samples, 0.99);
}

void floor_concat_and_queue(benchmark::State& state)
{
    boost::sync_queue<std::string> queue;
    std::thread consumer([&queue] {
        for (;;) {
            std::string body;
            queue.pull(body);
            if (body.empty())
                return;
        }
    });
    const std::string prefix = "v=1&tid=UA-12345678-42&cid=0F1E2D3C-4B5A-4978-8796-A5B4C3D2E1F0"
                               "&an=trovix&av=2016&cd1=posix&cd2=Debian%20GNU%2FLinux%2012%20%28bookworm%29";
    const std::string name = feature;
    time_calls(state, "floor", [&] {
        const std::size_t dot = name.find('.');
        queue.push(prefix + "&t=event&ec=" + name.substr(0, dot) + "&el=" + name.substr(dot + 1) + "&cd3=n");
    });
    queue.push(std::string());
    consumer.join();
}

void enabled_notify(benchmark::State& state)
{
    setting().proxy.answer(200);
    statistic_impl_ga_t backend("trovix", "2016");
    time_calls(state, "enabled", [&] { backend.notify_feature_usage(feature); });
}

void disabled_notify(benchmark::State& state)
{
    usemeter_test::scoped_env_t disable("NORVEL_STATISTICS_DISABLE", "1");
    statistic_impl_ga_t backend("trovix", "2016");
    time_calls(state, "disabled", [&] { backend.notify_feature_usage(feature); });
}

void hanging_route_notify(benchmark::State& state)
{
    setting().proxy.hold(std::chrono::minutes(10));
    {
        statistic_impl_ga_t backend("trovix", "2016");
        time_calls(state, "hanging", [&] { backend.notify_feature_usage(feature); });
        setting().proxy.answer(500);  // releases the held request so destruction is quick
    }
    setting().proxy.answer(200);
}

long resident_bytes()
{
    long pages_total = 0, pages_resident = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%ld %ld", &pages_total, &pages_resident) != 2)
            pages_resident = 0;
        std::fclose(statm);
    }
    return pages_resident * ::sysconf(_SC_PAGESIZE);
}

double memory_growth_ratio()
{
    const int hits = 100000;
    setting().proxy.hold(std::chrono::minutes(10));
    double ratio = 0;
    {
        statistic_impl_ga_t backend("trovix", "2016");
        std::string category, label;
        backend.resolve_event(feature, category, label);
        const std::size_t body_size = backend.build_event_body(category, label).size();
        backend.notify_feature_usage(feature);  // the worker now holds one body in transfer
        const long before = resident_bytes();
        for (int i = 0; i < hits; ++i)
            backend.notify_feature_usage(feature);
        const long after = resident_bytes();
        ratio = static_cast<double>(after - before) / (static_cast<double>(body_size) * hits);
        setting().proxy.answer(500);
    }
    setting().proxy.answer(200);
    return ratio;
}

}  // namespace

BENCHMARK(floor_concat_and_queue)->Iterations(200000);
BENCHMARK(enabled_notify)->Iterations(200000);
BENCHMARK(disabled_notify)->Iterations(200000);
BENCHMARK(hanging_route_notify)->Iterations(200000);

int main(int argc, char** argv)
{
    setting();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    const double memory = memory_growth_ratio();
    std::printf("RATIO notify_enabled_vs_floor %.2f (target <= 1.5)\n", mean_ns["enabled"] / mean_ns["floor"]);
    std::printf("RATIO notify_disabled_vs_enabled %.3f (target <= 0.3)\n", mean_ns["disabled"] / mean_ns["enabled"]);
    std::printf("RATIO notify_p99_hanging_vs_healthy %.2f (target <= 2.0)\n", p99_ns["hanging"] / p99_ns["enabled"]);
    std::printf("RATIO queued_memory_vs_body_bytes %.2f (target <= 2.0)\n", memory);
    std::printf("(means: floor %.0f ns, enabled %.0f ns, disabled %.0f ns; p99: enabled %.0f ns, hanging %.0f ns)\n",
                mean_ns["floor"], mean_ns["enabled"], mean_ns["disabled"], p99_ns["enabled"], p99_ns["hanging"]);
    return 0;
}
