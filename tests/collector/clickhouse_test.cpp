// The ClickHouse store against a real clickhouse-server on loopback: nothing lost and nothing
// counted twice through outages, kills in the middle of a batch and a full spool; and the
// same hits give the same answers from ClickHouse as from the SQLite store.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>
#include <httplib.h>

#include "collector/collector.hpp"
#include "collector/store_clickhouse.hpp"
#include "collector/store_sqlite.hpp"
#include "support/clickhouse_server.hpp"
#include "tracelog/log_capture.hpp"

namespace {

namespace uc = usemeter_collector;
using std::chrono::milliseconds;

const char* const unique_hits = "SELECT uniqExact(collector, seq), uniqExact(cid, el) FROM test.hits FORMAT TSV";

template <typename predicate_t>
bool eventually(predicate_t done, milliseconds limit = milliseconds(20000))
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(milliseconds(5));
    return done();
}

std::string hit_body(int n)
{
    return "v=1&tid=UA-7-1&cid=c" + std::to_string(n % 17) + "&t=event&ec=gui&el=" + std::to_string(n) +
           "&an=prod&av=1.0&cd2=linux&cd3=y";
}

class clickhouse_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!start_server())
            GTEST_SKIP() << "ClickHouse tests skipped: " << server.error();
    }

    // Merges stay off, so copies of a batch sent twice stay visible to the checks.
    bool start_server() { return server.start() && server.query("SYSTEM STOP MERGES").empty(); }

    std::shared_ptr<uc::store_t> open(std::function<bool(uc::forward_step_t)> fault = nullptr,
                                      std::size_t spool_max_hits = 1000000)
    {
        uc::clickhouse_options_t options;
        options.uri = server.uri("test");
        options.spool = dir / "spool.db";
        options.spool_max_hits = spool_max_hits;
        options.batch_rows = 500;
        options.batch_wait = milliseconds(50);
        options.retry_max = milliseconds(100);
        options.fault = std::move(fault);
        std::string error;
        std::shared_ptr<uc::store_t> store = uc::open_clickhouse_store(options, error);
        EXPECT_TRUE(store) << error;
        return store;
    }

    std::unique_ptr<uc::collector_t> start_collector(std::shared_ptr<uc::store_t> store)
    {
        uc::collector_options_t options;
        options.listen = "127.0.0.1:0";
        options.store_instance = std::move(store);
        auto collector = std::make_unique<uc::collector_t>(options);
        EXPECT_TRUE(collector->start());
        return collector;
    }

    int post(uc::collector_t& collector, int n)
    {
        httplib::Client client("127.0.0.1", collector.port());
        auto answer = client.Post("/collect", hit_body(n), "text/plain");
        return answer ? answer->status : -1;
    }

    usemeter_test::temp_dir_t dir;
    usemeter_test::clickhouse_server_t server;
};

}  // namespace

TEST_F(clickhouse_test, stopped_while_hosts_report_then_started_every_hit_arrives_once)
{
    auto store = open();
    auto collector = start_collector(store);
    for (int n = 0; n < 300; ++n) {
        if (n == 100)
            server.kill(SIGTERM);
        if (n == 200) {
            EXPECT_GE(store->backlog(), 100) << "the hits of the outage wait in the spool";
            ASSERT_TRUE(start_server()) << server.error();
        }
        ASSERT_EQ(post(*collector, n), 200) << "hit " << n;
    }
    ASSERT_TRUE(eventually([&] { return store->backlog() == 0; }));
    collector->stop();
    EXPECT_EQ(server.query(unique_hits), "300\t300\n");
}

// A batch whose acknowledgement is lost reaches ClickHouse twice; one killed mid-insert may
// have left any part of itself behind. Either way the spool sends it again whole.
TEST_F(clickhouse_test, killed_in_the_middle_of_a_batch_nothing_missing_nothing_twice)
{
    struct case_t {
        const char* name;
        uc::forward_step_t step;
        int kill_after_ms;  // -1: ClickHouse stays up, only the answer is lost
        bool copies_stay;
    };
    const case_t cases[] = {
        {"answer lost", uc::forward_step_t::acknowledged, -1, true},
        {"killed after the insert", uc::forward_step_t::acknowledged, 0, true},
        {"killed while inserting", uc::forward_step_t::send, 15, false},
    };
    for (const case_t& c : cases) {
        SCOPED_TRACE(c.name);
        server.query("DROP TABLE IF EXISTS test.hits");
        std::remove((dir / "spool.db").c_str());
        std::atomic<bool> fired{false};
        std::thread killer;
        auto store = open([&](uc::forward_step_t step) {
            if (step != c.step || fired)
                return true;
            if (c.kill_after_ms >= 0)
                killer = std::thread([&] {
                    std::this_thread::sleep_for(milliseconds(c.kill_after_ms));
                    server.kill();
                });
            fired = true;
            return step == uc::forward_step_t::send;
        });
        std::vector<uc::hit_t> hits(2000);
        for (int n = 0; n < 2000; ++n)
            hits[n] = {1790000000 + n, "UA-7-1", "c" + std::to_string(n % 17), "prod", "1.0", "", "linux",
                       "y", "gui", std::to_string(n)};
        ASSERT_TRUE(store->append(hits));
        ASSERT_TRUE(eventually([&] { return fired.load(); }));
        if (killer.joinable()) {
            killer.join();
            ASSERT_TRUE(start_server()) << server.error();
        }
        ASSERT_TRUE(eventually([&] { return store->backlog() == 0; }));
        EXPECT_EQ(server.query(unique_hits), "2000\t2000\n");
        if (c.copies_stay) {
            EXPECT_EQ(server.query("SELECT count() FROM test.hits FORMAT TSV"), "2500\n");
        }
        std::ostringstream csv;
        ASSERT_TRUE(store->export_csv(csv, "", ""));
        const std::string text = csv.str();
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2001);
    }
}

// At the bound, hits are answered 503 (never 200 for a hit not kept), with one log record,
// a metric and /healthz 503, until the forwarder has made room.
TEST_F(clickhouse_test, full_spool_refuses_with_one_record_and_a_metric_until_there_is_room)
{
    tracelog::log_capture_t log("usemeter.collector");
    server.kill();
    auto store = open(nullptr, 5);
    auto collector = start_collector(store);
    httplib::Client client("127.0.0.1", collector->port());
    for (int n = 0; n < 7; ++n)
        EXPECT_EQ(post(*collector, n), n < 5 ? 200 : 503) << "hit " << n;
    const std::string metrics = client.Get("/metrics")->body;
    EXPECT_NE(metrics.find("\nusemeter_spool_hits 5\n"), std::string::npos) << metrics;
    EXPECT_NE(metrics.find("\nusemeter_spool_refused_hits_total 2\n"), std::string::npos) << metrics;
    EXPECT_EQ(client.Get("/healthz")->status, 503);
    const auto messages = log.messages();
    EXPECT_EQ(std::count_if(messages.begin(), messages.end(),
                            [](const std::string& m) { return m.find("the spool is full") != std::string::npos; }),
              1);

    ASSERT_TRUE(start_server()) << server.error();
    ASSERT_TRUE(eventually([&] { return store->backlog() == 0; }));
    EXPECT_EQ(post(*collector, 7), 200);
    EXPECT_EQ(client.Get("/healthz")->status, 200);
    ASSERT_TRUE(eventually([&] { return store->backlog() == 0; }));
    EXPECT_EQ(server.query("SELECT arraySort(groupArray(toUInt32(el))) FROM test.hits FORMAT TSV"),
              "[0,1,2,3,4,7]\n");
}

// The same hits through both stores give the same export, awkward labels included (the reports
// of both stores are compared in report_agreement_test).
TEST_F(clickhouse_test, both_stores_keep_the_same_hits)
{
    const std::int64_t day0 = 1790000000 - 1790000000 % 86400;
    const auto hit = [&](int n, const char* cid, const char* an, const char* av, const char* os,
                         const char* active, const char* ec, const char* el) {
        return uc::hit_t{day0 + n * 86400 + 3600, "UA-7-1", cid, an, av, "x", os, active, ec, el};
    };
    const std::vector<uc::hit_t> hits = {
        hit(0, "a", "alpha", "1.0", "linux", "y", "gui", "open"),
        hit(0, "c", "alpha", "1.0", "windows", "n", "gui", "tab\there"),
        hit(6, "a", "alpha", "1.0", "linux", "n", "gui", "open"),
        hit(6, "b", "alpha", "1.1", "windows", "y", "gui", "a,b \"q\""),
        hit(6, "b", "alpha", "1.1", "windows", "y", "run", ""),
        hit(7, "c", "beta", "1.2", "linux", "y", "gui", "open"),
        hit(29, "a", "alpha", "1.0", "linux", "y", "run", "line\nbreak"),
        hit(30, "b", "alpha", "1.1", "windows", "n", "gui", "back\\slash"),
    };
    std::string error;
    auto sqlite = uc::open_sqlite_store(dir / "hits.db", uc::durability_t::normal, error);
    auto clickhouse = open();
    ASSERT_TRUE(sqlite && sqlite->append(hits) && clickhouse->append(hits)) << error;
    ASSERT_TRUE(eventually([&] { return clickhouse->backlog() == 0; }));
    std::ostringstream from_sqlite, from_clickhouse;
    ASSERT_TRUE(sqlite->export_csv(from_sqlite, "", ""));
    ASSERT_TRUE(clickhouse->export_csv(from_clickhouse, "", ""));
    EXPECT_EQ(from_clickhouse.str(), from_sqlite.str());
}
