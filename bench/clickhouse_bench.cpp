// Into and out of a throwaway clickhouse-server on loopback, each against a floor measured
// in the same run:
//
// - forwarding: hits waiting in a spool (put there while ClickHouse was unreachable) until
//   the forwarder has them all acknowledged: read from the spool, sent in batches, removed.
//   Floor: the same rows (a new collector's each round, as a new spool's are), already
//   formatted, posted in batches of the same size to a table of the same schema over one
//   kept-alive HTTP connection. Every round of either side inserts into a new database.
// - reports: each report over 30 days of 50,000 users, once over 2 M hits and once over 20 M
//   hits of the same users and days (USEMETER_BENCH_CLICKHOUSE_HITS changes the larger), hits
//   generated inside ClickHouse and inserted into hits as an import would; the aggregates are
//   merged first (OPTIMIZE), as background merges leave them. Floors: the same report over
//   2 M hits, and ClickHouse's own distinct count of daily users over the larger raw hits.
//
// Each side counts its best run (of five for forwarding, taking turns with its floor, each
// after ClickHouse has finished merging; of three for the reports): the machine is shared.
// Prints "RATIO clickhouse_forwarding <forwarded rate / floor rate> (target >= 0.8)" and per
// report "RATIO clickhouse_REPORT_growth" (target <= 1.5) and "..._vs_raw" (target <= 0.25).
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

#include "collector/reports/report_format.hpp"
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

    std::string uri(const std::string& database) const
    {
        return "clickhouse+http://127.0.0.1:" + std::to_string(server.port()) + "/" + database;
    }

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

// Until ClickHouse has no merge running, so that one run's inserts do not slow the next run.
void settle(int port)
{
    uc::clickhouse_http_t http("http://127.0.0.1:" + std::to_string(port));
    std::string merges;
    for (int tries = 0; tries < 600 && http.run("SELECT count() FROM system.merges", "", &merges) &&
                        merges != "0\n"; ++tries)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

// Each round inserts into a database of its own, made beforehand: rounds start alike, not
// slowed by the merges of the rounds before, and neither side times creating tables.
std::string fresh_database(int port, const std::string& name)
{
    uc::clickhouse_http_t http("http://127.0.0.1:" + std::to_string(port));
    uc::create_clickhouse_schema(http, name, {});
    return name;
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
        static int runs = 0;
        const std::string spool = s.dir / ("spool" + std::to_string(++runs) + ".db");
        {
            // Port 1 refuses at once: the hits stay in the spool.
            auto unreachable = open("clickhouse+http://127.0.0.1:1/unreachable", spool);
            for (std::size_t at = 0; at < s.hits.size(); at += 1000)
                unreachable->append({s.hits.begin() + at, s.hits.begin() + at + 1000});
        }
        const std::string database = fresh_database(s.server.port(), "fwd" + std::to_string(runs));
        settle(s.server.port());
        const auto started = clock_type::now();
        auto store = open(s.uri(database), spool);
        while (store->backlog() > 0)  // polled coarsely: finer costs CPU the floor does not spend
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        const std::chrono::duration<double> took = clock_type::now() - started;
        state.SetIterationTime(took.count());
        forwarded_per_s = std::max(forwarded_per_s, hit_count / took.count());
    }
}

// The rows a new spool with this instance id would send, in batches: the bytes the
// forwarder inserts, so that both sides give ClickHouse the same work (a new collector's rows
// each time, as a new spool's are).
std::vector<std::string> floor_bodies(const std::vector<uc::hit_t>& hits, const std::string& collector)
{
    std::vector<std::string> bodies;
    for (std::size_t at = 0; at < hits.size(); at += batch_rows) {
        std::string rows;
        for (std::size_t n = at; n < at + batch_rows; ++n) {
            const uc::hit_t& hit = hits[n];
            rows += collector + '\t' + std::to_string(n + 1) + '\t' + std::to_string(hit.received) + '\t' +
                    uc::utc_day(hit.received);
            for (const std::string* field : hit.fields()) {
                rows += '\t';
                uc::append_tsv_field(rows, *field);
            }
            rows += '\n';
        }
        bodies.push_back(std::move(rows));
    }
    return bodies;
}

void BM_clickhouse_bare_insert(benchmark::State& state)
{
    setting_t& s = setting();
    if (!s.up)
        return state.SkipWithError("clickhouse-server cannot start");
    static int rounds = 0;
    char collector[33];
    std::snprintf(collector, sizeof collector, "%032x", ++rounds);
    const std::vector<std::string> bodies = floor_bodies(s.hits, collector);
    const std::string insert =
        "INSERT INTO " + fresh_database(s.server.port(), "bare" + std::to_string(rounds)) + ".hits FORMAT TabSeparated";
    uc::clickhouse_http_t http("http://127.0.0.1:" + std::to_string(s.server.port()));
    for (auto _ : state) {
        settle(s.server.port());
        const auto started = clock_type::now();
        for (const std::string& body : bodies)
            if (!http.run(insert, body))
                return state.SkipWithError("insert failed");
        const std::chrono::duration<double> took = clock_type::now() - started;
        state.SetIterationTime(took.count());
        floor_per_s = std::max(floor_per_s, hit_count / took.count());
    }
}

// 50,000 users over 30 days from 2026-01-01, each using one of 40 features in 8 categories,
// 3 versions (one per 10 days), 5 systems, a third of the hits active.
std::string generate_sql(const std::string& database, long hits)
{
    return "INSERT INTO " + database + ".hits SELECT 'gen', number, toInt64(1767225600 + d * 86400 + 3600),"
           " toDate('2026-01-01') + d, 'UA-1', concat('user-', toString(u)), 'bench',"
           " concat('1.', toString(intDiv(d, 10))), '', concat('os-', toString(u % 5)),"
           " if(number % 3 = 0, 'y', 'n'), concat('cat-', toString(f % 8)), concat('feature-', toString(f))"
           " FROM (SELECT number, number % 50000 AS u, intDiv(number, 50000) % 30 AS d,"
           " (u * 7 + number % 4) % 40 AS f FROM numbers(" + std::to_string(hits) + "))";
}

const std::pair<const char*, uc::report_kind_t> report_kinds[] = {
    {"active", uc::report_kind_t::active}, {"features", uc::report_kind_t::features},
    {"versions", uc::report_kind_t::versions}, {"systems", uc::report_kind_t::systems}};

std::map<std::string, double> report_seconds;  // "KIND SIZE" -> best time
double raw_seconds = 0;

template <typename work_t>
double best_of_three(work_t work)
{
    double best = 1e9;
    for (int run = 0; run < 3; ++run) {
        const auto started = clock_type::now();
        if (!work())
            return 0;
        best = std::min(best, std::chrono::duration<double>(clock_type::now() - started).count());
    }
    return best;
}

bool fill(uc::clickhouse_http_t& http, const std::string& database, long hits)
{
    const uc::outcome_t filled =
        uc::run_each(http, {"DROP DATABASE IF EXISTS " + database, "CREATE DATABASE " + database});
    const uc::outcome_t generated =
        filled ? uc::create_clickhouse_schema(http, database, {}) : filled;
    const uc::outcome_t merged = generated ?
        uc::run_each(http, {generate_sql(database, hits), "OPTIMIZE TABLE " + database + ".user_days FINAL",
                            "OPTIMIZE TABLE " + database + ".feature_days FINAL"}) : generated;
    if (!merged)
        std::fprintf(stderr, "%s\n", merged.error.c_str());
    return merged.ok;
}

void BM_clickhouse_reports(benchmark::State& state)
{
    setting_t& s = setting();
    if (!s.up)
        return state.SkipWithError("clickhouse-server cannot start");
    const char* larger = std::getenv("USEMETER_BENCH_CLICKHOUSE_HITS");
    const long sizes[] = {2000000, larger ? std::atol(larger) : 20000000};
    uc::clickhouse_http_t http("http://127.0.0.1:" + std::to_string(s.server.port()));
    http.set_patient(true);  // generating 20 M hits takes minutes
    uc::report_query_t query{"bench", "", "2026-01-01", "2026-01-30"};
    for (auto _ : state) {
        for (const long size : sizes) {
            const std::string database = "r" + std::to_string(size);
            if (!fill(http, database, size))
                return state.SkipWithError("cannot generate the hits");
            std::string error;
            auto source = uc::open_report_source(s.uri(database), error);
            for (const auto& [name, kind] : report_kinds)
                report_seconds[name + std::string(" ") + std::to_string(size)] = best_of_three([&] {
                    uc::report_t report;
                    return uc::make_report(*source, kind, query, report).ok;
                });
            raw_seconds = best_of_three([&] {
                std::string days;
                return http.run("SELECT day, uniqExact(cid) FROM " + database + ".hits WHERE an = 'bench'"
                                " AND day BETWEEN '2026-01-01' AND '2026-01-30' GROUP BY day", "", &days).ok;
            });
            for (const auto& [name, kind] : report_kinds)
                std::printf("%s over %ld hits: %.3f s\n", name, size,
                            report_seconds[name + std::string(" ") + std::to_string(size)]);
            std::printf("uniqExact(cid) per day over %ld raw hits: %.3f s\n", size, raw_seconds);
        }
    }
    for (const auto& [name, kind] : report_kinds) {
        const double small = report_seconds[name + std::string(" ") + std::to_string(sizes[0])];
        const double large = report_seconds[name + std::string(" ") + std::to_string(sizes[1])];
        if (small > 0 && large > 0 && raw_seconds > 0) {
            std::printf("RATIO clickhouse_%s_growth %.2f (target <= 1.5)\n", name, large / small);
            std::printf("RATIO clickhouse_%s_vs_raw %.2f (target <= 0.25)\n", name, large / raw_seconds);
        }
    }
}

BENCHMARK(BM_clickhouse_reports)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv)
{
    // Forwarding and its floor take turns, so that both meet the same load of the machine.
    for (int round = 0; round < 5; ++round) {
        benchmark::RegisterBenchmark("BM_clickhouse_bare_insert", BM_clickhouse_bare_insert)
            ->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark("BM_clickhouse_forwarding", BM_clickhouse_forwarding)
            ->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    if (floor_per_s > 0 && forwarded_per_s > 0) {
        std::printf("forwarded %.0f hits/s, bare insert %.0f hits/s\n", forwarded_per_s, floor_per_s);
        std::printf("RATIO clickhouse_forwarding %.2f (target >= 0.8)\n", forwarded_per_s / floor_per_s);
    }
    return 0;
}
