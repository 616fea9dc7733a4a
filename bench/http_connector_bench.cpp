// Speed of the connector against a keep-alive loopback server.
//
// - Delivery rate: one connector delivering batches of bodies (from the first post until the
//   server has received the last body) against a bare loop of curl_easy_perform on one handle
//   with the same options. The worker should add next to nothing to libcurl's own cost.
// - post() on the host thread: median and 99th percentile of single calls, with the worker
//   parked on the empty queue and with the worker busy delivering a backlog, next to a bare
//   boost::sync_queue push into a parked consumer. Posting must stay the queue's locked append
//   (and, for a parked worker, its wake-up) whatever the worker is doing.
//
// Prints "RATIO <name> <value> (target ...)" lines after Google Benchmark's own table.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/thread/sync_queue.hpp>
#include <boost/thread/thread.hpp>
#include <curl/curl.h>
#include <sched.h>
#include <unistd.h>

#include "support/loopback_user.hpp"
#include "usemeter/sys/http_connector.hpp"

namespace {

using usemeter_1_5_7::http_connector_t;
using clock_type = std::chrono::steady_clock;

// About the size of a real event hit.
const std::string body =
    "v=1&tid=UA-00000000-1&cid=0F1E2D3C-4B5A-4978-8796-A5B4C3D2E1F0&an=trovix&av=1.5.7"
    "&cd1=Debian%20GNU%2FLinux%2012&cd2=x86&cd3=1&t=event&ec=analysis_type&el=static&cm1=1";

const int bodies_per_batch = 200;

usemeter_test::loopback_collector_t& server()
{
    static usemeter_test::loopback_collector_t instance(false);
    return instance;
}

size_t discard(char*, size_t size, size_t nmemb, void*)
{
    return size * nmemb;
}

double seconds_since(clock_type::time_point start)
{
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

// Batches of the bare loop and of the connector alternate, so that both see the same load on
// a shared machine. Each side keeps its own connection to the server open throughout.
void delivery_rate(benchmark::State& state)
{
    CURL* curl = curl_easy_init();
    const std::string url = server().url();
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &discard);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 5L);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_perform(curl);

    http_connector_t connector(url.c_str());
    std::size_t expected = server().request_count() + 1;
    connector.post(std::string(body));
    server().wait_for_hit_requests(expected, std::chrono::seconds(30));

    double bare_seconds = 0;
    double connector_seconds = 0;
    long failures = 0;
    for (auto _ : state) {
        const auto bare_start = clock_type::now();
        for (int i = 0; i < bodies_per_batch; ++i) {
            long status = 0;
            if (curl_easy_perform(curl) != CURLE_OK
                || curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK
                || status != 200)
                ++failures;
        }
        bare_seconds += seconds_since(bare_start);

        // The bare loop's requests are counted by the same server.
        expected = server().request_count() + bodies_per_batch;
        const auto connector_start = clock_type::now();
        for (int i = 0; i < bodies_per_batch; ++i)
            connector.post(std::string(body));
        if (!server().wait_for_hit_requests(expected, std::chrono::seconds(30)))
            ++failures;
        connector_seconds += seconds_since(connector_start);
        state.SetIterationTime(seconds_since(bare_start));
    }
    curl_easy_cleanup(curl);
    if (failures) {
        state.SkipWithError("requests failed");
        return;
    }
    const double requests = static_cast<double>(state.iterations()) * bodies_per_batch;
    state.counters["bare_curl_rps"] = requests / bare_seconds;
    state.counters["connector_rps"] = requests / connector_seconds;
    state.counters["connector_vs_bare"] = bare_seconds / connector_seconds;
}

std::vector<double> parked_post_ns;
std::vector<double> busy_post_ns;

double timed_post(http_connector_t& connector, std::vector<double>& samples)
{
    std::string copy = body;  // copied outside the measurement, as a host builds its body
    const auto start = clock_type::now();
    connector.post(std::move(copy));
    const double seconds = seconds_since(start);
    samples.push_back(seconds * 1e9);
    return seconds;
}

std::vector<double> bare_queue_push_ns;

// Runs the calling thread on one CPU (when the machine has two or more). Threads inherit the
// mask when they start, so a worker started meanwhile stays on that CPU.
void pin_to_cpu(int cpu)
{
    if (std::thread::hardware_concurrency() < 2)
        return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    sched_setaffinity(0, sizeof set, &set);
}

void unpin()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    for (unsigned cpu = 0; cpu < std::thread::hardware_concurrency(); ++cpu)
        CPU_SET(cpu, &set);
    sched_setaffinity(0, sizeof set, &set);
}

// The worker waits on the empty queue before every post. A connector that has switched itself
// off (its server answered 500) drops each body at once and goes back to waiting, so the short
// pause between posts is enough to find it parked again. Alternating with it, the same append
// into a bare boost::sync_queue whose consumer does nothing but wait: the cost of the queue's
// locked append and wake-up alone. Both sleepers live on one CPU and the poster on another:
// a wake-up then never preempts the poster on its own CPU, which otherwise lands the woken
// thread's run inside some measured calls and not others, and made two runs disagree.
void post_worker_parked(benchmark::State& state)
{
    usemeter_test::loopback_collector_t refusing(false);
    refusing.answer(500);
    pin_to_cpu(1);
    http_connector_t connector(refusing.url().c_str());
    boost::sync_queue<std::string> queue;
    boost::thread consumer([&queue] {
        std::string item;
        while (queue.wait_pull(item) == boost::concurrent::queue_op_status::success
               && !item.empty()) {
        }
    });
    pin_to_cpu(0);
    connector.post(std::string(body));
    refusing.wait_for_hit_requests(1, std::chrono::seconds(30));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    for (auto _ : state) {
        std::string copy = body;
        const auto start = clock_type::now();
        queue.push(std::move(copy));
        bare_queue_push_ns.push_back(seconds_since(start) * 1e9);
        std::this_thread::sleep_for(std::chrono::microseconds(300));

        state.SetIterationTime(timed_post(connector, parked_post_ns));
        std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
    queue.push(std::string());
    consumer.join();
    unpin();
}

// The worker delivers a backlog to the healthy server, pulling from the queue between
// transfers, while the host posts more at the same pace as above.
void post_worker_busy(benchmark::State& state)
{
    http_connector_t connector(server().url().c_str());
    const std::size_t backlog = 40000;
    const std::size_t all_delivered = server().request_count() + backlog + state.max_iterations;
    for (std::size_t i = 0; i < backlog; ++i)
        connector.post(std::string(body));
    for (auto _ : state) {
        state.SetIterationTime(timed_post(connector, busy_post_ns));
        std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
    if (server().request_count() >= all_delivered)
        state.SkipWithError("the worker ran out of work during the measurement");
}

BENCHMARK(delivery_rate)->UseManualTime()->MinTime(2.0)->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(post_worker_parked)->UseManualTime()->Iterations(20000);
BENCHMARK(post_worker_busy)->UseManualTime()->Iterations(4000);

// Keeps the median of each counter of the repeated benchmark, besides printing the table.
class median_reporter_t : public benchmark::ConsoleReporter {
public:
    // A reporter handed to the library does not follow --benchmark_color: colour only a terminal.
    median_reporter_t()
        : ConsoleReporter(::isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular)
    {
    }

    std::map<std::string, double> median;

    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs)
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median"
                && !run.error_occurred)
                for (const auto& counter : run.counters)
                    median[counter.first] = counter.second.value;
    }
};

double percentile(std::vector<double> samples, double fraction)
{
    std::sort(samples.begin(), samples.end());
    const std::size_t index = static_cast<std::size_t>(fraction * (samples.size() - 1) + 0.5);
    return samples[index];
}

// The pairs were taken alternately; rounds of consecutive pairs saw the same machine load,
// so the median of the per-round ratios is steadier than the ratio of overall medians.
double median_round_ratio(const std::vector<double>& measured, const std::vector<double>& floor)
{
    const std::size_t round = 500;
    std::vector<double> ratios;
    for (std::size_t at = 0; at + round <= std::min(measured.size(), floor.size()); at += round)
        ratios.push_back(
            percentile(std::vector<double>(measured.begin() + at, measured.begin() + at + round), 0.5) /
            percentile(std::vector<double>(floor.begin() + at, floor.begin() + at + round), 0.5));
    return ratios.empty() ? 0 : percentile(ratios, 0.5);
}

}  // namespace

int main(int argc, char** argv)
{
    // The loopback server is reached directly whatever the developer's proxy settings are.
    for (const char* name : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy",
                             "ALL_PROXY", "no_proxy", "NO_PROXY"})
        ::unsetenv(name);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    median_reporter_t reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    const auto& median = reporter.median;
    if (median.count("connector_vs_bare")) {
        std::printf("requests per second: bare curl %.0f, connector %.0f\n",
                    median.at("bare_curl_rps"), median.at("connector_rps"));
        std::printf("RATIO connector_vs_bare_curl %.3f (target >= 0.9)\n",
                    median.at("connector_vs_bare"));
    }
    if (!parked_post_ns.empty() && !busy_post_ns.empty()) {
        const double parked_median = percentile(parked_post_ns, 0.5);
        const double parked_p99 = percentile(parked_post_ns, 0.99);
        const double busy_median = percentile(busy_post_ns, 0.5);
        const double busy_p99 = percentile(busy_post_ns, 0.99);
        std::printf("post() ns: worker parked median %.0f p99 %.0f, "
                    "worker busy median %.0f p99 %.0f\n",
                    parked_median, parked_p99, busy_median, busy_p99);
        // The worker never holds the queue's lock through network work, so a busy worker
        // must not make posting slower than waking a parked one.
        std::printf("RATIO post_p99_busy_vs_parked %.3f (target <= 1.5)\n", busy_p99 / parked_p99);
        if (!bare_queue_push_ns.empty()) {
            const double queue_median = percentile(bare_queue_push_ns, 0.5);
            std::printf("bare sync_queue push ns, consumer parked: median %.0f p99 %.0f\n",
                        queue_median, percentile(bare_queue_push_ns, 0.99));
            std::printf("RATIO post_median_parked_vs_bare_queue %.3f (target <= 1.25)\n",
                        median_round_ratio(parked_post_ns, bare_queue_push_ns));
        }
    }
    return 0;
}
