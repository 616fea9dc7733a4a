// Faults of users' machines and of untidy hosts. The host notices nothing beyond missing hits: no
// exception, no report that waits, bounded destruction, nothing lost.
#include <sstream>

#include "library/library_test.hpp"

using namespace usemeter_test;

namespace {

class faults : public ::testing::Test, protected loopback_user_t {
protected:
    ~faults() override { reap_children(); }
    std::string tool_path() const { return home / monitor_in_home; }
};

// A collector that holds every body: reports return at once; destruction waits out both time-outs.
TEST_F(faults, a_hanging_collector_delays_no_report)
{
    // A session that worked before (the server's threads settle their lazy state first).
    statistic_impl_ga_t("trovix", "2016").notify_feature_usage("run.warm");
    ASSERT_EQ(proxy.request_count(), 1u);
    proxy.hold(120s);
    {
        statistic_impl_ga_t backend("trovix", "2016");
        backend.notify_feature_usage("run.held");
        ASSERT_TRUE(proxy.wait_for_requests(2));
        for (int i = 0; i < 100; ++i)
            backend.notify_feature_usage("run.more");
        backend.set_statistic_collection_enabled(true);
        EXPECT_TRUE(backend.flush() && backend.is_collection_enabled());
        EXPECT_EQ(proxy.request_count(), 2u) << "a report waited for the held body's time-out";
    }
    EXPECT_EQ(proxy.request_count(), 3u);
}

std::atomic<int> handler_runs_elsewhere{0};
pid_t host_pid = 0;

// The blocked and ignored signals that a /proc status file lists.
std::string signal_state(const std::string& status_file)
{
    std::string state, line;
    for (std::istringstream status(read_file(status_file)); std::getline(status, line);)
        state += line.rfind("SigBlk:", 0) == 0 || line.rfind("SigIgn:", 0) == 0 ? line + "\n" : "";
    return state;
}

// No host handler runs in the vfork child; the tool (cp, copying its own status: a shell would
// change its mask) starts with the host's mask and ignored signals.
TEST_F(faults, vfork_child_runs_no_host_handler_and_the_tool_gets_the_hosts_signal_state)
{
    make_dirs(home / "norvel/orb/bin/ia32");
    ASSERT_EQ(::symlink("/bin/cp", tool_path().c_str()), 0);
    const std::vector<std::string> copy_status = {"/proc/self/status", home / "state"};
    host_pid = ::getpid();
    // A process group of our own: the signals reach every member, the vfork child included.
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
    const orb_accessor_impl_t bridge;
    for (int i = 0; i < 200; ++i)
        bridge.invoke_orb(monitor, copy_status, true);  // a started tool may die of the signal
    done = true;
    sender.join();
    EXPECT_EQ(handler_runs_elsewhere.load(), 0) << "a host handler ran in the vfork child";
    // The host's own mask (this thread's) and ignored signals, SIGWINCH and SIGUSR2 among them.
    ASSERT_EQ(bridge.invoke_orb(monitor, copy_status, true), 0);
    EXPECT_EQ(signal_state(home / "state"), signal_state("/proc/thread-self/status"));
}

// A tool holds the host's pipe, none of the library's sockets (the server stopped, kept-alive ones stay).
TEST_F(faults, a_tool_inherits_the_hosts_descriptors_and_none_of_the_librarys)
{
    int host_pipe[2];
    ASSERT_EQ(::pipe(host_pipe), 0);
    fake_tool_t tool(tool_path(), "ls -l /proc/$$/fd > " + shell_quote(home / "fds"));
    statistic_impl_ga_t backend("trovix", "2016");
    backend.notify_feature_usage("run.fd");
    ASSERT_TRUE(proxy.wait_for_requests(1));
    proxy.stop();
    ASSERT_EQ(orb_accessor_impl_t().invoke_orb(monitor, {}, true), 0);
    const std::string fds = read_file(home / "fds");
    EXPECT_TRUE(!has(fds, "socket:") && has(fds, " " + std::to_string(host_pipe[1]) + " -> pipe:")) << fds;
}

// The untidy host in a working directory of its own; its output, or "status N" when it failed.
std::string run_untidy_host(const std::string& dir, const std::string& args, const std::string& home_var = "")
{
    make_dirs(dir + "/cwd");
    const std::string out = dir + "/out", line = "cd " + shell_quote(dir + "/cwd") + " && " + home_var +
        " timeout 60 " USEMETER_UNTIDY_HOST " " + args + " > " + shell_quote(out) + " 2>&1";
    const int status = std::system(line.c_str());
    return status == 0 ? read_file(out) : "status " + std::to_string(status) + ": " + read_file(out);
}

// A forked child ends through exit() in each form, with or without the host's log4cplus set-up: hooks
// run, output is flushed, status kept; the parent still logs and delivers, the child sends nothing.
TEST_F(faults, forked_children_of_a_host_exit)
{
    const struct { std::string args; const char* child_says; unsigned hits; } rows[] = {
        {"trovix exit", "child output\nchild exit 7", 0}, {"trovix destroy", "child output\nchild exit 7", 2},
        {"trovix atexit", "child output hook ran\nchild exit 7", 2},
    };
    for (const auto& row : rows)
        for (const bool configured : {false, true}) {
            temp_dir_t dir;
            const std::size_t before = proxy.request_count();
            const std::string args = row.args + (configured ? " configured" : "");
            const std::string output = run_untidy_host(dir.path(), args);
            EXPECT_TRUE(has(output, row.child_says)) << args << ": " << output;
            EXPECT_EQ(has(output, "parent still logs"), configured) << args << ": " << output;
            EXPECT_EQ(proxy.request_count() - before, row.hits) << args;
        }
}

// Without per-user directories a host writes nothing: not in its working directory, not by or in HOME.
TEST_F(faults, no_user_directories_no_file_anywhere)
{
    const struct { const char* product; bool home_is_file; } rows[] = {
        {"..", false}, {"../../outside", false}, {"a/b", false}, {"/abs/olute", false}, {"trovix", true}};
    for (const auto& row : rows) {
        temp_dir_t dir;
        const std::string home_dir = dir / "home";
        row.home_is_file ? write_file(home_dir, "not a directory") : make_dirs(home_dir);
        const std::string output = run_untidy_host(dir.path(), shell_quote(row.product) + " none",
                                                   "HOME=" + shell_quote(home_dir));
        EXPECT_TRUE(output.empty() && count_entries(dir / "cwd") == 0) << row.product << ": " << output;
        EXPECT_EQ(count_entries(dir.path()), 3) << row.product << ": only cwd, home and out";
        EXPECT_TRUE(row.home_is_file || count_entries(home_dir) == 0) << row.product;
    }
    EXPECT_EQ(proxy.request_count(), 0u);
}

TEST_F(faults, privileged_host_trusts_only_safe_tools)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to make a tool owned by another user";
    const orb_accessor_impl_t bridge;
    fake_tool_t tool(tool_path(), "exit 3");
    ASSERT_EQ(::chmod(home.path().c_str(), 0755), 0);
    EXPECT_EQ(bridge.invoke_orb(monitor, {}, true), 3) << "root's own tool in root's directories";
    const struct { const char* what; std::function<int()> make_unsafe; } rows[] = {
        {"tool owned by a user", [&] { return ::chown(tool.path().c_str(), 65534, 65534); }},
        {"group-writable directory", [&] { return ::chmod((home / "norvel").c_str(), 0775); }},
    };
    for (const auto& row : rows) {
        ASSERT_EQ(row.make_unsafe(), 0) << row.what;
        log_capture_t log("usemeter.orb_accessor");
        ::unlink((tool.path() + ".args").c_str());
        EXPECT_TRUE(bridge.invoke_orb(monitor, {}, true) == -1 && !file_exists(tool.path() + ".args")) << row.what;
        EXPECT_TRUE(log.contains_start("orb location not trusted in a privileged process")) << row.what;
        ::chown(tool.path().c_str(), 0, 0);
        ::chmod((home / "norvel").c_str(), 0755);
    }
}

// A body over the protocol's 8192 bytes is not queued and costs no later hit; control characters
// reach the log escaped and the wire unchanged.
TEST_F(faults, hostile_names_neither_stop_delivery_nor_forge_log_records)
{
    statistic_impl_ga_t("trovix", "2016").notify_feature_usage("run.a");
    ASSERT_EQ(proxy.request_count(), 1u);
    const std::string longest(8192 - proxy.bodies()[0].size() + 1, 'a');  // as "a" in that body
    const struct { std::string name, logged, sent; } rows[] = {
        {"run." + longest, "feature_name=run.aaa", "&el=" + longest + "&"},
        {"run." + longest + "a", "hit not sent: its body of 8193 bytes exceeds the protocol's limit of 8192", ""},
        {"run.a\n2026-11-24 forged\x1b[2J", "feature_name=run.a\\n2026-11-24 forged\\x1b[2J value=1",
         "&el=a%0A2026-11-24%20forged%1B%5B2J&"},
    };
    for (const auto& row : rows) {
        const std::size_t before = proxy.request_count();
        log_capture_t log("usemeter.statistic");
        {
            statistic_impl_ga_t backend("trovix", "2016");
            backend.notify_feature_usage(row.name);
            backend.notify_feature_usage("run.next");
        }
        EXPECT_TRUE(log.contains_start(row.logged)) << row.logged;
        const strings_t bodies = proxy.bodies();
        ASSERT_EQ(bodies.size() - before, row.sent.empty() ? 1u : 2u);
        EXPECT_TRUE(row.sent.empty() || has(bodies[before], row.sent)) << bodies[before];
    }
}

}  // namespace
