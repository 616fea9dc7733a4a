// The SQLite store's rollups through retention and erasure, and a hit answered 200 survives
// SIGKILL of the real command. Bad requests and limits are hostile_test's; a store that cannot
// commit (503 until it can) is the full spool of clickhouse_test.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <set>
#include <sstream>
#include <thread>

#include <sqlite3.h>

#include <httplib.h>

#include "support/collector_fixture.hpp"
#include "support/temp_home.hpp"

using namespace usemeter_test;
using namespace usemeter_collector;

namespace {

std::string exported(store_t& store)
{
    std::ostringstream csv;
    EXPECT_TRUE(store.export_csv(csv, "", ""));
    return csv.str();
}

class collector_test : public ::testing::Test {
protected:
    temp_dir_t dir;
    std::string store_uri = "sqlite:" + dir / "hits.db";
};

TEST_F(collector_test, retention_at_start_and_erasure_keep_the_rollups_true)
{
    std::string error;
    auto sqlite = open_store(store_uri, durability_t::normal, error);
    const std::int64_t day = 86400, t0 = 20000 * day;  // 2024-10-04
    auto hit = [](std::int64_t at, const char* cid) {
        return hit_t{at, "UA-1", cid, "p", "1", "", "", "y", "gui", "x,\"y\""};
    };
    ASSERT_TRUE(sqlite->append({hit(t0, "a"), hit(t0 + day, "a"), hit(t0 + 2 * day, "a"), hit(t0, "b"),
                                hit(t0 + 2 * day, "b")}));
    // Retention runs as the collector starts (then hourly): the days before 2024-10-06 go.
    ASSERT_TRUE(usemeter_test::start_report_collector(store_uri, "", [](collector_options_t& options) {
        options.retention_days = int(instant_day_number(std::time(nullptr)) - day_number("2024-10-06"));
    }));
    std::int64_t erased = 0;
    ASSERT_TRUE(sqlite->erase_client("b", erased));
    EXPECT_EQ(erased, 1);
    EXPECT_EQ(exported(*sqlite), "received,tid,cid,an,av,cd1,cd2,cd3,ec,el\n"
                                 "2024-10-06T00:00:00Z,UA-1,a,p,1,,,y,gui,\"x,\"\"y\"\"\"\n");
    sqlite3* db = nullptr;
    sqlite3_open((dir / "hits.db").c_str(), &db);
    std::string rows;
    sqlite3_exec(db, "SELECT 'u', cid, day, hits, active FROM user_days UNION ALL SELECT 'f', cid, day, hits, el "
                     "FROM feature_days UNION ALL SELECT 's', cid, day, an, '' FROM first_seen ORDER BY 1",
                 [](void* out, int n, char** values, char**) {
                     for (int i = 0; i < n; ++i)
                         *static_cast<std::string*>(out) += std::string(values[i]) + (i + 1 < n ? "|" : "\n");
                     return 0;
                 }, &rows, nullptr);
    sqlite3_close(db);
    EXPECT_EQ(rows, "f|a|2024-10-06|1|x,\"y\"\ns|a|2024-10-06|p|\nu|a|2024-10-06|1|1\n");
}

#ifdef USEMETER_TOOL
// The real command, exec'd by a shell that first prints its process id, which becomes the
// command's; the port comes from the command's listening line.
FILE* spawn_collector(const std::string& store_uri, pid_t& pid, int& port)
{
    const std::string command = "echo $$; exec " USEMETER_TOOL " collector --listen 127.0.0.1:0 --store ";
    FILE* out = ::popen((command + store_uri).c_str(), "r");
    char line[128] = "";
    pid = std::fgets(line, sizeof line, out) ? std::atoi(line) : -1;
    const char* colon = std::fgets(line, sizeof line, out) ? std::strrchr(line, ':') : nullptr;
    port = colon ? std::atoi(colon + 1) : 0;
    return out;
}

TEST_F(collector_test, every_hit_answered_200_survives_sigkill)
{
    std::set<std::string> acknowledged;
    std::mutex mutex;
    std::atomic<std::size_t> answered{0};
    for (int round = 0; round < 6; ++round) {
        int port = 0;
        pid_t pid = -1;
        FILE* collector_output = spawn_collector(store_uri, pid, port);
        ASSERT_TRUE(pid > 0 && port > 0);
        std::atomic<bool> killed{false};
        std::vector<std::thread> clients;
        for (int c = 0; c < 8; ++c)
            clients.emplace_back([&, c] {
                httplib::Client client("127.0.0.1", port);
                for (int n = 0; !killed; ++n) {
                    const std::string cid = std::to_string(round) + "-" + std::to_string(c) + "-" + std::to_string(n);
                    const auto answer = client.Post("/collect", "v=1&tid=UA-1&t=event&ec=k&cid=" + cid,
                                                    "application/x-www-form-urlencoded");
                    if (answer && answer->status == 200) {
                        std::lock_guard<std::mutex> lock(mutex);
                        acknowledged.insert(cid);
                        ++answered;
                    }
                }
            });
        // Killed once it has answered some hits, however slow the machine, at a moment
        // that moves from round to round.
        const std::size_t floor = answered + 50;
        for (int wait = 0; wait < 3000 && answered < floor; ++wait)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        std::this_thread::sleep_for(std::chrono::milliseconds(10 * round));
        kill(pid, SIGKILL);
        ::pclose(collector_output);
        killed = true;
        for (std::thread& client : clients)
            client.join();
    }
    std::string error;
    const std::string csv = exported(*open_store(store_uri, durability_t::normal, error));
    std::size_t missing = 0;
    for (const std::string& cid : acknowledged)
        missing += csv.find("," + cid + ",") == std::string::npos;
    EXPECT_GE(acknowledged.size(), 6 * 50u);
    EXPECT_EQ(missing, 0u) << "of " << acknowledged.size() << " acknowledged";
}
#endif

}  // namespace
