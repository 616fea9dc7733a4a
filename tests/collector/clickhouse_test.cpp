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

    // What the features report counts for "gui": hits (distinct keys) and users of its
    // subtotal, and the hits of its label rows summed.
    std::string gui_counts()
    {
        uc::clickhouse_address_t address;
        std::string error;
        uc::parse_clickhouse_uri(server.uri("test"), address, error);
        std::vector<uc::feature_row_t> rows;
        const uc::outcome_t outcome =
            uc::clickhouse_reports_t(address).features({"", "", "2000-01-01", "2100-01-01"}, rows);
        if (!outcome || rows.empty())
            return outcome.error;
        std::uint64_t labelled = 0;
        for (const auto& row : rows)
            labelled += row.is_subtotal ? 0 : row.hits;
        return std::to_string(rows[0].hits) + " hits " + std::to_string(rows[0].users) + " users " +
               std::to_string(labelled) + " labelled";
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
    EXPECT_EQ(gui_counts(), "300 hits 17 users 300 labelled");
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
        EXPECT_EQ(gui_counts(), "2000 hits 17 users 2000 labelled");
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
    usemeter_test::log_capture_t log("usemeter.collector");
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

// The same hits through both stores: the same export, and from ClickHouse the report numbers
// that the definitions give when worked out by hand from the hits themselves.
class agreement_test : public clickhouse_test {
protected:
    struct users_t {
        std::uint64_t hits = 0;
        std::set<std::string> ids;
    };

    static bool matches(const uc::hit_t& hit, const uc::report_filter_t& filter, bool with_version = true)
    {
        return (filter.product.empty() || hit.an == filter.product) &&
               (!with_version || filter.version.empty() || hit.av == filter.version);
    }

    // Client ids with a matching hit on one of the n days ending with day.
    std::set<std::string> users(const uc::report_filter_t& filter, const std::string& day, int n,
                                bool active_only = false) const
    {
        std::set<std::string> ids;
        for (const uc::hit_t& hit : hits) {
            const std::string hit_day = uc::utc_day(hit.received);
            if (matches(hit, filter) && hit_day <= day && hit_day > uc::days_before(day, n) &&
                (!active_only || hit.cd3 == "y"))
                ids.insert(hit.cid);
        }
        return ids;
    }

    std::string expected_active(const uc::report_filter_t& filter) const
    {
        std::map<std::string, std::string> first_day;
        for (const uc::hit_t& hit : hits) {
            std::string& first = first_day[hit.cid];
            if (matches(hit, filter, false) && (first.empty() || uc::utc_day(hit.received) < first))
                first = uc::utc_day(hit.received);
        }
        std::ostringstream out;
        for (const std::string& day : uc::days_between(filter.since, filter.until)) {
            const auto today = users(filter, day, 1);
            const auto fresh = std::count_if(today.begin(), today.end(),
                                             [&](const std::string& id) { return first_day[id] == day; });
            out << day << ' ' << today.size() << ' ' << users(filter, day, 7).size() << ' '
                << users(filter, day, 30).size() << ' ' << fresh << ' '
                << (today.empty() ? 0.0 : double(users(filter, day, 1, true).size()) / today.size()) << '\n';
        }
        return out.str();
    }

    std::string expected_tallies(const uc::report_filter_t& filter) const
    {
        std::map<std::string, users_t> features, versions, systems;
        for (const uc::hit_t& hit : hits) {
            const std::string day = uc::utc_day(hit.received);
            if (!matches(hit, filter) || day < filter.since || day > filter.until)
                continue;
            for (users_t* tally : {&features[hit.ec + " *"], &features[hit.ec + " =" + hit.el],
                                   &versions[day + ' ' + hit.av], &systems[hit.cd2]}) {
                ++tally->hits;
                tally->ids.insert(hit.cid);
            }
        }
        std::ostringstream out;
        for (const auto& f : features)
            out << f.first << ' ' << f.second.hits << ' ' << f.second.ids.size() << '\n';
        for (const auto& v : versions)
            out << v.first << ' ' << v.second.ids.size() << '\n';
        std::vector<std::pair<std::size_t, std::string>> by_users;
        for (const auto& s : systems)
            by_users.emplace_back(s.second.ids.size(), s.first);
        std::sort(by_users.begin(), by_users.end(),
                  [](const auto& a, const auto& b) { return a.first != b.first ? a.first > b.first : a.second < b.second; });
        for (const auto& s : by_users)
            out << s.second << ' ' << s.first << '\n';
        return out.str();
    }

    std::string reported_active(const uc::clickhouse_reports_t& reports, const uc::report_filter_t& filter) const
    {
        std::vector<uc::active_row_t> rows;
        const uc::outcome_t outcome = reports.active(filter, rows);
        std::ostringstream out;
        for (const auto& r : rows)
            out << r.day << ' ' << r.dau << ' ' << r.wau << ' ' << r.mau << ' ' << r.new_users << ' '
                << r.active_share << '\n';
        return outcome ? out.str() : outcome.error;
    }

    std::string reported_tallies(const uc::clickhouse_reports_t& reports, const uc::report_filter_t& filter) const
    {
        std::vector<uc::feature_row_t> features;
        std::vector<uc::version_row_t> versions;
        std::vector<uc::system_row_t> systems;
        uc::outcome_t outcome = reports.features(filter, features);
        if (outcome)
            outcome = reports.versions(filter, versions);
        if (outcome)
            outcome = reports.systems(filter, systems);
        std::ostringstream out;
        for (const auto& f : features)
            out << f.category << (f.is_subtotal ? " *" : " =" + f.label) << ' ' << f.hits << ' ' << f.users << '\n';
        for (const auto& v : versions)
            out << v.day << ' ' << v.version << ' ' << v.users << '\n';
        for (const auto& s : systems)
            out << s.system << ' ' << s.users << '\n';
        return outcome ? out.str() : outcome.error;
    }

    std::vector<uc::hit_t> hits;
};

TEST_F(agreement_test, both_stores_keep_the_same_hits_and_clickhouse_reports_them_by_the_definitions)
{
    const char* const labels[] = {"", "open", "a,b \"q\"", "tab\there", "back\\slash", "line\nbreak"};
    const std::int64_t first_day = 1790000000 - 1790000000 % 86400;
    for (int n = 0; n < 3000; ++n) {
        const int user = (n * 7919) % 60;
        // Users join over time: user u reports only from day u/2 on, over 45 days.
        const std::int64_t day = user / 2 + (n * 31) % (45 - user / 2);
        hits.push_back({first_day + day * 86400 + (n * 997) % 86400, "UA-7-1", "user-" + std::to_string(user),
                        user % 3 ? "alpha" : "beta", "1." + std::to_string(n % 3), "x", user % 2 ? "linux" : "windows",
                        n % 4 ? "y" : "n", "cat" + std::to_string(n % 3), labels[n % 6]});
    }
    std::sort(hits.begin(), hits.end(), [](const uc::hit_t& a, const uc::hit_t& b) { return a.received < b.received; });

    std::string error;
    auto sqlite = uc::open_sqlite_store(dir / "hits.db", uc::durability_t::normal, error);
    ASSERT_TRUE(sqlite) << error;
    auto clickhouse = open();
    for (std::size_t at = 0; at < hits.size(); at += 100) {
        const std::vector<uc::hit_t> chunk(hits.begin() + at, hits.begin() + std::min(at + 100, hits.size()));
        ASSERT_TRUE(sqlite->append(chunk));
        ASSERT_TRUE(clickhouse->append(chunk));
    }
    ASSERT_TRUE(eventually([&] { return clickhouse->backlog() == 0; }));
    std::ostringstream from_sqlite, from_clickhouse;
    ASSERT_TRUE(sqlite->export_csv(from_sqlite, "", ""));
    ASSERT_TRUE(clickhouse->export_csv(from_clickhouse, "", ""));
    EXPECT_EQ(from_clickhouse.str(), from_sqlite.str());

    uc::clickhouse_address_t address;
    ASSERT_TRUE(uc::parse_clickhouse_uri(server.uri("test"), address, error));
    const uc::clickhouse_reports_t reports(address);
    const std::string since = uc::utc_day(first_day + 10 * 86400), until = uc::utc_day(first_day + 40 * 86400);
    for (const uc::report_filter_t& filter : std::vector<uc::report_filter_t>{
             {"", "", since, until}, {"alpha", "", since, until}, {"beta", "1.2", since, until}}) {
        SCOPED_TRACE(filter.product + " " + filter.version);
        EXPECT_EQ(reported_active(reports, filter), expected_active(filter));
        EXPECT_EQ(reported_tallies(reports, filter), expected_tallies(filter));
    }
}
