// The bridge to the support tools: arguments, answers, how a run ends, where a tool is, the exchange file.
#include "library/library_test.hpp"

namespace {

using namespace usemeter_test;
using tool_t = orb_accessor_impl_t::orb_tool_t;

const tool_t main_tool = orb_accessor_impl_t::tool_main;
const tool_t consent = orb_accessor_impl_t::tool_consent_check;
// Where the bridge looks below $HOME, indexed by tool.
const char* const home_paths[] = {monitor_in_home, "norvel/orb/orb", "norvel/orb/bin/ia32/checkOPTINconsent"};
const char* const logger_name = "usemeter.orb_accessor";
const std::string default_guid = "{00000000-0000-0000-0000-000000000000}", missing = "<no tool>";

std::string exchange_name(int n, const char* ext = ".txt")
{ return "uuid-" + std::to_string(::getpid()) + "-" + std::to_string(n) + ext; }

class bridge_test : public ::testing::Test {
protected:
    bridge_test() { locations_.temp_dir = tmp_.path(); }
    // A system-wide installation would be found before a missing tool or the override.
    void SetUp() override { if (file_exists("/opt/norvel")) GTEST_SKIP() << "/opt/norvel exists"; }
    void TearDown() override { EXPECT_FALSE(has_children()) << "a tool outlived its call"; reap_children(); }

    clean_env_t env_;
    temp_home_t home_;
    temp_dir_t tmp_;
    prodenv::fixed_locations_t locations_;
    orb_accessor_impl_t bridge_;
};

// Each operation's exact arguments and answer; with a switch variable set (content never matters) the
// tools stay silent and disallowed calls read as success.
TEST_F(bridge_test, operations_pass_their_exact_arguments_and_read_the_answers)
{
    const std::string sent = home_ / "sent.dat", consume = on_argument("-m", "rm -f -- \"$2\"");
    const char *const no_orb = "USEMETER_DISABLE_ORB", *const no_updates = "NORVEL_DISABLE_UPDATES_CHECK";
    scoped_env_t orb_on(no_orb, ""), updates_on(no_updates, "");  // set but empty: unset
    const auto send = [=](bool f) { return [=] { return bridge_.send_file(sent, f); }; };
    const auto crash = [=](bool f) { return [=] { return bridge_.send_crash_report(sent, f); }; };
    const auto usage = [&] { return bridge_.send_usage_package(); };
    const auto feedback = [&] { return bridge_.is_feedback_enabled(); };
    // The asynchronous ones answer whether their child is still ours to reap: nobody waited.
    const auto gui_start = [&] { bridge_.notify_gui_start(); return has_children(); };
    const auto updates = [&] { bridge_.check_for_updates(default_guid); return has_children(); };
    const auto uuid = [&] { return bridge_.get_uuid().empty(); };
    struct row_t { tool_t tool; std::string sh; std::function<bool()> op; bool ok; strings_t args;
                   const char* switched_off = nullptr; std::string logged = ""; };
    const std::string orb_off = "Return 'false' - USEMETER_DISABLE_ORB is set";
    const row_t rows[] = {
        // A file counts as sent when the tool consumed it, whatever the exit status.
        {monitor, consume, send(false), true, {"-t", "i", "-e", "statistic", "-m", sent}},
        {monitor, "", send(true), false, {"-t", "i", "-e", "statistic", "-f", "-m", sent}},
        {monitor, missing, send(false), false, {}, nullptr, "Failed to find orb location"},
        {monitor, consume + "exit 3", crash(false), true, {"-t", "i", "-e", "crash", "-m", sent}},
        {monitor, "", crash(true), false, {"-t", "i", "-e", "crash", "-f", "-m", sent}},
        {monitor, "exit 5", usage, true, {"-t", "i", "-b"}}, {monitor, missing, usage, false, {}},
        {consent, "", feedback, true, {"-g"}, nullptr, "return: feedback enabled"},
        {consent, "exit 1", feedback, false, {"-g"}, nullptr, "return: feedback disabled"},
        {consent, missing, feedback, false, {}},
        {consent, "", gui_start, true, {"-w", "-s", std::to_string(::getpid())}},
        {main_tool, "", updates, true, {"--product_guid", default_guid, "--action", "check"}},
        {monitor, "", uuid, true, {"-u", tmp_ / exchange_name(1)}},
        {main_tool, "", updates, false, {}, no_updates, "Check for updates disabled."},
        {monitor, consume, send(false), false, {}, no_orb, orb_off},
        {monitor, missing, send(true), true, {}, no_orb}, {monitor, "exit 5", usage, true, {}, no_orb},
        {consent, "exit 1", feedback, true, {}, no_orb}, {consent, "", gui_start, false, {}, no_orb},
        {monitor, writing_uuid("ID"), uuid, true, {}, no_orb},
    };
    for (const row_t& row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows));
        // A missing tool must fail the send even though no file is left to say otherwise.
        ::unlink(sent.c_str());
        std::optional<fake_tool_t> tool;
        if (row.sh != missing) {
            write_file(sent, "payload");
            tool.emplace(home_ / home_paths[row.tool], row.sh);
        }
        scoped_env_t off(row.switched_off ? row.switched_off : no_orb, row.switched_off ? "0" : "");
        log_capture_t log(logger_name);
        EXPECT_EQ(row.op(), row.ok);
        reap_children();
        EXPECT_EQ(tool ? tool->args() : strings_t{}, row.args);
        EXPECT_TRUE(row.logged.empty() || log.contains_start(row.logged)) << row.logged;
    }
    EXPECT_EQ(count_entries(tmp_.path()), 0) << "an exchange file was left";
}

// The exit status or -1; a run is logged with its unquoted command line.
TEST_F(bridge_test, invoke_orb_answers_the_exit_status_or_minus_one_and_finds_tools_in_order)
{
    // A caught signal without SA_RESTART breaks the wait with EINTR; the last row's tool sends some.
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
    const struct { const char* body; mode_t mode; bool sync; int expected; } rows[] = {
        {"exit 0", 0755, true, 0}, {"exit 7", 0755, true, 7}, {nullptr, 0755, true, -1}, {"exit 7", 0755, false, 0},
        {"exit 7", 0644, true, 255}, {"kill -KILL $$", 0755, true, -1},  // 255: exec failed
        {"for i in 1 2 3 4 5 6 7 8; do kill -USR1 $PPID; sleep .06; done; exit 6", 0755, true, 6},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.body ? row.body : "missing");
        std::optional<fake_tool_t> tool;
        if (row.body) {
            tool.emplace(home_ / home_paths[monitor], row.body);
            ::chmod(tool->path().c_str(), row.mode);
        }
        log_capture_t log(logger_name);
        EXPECT_EQ(bridge_.invoke_orb(monitor, {"a b", "c"}, row.sync), row.expected);
        EXPECT_EQ(reap_children().size(), row.sync || !row.body ? 0u : 1u);
        if (row.body && row.mode == 0755) {
            EXPECT_EQ(tool->args(), (strings_t{"a b", "c"}));
            EXPECT_TRUE(log.contains("orb command line='" + tool->path() + " a b c'"));
            EXPECT_TRUE(!row.sync || log.contains("orb return code=" + std::to_string(row.expected)));
        }
    }
    EXPECT_EQ(bridge_.invoke_orb(static_cast<tool_t>(3), {}, true), -1);
    // Looked up in HOME, then the system, then the flat override; a miss is an error unless the locations
    // service asks for a quiet lookup.
    for (const int service : {0, 1, 2}) {  // none, a plain one, a quiet one
        prodenv::IProductLocations::set(service ? &locations_ : nullptr);
        locations_.quiet_lookup = service == 2;
        log_capture_t log(logger_name);
        EXPECT_EQ(bridge_.invoke_orb(main_tool, {}, false), -1);
        EXPECT_EQ(log.messages().back().rfind("Failed to find orb location, at file: ", 0) == 0, service != 2);
    }
    temp_dir_t override_dir;
    scoped_env_t override_env("NORVEL_ORBTOOL_DIR", override_dir.path().c_str());
    const std::string in_home = home_ / home_paths[monitor], direct = override_dir / "norvelremotemon";
    const struct { bool home_tool, home_set; std::string override_tool, expected; } places[] = {
        {true, true, direct, in_home}, {false, true, direct, direct}, {true, false, direct, direct},
        {false, true, override_dir / "orb/bin/ia32/norvelremotemon", ""},
    };
    for (const auto& row : places) {
        std::optional<fake_tool_t> home_tool;
        if (row.home_tool)
            home_tool.emplace(in_home);
        const fake_tool_t override_tool(row.override_tool);
        scoped_env_t home_var("HOME", row.home_set ? home_.path().c_str() : nullptr);
        EXPECT_EQ(bridge_.get_orb_location(monitor).as_string(), row.expected) << row.override_tool;
    }
}

// The first line as written, the exchange file gone afterwards; busy locks and planted names are passed
// over, 19 at most; without a temporary directory nothing is tried.
TEST_F(bridge_test, get_uuid_reads_the_first_line_of_a_locked_exchange_file)
{
    const std::pair<std::string, std::string> rows[] = {
        {"0F1E2D3C-4B5A\nsecond line\n", "0F1E2D3C-4B5A"}, {"", ""}, {"no newline", "no newline"},
        {" kept as written \r\nx", " kept as written \r"}};
    for (const auto& row : rows) {
        const fake_tool_t tool(home_ / home_paths[monitor], writing_uuid(row.first));
        log_capture_t log(logger_name);
        EXPECT_EQ(bridge_.get_uuid(), row.second);
        EXPECT_EQ(log.messages().back(), "return: uuid = " + row.second);
        EXPECT_EQ(count_entries(tmp_.path()), 0);
    }
    const fake_tool_t tool(home_ / home_paths[monitor], writing_uuid("ID\n"));
    const std::string victim = home_ / "victim.txt", planted = tmp_ / exchange_name(1);
    using plant_t = int (*)(const char*, const char*);
    for (const plant_t plant : {plant_t(::symlink), plant_t(::link)}) {
        write_file(victim, "precious");
        ASSERT_EQ(plant(victim.c_str(), planted.c_str()), 0);
        EXPECT_EQ(bridge_.get_uuid(), "ID");
        EXPECT_EQ(tool.args(), (strings_t{"-u", tmp_ / exchange_name(2)}));
        EXPECT_EQ(read_file(victim), "precious");
        EXPECT_EQ(count_entries(tmp_.path()), 1) << "only the planted link is left";
        ::unlink(planted.c_str());
    }
    for (int n = 1; n <= 18; ++n)
        write_file(tmp_ / exchange_name(n, ".lock"), "");
    EXPECT_EQ(bridge_.get_uuid(), "ID");
    EXPECT_EQ(tool.args(), (strings_t{"-u", tmp_ / exchange_name(19)}));
    write_file(tmp_ / exchange_name(19, ".lock"), "");
    EXPECT_EQ(bridge_.get_uuid(), "");
    EXPECT_EQ(count_entries(tmp_.path()), 19) << "only the locks are left";

    locations_.temp_dir = "";
    for (const bool service : {false, true}) {
        prodenv::IProductLocations::set(service ? &locations_ : nullptr);
        log_capture_t log(logger_name);
        EXPECT_EQ(bridge_.get_uuid(), "");
        const std::string why = service ? "->getTempDir() returned empty path" : " is NULL";
        EXPECT_EQ(log.messages().size(), 2u);
        EXPECT_TRUE(log.contains_start("prodenv::IProductLocations::get()" + why));
        EXPECT_EQ(log.messages().back(), "return: empty string");
    }
}

}  // namespace
