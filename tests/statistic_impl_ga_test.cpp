// The road of one feature use, end to end: backend -> connector -> a real loopback proxy
// named by "http_proxy" (both routes of the connector end there, so nothing leaves loopback).
#include <gtest/gtest.h>

#include <memory>

#include <boost/filesystem/operations.hpp>

#include "network_status_detail.hpp"
#include "support/http_server.hpp"
#include "support/locations_double.hpp"
#include "support/log_capture.hpp"
#include "support/temp_home.hpp"
#include "usemeter/host_facts.hpp"
#include "usemeter/statistic_impl_ga.hpp"

using namespace usemeter_test;
using usemeter_1_5_7::statistic_impl_ga_t;

namespace {

// An oracle independent of libcurl: RFC 3986 unreserved bytes pass, the rest is %XX.
std::string percent(const std::string& text)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if (std::isalnum(c) && c < 128)
            out += static_cast<char>(c);
        else if (c == '-' || c == '.' || c == '_' || c == '~')
            out += static_cast<char>(c);
        else
            out += {'%', digits[c >> 4], digits[c & 15]};
    }
    return out;
}

class backend_test : public ::testing::Test {
protected:
    clean_env_t clean_env;
    temp_home_t home;
    temp_dir_t data;
    http_server_t proxy;
    scoped_env_t proxy_var{"http_proxy", proxy.proxy_url().c_str()};
    std::unique_ptr<locations_double_t> locations = std::make_unique<locations_double_t>();
    const char* saved_corporate_node = usemeter_1_5_7::detail::corporate_node_name;

    backend_test()
    {
        // Numeric: the corporate-network test answers "not excluded" without any DNS.
        usemeter_1_5_7::detail::corporate_node_name = "127.0.0.1";
        locations->data_dir = data.path();
        make_dirs(data / "statistic");
        write_whitelist({"gui", "analysis_type", "a", "a.b", "scan"});
        make_dirs(home / "norvel");
        write_file(home / "norvel/optin", "1");
    }
    ~backend_test() override { usemeter_1_5_7::detail::corporate_node_name = saved_corporate_node; }

    void write_whitelist(const std::vector<std::string>& names)
    {
        std::string xml = "<?xml version=\"1.0\"?>\n<bag>\n";
        for (const std::string& name : names)
            xml += "  <event type=\"bag\"><name type=\"string\">" + name + "</name></event>\n";
        // Entries that must be skipped: no name, a name of another type.
        xml += "  <event type=\"bag\"><other type=\"string\">x</other></event>\n";
        xml += "  <event type=\"bag\"><name type=\"int\">7</name></event>\n</bag>\n";
        write_file(data / "statistic/enabled_stat_events.xml", xml);
    }

    // Reports the names on a fresh backend and returns the bodies the proxy received once the
    // backend is gone (its destruction waits for every queued hit).
    std::vector<std::string> run(const std::vector<std::string>& names, std::string* prefix = nullptr,
                                 const std::string& product = "trovix", const std::string& version = "2016")
    {
        {
            statistic_impl_ga_t backend(product, version);
            if (prefix)
                *prefix = "v=1&tid=UA-12345678-42&cid=" + backend.get_uuid() + "&an=" + percent(product) +
                          "&av=" + version + "&cd1=posix&cd2=" + percent(usemeter_1_5_7::get_os_name());
            for (const std::string& name : names)
                backend.notify_feature_usage(name);
        }
        std::vector<std::string> bodies;
        for (const http_request_t& request : proxy.requests()) {
            EXPECT_EQ(request.method + " " + request.target, "POST http://www.google-analytics.com/collect");
            EXPECT_EQ(request.header("Content-Type"), "application/x-www-form-urlencoded");
            bodies.push_back(request.body);
        }
        return bodies;
    }
};

struct event_case {
    const char* name;
    const char* category;  // nullptr: dropped
    const char* label;
};

TEST_F(backend_test, each_name_becomes_the_predicted_hit_or_nothing)
{
    const event_case cases[] = {
        {"a.b.c", "a.b", "c"},
        {"a.x.y", "a", "x.y"},
        {"a", "a", ""},
        {"ab", nullptr, nullptr},
        {"a.", "a", ""},
        {"run.foo", "run", "foo"},
        {"run.foo.bar", nullptr, nullptr},
        {"run.", "run", ""},
        {"run", nullptr, nullptr},
        {"gui.start now&then=1", "gui", "start now&then=1"},
        {"analysis_type.caf\xc3\xa9", "analysis_type", "caf\xc3\xa9"},
        {"", nullptr, nullptr},
        {"scanner", nullptr, nullptr},
    };
    std::vector<std::string> names, expected_tails;
    for (const event_case& c : cases) {
        names.push_back(c.name);
        if (c.category)
            expected_tails.push_back("&t=event&ec=" + percent(c.category) +
                                     (*c.label ? "&el=" + percent(c.label) : std::string()) + "&cd3=n");
    }
    std::string prefix;
    const std::vector<std::string> bodies = run(names, &prefix, "trovix & co", "2016 Update 1&x=y");
    ASSERT_EQ(bodies.size(), expected_tails.size());
    for (std::size_t i = 0; i < bodies.size(); ++i)
        EXPECT_EQ(bodies[i], prefix + expected_tails[i]);
    EXPECT_NE(prefix.find("&av=2016 Update 1&x=y&cd1="), std::string::npos);  // version raw
}

TEST_F(backend_test, value_never_reaches_the_wire_and_order_is_kept)
{
    std::vector<std::string> bodies;
    {
        statistic_impl_ga_t backend("trovix", "2016");
        for (int i = 0; i < 50; ++i)
            backend.notify_feature_usage_ex("gui.n" + std::to_string(i), i % 2 ? 1 : 123456789ull);
    }
    for (const http_request_t& request : proxy.requests())
        bodies.push_back(request.body);
    ASSERT_EQ(bodies.size(), 50u);
    for (int i = 0; i < 50; ++i)
        EXPECT_NE(bodies[i].find("&el=n" + std::to_string(i) + "&cd3="), std::string::npos) << i;
}

TEST_F(backend_test, without_whitelist_or_service_only_plain_runs_are_sent)
{
    boost::filesystem::remove(data / "statistic/enabled_stat_events.xml");
    EXPECT_EQ(run({"gui.start", "run.x", "run.x.y"}).size(), 1u);

    locations.reset();  // no service: version, product dir and whitelist all fall back
    std::string prefix;
    const std::vector<std::string> bodies = run({"gui.start", "run.y"}, &prefix);
    ASSERT_EQ(bodies.size(), 2u);
    EXPECT_EQ(bodies[1], prefix + "&t=event&ec=run&el=y&cd3=n");
}

TEST_F(backend_test, disabled_collection_sends_nothing_but_records_activity_and_logs_the_call)
{
    scoped_env_t disable("NORVEL_STATISTICS_DISABLE", "0");
    log_capture_t log("usemeter.statistic");
    EXPECT_TRUE(run({"gui.start", "run.x"}).empty());
    EXPECT_TRUE(log.contains("feature_name=gui.start value=1"));
    EXPECT_TRUE(log.contains("Return 'false' - statistic disabled due to environment variables"));
    EXPECT_TRUE(file_exists(home / "norvel/trovix/settings/statistic/last_active_dates.xml"));
    EXPECT_EQ(proxy.request_count(), 0u);
}

TEST_F(backend_test, refused_or_missing_consent_and_the_corporate_network_send_nothing)
{
    write_file(home / "norvel/optin", "0");
    EXPECT_TRUE(run({"run.a"}).empty());
    boost::filesystem::remove(home / "norvel/optin");
    EXPECT_TRUE(run({"run.a"}).empty());
    write_file(home / "norvel/optin", "1");
    usemeter_1_5_7::detail::corporate_node_name = "10.1.2.3";
    EXPECT_TRUE(run({"run.a"}).empty());
}

TEST_F(backend_test, consent_given_at_run_time_takes_effect_at_once)
{
    boost::filesystem::remove(home / "norvel/optin");
    {
        statistic_impl_ga_t backend("trovix", "2016");
        EXPECT_EQ(backend.get_user_consent(), 0);
        backend.notify_feature_usage("run.before");
        backend.set_statistic_collection_enabled(true);
        backend.notify_feature_usage("run.after");
        backend.set_statistic_collection_enabled(false);
        backend.notify_feature_usage("run.refused");
    }
    ASSERT_EQ(proxy.requests().size(), 1u);
    EXPECT_NE(proxy.requests()[0].body.find("&el=after&"), std::string::npos);
    EXPECT_EQ(read_file(home / "norvel/optin"), "0");
}

TEST_F(backend_test, a_non_200_answer_switches_delivery_off_after_both_routes)
{
    proxy.answer(204);
    EXPECT_EQ(run({"run.a", "run.b", "run.c"}).size(), 2u);  // first body: proxy, then default route
}

TEST_F(backend_test, four_recent_days_of_use_mark_the_user_active)
{
    const std::string dir = home / "norvel/trovix/settings/statistic";
    make_dirs(dir);
    std::string items;
    for (int back = 4; back >= 1; --back) {
        const std::time_t when = std::time(nullptr) - back * 86400;
        std::tm day;
        ::localtime_r(&when, &day);
        items += "<item type=\"bag\"><Y type=\"int\">" + std::to_string(day.tm_year + 1900) +
                 "</Y><M type=\"int\">" + std::to_string(day.tm_mon + 1) + "</M><D type=\"int\">" +
                 std::to_string(day.tm_mday) + "</D></item>";
    }
    write_file(dir + "/last_active_dates.xml", "<bag>" + items + "</bag>");
    const std::vector<std::string> bodies = run({"run.a"});
    ASSERT_EQ(bodies.size(), 1u);
    EXPECT_EQ(bodies[0].substr(bodies[0].size() - 6), "&cd3=y");
}

TEST_F(backend_test, inert_operations_send_nothing)
{
    {
        statistic_impl_ga_t backend("trovix", "2016");
        backend.write_range_metric("gui.x", 1, 2, 3, 4);
        backend.write_log_range_metric("gui.x", 1, 2);
        backend.notify_send_data(true);
        EXPECT_TRUE(backend.flush());
        EXPECT_FALSE(backend.send_crash_report("/tmp/x"));
        backend.notify_gui_start();
    }
    EXPECT_EQ(proxy.request_count(), 0u);
}

}  // namespace
