// The same generated hits through the SQLite store and through ClickHouse give the same
// reports, although ClickHouse holds every batch twice (each first acknowledgement lost, merges
// off), and a failure to read ClickHouse is a result.
#include <chrono>
#include <ctime>
#include <thread>

#include <gtest/gtest.h>

#include "collector/generator.hpp"
#include "collector/report_format.hpp"
#include "collector/store_clickhouse.hpp"
#include "collector/store_sqlite.hpp"
#include "support/clickhouse_server.hpp"
#include "tracelog/log_capture.hpp"

namespace {

namespace uc = usemeter_collector;

std::string report_text(uc::report_source_t& source, uc::report_kind_t kind, const uc::report_query_t& query)
{
    uc::report_t report;
    const uc::outcome_t made = uc::make_report(source, kind, query, report);
    return made ? uc::report_json(report).dump(1) : made.error;
}

TEST(report_agreement, both_stores_give_the_same_reports_of_the_same_hits)
{
    usemeter_test::clickhouse_server_t server;
    if (!server.start() || !server.query("SYSTEM STOP MERGES").empty())
        GTEST_SKIP() << "ClickHouse tests skipped: " << server.error();
    usemeter_test::temp_dir_t dir;
    const tracelog::log_capture_t log("usemeter.collector");  // the forwarder's retries
    std::string error;
    auto sqlite = uc::open_sqlite_store(dir / "hits.db", uc::durability_t::normal, error);
    ASSERT_TRUE(sqlite) << error;
    uc::clickhouse_options_t options;
    options.uri = server.uri("test");
    options.spool = dir / "spool.db";
    options.batch_rows = 3000;
    options.batch_wait = options.retry_max = std::chrono::milliseconds(20);
    int acknowledgements = 0;
    options.fault = [&](uc::forward_step_t step) {
        return step != uc::forward_step_t::acknowledged || ++acknowledgements % 2 == 0;
    };
    auto clickhouse = uc::open_clickhouse_store(options, error);
    ASSERT_TRUE(clickhouse) << error;

    const std::int64_t now = std::time(nullptr);
    for (const char* product : {"trovix", "quanta"}) {
        const uc::generator_options_t generated{product, 60, 75, uc::utc_day(now), product[0] == 't' ? 1u : 2u};
        std::int64_t hits = 0;
        ASSERT_TRUE(uc::generate_hits(generated, *sqlite, hits) && uc::generate_hits(generated, *clickhouse, hits));
    }
    // One user of both products: new to trovix on a later day, and active only by a second hit that day.
    const std::vector<uc::hit_t> both_products = {
        {now - 40 * 86400, "UA-1", "both", "quanta", "2025.2", "", "Debian 12", "y", "run", "collect"},
        {now - 20 * 86400, "UA-1", "both", "trovix", "2026.1", "", "Debian 12", "n", "run", "collect"},
        {now - 20 * 86400 + 60, "UA-1", "both", "trovix", "2026.1", "", "Debian 12", "y", "run", "report"}};
    ASSERT_TRUE(sqlite->append(both_products) && clickhouse->append(both_products));
    for (int waited = 0; clickhouse->backlog() > 0 && waited < 2000; ++waited)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(clickhouse->backlog(), 0);
    ASSERT_EQ(server.query("SELECT count() > uniqExact(collector, seq) FROM test.hits"), "1\n");

    auto from_sqlite = uc::open_report_source("sqlite:" + (dir / "hits.db"), error);
    auto from_clickhouse = uc::open_report_source(server.uri("test"), error);
    ASSERT_TRUE(from_sqlite && from_clickhouse) << error;
    const std::string since = uc::utc_day(now - 50 * 86400), until = uc::utc_day(now - 10 * 86400);
    std::vector<uc::report_query_t> queries = {{}, {"trovix", "", since, until}, {"quanta", "2025.2", "", until}};
    for (uc::report_query_t& query : queries) {
        ASSERT_TRUE(uc::complete_query(query, now));
        for (uc::report_kind_t kind : {uc::report_kind_t::active, uc::report_kind_t::features,
                                       uc::report_kind_t::versions, uc::report_kind_t::systems}) {
            SCOPED_TRACE(query.product + " " + query.version + " " + query.since + " report " +
                         std::to_string(static_cast<int>(kind)));
            const std::string expected = report_text(*from_sqlite, kind, query);
            EXPECT_GT(expected.size(), 200u) << expected;
            EXPECT_EQ(report_text(*from_clickhouse, kind, query), expected);
        }
    }
    server.kill();
    EXPECT_EQ(report_text(*from_clickhouse, uc::report_kind_t::systems, queries[0]).rfind("cannot read", 0), 0u);
}

}  // namespace
