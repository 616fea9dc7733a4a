#include <csignal>
#include <functional>
#include <iterator>
#include <optional>

#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include "support/fake_tool.hpp"
#include "support/locations_double.hpp"
#include "support/log_capture.hpp"
#include "support/temp_home.hpp"
#include "usemeter/orb_accessor.hpp"

namespace {

using namespace usemeter_test;
using usemeter_1_5_7::orb_accessor_impl_t;
using usemeter_1_5_7::orb_accessor_t;
using tool_t = orb_accessor_impl_t::orb_tool_t;
using strings = std::vector<std::string>;

const tool_t monitor = orb_accessor_impl_t::tool_remote_monitor;
const tool_t main_tool = orb_accessor_impl_t::tool_main;
const tool_t consent = orb_accessor_impl_t::tool_consent_check;
// Where the bridge looks below $HOME, indexed by tool.
const char* const home_paths[] = {"norvel/orb/bin/ia32/norvelremotemon", "norvel/orb/orb",
                                  "norvel/orb/bin/ia32/checkOPTINconsent"};
const char* const logger_name = "usemeter.orb_accessor";
const std::string default_guid = "{00000000-0000-0000-0000-000000000000}";

std::ptrdiff_t count_files(const std::string& dir)
{
    return std::distance(boost::filesystem::directory_iterator(dir), {});
}

std::string exchange_name(int n, const char* ext = ".txt")
{
    return "uuid-" + std::to_string(::getpid()) + "-" + std::to_string(n) + ext;
}

std::string writing_uuid(const std::string& content)
{
    return on_argument("-u", "printf %s " + shell_quote(content) + " > \"$2\"");
}

void expect_error(const log_capture_t& log, const std::string& text)
{
    for (const log_record_t& record : log.records())
        if (record.level == 40000) {
            EXPECT_EQ(record.message,
                      text + ", at file: src/orb_accessor.cpp:" + std::to_string(record.line));
            return;
        }
    ADD_FAILURE() << "no ERROR record for " << text;
}

// A system-wide installation would be found before the override directory and hide "missing".
#define SKIP_WITH_SYSTEM_INSTALL() \
    if (file_exists("/opt/norvel"))  \
    GTEST_SKIP() << "/opt/norvel exists"

class bridge_test : public ::testing::Test {
protected:
    bridge_test() { locations_.temp_dir = tmp_.path(); }
    void TearDown() override
    {
        EXPECT_FALSE(has_children()) << "a tool outlived its call";
        reap_children();
    }
    fake_tool_t add_tool(tool_t tool, const std::string& body = "", mode_t mode = 0755) const
    {
        return fake_tool_t(home_ / home_paths[tool], body, mode);
    }

    clean_env_t env_;
    temp_home_t home_;
    temp_dir_t tmp_;
    locations_double_t locations_;
    orb_accessor_impl_t bridge_;
};

TEST_F(bridge_test, operations_pass_their_exact_arguments_and_read_the_answers)
{
    const std::string sent = home_ / "sent.dat", missing = "no tool";
    const std::string consume = on_argument("-m", "rm -f -- \"$2\"");
    // Set but empty reads as unset.
    scoped_env_t orb_on("USEMETER_DISABLE_ORB", ""), updates_on("NORVEL_DISABLE_UPDATES_CHECK", "");
    const auto send = [=](bool f) { return [=] { return bridge_.send_file(sent, f); }; };
    const auto crash = [=](bool f) { return [=] { return bridge_.send_crash_report(sent, f); }; };
    const auto usage = [&] { return bridge_.send_usage_package(); };
    const auto feedback = [&] { return bridge_.is_feedback_enabled(); };
    // The asynchronous ones answer whether their child is still ours to reap: nobody waited.
    const auto gui_start = [&] { bridge_.notify_gui_start(); return has_children(); };
    const auto updates = [&] { bridge_.check_for_updates(default_guid); return has_children(); };
    const auto uuid = [&] { return bridge_.get_uuid().empty(); };
    struct row_t { tool_t tool; std::string sh; std::function<bool()> op; bool ok; strings args; };
    const row_t rows[] = {
        // A file counts as sent when the tool consumed it, whatever the exit status.
        {monitor, consume, send(false), true, {"-t", "i", "-e", "statistic", "-m", sent}},
        {monitor, "", send(true), false, {"-t", "i", "-e", "statistic", "-f", "-m", sent}},
        {monitor, missing, send(false), false, {}},
        {monitor, consume + "exit 3", crash(false), true, {"-t", "i", "-e", "crash", "-m", sent}},
        {monitor, "", crash(true), false, {"-t", "i", "-e", "crash", "-f", "-m", sent}},
        {monitor, "exit 5", usage, true, {"-t", "i", "-b"}},
        {monitor, missing, usage, false, {}},
        {consent, "", feedback, true, {"-g"}},
        {consent, "exit 1", feedback, false, {"-g"}},
        {consent, missing, feedback, false, {}},
        {consent, "", gui_start, true, {"-w", "-s", std::to_string(::getpid())}},
        {main_tool, "", updates, true, {"--product_guid", default_guid, "--action", "check"}},
        {monitor, "", uuid, true, {"-u", tmp_ / exchange_name(1)}},
    };
    for (const row_t& row : rows) {
        // A missing tool must fail the send even though no file is left to say otherwise.
        ::unlink(sent.c_str());
        std::optional<fake_tool_t> tool;
        if (row.sh != missing) {
            write_file(sent, "payload");
            tool.emplace(home_ / home_paths[row.tool], row.sh);
        } else if (file_exists("/opt/norvel")) {
            continue;  // a system-wide installation would be found
        }
        EXPECT_EQ(row.op(), row.ok) << "row " << &row - rows;
        reap_children();
        EXPECT_EQ(tool ? tool->args() : strings{}, row.args) << "row " << &row - rows;
    }
}

TEST_F(bridge_test, invoke_orb_answers_with_the_exit_status_or_minus_one)
{
    SKIP_WITH_SYSTEM_INSTALL();
    // A caught signal without SA_RESTART breaks the caller's wait with EINTR; the last row's
    // tool keeps sending one for half a second.
    struct sigaction action {}, old_action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &old_action), 0);
    const struct { const char* body; mode_t mode; bool sync; int expected; } rows[] = {
        {"exit 0", 0755, true, 0},         {"exit 7", 0755, true, 7},
        {nullptr, 0755, true, -1},         {"exit 7", 0644, true, 255},  // exec fails
        {"kill -KILL $$", 0755, true, -1}, {"exit 7", 0755, false, 0},
        {"for i in 1 2 3 4 5 6 7 8; do kill -USR1 $PPID; sleep .06; done; exit 6", 0755, true, 6},
    };
    for (const auto& row : rows) {
        std::optional<fake_tool_t> tool;
        if (row.body)
            tool.emplace(home_ / home_paths[monitor], row.body, row.mode);
        EXPECT_EQ(bridge_.invoke_orb(monitor, {}, row.sync), row.expected)
            << (row.body ? row.body : "missing") << ", mode " << row.mode << ", sync " << row.sync;
        EXPECT_EQ(reap_children().size(), row.sync || !row.body ? 0u : 1u);
    }
    EXPECT_EQ(bridge_.invoke_orb(static_cast<tool_t>(3), {}, true), -1);
    ::sigaction(SIGUSR1, &old_action, nullptr);
}

TEST_F(bridge_test, a_run_is_logged_with_its_unquoted_command_line)
{
    const fake_tool_t tool = add_tool(monitor, "exit 7");
    log_capture_t log(logger_name);
    EXPECT_EQ(bridge_.invoke_orb(monitor, {"a b", "c"}, true), 7);
    EXPECT_EQ(tool.args(), (strings{"a b", "c"}));
    EXPECT_EQ(log.messages(),
              (strings{"tool=0", "sync=1", "Return 'true'", "orb location=" + tool.path(),
                       "orb command line='" + tool.path() + " a b c'", "orb return code=7"}));
}

TEST_F(bridge_test, a_missing_tool_is_reported_unless_the_lookup_is_quiet)
{
    SKIP_WITH_SYSTEM_INSTALL();
    const struct { bool service, quiet; } rows[] = {{false, false}, {true, false}, {true, true}};
    for (const auto& row : rows) {
        prodenv::IProductLocations::set(row.service ? &locations_ : nullptr);
        locations_.quiet_lookup = row.quiet;
        log_capture_t log(logger_name);
        EXPECT_EQ(bridge_.invoke_orb(main_tool, {}, false), -1);
        strings expected = {"tool=1", "sync=0", "Return 'true'", "orb location="};
        if (!row.quiet) {
            expect_error(log, "Failed to find orb location");
            expected.push_back(log.messages().back());
        }
        EXPECT_EQ(log.messages(), expected) << "service " << row.service << ", quiet " << row.quiet;
    }
}

TEST_F(bridge_test, home_wins_and_the_override_directory_is_searched_last_and_flat)
{
    SKIP_WITH_SYSTEM_INSTALL();
    temp_dir_t override_dir;
    scoped_env_t override_env("NORVEL_ORBTOOL_DIR", override_dir.path().c_str());
    const std::string in_home = home_ / home_paths[monitor];
    const std::string direct = override_dir / "norvelremotemon";
    const struct { bool home_tool, home_set; std::string override_tool, expected; } rows[] = {
        {true, true, direct, in_home},
        {false, true, direct, direct},
        {true, false, direct, direct},
        {false, true, override_dir / "orb/bin/ia32/norvelremotemon", ""},
    };
    for (const auto& row : rows) {
        std::optional<fake_tool_t> home_tool;
        if (row.home_tool)
            home_tool.emplace(in_home);
        const fake_tool_t override_tool(row.override_tool);
        std::optional<scoped_env_t> no_home;
        if (!row.home_set)
            no_home.emplace("HOME", nullptr);
        EXPECT_EQ(bridge_.get_orb_location(monitor).as_string(), row.expected) << row.override_tool;
    }
}

TEST_F(bridge_test, USEMETER_DISABLE_ORB_runs_nothing_and_reads_as_success)
{
    const fake_tool_t tool_0 = add_tool(monitor), tool_1 = add_tool(main_tool);
    const fake_tool_t tool_2 = add_tool(consent);
    scoped_env_t disable("USEMETER_DISABLE_ORB", "0");
    const std::string present = home_ / "present.dat", absent = home_ / "absent.dat";
    write_file(present, "x");
    log_capture_t log(logger_name);
    EXPECT_EQ(bridge_.invoke_orb(monitor, {}, true), 0);
    EXPECT_EQ(log.messages(),
              (strings{"tool=0", "sync=1", "Return 'false' - USEMETER_DISABLE_ORB is set"}));
    // Sending is judged by whether the file is gone, even with the tools switched off.
    EXPECT_EQ((std::vector<bool>{bridge_.send_usage_package(), bridge_.is_feedback_enabled(),
                                 bridge_.send_file(present, false), bridge_.send_file(absent, true),
                                 bridge_.send_crash_report(present, true),
                                 bridge_.send_crash_report(absent, false)}),
              (std::vector<bool>{true, true, false, true, false, true}));
    EXPECT_EQ(bridge_.get_uuid(), "");
    bridge_.notify_gui_start();
    bridge_.check_for_updates("{guid}");
    EXPECT_FALSE(tool_0.ran() || tool_1.ran() || tool_2.ran());
    EXPECT_EQ(count_files(tmp_.path()), 0);
}

TEST_F(bridge_test, NORVEL_DISABLE_UPDATES_CHECK_switches_update_checks_off)
{
    const fake_tool_t tool = add_tool(main_tool);
    scoped_env_t off("NORVEL_DISABLE_UPDATES_CHECK", "1");
    log_capture_t log(logger_name);
    bridge_.check_for_updates(orb_accessor_t::DefaultProductGUID);
    EXPECT_EQ(log.messages(), (strings{"product_guid=" + default_guid,
                                       "Return 'false' - NORVEL_DISABLE_UPDATES_CHECK is set",
                                       "Check for updates disabled."}));
    EXPECT_FALSE(tool.ran());
}

TEST_F(bridge_test, get_uuid_returns_the_first_line_and_leaves_no_file)
{
    const std::pair<std::string, std::string> rows[] = {
        {"0F1E2D3C-4B5A\nsecond line\n", "0F1E2D3C-4B5A"},
        {"", ""},
        {"no newline", "no newline"},
        {" kept as written \r\nx", " kept as written \r"},
    };
    for (const auto& row : rows) {
        const fake_tool_t tool = add_tool(monitor, writing_uuid(row.first));
        log_capture_t log(logger_name);
        EXPECT_EQ(bridge_.get_uuid(), row.second);
        EXPECT_EQ(log.messages().back(), "return: uuid = " + row.second);
        EXPECT_EQ(count_files(tmp_.path()), 0);
    }
}

TEST_F(bridge_test, get_uuid_moves_past_busy_locks_and_gives_up_after_19)
{
    const fake_tool_t tool = add_tool(monitor, writing_uuid("ID\n"));
    for (int n = 1; n <= 18; ++n)
        write_file(tmp_ / exchange_name(n, ".lock"), "");
    EXPECT_EQ(bridge_.get_uuid(), "ID");
    EXPECT_EQ(tool.args(), (strings{"-u", tmp_ / exchange_name(19)}));

    write_file(tmp_ / exchange_name(19, ".lock"), "");
    log_capture_t log(logger_name);
    EXPECT_EQ(bridge_.get_uuid(), "");
    EXPECT_EQ(log.messages(), strings{"return: empty string"});
    EXPECT_EQ(count_files(tmp_.path()), 19) << "only the locks are left";
}

TEST_F(bridge_test, get_uuid_needs_a_temporary_directory)
{
    locations_.temp_dir = "";
    const std::pair<bool, std::string> rows[] = {
        {false, "prodenv::IProductLocations::get() is NULL"},
        {true, "prodenv::IProductLocations::get()->getTempDir() returned empty path"},
    };
    for (const auto& row : rows) {
        prodenv::IProductLocations::set(row.first ? &locations_ : nullptr);
        log_capture_t log(logger_name);
        EXPECT_EQ(bridge_.get_uuid(), "");
        expect_error(log, row.second);
        EXPECT_EQ(log.messages().size(), 2u);
        EXPECT_EQ(log.messages().back(), "return: empty string");
    }
}

TEST_F(bridge_test, get_uuid_never_writes_through_a_planted_link)
{
    const fake_tool_t tool = add_tool(monitor, writing_uuid("ID\n"));
    const std::string victim = home_ / "victim.txt", planted = tmp_ / exchange_name(1);
    using plant_t = int (*)(const char*, const char*);
    for (const plant_t plant : {plant_t(::symlink), plant_t(::link)}) {
        write_file(victim, "precious");
        ASSERT_EQ(plant(victim.c_str(), planted.c_str()), 0);
        EXPECT_EQ(bridge_.get_uuid(), "ID");
        EXPECT_EQ(tool.args(), (strings{"-u", tmp_ / exchange_name(2)}));
        EXPECT_EQ(read_file(victim), "precious");
        EXPECT_EQ(count_files(tmp_.path()), 1) << "only the planted link is left";
        ::unlink(planted.c_str());
    }
}

}  // namespace
