// Forwarding into ClickHouse against its floor, both measured in the same run on a throwaway
// clickhouse-server on loopback:
//
// - forwarding: hits waiting in a spool (put there while ClickHouse was unreachable) until
//   the forwarder has them all acknowledged: read from the spool, sent in batches, removed.
// - floor: the same rows, already formatted, posted in batches of the same size to a table of
//   the same schema over one kept-alive HTTP connection.
//
// Each side counts its best of three runs (the machine is shared).
// Prints "RATIO clickhouse_forwarding <forwarded rate / floor rate> (target >= 0.8)".
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "collector/store/clickhouse/clickhouse_http.hpp"
#include "collector/store/clickhouse/store_clickhouse.hpp"
#include "support/clickhouse_server.hpp"

namespace {

namespace uc = usemeter_collector;
using clock_type = std::chrono::steady_clock;

const int hit_count = 200000;
const std::size_t batch_rows = 20000;

double forwarded_per_s = 0, floor_per_s = 0;

struct setting_t {
    usemeter_test::temp_dir_t dir;
    usemeter_test::clickhouse_server_t server;
    std::vector<uc::hit_t> hits;
    bool up = server.start();

    setting_t()
    {
        for (int n = 0; n < hit_count; ++n)
            hits.push_back({1790000000 + n, "UA-7-1", "user-" + std::to_string(n % 5000), "alpha",
                            "1." + std::to_string(n % 4), "x", n % 2 ? "linux" : "windows", "y",
                            "gui", "toolbar.open." + std::to_string(n % 40)});
    }
};

setting_t& setting()
{
    static setting_t instance;
    return instance;
}

std::unique_ptr<uc::store_t> open(const std::string& uri, const std::string& spool)
{
    uc::clickhouse_options_t options;
    options.uri = uri;
    options.spool = spool;
    options.batch_rows = batch_rows;
    options.batch_wait = std::chrono::milliseconds(10);
    std::string error;
    auto store = uc::open_clickhouse_store(options, error);
    if (!store)
        std::fprintf(stderr, "%s\n", error.c_str());
    return store;
}

void BM_clickhouse_forwarding(benchmark::State& state)
{
    setting_t& s = setting();
    if (!s.up)
        return state.SkipWithError(("clickhouse-server cannot start: " + s.server.error()).c_str());
    for (auto _ : state) {
        const std::string spool = s.dir / ("spool" + std::to_string(state.iterations()) + ".db");
        {
            // Port 1 refuses at once: the hits stay in the spool.
            auto unreachable = open("clickhouse+http://127.0.0.1:1/fwd", spool);
            for (std::size_t at = 0; at < s.hits.size(); at += 1000)
                unreachable->append({s.hits.begin() + at, s.hits.begin() + at + 1000});
        }
        const auto started = clock_type::now();
        auto store = open(s.server.uri("fwd"), spool);
        while (store->backlog() > 0)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        const std::chrono::duration<double> took = clock_type::now() - started;
        state.SetIterationTime(took.count());
        forwarded_per_s = std::max(forwarded_per_s, hit_count / took.count());
    }
}

void BM_clickhouse_bare_insert(benchmark::State& state)
{
    setting_t& s = setting();
    if (!s.up)
        return state.SkipWithError("clickhouse-server cannot start");
    uc::clickhouse_http_t http("http://127.0.0.1:" + std::to_string(s.server.port()));
    uc::create_clickhouse_schema(http, "bare");
    std::vector<std::string> bodies;
    for (std::size_t at = 0; at < s.hits.size(); at += batch_rows) {
        std::string rows;
        for (std::size_t n = at; n < at + batch_rows; ++n) {
            const uc::hit_t& hit = s.hits[n];
            rows += "bench\t" + std::to_string(n) + '\t' + std::to_string(hit.received) + '\t' +
                    uc::utc_day(hit.received);
            for (const std::string* field : {&hit.tid, &hit.cid, &hit.an, &hit.av, &hit.cd1, &hit.cd2,
                                             &hit.cd3, &hit.ec, &hit.el}) {
                rows += '\t';
                uc::append_tsv_field(rows, *field);
            }
            rows += '\n';
        }
        bodies.push_back(rows);
    }
    for (auto _ : state) {
        const auto started = clock_type::now();
        for (const std::string& body : bodies)
            if (!http.run("INSERT INTO bare.hits FORMAT TabSeparated", body))
                return state.SkipWithError("insert failed");
        const std::chrono::duration<double> took = clock_type::now() - started;
        state.SetIterationTime(took.count());
        floor_per_s = std::max(floor_per_s, hit_count / took.count());
    }
}

BENCHMARK(BM_clickhouse_bare_insert)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_clickhouse_forwarding)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    if (floor_per_s > 0 && forwarded_per_s > 0) {
        std::printf("forwarded %.0f hits/s, bare insert %.0f hits/s\n", forwarded_per_s, floor_per_s);
        std::printf("RATIO clickhouse_forwarding %.2f (target >= 0.8)\n", forwarded_per_s / floor_per_s);
    }
    return 0;
}
