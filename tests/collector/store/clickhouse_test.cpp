// The ClickHouse store against real clickhouse-servers on loopback, one or two shards: nothing
// lost and nothing counted twice through outages, kills in the middle of a batch and a full
// spool; and the same hits give the same export and reports from ClickHouse as from the
// SQLite store.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>
#include <httplib.h>

#include "collector/store/clickhouse/clickhouse_http.hpp"
#include "collector/collector.hpp"
#include "collector/reports/generator.hpp"
#include "collector/reports/report_format.hpp"
#include "collector/store/clickhouse/store_clickhouse.hpp"
#include "collector/store/sqlite/store_sqlite.hpp"
#include "support/clickhouse_server.hpp"
#include "tracelog/log_capture.hpp"

namespace {

namespace uc = usemeter_collector;
using std::chrono::milliseconds;

// Distinct hits, and the hits the feature aggregates counted.
const char* const unique_hits =
    "SELECT uniqExact(collector, seq), uniqExact(cid, el), (SELECT sumMerge(hits) FROM test.feature_days"
    " WHERE day > toDate(0)) FROM test.hits FORMAT TSV";

template <typename predicate_t>
bool eventually(predicate_t done, milliseconds limit = milliseconds(20000))
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(milliseconds(5));
    return done();
}

std::string report_text(uc::report_source_t& source, uc::report_kind_t kind,
                        const uc::report_query_t& query)
{
    uc::report_t report;
    const uc::outcome_t made = uc::make_report(source, kind, query, report);
    return made ? uc::report_json(report).dump(1) : made.error;
}

std::vector<std::string> export_lines(uc::store_t& store)
{
    std::ostringstream csv;
    EXPECT_TRUE(store.export_csv(csv, "", ""));
    std::istringstream in(csv.str());
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

class clickhouse_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (std::size_t shard = 0; shard < shards; ++shard)
            if (!start_server(servers[shard]))
                GTEST_SKIP() << "ClickHouse tests skipped: " << servers[shard].error();
    }

    // Merges stay off, so copies of a batch sent twice stay visible to the checks.
    static bool start_server(usemeter_test::clickhouse_server_t& s)
    {
        return s.start() && s.query("SYSTEM STOP MERGES").empty();
    }

    std::string uri(const std::string& database) const
    {
        std::string hosts;
        for (std::size_t shard = 0; shard < shards; ++shard)
            hosts += (shard ? ",127.0.0.1:" : "127.0.0.1:") + std::to_string(servers[shard].port());
        return "clickhouse+http://" + hosts + "/" + database;
    }

    // The numbers of a one-row answer, summed over the shards.
    std::string summed(const std::string& statement) const
    {
        std::int64_t sums[3] = {}, number = 0;
        std::size_t columns = 0;
        for (std::size_t shard = 0; shard < shards; ++shard) {
            std::istringstream row(servers[shard].query(statement));
            for (columns = 0; columns < 3 && row >> number; ++columns)
                sums[columns] += number;
        }
        std::string text;
        for (std::size_t column = 0; column < columns; ++column)
            text += (column ? "\t" : "") + std::to_string(sums[column]);
        return text + "\n";
    }

    std::shared_ptr<uc::store_t> open(std::function<bool(uc::forward_step_t)> fault = nullptr,
                                      std::size_t spool_max_hits = 1000000, std::size_t batch_rows = 500)
    {
        uc::clickhouse_options_t options;
        options.uri = uri("test");
        options.spool = dir / "spool.db";
        options.spool_max_hits = spool_max_hits;
        options.batch_rows = batch_rows;
        options.batch_wait = milliseconds(50);
        options.retry_max = milliseconds(100);
        options.fault = std::move(fault);
        std::string error;
        std::shared_ptr<uc::store_t> store = uc::open_clickhouse_store(options, error);
        EXPECT_TRUE(store) << error;
        return store;
    }

    usemeter_test::temp_dir_t dir;
    std::size_t shards = 1;
    usemeter_test::clickhouse_server_t servers[2];
    usemeter_test::clickhouse_server_t& server = servers[0];
};

// Its tests run on one server and on a cluster of two shards.
class clickhouse_shards_test : public clickhouse_test, public ::testing::WithParamInterface<std::size_t> {
protected:
    void SetUp() override
    {
        shards = GetParam();
        clickhouse_test::SetUp();
    }
};

INSTANTIATE_TEST_SUITE_P(shards, clickhouse_shards_test, ::testing::Values(1, 2));

}  // namespace

TEST(clickhouse_uri, names_each_shard_once_in_order)
{
    const struct { const char* uri; std::vector<std::string> servers; /* none: refused */ } cases[] = {
        {"clickhouse+http://ch:8123/usemeter", {"http://ch:8123"}},
        {"clickhouse+http://[::1]:1,ch2:2,10.0.0.3:3/usemeter",
         {"http://[::1]:1", "http://ch2:2", "http://10.0.0.3:3"}},
        {"clickhouse+http://ch:1,ch:1/usemeter", {}},
        {"clickhouse+http://ch:1,/usemeter", {}},
        {"clickhouse+http://ch:1,ch2/usemeter", {}},
        {"clickhouse+http://ch:/usemeter", {}},
        {"clickhouse+http://ch:1/use-meter", {}},
    };
    for (const auto& c : cases) {
        uc::clickhouse_address_t address;
        std::string error;
        EXPECT_EQ(uc::parse_clickhouse_uri(c.uri, address, error), !c.servers.empty()) << c.uri;
        EXPECT_EQ(address.servers, c.servers) << c.uri;
    }
    // Hits are placed by this hash: it may never change.
    EXPECT_EQ(uc::clickhouse_shard_of("", 1000), 37u);
    EXPECT_EQ(uc::clickhouse_shard_of("both", 1000), 882u);
    EXPECT_EQ(uc::clickhouse_shard_of("c3", 1000), 435u);
}

// Killed after the insert, a batch has reached ClickHouse unacknowledged; stopped or killed
// mid-insert, it may have left any part of itself behind, on a cluster one shard's part
// taken and the other's not; hits keep coming while it is down. Each hit is counted once.
TEST_P(clickhouse_shards_test, stopped_or_killed_in_the_middle_of_a_batch_nothing_missing_nothing_twice)
{
    const struct { const char* name; uc::forward_step_t step; int kill_after_ms, signal; } cases[] = {
        {"killed after the insert", uc::forward_step_t::acknowledged, 0, SIGKILL},
        {"killed while inserting", uc::forward_step_t::send, 15, SIGKILL},
        {"stopped while inserting", uc::forward_step_t::send, 15, SIGTERM},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        for (std::size_t shard = 0; shard < shards; ++shard)
            servers[shard].query("DROP DATABASE IF EXISTS test");
        std::remove((dir / "spool.db").c_str());
        usemeter_test::clickhouse_server_t& victim = servers[shards - 1];
        std::atomic<bool> fired{false};
        std::thread killer;
        auto store = open([&](uc::forward_step_t step) {
            if (step != c.step || fired)
                return true;
            killer = std::thread([&] {
                std::this_thread::sleep_for(milliseconds(c.kill_after_ms));
                victim.kill(c.signal);
            });
            fired = true;
            return step == uc::forward_step_t::send;
        });
        std::vector<uc::hit_t> hits(3000);
        for (int n = 0; n < 3000; ++n)
            hits[n] = {1790000000 + n, "UA-7-1", "c" + std::to_string(n % 17), "prod", "1.0", "", "linux",
                       "y", "gui", std::to_string(n)};
        ASSERT_TRUE(store->append({hits.begin(), hits.begin() + 2000}));
        ASSERT_TRUE(eventually([&] { return fired.load(); }));
        killer.join();
        ASSERT_TRUE(store->append({hits.begin() + 2000, hits.end()}));
        ASSERT_TRUE(start_server(victim)) << victim.error();
        ASSERT_TRUE(eventually([&] { return store->backlog() == 0; }));
        EXPECT_EQ(summed(unique_hits), "3000\t3000\t3000\n");
        EXPECT_EQ(export_lines(*store).size(), 3001u);
    }
}

// At the bound, hits are answered 503 (never 200 for a hit not kept), with one log record,
// a metric and /healthz 503, until the forwarder has made room.
TEST_F(clickhouse_test, full_spool_refuses_with_one_record_and_a_metric_until_there_is_room)
{
    tracelog::log_capture_t log("usemeter.collector");
    server.kill();
    uc::collector_options_t options;
    options.listen = "127.0.0.1:0";
    options.store_instance = open(nullptr, 5);
    uc::collector_t collector(options);
    ASSERT_TRUE(collector.start());
    httplib::Client client("127.0.0.1", collector.port());
    const auto post = [&](int n) {
        const std::string body = "v=1&tid=UA-7-1&cid=c&t=event&ec=gui&el=" + std::to_string(n);
        auto answer = client.Post("/collect", body, "text/plain");
        return answer ? answer->status : -1;
    };
    for (int n = 0; n < 7; ++n)
        EXPECT_EQ(post(n), n < 5 ? 200 : 503) << "hit " << n;
    const std::string metrics = client.Get("/metrics")->body;
    EXPECT_NE(metrics.find("\nusemeter_spool_hits 5\n"), std::string::npos) << metrics;
    EXPECT_NE(metrics.find("\nusemeter_spool_refused_hits_total 2\n"), std::string::npos) << metrics;
    EXPECT_EQ(client.Get("/healthz")->status, 503);
    const auto messages = log.messages();
    const auto full = [](const std::string& m) { return m.find("the spool is full") != std::string::npos; };
    EXPECT_EQ(std::count_if(messages.begin(), messages.end(), full), 1);

    ASSERT_TRUE(start_server(server)) << server.error();
    ASSERT_TRUE(eventually([&] { return options.store_instance->backlog() == 0; }));
    EXPECT_EQ(post(7), 200);
    EXPECT_EQ(client.Get("/healthz")->status, 200);
    ASSERT_TRUE(eventually([&] { return options.store_instance->backlog() == 0; }));
    EXPECT_EQ(server.query("SELECT arraySort(groupArray(toUInt32(el))) FROM test.hits FORMAT TSV"),
              "[0,1,2,3,4,7]\n");
}

// The same hits through both stores give the same export and the same reports, awkward labels
// included, although every other acknowledgement from ClickHouse is lost and some hits reach
// it as an import would, straight into hits: before the collector's first connection (a
// database of an earlier version, back-filled) and after; a failure to read is a result. On
// a cluster, every shard holds hits and no client id is on two.
TEST_P(clickhouse_shards_test, both_stores_give_the_same_export_and_reports)
{
    const tracelog::log_capture_t log("usemeter.collector");  // the forwarder's retries
    const std::int64_t now = std::time(nullptr);
    const auto hit = [&](int days_ago, const char* an, const char* av, const char* active,
                         const char* el) {
        return uc::hit_t{now - days_ago * 86400, "UA-1", "both", an, av, "", "Debian 12", active, "run",
                         el};
    };
    // One user of both products: new to trovix on a later day, and active only by a second hit
    // that day.
    const std::vector<uc::hit_t> both_products = {
        hit(40, "quanta", "2025.2", "y", "tab\there"), hit(20, "trovix", "2026.1", "n", "a,b \"q\""),
        hit(20, "trovix", "2026.1", "y", ""), hit(19, "trovix", "2026.1", "y", "line\nbreak"),
        hit(18, "trovix", "2026.1", "y", "back\\slash")};
    const auto import = [&](std::size_t first, std::size_t end) {
        std::string rows;
        for (std::size_t n = first; n < end; ++n) {
            const uc::hit_t& h = both_products[n];
            rows += "import\t" + std::to_string(n) + '\t' + std::to_string(h.received) + '\t' +
                    uc::utc_day(h.received);
            for (const std::string* field : h.fields())
                uc::append_tsv_field(rows += '\t', *field);
            rows += '\n';
        }
        const std::size_t shard = uc::clickhouse_shard_of("both", shards);
        uc::clickhouse_http_t http("http://127.0.0.1:" + std::to_string(servers[shard].port()));
        EXPECT_TRUE(http.run("INSERT INTO test.hits FORMAT TabSeparated", rows));
    };
    for (std::size_t shard = 0; shard < shards; ++shard) {
        servers[shard].query("CREATE DATABASE test");
        servers[shard].query("CREATE TABLE test.hits (collector String, seq UInt64, received Int64, day Date,"
                             " tid String, cid String, an String, av String, cd1 String, cd2 String, cd3 String,"
                             " ec String, el String) ENGINE = ReplacingMergeTree() PARTITION BY toYYYYMM(day)"
                             " ORDER BY (an, day, collector, seq)");
    }
    import(0, 2);
    int acknowledgements = 0;
    auto clickhouse = open([&](uc::forward_step_t step) {
        return step != uc::forward_step_t::acknowledged || ++acknowledgements % 2 == 0;
    }, 1000000, 3000);
    std::string error;
    auto sqlite = uc::open_sqlite_store(dir / "hits.db", uc::durability_t::normal, error);
    ASSERT_TRUE(sqlite && sqlite->append(both_products)) << error;
    for (const char* product : {"trovix", "quanta"}) {
        const uc::generator_options_t generated{product, 60, 75, uc::utc_day(now),
                                                product[0] == 't' ? 1u : 2u};
        std::int64_t hits = 0;
        ASSERT_TRUE(uc::generate_hits(generated, *sqlite, hits));
        ASSERT_TRUE(uc::generate_hits(generated, *clickhouse, hits));
    }
    ASSERT_TRUE(eventually([&] { return clickhouse->backlog() == 0; }));
    import(2, both_products.size());
    ASSERT_GT(acknowledgements, 10);
    ASSERT_EQ(summed("SELECT count() - uniqExact(collector, seq) FROM test.hits"), "0\n");
    std::vector<std::string> cids;
    for (std::size_t shard = 0; shard < shards; ++shard) {
        std::istringstream held(servers[shard].query("SELECT DISTINCT cid FROM test.hits"));
        const std::size_t before = cids.size();
        for (std::string cid; std::getline(held, cid);)
            cids.push_back(cid);
        EXPECT_GT(cids.size(), before + 10) << "shard " << shard;
    }
    std::sort(cids.begin(), cids.end());
    EXPECT_TRUE(std::adjacent_find(cids.begin(), cids.end()) == cids.end());
    // SQLite exports in the order appended, ClickHouse in the order of the times received,
    // which differ here: one product's days were appended after the other's.
    std::vector<std::string> from_sqlite = export_lines(*sqlite);
    std::vector<std::string> from_clickhouse = export_lines(*clickhouse), received;
    for (const std::string& line : from_clickhouse)
        if (line.size() > 20 && line[10] == 'T' && line[19] == 'Z')  // not the header or a label's second line
            received.push_back(line.substr(0, 20));
    EXPECT_TRUE(std::is_sorted(received.begin(), received.end()));
    std::sort(from_sqlite.begin(), from_sqlite.end());
    std::sort(from_clickhouse.begin(), from_clickhouse.end());
    EXPECT_TRUE(from_clickhouse == from_sqlite) << from_clickhouse.size() << " lines, " << from_sqlite.size();

    auto sqlite_reports = uc::open_report_source("sqlite:" + (dir / "hits.db"), error);
    auto clickhouse_reports = uc::open_report_source(uri("test"), error);
    ASSERT_TRUE(sqlite_reports && clickhouse_reports) << error;
    const std::string since = uc::utc_day(now - 50 * 86400), until = uc::utc_day(now - 10 * 86400);
    std::vector<uc::report_query_t> queries = {
        {}, {"trovix", "", since, until}, {"quanta", "2025.2", "", until}};
    for (uc::report_query_t& query : queries) {
        ASSERT_TRUE(uc::complete_query(query, now));
        for (uc::report_kind_t kind : {uc::report_kind_t::active, uc::report_kind_t::features,
                                       uc::report_kind_t::versions, uc::report_kind_t::systems,
                                       uc::report_kind_t::retention, uc::report_kind_t::adoption}) {
            SCOPED_TRACE(query.product + " " + query.since + " " + std::to_string(static_cast<int>(kind)));
            const std::string expected = report_text(*sqlite_reports, kind, query);
            EXPECT_GT(expected.size(), 200u) << expected;
            EXPECT_EQ(report_text(*clickhouse_reports, kind, query), expected);
        }
    }
    // Erasing a user and the days before since erases as many hits and leaves the same numbers.
    std::int64_t erased[2][2] = {};
    for (uc::store_t* store : {sqlite.get(), clickhouse.get()}) {
        std::int64_t* counts = erased[store == clickhouse.get()];
        ASSERT_TRUE(store->erase_client("both", counts[0]) && store->erase_before(since, counts[1]));
    }
    EXPECT_TRUE(std::equal(erased[0], erased[0] + 2, erased[1])) << erased[1][0] << " " << erased[1][1];
    for (uc::report_kind_t kind : {uc::report_kind_t::active, uc::report_kind_t::features})
        EXPECT_EQ(report_text(*clickhouse_reports, kind, queries[0]),
                  report_text(*sqlite_reports, kind, queries[0]));
    // The owners' duties find the database, and neither find nor create a mistyped one.
    EXPECT_TRUE(uc::store_exists(uri("test")) && !uc::store_exists(uri("typo")) && !uc::store_exists(uri("typo")));
    // A reordered or shortened host list is refused, not misread.
    const std::string first = "127.0.0.1:" + std::to_string(servers[0].port());
    for (const std::string& hosts : {"127.0.0.1:" + std::to_string(servers[1].port()) + "," + first, first}) {
        auto misplaced = uc::open_report_source("clickhouse+http://" + hosts + "/test", error);
        EXPECT_TRUE(shards == 1 || report_text(*misplaced, uc::report_kind_t::systems, queries[0])
                                           .find("must never change") != std::string::npos) << hosts;
    }
    servers[shards - 1].kill();
    const std::string unread = report_text(*clickhouse_reports, uc::report_kind_t::systems, queries[0]);
    EXPECT_EQ(unread.rfind("cannot read", 0), 0u);
}
