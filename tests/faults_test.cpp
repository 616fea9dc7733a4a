// Faults of users' machines: a read-only or full file system under HOME, and a collector or
// proxy that refuses, hangs, resets or fails. The host notices nothing beyond missing hits: no
// exception, no report that waits, a bounded destruction and nothing on disk lost.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>

#include "support/http_server.hpp"
#include "support/loopback_user.hpp"
#include "support/temp_home.hpp"
#include "usemeter/sys/active_user_detector.hpp"
#include "usemeter/sys/statistic_impl_ga.hpp"

extern char** environ;

using namespace usemeter_test;
using usemeter_1_5_7::statistic_impl_ga_t;
using std::chrono::steady_clock;

namespace {

const char* const inner_var = "USEMETER_FAULTS_INNER";

std::string settings_dir(const std::string& home) { return home + "/norvel/trovix/settings/statistic"; }

// Three days of an earlier year, as a previous run left them.
void write_old_history(const std::string& dir)
{
    std::string items;
    for (int day = 1; day <= 3; ++day)
        items += "<item type=\"bag\"><Y type=\"int\">2020</Y><M type=\"int\">3</M><D type=\"int\">" +
                 std::to_string(day) + "</D></item>";
    make_dirs(dir);
    write_file(dir + "/last_active_dates.xml", "<bag>" + items + "</bag>");
}

void expect_old_history_kept(const std::string& dir)
{
    usemeter_1_5_7::active_user_detector_t detector(dir);
    ASSERT_TRUE(detector.load());
    ASSERT_GE(detector.history().size(), 3u);
    for (int day = 1; day <= 3; ++day)
        EXPECT_EQ(detector.history()[day - 1].day, day);
}

// A host's whole session: build, report, consent, destroy. Returns the identifier it had.
std::string host_session(int reports, const std::function<void(statistic_impl_ga_t&)>& meanwhile = {})
{
    std::string uuid;
    const steady_clock::time_point start = steady_clock::now();
    {
        statistic_impl_ga_t backend("trovix", "2016");
        uuid = backend.get_uuid();
        for (int i = 0; i < reports; ++i)
            backend.notify_feature_usage("run.fault");
        if (meanwhile)
            meanwhile(backend);
        backend.set_statistic_collection_enabled(true);
        EXPECT_TRUE(backend.flush());
    }
    // A body stuck on the network costs two candidates at 5 s each; this bound is generous.
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(30));
    return uuid;
}

struct fs_case {
    const char* name;
    bool read_only;  // else full
    bool earlier_files;
};

void PrintTo(const fs_case& c, std::ostream* out) { *out << c.name; }

class file_system_fault : public ::testing::TestWithParam<fs_case> {};

// Runs this test again in a child with its own user and mount namespace and a 64 KiB tmpfs on
// home, where it finds inner_var set. False when the kernel refuses either.
bool rerun_on_small_tmpfs(const std::string& home)
{
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string filter = std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name();
    std::string exe = "/proc/self/exe", inner = std::string(inner_var) + "=1";
    const std::string uid_map = "0 " + std::to_string(::getuid()) + " 1";
    const std::string gid_map = "0 " + std::to_string(::getgid()) + " 1";
    std::vector<char*> argv = {&exe[0], &filter[0], nullptr}, env = {&inner[0]};
    for (char** e = environ; *e; ++e)
        env.push_back(*e);
    env.push_back(nullptr);

    const pid_t child = ::fork();
    if (child == 0) {  // async-signal-safe calls only until exec
        auto put = [](const char* path, const std::string& text) {
            const int fd = ::open(path, O_WRONLY);
            return fd >= 0 && ::write(fd, text.data(), text.size()) == ssize_t(text.size()) &&
                   ::close(fd) == 0;
        };
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !put("/proc/self/setgroups", "deny") ||
            !put("/proc/self/uid_map", uid_map) || !put("/proc/self/gid_map", gid_map) ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("usemeter", home.c_str(), "tmpfs", 0, "size=64k,mode=0700") != 0)
            ::_exit(77);
        ::execve(argv[0], argv.data(), env.data());
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77)
        return false;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "inner run failed, status " << status;
    return true;
}

void run_on_small_tmpfs(const fs_case& c)
{
    const std::string home = std::getenv("HOME"), dir = settings_dir(home);
    const std::string paths[] = {dir + "/uuid.xml", home + "/norvel/optin", dir + "/last_active_dates.xml"};
    std::string stored_uuid, before[3];
    if (c.earlier_files) {
        stored_uuid = statistic_impl_ga_t("trovix", "2016").get_uuid();  // writes uuid.xml
        write_file(paths[1], "1");
        write_old_history(dir);
        for (int i = 0; i < 3; ++i)
            before[i] = read_file(paths[i]);
    }
    if (c.read_only) {
        ASSERT_EQ(::mount(nullptr, home.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0)
            << std::strerror(errno);
    } else {
        const int fd = ::open((home + "/filler").c_str(), O_WRONLY | O_CREAT, 0600);
        const char block[512] = {};
        while (::write(fd, block, sizeof block) > 0) {
        }
        ::close(fd);
    }
    http_server_t proxy;
    scoped_env_t proxy_var("http_proxy", proxy.proxy_url().c_str());
    scoped_env_t force("NORVEL_FORCE_FEEDBACK", "1");
    const std::string uuid = host_session(3);

    if (c.earlier_files) {
        EXPECT_EQ(uuid, stored_uuid);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(read_file(paths[i]), before[i]) << paths[i];
        if (!c.read_only)  // read-only: the history's lock file cannot be made, so it is not read
            expect_old_history_kept(dir);
    } else if (c.read_only) {
        EXPECT_EQ(uuid, "") << "no settings directory, no identifier";
    } else {
        EXPECT_EQ(uuid.size(), 36u) << "an identifier that could not be saved still serves this process";
        EXPECT_FALSE(file_exists(paths[0]));
    }
    EXPECT_EQ(proxy.request_count(), uuid.empty() ? 0u : 3u);
    for (const http_request_t& request : proxy.requests())
        EXPECT_NE(request.body.find("&cid=" + uuid + "&"), std::string::npos);
}

TEST_P(file_system_fault, host_sees_nothing_and_earlier_files_survive)
{
    if (std::getenv(inner_var))
        return run_on_small_tmpfs(GetParam());
    clean_env_t clean_env;
    temp_home_t home;
    if (!rerun_on_small_tmpfs(home.path()))
        GTEST_SKIP() << "the kernel refuses a user and mount namespace with a tmpfs (unshare -r -m); "
                        "the read-only and full file system cases need it";
}

INSTANTIATE_TEST_SUITE_P(faults, file_system_fault,
                         ::testing::Values(fs_case{"read_only_empty", true, false},
                                           fs_case{"read_only_with_files", true, true},
                                           fs_case{"full_empty", false, false},
                                           fs_case{"full_with_files", false, true}),
                         [](const auto& info) { return std::string(info.param.name); });

struct net_case {
    const char* name;
    std::function<void(http_server_t& proxy)> fault;
    std::size_t attempts;  // both candidates end at the proxy; after the first failed body, none
};

void PrintTo(const net_case& c, std::ostream* out) { *out << c.name; }

class network_fault : public ::testing::TestWithParam<net_case>, protected loopback_user_t {};

TEST_P(network_fault, reports_return_at_once_and_destruction_is_bounded)
{
    const net_case& c = GetParam();
    const bool hangs = c.name == std::string("collector_hangs");
    write_old_history(settings_dir(home.path()));
    // A session that worked before the network failed (this also lets the server's threads
    // settle their lazy state before two of them meet in a hang).
    statistic_impl_ga_t("trovix", "2016").notify_feature_usage("run.warm");
    ASSERT_EQ(proxy.request_count(), 1u);
    c.fault(proxy);
    const std::string uuid = host_session(1, [&](statistic_impl_ga_t& backend) {
        if (hangs) {
            ASSERT_TRUE(proxy.wait_for_requests(2, std::chrono::seconds(30)));
        }
        for (int i = 0; i < 100; ++i)
            backend.notify_feature_usage("run.more");
        if (hangs) {  // the held body's time-out is seconds away: no report waited for it
            EXPECT_EQ(proxy.request_count(), 2u);
        }
        EXPECT_TRUE(backend.is_collection_enabled());
    });
    EXPECT_EQ(uuid.size(), 36u);
    EXPECT_EQ(proxy.request_count(), 1 + c.attempts);
    expect_old_history_kept(settings_dir(home.path()));
}

INSTANTIATE_TEST_SUITE_P(
    faults, network_fault,
    ::testing::Values(
        net_case{"collector_refuses", [](http_server_t& p) { p.forward_to(http_server_t().port()); }, 2},
        net_case{"collector_hangs", [](http_server_t& p) { p.hang(std::chrono::minutes(2)); }, 2},
        net_case{"collector_resets", [](http_server_t& p) { p.close_without_answer(); }, 2},
        net_case{"collector_answers_500", [](http_server_t& p) { p.answer(500); }, 2},
        net_case{"proxy_down", [](http_server_t& p) { p.stop(); }, 0}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
