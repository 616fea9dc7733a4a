// Faults of users' machines: a read-only or full file system under HOME, and a collector or
// proxy that hangs, resets, fails or is down. The host notices nothing beyond missing hits: no
// exception, no report that waits, a bounded destruction and nothing on disk lost.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/fake_tool.hpp"
#include "support/host_double.hpp"
#include "support/loopback_user.hpp"
#include "tracelog/log_capture.hpp"
#include "usemeter/orb_accessor.hpp"
#include "usemeter/sys/statistic_impl_ga.hpp"

using namespace usemeter_test;
using tracelog::log_capture_t;
using usemeter_1_5_7::statistic_impl_ga_t;
using std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

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

// A read-only or full file system: no state file can be created or replaced. An identifier
// that cannot be saved still serves this process, and nothing on disk is lost. (A HOME where no
// directory can be made is the policy test's unusable_directories case.)
TEST(file_system_fault, host_sees_nothing_and_earlier_files_survive)
{
    for (const bool earlier_files : {false, true}) {
        SCOPED_TRACE(earlier_files ? "with files" : "empty");
        loopback_user_t user;
        const std::string dir = user.home / "norvel/trovix/settings/statistic";
        const std::string paths[] = {dir + "/uuid.xml", user.home / "norvel/optin",
                                     dir + "/last_active_dates.xml"};
        std::string stored_uuid, before[3];
        if (earlier_files) {
            stored_uuid = statistic_impl_ga_t("trovix", "2016").get_uuid();  // writes uuid.xml
            write_file(paths[1], "1");
            write_file(paths[2], "<bag><item type=\"bag\"><Y type=\"int\">2020</Y>"
                                 "<M type=\"int\">3</M><D type=\"int\">1</D></item></bag>");
            for (int i = 0; i < 3; ++i)
                before[i] = read_file(paths[i]);
        }
        host_double_t host;
        host.files_fail = true;
        const std::size_t sent_before = user.proxy.request_count();
        const std::string uuid = host_session(3);
        EXPECT_EQ(uuid.size(), 36u);
        if (earlier_files) {
            EXPECT_EQ(uuid, stored_uuid);
            for (int i = 0; i < 3; ++i)
                EXPECT_EQ(read_file(paths[i]), before[i]) << paths[i];
        } else {
            EXPECT_FALSE(file_exists(paths[0]) || file_exists(paths[1]) || file_exists(paths[2]));
        }
        EXPECT_EQ(user.proxy.request_count() - sent_before, 3u);
    }
}

struct net_case {
    const char* name;
    std::function<void(loopback_collector_t& proxy)> fault;
    std::size_t attempts;  // both candidates end at the proxy; after the first failed body, none
};

void PrintTo(const net_case& c, std::ostream* out) { *out << c.name; }

class network_fault : public ::testing::TestWithParam<net_case>, protected loopback_user_t {};

TEST_P(network_fault, reports_return_at_once_and_destruction_is_bounded)
{
    const net_case& c = GetParam();
    const bool hangs = c.name == std::string("collector_hangs");
    // A session that worked before the network failed (this also lets the server's threads
    // settle their lazy state before two of them meet in a hang).
    statistic_impl_ga_t("trovix", "2016").notify_feature_usage("run.warm");
    ASSERT_EQ(proxy.request_count(), 1u);
    c.fault(proxy);
    const std::string uuid = host_session(1, [&](statistic_impl_ga_t& backend) {
        if (hangs) {
            ASSERT_TRUE(proxy.wait_for_requests(2));
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
}

INSTANTIATE_TEST_SUITE_P(
    faults, network_fault,
    ::testing::Values(
        net_case{"collector_hangs", [](loopback_collector_t& p) { p.hold(120s); }, 2},
        net_case{"collector_resets", [](loopback_collector_t& p) { p.reset_connections(); }, 2},
        net_case{"collector_answers_500", [](loopback_collector_t& p) { p.answer(500); }, 2},
        net_case{"proxy_down", [](loopback_collector_t& p) { p.stop(); }, 0}),
    [](const auto& info) { return std::string(info.param.name); });

// Real host processes that are less tidy than a test host: signals, descriptors, fork, proxies
// chosen on purpose and privileges. Each row is the host's own doing around a library call.
struct host_case {
    const char* name;
    std::function<void(loopback_user_t& user)> run;
};

void PrintTo(const host_case& c, std::ostream* out) { *out << c.name; }

class host_process : public ::testing::TestWithParam<host_case> {};

TEST_P(host_process, library_keeps_to_its_own_state)
{
    loopback_user_t user;
    GetParam().run(user);
    reap_children();
}

const usemeter_1_5_7::orb_accessor_impl_t::orb_tool_t monitor =
    usemeter_1_5_7::orb_accessor_impl_t::tool_remote_monitor;

std::string tool_path(const loopback_user_t& user)
{
    return user.home / "norvel/orb/bin/ia32/norvelremotemon";
}

std::atomic<int> handler_runs_elsewhere{0};
pid_t host_pid = 0;

// Runs grep as the tool over its own /proc status and returns what it printed.
std::string tool_signal_state(const loopback_user_t& user)
{
    const std::string out = user.home / "state";
    const int saved = ::dup(1), file = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(file, 1);
    usemeter_1_5_7::orb_accessor_impl_t().invoke_orb(monitor, {"-E", "^Sig(Blk|Ign)", "/proc/self/status"}, true);
    ::dup2(saved, 1);
    ::close(saved);
    ::close(file);
    return read_file(out);
}

void signals_and_vfork(loopback_user_t& user)
{
    // No host handler runs in the vfork child, and the tool starts with the host's mask and
    // ignored signals.
    fake_tool_t script(tool_path(user), "exit 0");
    host_pid = ::getpid();
    // A process group of our own: the terminal's signals reach every member, the vfork child
    // included, and here none leaves the test.
    ASSERT_EQ(::setpgid(0, 0), 0);
    struct sigaction action {};
    action.sa_handler = [](int) { handler_runs_elsewhere += ::getpid() != host_pid; };
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGUSR1, &action, nullptr);
    ::signal(SIGUSR2, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGWINCH);
    ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    std::atomic<bool> done{false};
    std::thread sender([&] { while (!done) ::kill(0, SIGUSR1); });
    const usemeter_1_5_7::orb_accessor_impl_t bridge;
    for (int i = 0; i < 200; ++i)
        bridge.invoke_orb(monitor, {}, true);  // a started tool may die of the signal itself
    done = true;
    sender.join();
    EXPECT_EQ(handler_runs_elsewhere.load(), 0) << "a host handler ran in the vfork child";
    ::unlink(tool_path(user).c_str());
    ASSERT_EQ(::symlink("/bin/grep", tool_path(user).c_str()), 0);
    // The host's own mask (this thread's) and ignored signals, SIGWINCH and SIGUSR2 among them.
    std::string host_state;
    std::istringstream status(read_file("/proc/thread-self/status"));
    for (std::string line; std::getline(status, line);)
        if (line.rfind("SigBlk:", 0) == 0 || line.rfind("SigIgn:", 0) == 0)
            host_state += line + "\n";
    EXPECT_EQ(tool_signal_state(user), host_state);
    ::pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
    ::signal(SIGUSR1, SIG_DFL);
    ::signal(SIGUSR2, SIG_DFL);
}

// The inodes of the sockets that connect to port, or that are Unix sockets: /proc/net lists
// them, one a line, the inode in the tenth column.
std::string client_sockets(int port)
{
    char remote[16];
    std::snprintf(remote, sizeof remote, ":%04X ", port);
    std::string inodes;
    for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6", "/proc/net/unix"}) {
        std::istringstream in(read_file(table));
        std::string line;
        std::getline(in, line);
        while (std::getline(in, line)) {
            std::istringstream fields(line);
            std::string field[10];
            for (std::string& f : field)
                fields >> f;
            const bool unix_table = std::string(table) == "/proc/net/unix";
            if (unix_table || (field[2] + " ").find(remote) != std::string::npos)
                inodes += "socket:[" + field[unix_table ? 6 : 9] + "] ";
        }
    }
    return inodes;
}

void descriptors(loopback_user_t& user)
{
    // After a delivery over a kept-alive connection, a tool holds the host's pipe and none of
    // the library's sockets (the loopback server's own sockets are the test's, not ours).
    int host_pipe[2];
    ASSERT_EQ(::pipe(host_pipe), 0);
    const std::string seen = user.home / "fds";
    fake_tool_t tool(tool_path(user), "ls -l /proc/$$/fd > " + shell_quote(seen));
    statistic_impl_ga_t backend("trovix", "2016");
    backend.notify_feature_usage("run.fd");
    ASSERT_TRUE(user.proxy.wait_for_requests(1));
    ASSERT_EQ(usemeter_1_5_7::orb_accessor_impl_t().invoke_orb(monitor, {}, true), 0);
    const std::string fds = read_file(seen), ours = client_sockets(user.proxy.port());
    std::istringstream lines(fds);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t socket = line.find("socket:[");
        if (socket != std::string::npos) {
            EXPECT_EQ(ours.find(line.substr(socket) + " "), std::string::npos) << line;
        }
    }
    EXPECT_NE(fds.find("pipe:"), std::string::npos) << fds;
    ::close(host_pipe[0]);
    ::close(host_pipe[1]);
}

void sigpipe_left_alone(loopback_user_t& user)
{
    // While hits are delivered, the host's own SIGPIPE handler stays in place throughout.
    struct sigaction mine {};
    mine.sa_handler = [](int) {};
    ::sigaction(SIGPIPE, &mine, nullptr);
    std::atomic<bool> done{false};
    std::atomic<int> swapped{0};
    std::thread watcher([&] {
        for (struct sigaction seen {}; !done;)
            swapped += ::sigaction(SIGPIPE, nullptr, &seen) == 0 && seen.sa_handler != mine.sa_handler;
    });
    {
        statistic_impl_ga_t backend("trovix", "2016");
        for (int i = 0; i < 200; ++i)
            backend.notify_feature_usage("run.pipe");
    }
    done = true;
    watcher.join();
    EXPECT_EQ(user.proxy.request_count(), 200u);
    EXPECT_EQ(swapped.load(), 0);
    ::signal(SIGPIPE, SIG_DFL);
}

void fork_child_destroys(loopback_user_t& user)
{
    // The child lets go of the inherited object without joining a worker it does not have.
    auto backend = std::make_unique<statistic_impl_ga_t>("trovix", "2016");
    backend->notify_feature_usage("run.before_fork");
    ASSERT_TRUE(user.proxy.wait_for_requests(1));
    backend->notify_feature_usage("run.queued");
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(10);
        backend.reset();
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    backend->notify_feature_usage("run.after_fork");
    backend.reset();
    EXPECT_EQ(user.proxy.request_count(), 3u) << "the parent's hits, and none from the child";
}

void explicit_proxy_despite_no_proxy(loopback_user_t& user)
{
    // no_proxy names everything, yet the candidate taken from http_proxy goes through it.
    loopback_collector_t collector;
    scoped_env_t no_proxy("no_proxy", "*");
    {
        usemeter_1_5_7::http_connector_t connector(collector.url().c_str());
        connector.post("v=1&t=event");
    }
    EXPECT_EQ(user.proxy.request_count(), 1u);
    EXPECT_EQ(collector.request_count(), 0u);
}

void privileged_host_trusts_only_safe_tools(loopback_user_t& user)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to make a tool owned by another user (a set-user-ID copy "
                        "cannot be made either)";
    const usemeter_1_5_7::orb_accessor_impl_t bridge;
    fake_tool_t tool(tool_path(user), "exit 3");
    ASSERT_EQ(::chmod(user.home.path().c_str(), 0755), 0);
    EXPECT_EQ(bridge.invoke_orb(monitor, {}, true), 3) << "root's own tool in root's directories";
    const struct { const char* what; std::function<int()> make_unsafe; } rows[] = {
        {"tool owned by a user", [&] { return ::chown(tool.path().c_str(), 65534, 65534); }},
        {"directory writable by its group", [&] { return ::chmod((user.home / "norvel").c_str(), 0775); }},
    };
    for (const auto& row : rows) {
        ASSERT_EQ(row.make_unsafe(), 0) << row.what;
        log_capture_t log("usemeter.orb_accessor");
        ::unlink((tool.path() + ".args").c_str());
        EXPECT_EQ(bridge.invoke_orb(monitor, {}, true), -1) << row.what;
        EXPECT_FALSE(tool.ran()) << row.what;
        const std::vector<std::string> messages = log.messages();
        EXPECT_TRUE(std::any_of(messages.begin(), messages.end(), [](const std::string& m) {
            return m.rfind("orb location not trusted in a privileged process", 0) == 0;
        })) << row.what;
        ::chown(tool.path().c_str(), 0, 0);
        ::chmod((user.home / "norvel").c_str(), 0755);
    }
}

INSTANTIATE_TEST_SUITE_P(
    faults, host_process,
    ::testing::Values(host_case{"signals_and_vfork", signals_and_vfork},
                      host_case{"descriptors", descriptors},
                      host_case{"sigpipe_left_alone", sigpipe_left_alone},
                      host_case{"fork_child_destroys", fork_child_destroys},
                      host_case{"explicit_proxy_despite_no_proxy", explicit_proxy_despite_no_proxy},
                      host_case{"privileged_host_trusts_only_safe_tools", privileged_host_trusts_only_safe_tools}),
    [](const auto& info) { return std::string(info.param.name); });

// Hostile host input: a name too long for the protocol is not queued and costs no later hit; a
// name with control characters reaches the log escaped and the wire unchanged. (Product names
// and consent files are the policy test's.)
TEST(hostile_input, names_neither_stop_delivery_nor_forge_log_records)
{
    loopback_user_t user;
    const struct { std::string name, logged, sent; } rows[] = {
        {"run." + std::string(9000, 'a'), "hit not sent: its body of ", ""},
        {"run.a\n2026-11-24 forged\x1b[2J", "feature_name=run.a\\n2026-11-24 forged\\x1b[2J value=1",
         "&el=a%0A2026-11-24%20forged%1B%5B2J&"},
    };
    for (const auto& row : rows) {
        const std::size_t before = user.proxy.request_count();
        log_capture_t log("usemeter.statistic");
        {
            statistic_impl_ga_t backend("trovix", "2016");
            backend.notify_feature_usage(row.name);
            backend.notify_feature_usage("run.next");
        }
        const std::vector<std::string> messages = log.messages();
        EXPECT_TRUE(std::any_of(messages.begin(), messages.end(), [&](const std::string& m) {
            return m.rfind(row.logged, 0) == 0 && m.find('\n') == std::string::npos;
        })) << row.logged;
        const std::vector<hit_request_t> requests = user.proxy.requests();
        ASSERT_EQ(requests.size() - before, row.sent.empty() ? 1u : 2u);
        if (!row.sent.empty()) {
            EXPECT_NE(requests[before].body.find(row.sent), std::string::npos) << requests[before].body;
        }
    }
}

}  // namespace
