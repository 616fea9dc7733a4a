// The policy core: what enables statistics, the identifier, consent, per-user directories, the look-up.
#include <arpa/inet.h>
#include <regex>

#include <boost/filesystem.hpp>

#include "library/library_test.hpp"
#include "network_status_detail.hpp"
#include "rtbase/strings.hpp"
#include "usemeter/sys/statistic_impl.hpp"

using usemeter::statistic_impl_t;
using namespace usemeter_test;

namespace {

struct probe_t : statistic_impl_t {
    probe_t(const std::string& product = "trovix") : statistic_impl_t(product, "1.0") {}
    void notify_feature_usage_ex(const std::string&, unsigned long long) override {}
    void write_range_metric(const std::string&, unsigned long long, unsigned long long,
                            unsigned char, unsigned long long) override {}
    void write_log_range_metric(const std::string&, unsigned long long, unsigned char) override {}
    void notify_send_data(bool) override {}
    bool flush() override { return true; }
    bool enabled() const { return enabled_; }
    std::string optin() const { return optin_path_; }
};

const char* const unreachable = "resolver-unreachable";  // plays a resolver out of reach

// Replaces whatever is at path: "<missing>" leaves nothing, "<dir>" a directory, "<endless>" no end.
void place(const std::string& path, const std::string& content)
{
    boost::filesystem::remove_all(path);
    if (content == "<dir>")
        make_dirs(path);
    else if (content == "<endless>")
        boost::filesystem::create_symlink("/dev/zero", path);
    else if (content != "<missing>")
        write_file(path, content);
}

const auto owner_only = boost::filesystem::owner_read | boost::filesystem::owner_write;
const std::regex uuid_form("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");
const std::string env_on = "Return 'evsEnabled'", read = "optin file content read";

// The variables of the environment's steps, in their order.
const char* const steps[] = {"NORVEL_STATISTICS_DISABLE", "NORVEL_DONOTSEND_FEEDBACK",
                             "NORVEL_DISABLE_FEEDBACK", "NORVEL_FORCE_FEEDBACK"};

class policy : public ::testing::Test {
protected:
    std::string uuid_xml(const std::string& product = "trovix") const
    { return home / ("norvel/" + product + "/settings/statistic/uuid.xml"); }
    clean_env_t env;
    temp_home_t home;
    host_double_t host;
    const std::string optin = home / "norvel/optin";
};

// Environment x network x consent. The first step set decides (each adjacent pair set together
// somewhere); content never counts, empty is unset. The look-up (numeric: no DNS server is asked) and the
// file count only when the environment leaves it open; of the file only a first token "1" grants.
TEST_F(policy, enablement_table)
{
    const strings_t forcing = {"Return 'evsEnabledForced' - NORVEL_FORCE_FEEDBACK is set",
                               "Return 'true' - statistic forcefully enabled by environment variables"};
    const auto off = [](int step) {
        return strings_t{"Return 'evsDisabled' - " + std::string(steps[step]) + " is set",
                         "Return 'false' - statistic disabled due to environment variables"};
    };
    const strings_t yes = {env_on, env_on, read, "optin file enables statistic"},
                    no = {env_on, env_on, read, "optin file disables statistic"},
                    none = {env_on, env_on, "optin file missing/not readable"};
    // Values for steps (null: unset), consent for place(), messages without the enter/exit traces.
    const struct { const char* values[4]; const char* node; std::string consent; strings_t messages; } rows[]{
        {{"1"}, "127.0.0.1", "1", off(0)}, {{"0", "1"}, "127.0.0.1", "1", off(0)},
        {{nullptr, " ", "1"}, "127.0.0.1", "1", off(1)}, {{nullptr, nullptr, "no", "1"}, "127.0.0.1", "1", off(2)},
        {{nullptr, nullptr, nullptr, "0"}, "10.1.2.3", "0", forcing},
        {{"", "", "", "1"}, unreachable, "<missing>", forcing},
        {{"", "", "", ""}, "10.1.2.3", "1", {env_on, "Return 'false' - excluded network"}},
        {{}, unreachable, "1", {env_on, "Return 'false' - network error"}}, {{}, "127.0.0.1", "1\n", yes},
        {{}, "::1", "0", no}, {{}, "127.0.0.1", "<missing>", none}, {{}, "127.0.0.1", "<dir>", none},
        {{}, "127.0.0.1", "\n\t 1 0", yes}, {{}, "127.0.0.1", "10", no}, {{}, "127.0.0.1", "", no},
        {{}, "127.0.0.1", " \n", no}, {{}, "127.0.0.1", "<endless>", no},
        {{}, "127.0.0.1", std::string("\x01\xff\x00" "1", 4), no},
    };
    make_dirs(home / "norvel");
    for (const auto& row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows));
        scoped_env_t a(steps[0], row.values[0]), b(steps[1], row.values[1]),
            c(steps[2], row.values[2]), d(steps[3], row.values[3]);
        host.resolves_as = row.node;
        host.resolve_error = row.node == std::string(unreachable) ? EAI_AGAIN : 0;
        place(optin, row.consent);
        host.lookups = 0;
        log_capture_t log("usemeter.statistic");
        EXPECT_EQ(probe_t().enabled(), row.messages == yes || row.messages == forcing);
        EXPECT_EQ(host.lookups, row.messages[0] == env_on ? 1 : 0);
        EXPECT_EQ(log.messages(), row.messages);
        for (const auto& record : log.records())
            EXPECT_EQ(record.level, 0) << record.message;  // TRACE
    }
    const addrinfo& h = host.seen_hints;
    EXPECT_EQ(host.seen_service, "domain");
    EXPECT_EQ((std::vector<int>{h.ai_flags, h.ai_family, h.ai_socktype, h.ai_protocol}),
              (std::vector<int>{0, AF_UNSPEC, SOCK_DGRAM, 17}));
}

// A forced identifier bypasses the file, settled before the decision. Without a file that loads, a fresh
// one is saved alone and reused; a bag that loads is trusted, never rewritten, even without a UUID.
TEST_F(policy, identifier_is_forced_created_reused_or_trusted)
{
    scoped_env_t forced_on("NORVEL_FORCE_FEEDBACK", "1");
    {
        scoped_env_t forced("NORVEL_FORCE_UUID", "any text at all");
        probe_t probe;
        EXPECT_TRUE(probe.get_uuid() == "any text at all" && probe.enabled()) << "settled before the decision";
        EXPECT_FALSE(file_exists(uuid_xml()));
    }
    enum outcome_t { kept, blank, replaced };
    const std::pair<std::string, outcome_t> rows[] = {
        {"<missing>", replaced}, {"", replaced}, {std::string("\x00\xff\xfe<bag>\x01", 8), replaced},
        {"<bag><UUID type=\"string\">", replaced}, {"<other><UUID type=\"string\">X</UUID></other>", replaced},
        {"<bag><other type=\"string\">x</other></bag>", blank}, {"<bag><UUID type=\"int\">7</UUID></bag>", blank},
        {"<bag><UUID type=\"blob\">41</UUID></bag>", blank},  // a string only
        {"<bag><UUID type=\"string\">short</UUID></bag>", kept},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.first);
        place(uuid_xml(), row.first);
        log_capture_t log("usemeter.statistic");
        probe_t probe;
        const std::string uuid = probe.get_uuid();
        EXPECT_EQ(probe.enabled(), row.second != blank);
        if (row.second == replaced) {
            EXPECT_TRUE(std::regex_match(uuid, uuid_form) && probe_t().get_uuid() == uuid) << uuid;
            EXPECT_EQ(read_file(uuid_xml()), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<bag>\n"
                                             "  <UUID type=\"string\">" + uuid + "</UUID>\n</bag>\n");
            continue;
        }
        EXPECT_EQ(read_file(uuid_xml()), row.first);
        EXPECT_EQ(uuid, row.second == kept ? "short" : "");
        EXPECT_TRUE(row.second == kept ||
                    log.messages() == strings_t{"Return 'false' - empty uuid. reporting disabled"});
    }
}

// The answer replaces the file (a link too), the user's alone; a failed write keeps it on record; without
// its directory nothing is written.
TEST_F(policy, consent_writes_one_byte_and_refreshes_the_decision)
{
    probe_t probe;
    write_file(home / "victim", "precious");
    ASSERT_EQ(::symlink((home / "victim").c_str(), optin.c_str()), 0);
    for (bool enabled : {false, true}) {
        probe.set_statistic_collection_enabled(enabled);
        EXPECT_EQ(read_file(optin), enabled ? "1" : "0");
        EXPECT_EQ(boost::filesystem::status(optin).permissions(), owner_only);
        EXPECT_TRUE(probe.get_user_consent() == (enabled ? 1 : 2) && probe.enabled() == enabled);
    }
    EXPECT_EQ(read_file(home / "victim"), "precious");
    host.files_fail = true;
    probe.set_statistic_collection_enabled(false);
    EXPECT_EQ(probe.get_user_consent(), 1);
    host.files_fail = false;
    // Only NORVEL_DONOTSEND_FEEDBACK refuses files; only NORVEL_FORCE_FEEDBACK answers consent.
    for (int step = 0; step < 4; ++step) {
        scoped_env_t variable(steps[step], "1");
        log_capture_t log("usemeter.statistic");
        EXPECT_EQ(probe.is_send_files_disabled(), step == 1) << steps[step];
        EXPECT_EQ(log.messages(), strings_t{step == 1 ? "Return 'true' - NORVEL_DONOTSEND_FEEDBACK is enabled"
                                                      : "Return 'false'"});
        EXPECT_EQ(probe.get_user_consent(), step == 3 ? 1 : 2) << steps[step];
    }
    boost::filesystem::remove_all(home / "norvel");
    probe.set_statistic_collection_enabled(true);
    EXPECT_FALSE(file_exists(optin) || probe.enabled());
}

// The product directory from the locations service, else the product name; HOME unset or empty is the
// working directory. A product name that is no single directory name, or a HOME that is a file, leaves
// statistics off with one record saying why.
TEST_F(policy, per_user_paths_or_a_silent_object)
{
    probe_t("myprod");
    EXPECT_EQ(boost::filesystem::status(uuid_xml("myprod")).permissions(), owner_only);
    {
        prodenv::fixed_locations_t locations;
        locations.product_dir = "ProdDir";
        EXPECT_EQ(probe_t("myprod").optin(), optin);
        EXPECT_TRUE(file_exists(uuid_xml("ProdDir")));
    }
    for (const char* value : {static_cast<const char*>(nullptr), ""}) {
        temp_dir_t cwd;
        ASSERT_EQ(::chdir(cwd.path().c_str()), 0);  // each case is a process of its own
        scoped_env_t home_var("HOME", value);
        EXPECT_EQ(probe_t().optin(), "./norvel/optin");
        EXPECT_TRUE(file_exists(cwd / "norvel/trovix/settings/statistic/uuid.xml"));
    }
    write_file(home / "plain", "x");
    for (const char* name : {"", ".", "..", "../../outside", "a/b", "x\n/", "plain HOME"}) {
        const bool plain = name == std::string("plain HOME");
        scoped_env_t home_var("HOME", (plain ? home / "plain" : home.path()).c_str());
        log_capture_t log("usemeter.statistic");
        const probe_t probe(plain ? "trovix" : name);
        EXPECT_FALSE(probe.enabled() || !probe.get_uuid().empty()) << name;
        const std::string why = plain ? "statistic disabled: cannot prepare per-user directories: "
                                      : "statistic disabled: product name '" + rtbase::escape_controls(name) + "'";
        const strings_t messages = log.messages(true);  // the decision is never taken
        ASSERT_EQ(messages.size(), 1u) << name;
        EXPECT_EQ(messages[0].find(why), 0u) << messages[0];
        EXPECT_TRUE(plain || messages[0] == why + " cannot name a directory") << messages[0];
    }
    // An identifier file that cannot be replaced still yields one for this process.
    make_dirs(uuid_xml());
    EXPECT_TRUE(std::regex_match(probe_t().get_uuid(), uuid_form));
    EXPECT_TRUE(boost::filesystem::is_directory(uuid_xml()));
}

// Answer lists: IPv4 addresses, and "v6": an IPv6 entry reading 10.1.2.3 where IPv4 bytes would lie.
int classify(int gai_error, const strings_t& entries)
{
    std::vector<sockaddr_in> addresses(entries.size());
    std::vector<addrinfo> infos(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const bool v6 = entries[i] == "v6";
        ::inet_pton(AF_INET, v6 ? "10.1.2.3" : entries[i].c_str(), &addresses[i].sin_addr);
        infos[i].ai_family = v6 ? AF_INET6 : AF_INET;
        infos[i].ai_addr = reinterpret_cast<sockaddr*>(&addresses[i]);
        infos[i].ai_next = i + 1 < entries.size() ? &infos[i + 1] : nullptr;
    }
    return usemeter_1_5_7::detail::classify_lookup(gai_error, infos.empty() ? nullptr : &infos[0]);
}

TEST(network_status, classifies_lookup_outcomes)
{
    const int ok = usemeter::nsOk, error = usemeter::nsError, excluded = usemeter::nsExcludedNetwork;
    const struct { int gai_error; strings_t entries; int expected; } rows[] = {
        {EAI_NONAME, {}, ok}, {EAI_NODATA, {}, ok}, {EAI_AGAIN, {}, error}, {EAI_FAIL, {}, error}, {0, {}, ok},
        {0, {"v6", "v6"}, ok}, {0, {"127.0.0.1", "11.0.0.1", "9.255.255.255", "192.168.10.10"}, ok},
        {0, {"10.255.255.255"}, excluded}, {0, {"v6", "127.0.0.1", "10.9.8.7", "172.16.0.1"}, excluded},
    };
    for (const auto& row : rows)
        EXPECT_EQ(classify(row.gai_error, row.entries), row.expected) << &row - rows;
}

}  // namespace
