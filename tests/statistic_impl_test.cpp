#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <unistd.h>
#include <vector>

#include <boost/filesystem.hpp>

#include "basekit/variant_bag.hpp"
#include "network_status_detail.hpp"
#include "support/log_capture.hpp"
#include "support/temp_home.hpp"
#include "usemeter/product_locations.hpp"
#include "usemeter/statistic_impl.hpp"

using usemeter::statistic_impl_t;
using usemeter_test::clean_env_t;
using usemeter_test::file_exists;
using usemeter_test::log_capture_t;
using usemeter_test::make_dirs;
using usemeter_test::read_file;
using usemeter_test::scoped_env_t;
using usemeter_test::temp_dir_t;
using usemeter_test::temp_home_t;
using usemeter_test::write_file;
typedef std::vector<std::string> lines_t;

namespace {

// The smallest concrete policy object: records what the core forwards to it.
struct probe_t : statistic_impl_t {
    using statistic_impl_t::statistic_impl_t;
    void notify_feature_usage_ex(const std::string& name, unsigned long long value) override
    {
        events.push_back(name + "=" + std::to_string(value));
    }
    void write_range_metric(const std::string&, unsigned long long, unsigned long long,
                            unsigned char, unsigned long long) override {}
    void write_log_range_metric(const std::string&, unsigned long long, unsigned char) override {}
    void notify_send_data(bool) override {}
    bool flush() override { return true; }

    bool enabled() const { return enabled_; }
    std::string optin() const { return optin_path_; }
    std::string uuid_file() const { return uuid_path_; }
    boost::filesystem::path settings() const { return settings_dir_; }
    lines_t events;
};

const char* const unreachable = "resolver-unreachable.invalid";
int lookups = 0;

// Numeric nodes resolve locally; the sentinel plays a resolver that cannot be reached.
int counting_lookup(const char* node, const char* service, const addrinfo* hints, addrinfo** out)
{
    ++lookups;
    if (std::string(node) == unreachable)
        return EAI_AGAIN;
    return ::getaddrinfo(node, service, hints, out);
}

const std::regex uuid_form("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");
const char* const env_sig = "static usemeter_1_5_7::statistic_impl_t::env_vars_state_t "
                            "usemeter_1_5_7::statistic_impl_t::get_env_vars_state()";

class policy : public ::testing::Test {
protected:
    void SetUp() override
    {
        usemeter::detail::lookup = &counting_lookup;
        usemeter::detail::corporate_node_name = "127.0.0.1";
        lookups = 0;
    }
    std::string uuid_xml(const std::string& product = "trovix") const
    {
        return home / ("norvel/" + product + "/settings/statistic/uuid.xml");
    }
    clean_env_t env;
    temp_home_t home;
};

TEST_F(policy, environment_precedence_and_messages)
{
    struct row_t {
        std::vector<std::pair<const char*, const char*>> vars;
        int state;
        const char* message;
    } rows[] = {
        {{}, 0, "Return 'evsEnabled'"},
        {{{"NORVEL_FORCE_FEEDBACK", ""}}, 0, "Return 'evsEnabled'"},
        {{{"NORVEL_FORCE_FEEDBACK", "0"}}, 1, "Return 'evsEnabledForced' - NORVEL_FORCE_FEEDBACK is set"},
        {{{"NORVEL_STATISTICS_DISABLE", "0"}}, 3, "Return 'evsDisabled' - NORVEL_STATISTICS_DISABLE is set"},
        {{{"NORVEL_DONOTSEND_FEEDBACK", " "}, {"NORVEL_FORCE_FEEDBACK", "1"}}, 3,
         "Return 'evsDisabled' - NORVEL_DONOTSEND_FEEDBACK is set"},
        {{{"NORVEL_DISABLE_FEEDBACK", "no"}, {"NORVEL_FORCE_FEEDBACK", "1"}}, 3,
         "Return 'evsDisabled' - NORVEL_DISABLE_FEEDBACK is set"},
        {{{"NORVEL_STATISTICS_DISABLE", ""}, {"NORVEL_DISABLE_FEEDBACK", "1"}}, 3,
         "Return 'evsDisabled' - NORVEL_DISABLE_FEEDBACK is set"},
        {{{"NORVEL_DISABLE_FEEDBACK", "1"}, {"NORVEL_DONOTSEND_FEEDBACK", "1"},
          {"NORVEL_STATISTICS_DISABLE", "1"}}, 3,
         "Return 'evsDisabled' - NORVEL_STATISTICS_DISABLE is set"},
    };
    for (const row_t& row : rows) {
        std::vector<std::unique_ptr<scoped_env_t>> vars;
        for (const auto& var : row.vars)
            vars.push_back(std::make_unique<scoped_env_t>(var.first, var.second));
        log_capture_t log("usemeter.statistic");
        EXPECT_EQ(statistic_impl_t::get_env_vars_state(), row.state) << row.message;
        EXPECT_EQ(log.messages(true),
                  (lines_t{std::string("ENTER: ") + env_sig, row.message, std::string("EXIT:  ") + env_sig}));
        for (const auto& record : log.records())
            EXPECT_EQ(record.level, 0) << record.message;
    }
}

TEST_F(policy, enablement_table)
{
    const std::string env_on = "Return 'evsEnabled'";
    struct row_t {
        const char* variable;  // set to "1", or null
        const char* node;
        const char* consent;   // content of the consent file, or null for none
        bool expected;
        bool looked_up;
        lines_t messages;      // without the enter/exit traces
    } rows[] = {
        {"NORVEL_STATISTICS_DISABLE", "127.0.0.1", "1", false, false,
         {"Return 'evsDisabled' - NORVEL_STATISTICS_DISABLE is set",
          "Return 'false' - statistic disabled due to environment variables"}},
        {"NORVEL_FORCE_FEEDBACK", "10.1.2.3", "0", true, false,
         {"Return 'evsEnabledForced' - NORVEL_FORCE_FEEDBACK is set",
          "Return 'true' - statistic forcefully enabled by environment variables"}},
        {"NORVEL_FORCE_FEEDBACK", unreachable, nullptr, true, false,
         {"Return 'evsEnabledForced' - NORVEL_FORCE_FEEDBACK is set",
          "Return 'true' - statistic forcefully enabled by environment variables"}},
        {nullptr, "10.1.2.3", "1", false, true, {env_on, "Return 'false' - excluded network"}},
        {nullptr, unreachable, "1", false, true, {env_on, "Return 'false' - network error"}},
        {nullptr, "127.0.0.1", "1", true, true,
         {env_on, env_on, "optin file content read", "optin file enables statistic"}},
        {nullptr, "::1", "0", false, true,
         {env_on, env_on, "optin file content read", "optin file disables statistic"}},
        {nullptr, "127.0.0.1", "2", false, true,
         {env_on, env_on, "optin file content read", "optin file disables statistic"}},
        {nullptr, "127.0.0.1", nullptr, false, true, {env_on, env_on, "optin file missing/not readable"}},
    };
    make_dirs(home / "norvel");
    for (const row_t& row : rows) {
        SCOPED_TRACE(std::string(row.variable ? row.variable : "-") + " " + row.node + " " +
                     (row.consent ? row.consent : "(none)"));
        scoped_env_t variable(row.variable ? row.variable : "NORVEL_UNUSED", "1");
        usemeter::detail::corporate_node_name = row.node;
        boost::filesystem::remove(home / "norvel/optin");
        if (row.consent)
            write_file(home / "norvel/optin", row.consent);
        lookups = 0;
        log_capture_t log("usemeter.statistic");
        probe_t probe("trovix", "1.0");
        EXPECT_EQ(probe.enabled(), row.expected);
        EXPECT_EQ(lookups, row.looked_up ? 1 : 0);
        EXPECT_EQ(log.messages(), row.messages);
    }
}

TEST_F(policy, identifier_is_created_once_reused_and_overridable)
{
    scoped_env_t forced_on("NORVEL_FORCE_FEEDBACK", "1");
    const std::string load = "std::basic_string<char, std::char_traits<char>, std::allocator<char>> "
                             "usemeter_1_5_7::statistic_impl_t::load_uuid()";
    const std::string decide = "bool usemeter_1_5_7::statistic_impl_t::is_enabled() const";
    std::string first;
    {
        log_capture_t log("usemeter.statistic");
        probe_t a("trovix", "1.0");
        first = a.get_uuid();
        EXPECT_EQ(log.messages(true),
                  (lines_t{"ENTER: " + load, "EXIT:  " + load, "ENTER: " + decide,
                           std::string("ENTER: ") + env_sig,
                           "Return 'evsEnabledForced' - NORVEL_FORCE_FEEDBACK is set",
                           std::string("EXIT:  ") + env_sig,
                           "Return 'true' - statistic forcefully enabled by environment variables",
                           "EXIT:  " + decide}));
    }
    EXPECT_TRUE(std::regex_match(first, uuid_form)) << first;
    basekit::variant_bag_t bag;
    ASSERT_EQ(basekit::load_variant_bag2(bag, uuid_xml(), "bag", false), 1);
    EXPECT_EQ(bag.get_variant("UUID", basekit::variant_t()).bytes(), first);
    EXPECT_EQ(bag.entries().size(), 1u);

    const std::string saved = read_file(uuid_xml());
    EXPECT_EQ(probe_t("trovix", "1.0").get_uuid(), first);

    scoped_env_t forced("NORVEL_FORCE_UUID", "any text at all");
    EXPECT_EQ(probe_t("trovix", "1.0").get_uuid(), "any text at all");
    EXPECT_EQ(probe_t("other", "1.0").get_uuid(), "any text at all");
    EXPECT_EQ(read_file(uuid_xml()), saved);
    EXPECT_FALSE(file_exists(uuid_xml("other")));
}

TEST_F(policy, identifier_file_contents)
{
    scoped_env_t forced_on("NORVEL_FORCE_FEEDBACK", "1");
    enum outcome_t { kept, blank, replaced };
    const std::string big(4 << 20, 'A');
    const struct row_t {
        std::string content;
        outcome_t outcome;
    } rows[] = {
        {"", replaced},
        {"<bag><UUID type=\"string\">", replaced},
        {"<other><UUID type=\"string\">X</UUID></other>", replaced},
        {std::string("\x00\xff\xfe<bag>\x01", 8), replaced},
        {std::string(5 << 20, '\xc3'), replaced},
        {"<bag><other type=\"string\">x</other></bag>", blank},
        {"<bag><UUID type=\"int\">7</UUID></bag>", blank},
        {"<bag><UUID>no type</UUID></bag>", blank},
        {"<bag><UUID type=\"string\">short</UUID></bag>", kept},
        {"<bag><UUID type=\"string\">" + big + "</UUID></bag>", kept},
    };
    make_dirs(home / "norvel/trovix/settings/statistic");
    for (const row_t& row : rows) {
        SCOPED_TRACE(row.content.substr(0, 40));
        write_file(uuid_xml(), row.content);
        log_capture_t log("usemeter.statistic");
        probe_t probe("trovix", "1.0");
        const std::string uuid = probe.get_uuid();
        if (row.outcome == replaced) {
            EXPECT_TRUE(std::regex_match(uuid, uuid_form));
            EXPECT_NE(read_file(uuid_xml()).find(uuid), std::string::npos);
        } else {
            EXPECT_EQ(read_file(uuid_xml()), row.content);
            EXPECT_EQ(uuid, row.outcome == kept ? (row.content.size() > 100 ? big : "short") : "");
        }
        EXPECT_EQ(probe.enabled(), row.outcome != blank);
        if (row.outcome == blank) {
            ASSERT_EQ(log.messages(), lines_t{"Return 'false' - empty uuid. reporting disabled"});
            EXPECT_EQ(log.records().at(3).level, 20000);  // INFO, after load_uuid and ENTER
        }
    }
}

TEST_F(policy, consent_file_reading)
{
    probe_t probe("trovix", "1.0");
    const std::string optin = home / "norvel/optin";
    ASSERT_EQ(probe.optin(), optin);
    const std::string env_on = "Return 'evsEnabled'", read = "optin file content read";
    const struct row_t {
        const char* variable;
        std::string content;  // "<missing>" and "<dir>" are what they say
        int expected;
    } rows[] = {
        {nullptr, " 1", 1},  {nullptr, "1\n", 1}, {nullptr, "\n\t 1 0", 1},
        {nullptr, "10", 2},  {nullptr, "1x", 2},  {nullptr, "", 2},
        {nullptr, " \n", 2}, {nullptr, "0", 2},   {nullptr, std::string("\x01\xff\x00" "1", 4), 2},
        {nullptr, "<missing>", 0}, {nullptr, "<dir>", 0},
        {"NORVEL_FORCE_FEEDBACK", "<missing>", 1}, {"NORVEL_DONOTSEND_FEEDBACK", "<missing>", 2},
        {"NORVEL_DISABLE_FEEDBACK", "1", 2},
    };
    for (const row_t& row : rows) {
        SCOPED_TRACE(row.content);
        scoped_env_t variable(row.variable ? row.variable : "NORVEL_UNUSED", "1");
        boost::filesystem::remove_all(optin);
        if (row.content == "<dir>")
            make_dirs(optin);
        else if (row.content != "<missing>")
            write_file(optin, row.content);
        log_capture_t log("usemeter.statistic");
        EXPECT_EQ(probe.get_user_consent(), row.expected);
        // The environment's own record, then (file consulted) "content read" and the verdict.
        static const char* const verdict[] = {"optin file missing/not readable",
                                              "optin file enables statistic",
                                              "optin file disables statistic"};
        const lines_t expected = row.expected ? lines_t{env_on, read, verdict[row.expected]}
                                              : lines_t{env_on, verdict[0]};
        if (!row.variable)
            EXPECT_EQ(log.messages(), expected);
        else
            EXPECT_EQ(log.messages().size(), 1u);  // only the environment's own record
    }
}

TEST_F(policy, consent_writes_one_byte_and_refreshes_the_decision)
{
    probe_t probe("trovix", "1.0");
    const std::string optin = home / "norvel/optin";
    EXPECT_FALSE(probe.enabled());
    write_file(optin, "1111\n");
    probe.set_statistic_collection_enabled(false);
    EXPECT_EQ(read_file(optin), "0");
    EXPECT_EQ(probe.get_user_consent(), 2);
    EXPECT_FALSE(probe.enabled());
    probe.set_statistic_collection_enabled(true);
    EXPECT_EQ(read_file(optin), "1");
    EXPECT_EQ(probe.get_user_consent(), 1);
    EXPECT_TRUE(probe.enabled());

    boost::filesystem::remove_all(home / "norvel");
    log_capture_t log("usemeter.statistic");
    probe.set_statistic_collection_enabled(true);
    EXPECT_FALSE(file_exists(optin));
    EXPECT_FALSE(probe.enabled());
    EXPECT_EQ(log.messages(), (lines_t{"Return 'evsEnabled'", "Return 'evsEnabled'",
                                       "optin file missing/not readable"}));
}

TEST_F(policy, send_files_policy)
{
    const std::string sig = "bool usemeter_1_5_7::statistic_impl_t::is_send_files_disabled() const";
    const struct row_t {
        lines_t variables;
        bool expected;
        const char* message;
    } rows[] = {
        {{}, false, "Return 'false'"},
        {{"NORVEL_STATISTICS_DISABLE", "NORVEL_DISABLE_FEEDBACK", "NORVEL_FORCE_FEEDBACK"}, false,
         "Return 'false'"},
        {{"NORVEL_DONOTSEND_FEEDBACK"}, true, "Return 'true' - NORVEL_DONOTSEND_FEEDBACK is enabled"},
    };
    probe_t probe("trovix", "1.0");
    for (const row_t& row : rows) {
        std::vector<std::unique_ptr<scoped_env_t>> vars;
        for (const std::string& name : row.variables)
            vars.push_back(std::make_unique<scoped_env_t>(name, "0"));
        log_capture_t log("usemeter.statistic");
        EXPECT_EQ(probe.is_send_files_disabled(), row.expected);
        EXPECT_EQ(log.messages(true), (lines_t{"ENTER: " + sig, row.message, "EXIT:  " + sig}));
    }
}

class fixed_locations_t : public prodenv::IProductLocations {
public:
    void getProductVersion(int& major, int& minor, int& update) const override
    {
        major = 1, minor = 2, update = 3;
    }
    const char* getProductDirName() const override { return "ProdDir"; }
    const char* getDataDir() const override { return "/nonexistent"; }
    basekit::path_t getTempDir() const override { return basekit::path_t("/nonexistent"); }
    bool isToolLookupQuiet() const override { return true; }
};

TEST_F(policy, product_directory_comes_from_the_service_else_the_product_name)
{
    EXPECT_EQ(probe_t("myprod", "1.0").settings(), home / "norvel/myprod/settings/statistic");
    fixed_locations_t locations;
    prodenv::IProductLocations::set(&locations);
    probe_t probe("myprod", "1.0");
    prodenv::IProductLocations::set(nullptr);
    EXPECT_EQ(probe.settings(), home / "norvel/ProdDir/settings/statistic");
    EXPECT_EQ(probe.uuid_file(), uuid_xml("ProdDir"));
    EXPECT_TRUE(file_exists(uuid_xml("ProdDir")));
    EXPECT_EQ(probe.optin(), home / "norvel/optin");
}

TEST_F(policy, home_unset_or_empty_means_the_working_directory)
{
    for (const char* value : {static_cast<const char*>(nullptr), ""}) {
        temp_dir_t cwd;
        const std::string previous = boost::filesystem::current_path().string();
        ASSERT_EQ(::chdir(cwd.path().c_str()), 0);
        {
            scoped_env_t home_var("HOME", value);
            probe_t probe("trovix", "1.0");
            EXPECT_EQ(probe.optin(), "./norvel/optin");
            EXPECT_TRUE(std::regex_match(probe.get_uuid(), uuid_form));
        }
        EXPECT_EQ(::chdir(previous.c_str()), 0);
        EXPECT_TRUE(file_exists(cwd / "norvel/trovix/settings/statistic/uuid.xml"));
    }
}

TEST_F(policy, unusable_directories_leave_a_silent_object)
{
    // Root ignores permission bits, so a regular file stands where a directory must be:
    // HOME itself, or the product directory.
    const struct row_t {
        const char* file;
        bool optin_known;
    } rows[] = {{"plain", false}, {"plain/norvel/trovix", true}};
    for (const row_t& row : rows) {
        SCOPED_TRACE(row.file);
        scoped_env_t home_var("HOME", (home / "plain").c_str());
        boost::filesystem::remove_all(home / "plain");
        if (row.optin_known)
            make_dirs(home / "plain/norvel");
        write_file(home / row.file, "x");
        log_capture_t log("usemeter.statistic");
        probe_t probe("trovix", "1.0");
        EXPECT_EQ(probe.get_uuid(), "");
        EXPECT_FALSE(probe.enabled());
        EXPECT_EQ(probe.uuid_file(), "");
        EXPECT_EQ(probe.optin().empty(), !row.optin_known);
        // The decision is never taken; one INFO record says why.
        const std::vector<std::string> messages = log.messages(true);
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_EQ(messages[0].rfind("statistic disabled: cannot prepare per-user directories: ", 0), 0u);
    }
    // An identifier file that cannot be replaced still yields one for this process.
    make_dirs(uuid_xml());
    EXPECT_TRUE(std::regex_match(probe_t("trovix", "1.0").get_uuid(), uuid_form));
    EXPECT_TRUE(boost::filesystem::is_directory(uuid_xml()));
}

TEST_F(policy, simple_operations_and_interface_defaults)
{
    probe_t probe("trovix", "1.0");
    probe.notify_gui_start();
    probe.notify_feature_usage("scan.begin");
    EXPECT_EQ(probe.events, lines_t{"scan.begin=1"});
    EXPECT_FALSE(probe.send_crash_report(home / "core"));

    write_file(home / "norvel/optin", "1");
    EXPECT_EQ(probe.get_user_consent(), 1);
    EXPECT_EQ(probe.statistic_t::get_user_consent(), 0);
    probe.statistic_t::notify_feature_usage_ex("x", 5);
    probe.statistic_t::set_statistic_collection_enabled(false);
    EXPECT_EQ(probe.events.size(), 1u);
    EXPECT_EQ(read_file(home / "norvel/optin"), "1");
}

}  // namespace
