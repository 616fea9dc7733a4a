// One feature use end to end: host (C++ facade, backend, or the C host program) -> connector
// -> a loopback proxy named by "http_proxy" (both routes of the connector end there, so
// nothing leaves loopback).
#include <gtest/gtest.h>

#include <memory>
#include <spawn.h>
#include <sys/wait.h>

#include <boost/filesystem/operations.hpp>
#include <boost/weak_ptr.hpp>

#include "prodenv/fixed_locations.hpp"
#include "support/host_double.hpp"
#include "support/loopback_user.hpp"
#include "tracelog/log_capture.hpp"
#include "usemeter/sys/host_facts.hpp"
#include "usemeter/statistic.hpp"
#include "usemeter/sys/statistic_impl_ga.hpp"

extern char** environ;

using namespace usemeter_test;
using usemeter_1_5_7::statistic_impl_ga_t;
using usemeter_1_5_7::statistic_t;
using strings_t = std::vector<std::string>;

namespace {

// An oracle independent of libcurl: RFC 3986 unreserved bytes pass, the rest is %XX.
std::string percent(const std::string& text)
{
    std::string out;
    for (unsigned char c : text)
        if ((std::isalnum(c) && c < 128) || c == '-' || c == '.' || c == '_' || c == '~')
            out += static_cast<char>(c);
        else
            out += {'%', "0123456789ABCDEF"[c >> 4], "0123456789ABCDEF"[c & 15]};
    return out;
}

bool has(const std::string& body, const std::string& part)
{
    return body.find(part) != std::string::npos;
}

class e2e : public ::testing::Test {
protected:
    clean_env_t clean_env;
    temp_home_t home;
    temp_dir_t data;
    loopback_collector_t proxy;
    scoped_env_t proxy_var{"http_proxy", proxy.base_url().c_str()};
    std::unique_ptr<prodenv::fixed_locations_t> locations = std::make_unique<prodenv::fixed_locations_t>();
    host_double_t host;

    e2e()
    {
        locations->data_dir = data.path();
        make_dirs(data / "statistic");
        // Entries without a string name must be skipped.
        std::string xml = "<?xml version=\"1.0\"?>\n<bag>\n";
        for (const char* name : {"gui", "analysis_type", "a", "a.b", "scan"})
            xml += std::string("<event type=\"bag\"><name type=\"string\">") + name + "</name></event>\n";
        write_file(data / "statistic/enabled_stat_events.xml",
                   xml + "<event type=\"bag\"><other type=\"string\">x</other></event>\n"
                         "<event type=\"bag\"><name type=\"int\">7</name></event>\n</bag>\n");
        make_dirs(home / "norvel");
        write_file(home / "norvel/optin", "1");
    }

    strings_t bodies() const
    {
        strings_t out;
        for (const hit_request_t& request : proxy.requests()) {
            EXPECT_EQ(request.method + " " + request.target, "POST http://www.google-analytics.com/collect");
            EXPECT_EQ(request.header("Content-Type"), "application/x-www-form-urlencoded");
            out.push_back(request.body);
        }
        return out;
    }

    // Reports the names on a fresh backend, every other one with a value that must never reach
    // the wire, and returns the bodies the proxy received once the backend is gone (its
    // destruction waits for every queued hit).
    strings_t run(const strings_t& names, std::string* prefix = nullptr,
                  const std::string& product = "trovix", const std::string& version = "2016")
    {
        {
            statistic_impl_ga_t backend(product, version);
            if (prefix)
                *prefix = "v=1&tid=UA-12345678-42&cid=" + backend.get_uuid() + "&an=" + percent(product) +
                          "&av=" + version + "&cd1=posix&cd2=" + percent(usemeter_1_5_7::get_os_name());
            for (std::size_t i = 0; i < names.size(); ++i)
                i % 2 ? backend.notify_feature_usage_ex(names[i], 123456789ull)
                      : backend.notify_feature_usage(names[i]);
        }
        return bodies();
    }
};

// In reporting order; the value is never part of a hit.
TEST_F(e2e, each_name_becomes_the_predicted_hit_or_nothing)
{
    const struct {
        const char* name;
        const char* category;  // nullptr: dropped
        const char* label;
    } cases[] = {
        {"a.b.c", "a.b", "c"}, {"a.x.y", "a", "x.y"}, {"a", "a", ""}, {"ab", nullptr, nullptr},
        {"a.", "a", ""}, {"run.foo", "run", "foo"}, {"run.foo.bar", nullptr, nullptr}, {"run.", "run", ""},
        {"run", nullptr, nullptr}, {"gui.start now&then=1", "gui", "start now&then=1"},
        {"analysis_type.caf\xc3\xa9", "analysis_type", "caf\xc3\xa9"}, {"", nullptr, nullptr},
        {"scanner", nullptr, nullptr},
    };
    strings_t names, tails;
    for (const auto& c : cases) {
        names.push_back(c.name);
        if (c.category)
            tails.push_back("&t=event&ec=" + percent(c.category) +
                            (*c.label ? "&el=" + percent(c.label) : std::string()) + "&cd3=n");
    }
    std::string prefix;
    const strings_t sent = run(names, &prefix, "trovix & co", "2016 Update 1&x=y");
    ASSERT_EQ(sent.size(), tails.size());
    for (std::size_t i = 0; i < sent.size(); ++i)
        EXPECT_EQ(sent[i], prefix + tails[i]);
    EXPECT_TRUE(has(prefix, "&av=2016 Update 1&x=y&cd1="));  // version raw
}

TEST_F(e2e, without_whitelist_or_service_only_plain_runs_are_sent)
{
    boost::filesystem::remove(data / "statistic/enabled_stat_events.xml");
    EXPECT_EQ(run({"gui.start", "run.x", "run.x.y"}).size(), 1u);
    locations.reset();  // no service: version, product dir and whitelist all fall back
    std::string prefix;
    const strings_t sent = run({"gui.start", "run.y"}, &prefix);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1], prefix + "&t=event&ec=run&el=y&cd3=n");
}

// Disabled, refused, missing consent or the corporate network: nothing is sent, but activity
// is still recorded and the call logged.
TEST_F(e2e, disabled_refused_or_excluded_collection_sends_nothing)
{
    {
        scoped_env_t disable("NORVEL_STATISTICS_DISABLE", "0");
        tracelog::log_capture_t log("usemeter.statistic");
        EXPECT_TRUE(run({"gui.start", "run.x"}).empty());
        EXPECT_TRUE(log.contains("feature_name=gui.start value=1"));
        EXPECT_TRUE(log.contains("Return 'false' - statistic disabled due to environment variables"));
        EXPECT_TRUE(file_exists(home / "norvel/trovix/settings/statistic/last_active_dates.xml"));
    }
    write_file(home / "norvel/optin", "0");
    EXPECT_TRUE(run({"run.a"}).empty());
    boost::filesystem::remove(home / "norvel/optin");
    EXPECT_TRUE(run({"run.a"}).empty());
    write_file(home / "norvel/optin", "1");
    host.resolves_as = "10.1.2.3";
    EXPECT_TRUE(run({"run.a"}).empty());
}

TEST_F(e2e, consent_given_at_run_time_takes_effect_at_once)
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
    const strings_t sent = bodies();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_TRUE(has(sent[0], "&el=after&"));
    EXPECT_EQ(read_file(home / "norvel/optin"), "0");
}

TEST_F(e2e, a_non_200_answer_switches_delivery_off_after_both_routes)
{
    proxy.answer(204);
    EXPECT_EQ(run({"run.a", "run.b", "run.c"}).size(), 2u);  // first body: proxy, then default route
}

TEST_F(e2e, four_recent_days_of_use_mark_the_user_active)
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
    const strings_t sent = run({"run.a"});
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].substr(sent[0].size() - 6), "&cd3=y");
}

TEST_F(e2e, inert_operations_send_nothing)
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

// The facade: one process-wide instance while held, gone after release, a new one on demand.
TEST_F(e2e, facade_is_one_instance_while_held_and_a_new_one_after_release)
{
    boost::weak_ptr<statistic_t> released;
    {
        boost::shared_ptr<statistic_t> first = statistic_t::get(), second = statistic_t::get();
        EXPECT_EQ(first.get(), second.get());
        released = first;
    }
    EXPECT_TRUE(released.expired());
    EXPECT_EQ(statistic_t::get()->get_uuid().size(), 36u);
}

TEST_F(e2e, facade_version_comes_from_the_service_or_is_unknown)
{
    scoped_env_t force("NORVEL_FORCE_FEEDBACK", "1");
    locations.reset();
    statistic_t::get()->notify_feature_usage("run.a");
    locations = std::make_unique<prodenv::fixed_locations_t>();
    locations->data_dir = data.path();
    statistic_t::get()->notify_feature_usage("run.b");
    const strings_t sent = bodies();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_TRUE(has(sent[0], "&an=trovix&av=unknown&"));
    EXPECT_TRUE(has(sent[1], "&an=trovix&av=2015.3.1&"));
}

TEST_F(e2e, facade_guard_reports_entry_at_once_and_exit_at_scope_end)
{
    scoped_env_t force("NORVEL_FORCE_FEEDBACK", "1");
    {
        usemeter::statistic_guard_t guard("scan", ".begin", ".end", statistic_t::get());
        ASSERT_TRUE(proxy.wait_for_requests(1));
        usemeter::statistic_guard_t bare("scan", "", "", statistic_t::get());
    }
    // The guards held the last references: the instance is gone and has delivered everything.
    const strings_t sent = bodies();
    ASSERT_EQ(sent.size(), 4u);
    const char* expected[] = {"&ec=scan&el=begin&", "&ec=scan&cd3=", "&ec=scan&cd3=", "&ec=scan&el=end&"};
    for (std::size_t i = 0; i < 4; ++i)
        EXPECT_TRUE(has(sent[i], expected[i])) << sent[i];
}

// The C host program against the shared library, in the same HOME and with the same proxy.
int run_c_host(const char* mode)
{
    char* const argv[] = {const_cast<char*>(USEMETER_C_HOST), const_cast<char*>(mode), nullptr};
    pid_t child = 0;
    if (::posix_spawn(&child, USEMETER_C_HOST, nullptr, nullptr, argv, environ) != 0)
        return -1;
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Asked for consent until answered; two handles report independently and deliver before
// destruction.
TEST_F(e2e, c_host_consents_and_reports_through_the_flat_entry_points)
{
    boost::filesystem::remove(home / "norvel/optin");
    EXPECT_EQ(run_c_host("consent"), 0);
    EXPECT_EQ(read_file(home / "norvel/optin"), "1");
    scoped_env_t force("NORVEL_FORCE_FEEDBACK", "1");  // the child has no host double
    ASSERT_EQ(run_c_host("report"), 0);
    const strings_t sent = bodies();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_TRUE(has(sent[0], "&an=trovix&av=2016&") && has(sent[0], "&ec=run&el=first&")) << sent[0];
    EXPECT_TRUE(has(sent[1], "&an=c%20host&av=1.0&") && has(sent[1], "&ec=run&el=second&")) << sent[1];
    EXPECT_TRUE(file_exists(home / "norvel/c host/settings/statistic/uuid.xml"));
}

}  // namespace
