// The ClickHouse store against a real clickhouse-server on loopback: nothing lost and nothing
// counted twice through outages, kills in the middle of a batch and a full spool; and the
// same hits give the same answers from ClickHouse as from the SQLite store.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>
#include <httplib.h>

#include "collector/clickhouse_reports.hpp"
#include "collector/collector.hpp"
#include "collector/store_clickhouse.hpp"
#include "collector/store_sqlite.hpp"
#include "support/clickhouse_server.hpp"
#include "support/log_capture.hpp"

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

    // Hits (distinct keys) and users the features report counts for "gui".
    std::string gui_counts()
    {
        uc::clickhouse_address_t address;
        std::string error;
        uc::parse_clickhouse_uri(server.uri("test"), address, error);
        std::vector<uc::feature_row_t> rows;
        const uc::outcome_t outcome =
            uc::clickhouse_reports_t(address).features({"", "", "2000-01-01", "2100-01-01"}, rows);
        return !outcome ? outcome.error : rows.empty() ? "none"
                                                       : std::to_string(rows[0].hits) + " hits " +
                                                             std::to_string(rows[0].users) + " users";
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
    EXPECT_EQ(gui_counts(), "300 hits 17 users");
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
        EXPECT_EQ(gui_counts(), "2000 hits 17 users");
        std::ostringstream csv;
        ASSERT_TRUE(store->export_csv(csv, "", ""));
        const std::string text = csv.str();
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2001);
    }
}
