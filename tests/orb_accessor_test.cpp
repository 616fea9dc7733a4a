#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <optional>
#include <thread>

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include "support/fake_tool.hpp"
#include "support/log_capture.hpp"
#include "support/temp_home.hpp"
#include "usemeter/orb_accessor.hpp"
#include "usemeter/product_locations.hpp"

namespace {

using namespace usemeter_test;
using usemeter_1_5_7::orb_accessor_impl_t;
using usemeter_1_5_7::orb_accessor_t;
using tool_t = orb_accessor_impl_t::orb_tool_t;
using strings = std::vector<std::string>;

const char* const logger_name = "usemeter.orb_accessor";
const char* const source_file = "src/orb_accessor.cpp";
const std::string invoke_signature =
    "int usemeter_1_5_7::orb_accessor_impl_t::invoke_orb(usemeter_1_5_7::orb_accessor_impl_t::"
    "orb_tool_t, const std::vector<std::basic_string<char>>&, bool) const";
const std::string allowed_signature =
    "bool usemeter_1_5_7::orb_accessor_impl_t::is_orb_call_allowed() const";

// Installs itself as the product-locations service for its lifetime.
class fake_locations_t : public prodenv::IProductLocations {
public:
    explicit fake_locations_t(const std::string& temp_dir, bool quiet = false)
        : temp_dir_(temp_dir), quiet_(quiet)
    {
        set(this);
    }
    ~fake_locations_t() override { set(nullptr); }

    void getProductVersion(int& major, int& minor, int& update) const override
    {
        major = 1, minor = 5, update = 7;
    }
    const char* getProductDirName() const override { return "trovix"; }
    const char* getDataDir() const override { return ""; }
    basekit::path_t getTempDir() const override { return temp_dir_; }
    bool isToolLookupQuiet() const override { return quiet_; }

private:
    std::string temp_dir_;
    bool quiet_;
};

strings list_dir(const std::string& dir)
{
    strings names;
    for (const auto& entry : boost::filesystem::directory_iterator(dir))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string exchange_name(int n, const char* ext = ".txt")
{
    return "uuid-" + std::to_string(::getpid()) + "-" + std::to_string(n) + ext;
}

// A system-wide installation would win over the override directory and hide "missing".
bool system_install_present()
{
    return file_exists("/opt/norvel");
}

void expect_error_record(const log_capture_t& log, const std::string& text)
{
    const auto records = log.records();
    const auto error = std::find_if(records.begin(), records.end(),
                                    [](const log_record_t& r) { return r.level == 40000; });
    ASSERT_NE(error, records.end()) << "no ERROR record for " << text;
    EXPECT_EQ(error->file, source_file);
    EXPECT_EQ(error->message,
              text + ", at file: " + source_file + ":" + std::to_string(error->line));
}

fake_tool_behaviour_t exiting_with(int status, bool consume = true)
{
    fake_tool_behaviour_t behaviour;
    behaviour.exit_status = status;
    behaviour.consume_m_file = consume;
    return behaviour;
}

fake_tool_behaviour_t writing_uuid(const std::string& content)
{
    fake_tool_behaviour_t behaviour;
    behaviour.write_u_file = true;
    behaviour.u_content = content;
    return behaviour;
}

class bridge_test : public ::testing::Test {
protected:
    void TearDown() override
    {
        EXPECT_FALSE(has_children()) << "a tool outlived its test";
        reap_children();
    }

    std::string tool_path(tool_t tool) const { return home_tool_path(home_.path(), tool); }

    clean_env_t env_;
    temp_home_t home_;
    orb_accessor_impl_t bridge_;
};

TEST_F(bridge_test, each_operation_passes_its_exact_argument_vector)
{
    temp_dir_t tmp;
    fake_locations_t locations(tmp.path());
    const std::string sent = home_ / "sent.dat";
    const std::string pid = std::to_string(::getpid());
    struct row_t {
        const char* name;
        tool_t tool;
        std::function<void()> call;
        strings expected;
    };
    const row_t rows[] = {
        {"send_file", orb_accessor_impl_t::tool_remote_monitor,
         [&] { bridge_.send_file(sent, false); }, {"-t", "i", "-e", "statistic", "-m", sent}},
        {"send_file -f", orb_accessor_impl_t::tool_remote_monitor,
         [&] { bridge_.send_file(sent, true); }, {"-t", "i", "-e", "statistic", "-f", "-m", sent}},
        {"send_usage_package", orb_accessor_impl_t::tool_remote_monitor,
         [&] { bridge_.send_usage_package(); }, {"-t", "i", "-b"}},
        {"send_crash_report", orb_accessor_impl_t::tool_remote_monitor,
         [&] { bridge_.send_crash_report(sent, false); }, {"-t", "i", "-e", "crash", "-m", sent}},
        {"send_crash_report -f", orb_accessor_impl_t::tool_remote_monitor,
         [&] { bridge_.send_crash_report(sent, true); },
         {"-t", "i", "-e", "crash", "-f", "-m", sent}},
        {"is_feedback_enabled", orb_accessor_impl_t::tool_consent_check,
         [&] { bridge_.is_feedback_enabled(); }, {"-g"}},
        {"notify_gui_start", orb_accessor_impl_t::tool_consent_check,
         [&] { bridge_.notify_gui_start(); }, {"-w", "-s", pid}},
        {"check_for_updates", orb_accessor_impl_t::tool_main,
         [&] { bridge_.check_for_updates(orb_accessor_t::DefaultProductGUID); },
         {"--product_guid", "{00000000-0000-0000-0000-000000000000}", "--action", "check"}},
        {"get_uuid", orb_accessor_impl_t::tool_remote_monitor, [&] { bridge_.get_uuid(); },
         {"-u", tmp / exchange_name(1)}},
    };
    for (const row_t& row : rows) {
        write_file(sent, "payload");
        const fake_tool_t tool(tool_path(row.tool), fake_tool_behaviour_t());
        row.call();
        reap_children();  // the asynchronous ones
        EXPECT_EQ(tool.recorded_args(), row.expected) << row.name;
        tool.forget_run();
    }
}

TEST_F(bridge_test, synchronous_results_follow_the_exit_status)
{
    if (system_install_present())
        GTEST_SKIP() << "/opt/norvel exists";
    struct row_t {
        const char* name;
        bool present;
        mode_t mode;
        fake_tool_behaviour_t behaviour;
        int expected;
    };
    fake_tool_behaviour_t killed;
    killed.kill_signal = SIGKILL;
    const row_t rows[] = {
        {"exit 0", true, 0755, exiting_with(0), 0},
        {"exit 7", true, 0755, exiting_with(7), 7},
        {"missing", false, 0755, exiting_with(0), -1},
        {"not executable", true, 0644, exiting_with(0), 255},
        {"killed by a signal", true, 0755, killed, -1},
    };
    const std::string path = tool_path(orb_accessor_impl_t::tool_remote_monitor);
    for (const row_t& row : rows) {
        if (row.present)
            fake_tool_t(path, row.behaviour, row.mode);
        else
            ::unlink(path.c_str());
        EXPECT_EQ(bridge_.invoke_orb(orb_accessor_impl_t::tool_remote_monitor, {"x"}, true),
                  row.expected)
            << row.name;
    }
    EXPECT_TRUE(bridge_.get_orb_location(static_cast<tool_t>(3)).empty());
    EXPECT_EQ(bridge_.invoke_orb(static_cast<tool_t>(3), {}, true), -1);
}

TEST_F(bridge_test, a_run_is_logged_with_its_unquoted_command_line)
{
    const fake_tool_t tool(tool_path(orb_accessor_impl_t::tool_remote_monitor), exiting_with(7));
    log_capture_t log(logger_name);
    EXPECT_EQ(bridge_.invoke_orb(orb_accessor_impl_t::tool_remote_monitor, {"a b", "c"}, true), 7);
    EXPECT_EQ(tool.recorded_args(), (strings{"a b", "c"}));
    EXPECT_EQ(log.messages(true), (strings{
                                      "ENTER: " + invoke_signature,
                                      "tool=0",
                                      "sync=1",
                                      "ENTER: " + allowed_signature,
                                      "Return 'true'",
                                      "EXIT:  " + allowed_signature,
                                      "orb location=" + tool.path(),
                                      "orb command line='" + tool.path() + " a b c'",
                                      "orb return code=7",
                                      "EXIT:  " + invoke_signature,
                                  }));
}

TEST_F(bridge_test, a_signal_during_a_synchronous_run_keeps_the_exit_status)
{
    // Without SA_RESTART a caught signal breaks the wait with EINTR.
    struct sigaction action {}, old_action {};
    action.sa_handler = [](int) {};
    sigemptyset(&action.sa_mask);
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &old_action), 0);
    const std::string go = home_ / "go";
    fake_tool_behaviour_t behaviour = exiting_with(6);
    behaviour.wait_for = go;
    const fake_tool_t tool(tool_path(orb_accessor_impl_t::tool_remote_monitor), behaviour);
    const pthread_t caller = ::pthread_self();
    std::thread interrupter([&] {
        for (int i = 0; i < 3000 && !tool.ran(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        for (int i = 0; i < 20; ++i) {
            ::pthread_kill(caller, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        write_file(go, "");
    });
    EXPECT_EQ(bridge_.invoke_orb(orb_accessor_impl_t::tool_remote_monitor, {}, true), 6);
    interrupter.join();
    ::sigaction(SIGUSR1, &old_action, nullptr);
}

TEST_F(bridge_test, a_missing_tool_is_reported_unless_the_lookup_is_quiet)
{
    if (system_install_present())
        GTEST_SKIP() << "/opt/norvel exists";
    temp_dir_t tmp;
    struct row_t {
        const char* name;
        bool service;
        bool quiet;
        bool reported;
    };
    const row_t rows[] = {
        {"no service", false, false, true},
        {"loud service", true, false, true},
        {"quiet service", true, true, false},
    };
    for (const row_t& row : rows) {
        std::optional<fake_locations_t> locations;
        if (row.service)
            locations.emplace(tmp.path(), row.quiet);
        log_capture_t log(logger_name);
        EXPECT_EQ(bridge_.invoke_orb(orb_accessor_impl_t::tool_main, {}, false), -1) << row.name;
        strings expected = {"tool=1", "sync=0", "Return 'true'", "orb location="};
        if (row.reported) {
            expect_error_record(log, "Failed to find orb location");
            expected.push_back(log.messages().back());
        }
        EXPECT_EQ(log.messages(), expected) << row.name;
    }
}

TEST_F(bridge_test, asynchronous_runs_return_zero_before_the_tool_ends)
{
    struct row_t {
        const char* name;
        tool_t tool;
        std::function<void()> call;
    };
    const row_t rows[] = {
        {"invoke_orb", orb_accessor_impl_t::tool_remote_monitor,
         [&] { EXPECT_EQ(bridge_.invoke_orb(orb_accessor_impl_t::tool_remote_monitor, {}, false), 0); }},
        {"notify_gui_start", orb_accessor_impl_t::tool_consent_check,
         [&] { bridge_.notify_gui_start(); }},
        {"check_for_updates", orb_accessor_impl_t::tool_main,
         [&] { bridge_.check_for_updates("{guid}"); }},
    };
    for (const row_t& row : rows) {
        const std::string go = home_ / "go", done = home_ / "done";
        fake_tool_behaviour_t behaviour = exiting_with(9);
        behaviour.wait_for = go;
        behaviour.done_marker = done;
        const fake_tool_t tool(tool_path(row.tool), behaviour);
        log_capture_t log(logger_name);

        row.call();
        // The tool cannot end before "go" exists, so returning at all proves nobody waited.
        EXPECT_FALSE(file_exists(done)) << row.name;
        for (const std::string& message : log.messages())
            EXPECT_EQ(message.rfind("orb return code=", 0), std::string::npos) << row.name;

        write_file(go, "");
        const std::vector<int> statuses = reap_children();
        ASSERT_EQ(statuses.size(), 1u) << row.name;
        EXPECT_TRUE(WIFEXITED(statuses[0]) && WEXITSTATUS(statuses[0]) == 9) << row.name;
        EXPECT_TRUE(file_exists(done)) << row.name;
        ::unlink(go.c_str());
        ::unlink(done.c_str());
    }
}

TEST_F(bridge_test, a_home_installation_wins_over_the_override_directory)
{
    temp_dir_t override_dir;
    scoped_env_t override_env("NORVEL_ORBTOOL_DIR", override_dir.path().c_str());
    const tool_t tool = orb_accessor_impl_t::tool_consent_check;
    const fake_tool_t in_home(tool_path(tool), exiting_with(11));
    const fake_tool_t in_override(override_tool_path(override_dir.path(), tool), exiting_with(22));
    EXPECT_EQ(bridge_.get_orb_location(tool).as_string(), in_home.path());
    EXPECT_EQ(bridge_.invoke_orb(tool, {}, true), 11);
    EXPECT_FALSE(in_override.ran());
}

TEST_F(bridge_test, the_override_directory_is_searched_directly_and_last)
{
    if (system_install_present())
        GTEST_SKIP() << "/opt/norvel exists";
    struct row_t {
        const char* name;
        bool home_set;
        std::string placed;  // relative to the override directory; empty: nothing placed
        bool found;
    };
    const row_t rows[] = {
        {"directly in the override", true, "norvelremotemon", true},
        {"HOME unset", false, "norvelremotemon", true},
        {"only in a sub-directory", true, "orb/bin/ia32/norvelremotemon", false},
        {"nowhere", true, "", false},
    };
    for (const row_t& row : rows) {
        temp_dir_t override_dir;
        scoped_env_t override_env("NORVEL_ORBTOOL_DIR", override_dir.path().c_str());
        std::optional<scoped_env_t> no_home;
        if (!row.home_set)
            no_home.emplace("HOME", nullptr);
        if (!row.placed.empty())
            fake_tool_t(override_dir / row.placed, exiting_with(3));
        const std::string expected = row.found ? override_dir / row.placed : "";
        EXPECT_EQ(bridge_.get_orb_location(orb_accessor_impl_t::tool_remote_monitor).as_string(),
                  expected)
            << row.name;
        EXPECT_EQ(bridge_.invoke_orb(orb_accessor_impl_t::tool_remote_monitor, {}, true),
                  row.found ? 3 : -1)
            << row.name;
    }
}

TEST_F(bridge_test, disabled_tool_calls_run_nothing)
{
    temp_dir_t tmp;
    fake_locations_t locations(tmp.path());
    const fake_tool_t monitor(tool_path(orb_accessor_impl_t::tool_remote_monitor), exiting_with(1));
    const fake_tool_t consent(tool_path(orb_accessor_impl_t::tool_consent_check), exiting_with(1));
    const fake_tool_t main_tool(tool_path(orb_accessor_impl_t::tool_main), exiting_with(1));
    scoped_env_t disable("USEMETER_DISABLE_ORB", "0");
    const std::string present = home_ / "present.dat", absent = home_ / "absent.dat";
    write_file(present, "x");

    log_capture_t log(logger_name);
    EXPECT_EQ(bridge_.invoke_orb(orb_accessor_impl_t::tool_remote_monitor, {}, true), 0);
    EXPECT_EQ(log.messages(),
              (strings{"tool=0", "sync=1", "Return 'false' - USEMETER_DISABLE_ORB is set"}));

    EXPECT_TRUE(bridge_.send_usage_package());
    EXPECT_TRUE(bridge_.is_feedback_enabled());
    EXPECT_FALSE(bridge_.send_file(present, false));
    EXPECT_TRUE(bridge_.send_file(absent, false));
    EXPECT_FALSE(bridge_.send_crash_report(present, true));
    EXPECT_TRUE(bridge_.send_crash_report(absent, true));
    EXPECT_EQ(bridge_.get_uuid(), "");
    bridge_.notify_gui_start();
    bridge_.check_for_updates("{guid}");
    EXPECT_FALSE(has_children());
    EXPECT_FALSE(monitor.ran() || consent.ran() || main_tool.ran());
    EXPECT_EQ(list_dir(tmp.path()), strings{});
}

TEST_F(bridge_test, missing_tools_make_every_operation_fail)
{
    if (system_install_present())
        GTEST_SKIP() << "/opt/norvel exists";
    temp_dir_t tmp;
    fake_locations_t locations(tmp.path(), true);
    const std::string present = home_ / "present.dat";
    write_file(present, "x");
    log_capture_t log(logger_name);
    EXPECT_FALSE(bridge_.send_file(present, false));
    EXPECT_FALSE(bridge_.send_crash_report(present, false));
    EXPECT_FALSE(bridge_.send_usage_package());
    EXPECT_FALSE(bridge_.is_feedback_enabled());
    EXPECT_TRUE(log.contains("return: feedback disabled"));
    EXPECT_EQ(bridge_.get_uuid(), "");
    EXPECT_TRUE(log.contains("return: uuid = "));
    EXPECT_TRUE(file_exists(present));
}

TEST_F(bridge_test, operations_read_the_tools_answers)
{
    const std::string sent = home_ / "sent.dat";
    struct row_t {
        const char* name;
        tool_t tool;
        fake_tool_behaviour_t behaviour;
        std::function<bool()> call;
        bool expected;
        std::string logged;
    };
    const tool_t monitor = orb_accessor_impl_t::tool_remote_monitor;
    const tool_t consent = orb_accessor_impl_t::tool_consent_check;
    const row_t rows[] = {
        {"send_file consumed, exit 3", monitor, exiting_with(3, true),
         [&] { return bridge_.send_file(sent, false); }, true, "aggregated_file=" + sent},
        {"send_file kept, exit 0", monitor, exiting_with(0, false),
         [&] { return bridge_.send_file(sent, true); }, false, "aggregated_file=" + sent},
        {"send_crash_report consumed", monitor, exiting_with(0, true),
         [&] { return bridge_.send_crash_report(sent, true); }, true, "file=" + sent},
        {"send_crash_report kept", monitor, exiting_with(0, false),
         [&] { return bridge_.send_crash_report(sent, false); }, false, "file=" + sent},
        {"send_usage_package exit 5", monitor, exiting_with(5),
         [&] { return bridge_.send_usage_package(); }, true, "orb return code=5"},
        {"feedback exit 0", consent, exiting_with(0), [&] { return bridge_.is_feedback_enabled(); },
         true, "return: feedback enabled"},
        {"feedback exit 1", consent, exiting_with(1), [&] { return bridge_.is_feedback_enabled(); },
         false, "return: feedback disabled"},
    };
    for (const row_t& row : rows) {
        write_file(sent, "payload");
        const fake_tool_t tool(tool_path(row.tool), row.behaviour);
        log_capture_t log(logger_name);
        EXPECT_EQ(row.call(), row.expected) << row.name;
        EXPECT_TRUE(log.contains(row.logged)) << row.name;
    }
    ::unlink(sent.c_str());
}

TEST_F(bridge_test, update_checks_can_be_switched_off)
{
    const fake_tool_t tool(tool_path(orb_accessor_impl_t::tool_main), exiting_with(0));
    {
        scoped_env_t empty("NORVEL_DISABLE_UPDATES_CHECK", "");
        EXPECT_TRUE(bridge_.is_check_for_updates_enabled());
    }
    scoped_env_t off("NORVEL_DISABLE_UPDATES_CHECK", "1");
    log_capture_t log(logger_name);
    bridge_.check_for_updates(orb_accessor_t::DefaultProductGUID);
    const std::string outer =
        "virtual void usemeter_1_5_7::orb_accessor_impl_t::check_for_updates(const "
        "std::basic_string<char>&)";
    const std::string inner =
        "bool usemeter_1_5_7::orb_accessor_impl_t::is_check_for_updates_enabled() const";
    EXPECT_EQ(log.messages(true), (strings{
                                      "ENTER: " + outer,
                                      "product_guid={00000000-0000-0000-0000-000000000000}",
                                      "ENTER: " + inner,
                                      "Return 'false' - NORVEL_DISABLE_UPDATES_CHECK is set",
                                      "EXIT:  " + inner,
                                      "Check for updates disabled.",
                                      "EXIT:  " + outer,
                                  }));
    EXPECT_FALSE(has_children());
    EXPECT_FALSE(tool.ran());
}

TEST_F(bridge_test, get_uuid_returns_the_first_line_and_leaves_no_file)
{
    temp_dir_t tmp;
    fake_locations_t locations(tmp.path());
    const std::pair<std::string, std::string> rows[] = {
        {"0F1E2D3C-4B5A\nsecond line\n", "0F1E2D3C-4B5A"},
        {"", ""},
        {"no newline", "no newline"},
        {" kept as written \r\nx", " kept as written \r"},
    };
    for (const auto& row : rows) {
        const fake_tool_t tool(tool_path(orb_accessor_impl_t::tool_remote_monitor),
                               writing_uuid(row.first));
        log_capture_t log(logger_name);
        EXPECT_EQ(bridge_.get_uuid(), row.second);
        EXPECT_EQ(log.messages().back(), "return: uuid = " + row.second);
        EXPECT_EQ(list_dir(tmp.path()), strings{});
    }
}

TEST_F(bridge_test, get_uuid_moves_past_busy_locks)
{
    temp_dir_t tmp;
    fake_locations_t locations(tmp.path());
    const fake_tool_t tool(tool_path(orb_accessor_impl_t::tool_remote_monitor),
                           writing_uuid("ID\n"));
    write_file(tmp / exchange_name(1, ".lock"), "");
    EXPECT_EQ(bridge_.get_uuid(), "ID");
    EXPECT_EQ(tool.recorded_args(), (strings{"-u", tmp / exchange_name(2)}));
    EXPECT_EQ(list_dir(tmp.path()), strings{exchange_name(1, ".lock")});

    tool.forget_run();
    strings locks;
    for (int n = 1; n <= 19; ++n) {
        write_file(tmp / exchange_name(n, ".lock"), "");
        locks.push_back(exchange_name(n, ".lock"));
    }
    std::sort(locks.begin(), locks.end());
    log_capture_t log(logger_name);
    EXPECT_EQ(bridge_.get_uuid(), "");
    EXPECT_EQ(log.messages(), strings{"return: empty string"});
    EXPECT_FALSE(tool.ran());
    EXPECT_EQ(list_dir(tmp.path()), locks);
}

TEST_F(bridge_test, get_uuid_needs_a_temporary_directory)
{
    struct row_t {
        const char* name;
        bool service;
        std::string error;
    };
    const row_t rows[] = {
        {"no service", false, "prodenv::IProductLocations::get() is NULL"},
        {"empty path", true, "prodenv::IProductLocations::get()->getTempDir() returned empty path"},
    };
    for (const row_t& row : rows) {
        std::optional<fake_locations_t> locations;
        if (row.service)
            locations.emplace("");
        log_capture_t log(logger_name);
        EXPECT_EQ(bridge_.get_uuid(), "") << row.name;
        const strings messages = log.messages();
        ASSERT_EQ(messages.size(), 2u) << row.name;
        expect_error_record(log, row.error);
        EXPECT_EQ(messages[1], "return: empty string") << row.name;
    }
}

TEST_F(bridge_test, get_uuid_never_writes_through_a_planted_link)
{
    temp_dir_t tmp;
    fake_locations_t locations(tmp.path());
    const fake_tool_t tool(tool_path(orb_accessor_impl_t::tool_remote_monitor),
                           writing_uuid("ID\n"));
    const std::string victim = home_ / "victim.txt";
    const std::string planted = tmp / exchange_name(1);
    using plant_t = int (*)(const char*, const char*);
    const std::pair<const char*, plant_t> rows[] = {{"symbolic link", ::symlink},
                                                    {"hard link", ::link}};
    for (const auto& row : rows) {
        write_file(victim, "precious");
        ASSERT_EQ(row.second(victim.c_str(), planted.c_str()), 0) << row.first;
        EXPECT_EQ(bridge_.get_uuid(), "ID") << row.first;
        EXPECT_EQ(tool.recorded_args(), (strings{"-u", tmp / exchange_name(2)})) << row.first;
        EXPECT_EQ(read_file(victim), "precious") << row.first;
        EXPECT_EQ(list_dir(tmp.path()), strings{exchange_name(1)}) << row.first;
        ::unlink(planted.c_str());
    }
}

TEST_F(bridge_test, concurrent_get_uuid_calls_each_get_the_identifier)
{
    temp_dir_t tmp;
    fake_locations_t locations(tmp.path());
    const fake_tool_t tool(tool_path(orb_accessor_impl_t::tool_remote_monitor),
                           writing_uuid("FIXED-ID\n"));
    // Fewer callers than exchange slots: each caller holds one slot at most, so nobody
    // can find all of them busy.
    const int callers = 16;
    std::atomic<int> ready{0};
    std::vector<std::string> results(callers);
    std::vector<std::thread> threads;
    for (int i = 0; i < callers; ++i)
        threads.emplace_back([&, i] {
            ++ready;
            while (ready.load() < callers)
                std::this_thread::yield();
            results[i] = bridge_.get_uuid();
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(results, strings(callers, "FIXED-ID"));
    EXPECT_EQ(list_dir(tmp.path()), strings{});
}

}  // namespace
