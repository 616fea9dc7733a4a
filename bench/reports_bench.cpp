// Reports from the rollups against a plain query of the hits table for the same answer, in
// the same run, on generated hits:
// - daily active users over 30 days: the active report (dau, wau, mau, new, active share)
//   against "count distinct client ids per day" over the hits;
// - the feature table over 30 days against the same grouping over the hits;
// - the JSON endpoint GET /api/stats/active (over loopback) against the same hits query;
// - weekly retention cohorts over 30 days against the same cohorts from the hits (each
//   client id's first hit in the whole store, the distinct weeks it came back).
//
// The generated store is kept in the build tree (report-bench-USERS.db) because generating
// it takes minutes; USEMETER_BENCH_REPORT_USERS sets its size (default 25000 users over 90
// days, about 10 M hits: the size the targets hold at).
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include <benchmark/benchmark.h>
#include <httplib.h>
#include <sqlite3.h>

#include "collector/collector.hpp"
#include "collector/reports/generator.hpp"
#include "collector/reports/report_format.hpp"
#include "collector/reports/report_page.hpp"

namespace {

namespace uc = usemeter_collector;

const char* const last_day = "2026-03-31";
const uc::report_query_t month{"", "", "2026-03-02", last_day};
std::string store_uri;
std::map<std::string, double> mean_ms;

const char* const dau_from_hits =
    "SELECT day, count(DISTINCT cid) FROM hits WHERE day BETWEEN '2026-03-02' AND '2026-03-31'"
    " GROUP BY day";
const char* const features_from_hits =
    "SELECT ec, NULL, count(*), count(DISTINCT cid) FROM hits"
    " WHERE day BETWEEN '2026-03-02' AND '2026-03-31' GROUP BY ec UNION ALL "
    "SELECT ec, el, count(*), count(DISTINCT cid) FROM hits"
    " WHERE day BETWEEN '2026-03-02' AND '2026-03-31' GROUP BY ec, el";

// 2026-03-02 is a Monday, so the month's weeks are whole from its start.
const char* const retention_from_hits =
    "WITH weeks AS (SELECT DISTINCT cid,"
    "  date(day, '-' || ((CAST(strftime('%w', day) AS INTEGER) + 6) % 7) || ' days') AS week"
    "  FROM hits WHERE day BETWEEN '2026-03-02' AND '2026-03-31'),"
    " firsts AS (SELECT cid,"
    "  date(min(day), '-' || ((CAST(strftime('%w', min(day)) AS INTEGER) + 6) % 7) || ' days') AS cohort"
    "  FROM hits GROUP BY cid HAVING min(day) BETWEEN '2026-03-02' AND '2026-03-31')"
    " SELECT cohort, count(*) FROM firsts JOIN weeks USING (cid) WHERE week >= cohort GROUP BY cohort, week";

void scan_hits(benchmark::State& state, const char* sql)
{
    sqlite3* db = nullptr;
    sqlite3_open_v2(store_uri.substr(7).c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    for (auto _ : state) {
        sqlite3_stmt* stmt = nullptr;
        sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
        std::int64_t sum = 0;
        while (sqlite3_step(stmt) == SQLITE_ROW)
            sum += sqlite3_column_int64(stmt, 1);
        sqlite3_finalize(stmt);
        benchmark::DoNotOptimize(sum);
    }
    sqlite3_close_v2(db);
}

void BM_dau_from_hits(benchmark::State& state) { scan_hits(state, dau_from_hits); }
void BM_features_from_hits(benchmark::State& state) { scan_hits(state, features_from_hits); }
void BM_retention_from_hits(benchmark::State& state) { scan_hits(state, retention_from_hits); }

void report(benchmark::State& state, uc::report_kind_t kind)
{
    std::string error;
    auto source = uc::open_report_source(store_uri, error);
    for (auto _ : state) {
        uc::report_t rows;
        if (!uc::make_report(*source, kind, month, rows))
            state.SkipWithError("report failed");
        benchmark::DoNotOptimize(rows);
    }
}

void BM_active_report(benchmark::State& state) { report(state, uc::report_kind_t::active); }
void BM_features_report(benchmark::State& state) { report(state, uc::report_kind_t::features); }
void BM_retention_report(benchmark::State& state) { report(state, uc::report_kind_t::retention); }

void BM_active_endpoint(benchmark::State& state)
{
    uc::collector_options_t options;
    options.listen = "127.0.0.1:0";
    options.store = store_uri;
    auto routes = std::make_shared<uc::report_routes_t>(store_uri, "");
    options.mount = [routes](uc::http_server_t& server) { routes->mount(server); };
    uc::collector_t collector(options);
    if (!collector.start()) {
        state.SkipWithError("the collector did not start");
        return;
    }
    httplib::Client client("127.0.0.1", collector.port());
    for (auto _ : state) {
        auto answer = client.Get("/api/stats/active?since=2026-03-02&until=2026-03-31");
        if (!answer || answer->status != 200)
            state.SkipWithError("the endpoint failed");
    }
}

// Each benchmark's mean, as Google Benchmark measured it.
class mean_reporter_t : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        const std::pair<const char*, const char*> keys[] = {
            {"BM_dau_from_hits", "dau_hits"}, {"BM_active_report", "active"},
            {"BM_active_endpoint", "endpoint"}, {"BM_features_from_hits", "features_hits"},
            {"BM_features_report", "features"}, {"BM_retention_from_hits", "retention_hits"},
            {"BM_retention_report", "retention"}};
        for (const Run& run : runs)
            for (const auto& [benchmark, key] : keys)
                if (run.benchmark_name().rfind(benchmark, 0) == 0)
                    mean_ms[key] = run.GetAdjustedRealTime();
    }
};

bool prepare_store(const std::string& directory)
{
    const char* users_text = std::getenv("USEMETER_BENCH_REPORT_USERS");
    uc::generator_options_t generator;
    generator.users = users_text ? std::atoll(users_text) : 25000;
    generator.days = 90;
    generator.until = last_day;
    generator.batch = 5000;
    const std::string path = directory + "/report-bench-" + std::to_string(generator.users) + ".db";
    store_uri = "sqlite:" + path;
    if (FILE* existing = std::fopen(path.c_str(), "r")) {
        std::fclose(existing);
        return true;
    }
    std::string error;
    const std::string partial = "sqlite:" + path + ".partial";
    auto store = uc::open_store(partial, uc::durability_t::normal, error);
    std::int64_t hits = 0;
    if (!store || !uc::generate_hits(generator, *store, hits)) {
        std::fprintf(stderr, "cannot generate the report store: %s\n", error.c_str());
        return false;
    }
    store.reset();
    std::printf("generated %lld hits of %lld users over 90 days\n", static_cast<long long>(hits),
                static_cast<long long>(generator.users));
    return std::rename((path + ".partial").c_str(), path.c_str()) == 0;
}

}  // namespace

BENCHMARK(BM_dau_from_hits)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_active_report)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_active_endpoint)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_features_from_hits)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_features_report)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_retention_from_hits)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_retention_report)->Unit(benchmark::kMillisecond)->MinTime(2);

int main(int argc, char** argv)
{
    if (!prepare_store(USEMETER_BENCH_DIR))
        return 1;
    benchmark::Initialize(&argc, argv);
    mean_reporter_t reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    std::printf("RATIO report_active_vs_hits_query %.3f (target <= 0.1)\n", mean_ms["active"] / mean_ms["dau_hits"]);
    std::printf("RATIO report_features_vs_hits_query %.3f (target <= 0.1)\n", mean_ms["features"] / mean_ms["features_hits"]);
    std::printf("RATIO report_endpoint_active_vs_hits_query %.3f (target <= 0.1)\n", mean_ms["endpoint"] / mean_ms["dau_hits"]);
    std::printf("RATIO report_retention_vs_hits_query %.3f (target <= 0.1)\n", mean_ms["retention"] / mean_ms["retention_hits"]);
    std::printf("(means: dau from hits %.1f ms, active report %.1f ms, endpoint %.1f ms; features from hits %.1f ms,"
                " feature report %.1f ms; retention from hits %.1f ms, retention report %.1f ms)\n", mean_ms["dau_hits"],
                mean_ms["active"], mean_ms["endpoint"], mean_ms["features_hits"], mean_ms["features"],
                mean_ms["retention_hits"], mean_ms["retention"]);
    return 0;
}
