// One feature use end to end (facade, C entry points, backend, connector) to a loopback proxy named by
// "http_proxy"; the feature-name grammar.
#include <curl/curl.h>

#include <boost/filesystem/operations.hpp>
#include <boost/weak_ptr.hpp>

#include "library/library_test.hpp"
#include "usemeter/sys/host_facts.hpp"
#include "usemeter/usemeter.h"

using namespace usemeter_test;
using usemeter_1_5_7::statistic_t;

namespace {

std::string escaped(const std::string& text)
{
    const std::unique_ptr<char, void (*)(void*)> out(::curl_easy_escape(nullptr, text.c_str(), 0), ::curl_free);
    return out.get();
}

class e2e : public ::testing::Test, protected loopback_user_t {
protected:
    scoped_env_t unforced{"NORVEL_FORCE_FEEDBACK", nullptr};  // consent comes from the file
    temp_dir_t data;
    std::unique_ptr<prodenv::fixed_locations_t> locations = std::make_unique<prodenv::fixed_locations_t>();

    e2e()
    {
        locations->data_dir = data.path();
        make_dirs(data / "statistic");
        boost::filesystem::copy_file(USEMETER_TEST_SOURCE_DIR "/data/enabled_stat_events.xml",
                                     data / "statistic/enabled_stat_events.xml");
        make_dirs(home / "norvel/trovix/settings/statistic");
        write_file(home / "norvel/optin", "1");
    }

    strings_t bodies() const
    {
        for (const hit_request_t& request : proxy.requests()) {
            EXPECT_EQ(request.method + " " + request.target, "POST http://www.google-analytics.com/collect");
            EXPECT_EQ(request.header("Content-Type"), "application/x-www-form-urlencoded");
        }
        return proxy.bodies();
    }
};

// In reporting order; every other name carries a value that never reaches the wire; the version goes
// raw. Four recent days of use on record mark the user active.
TEST_F(e2e, each_name_becomes_the_predicted_hit_or_nothing)
{
    write_file(home / history_in_home, history_xml({day(-4), day(-3), day(-2), day(-1)}));
    const std::pair<const char*, const char*> cases[] = {  // name, event fields or dropped
        {"a.b.c", "ec=a.b&el=c"}, {"a.x.y", "ec=a&el=x.y"}, {"a", "ec=a"}, {"ab", nullptr}, {"a.", "ec=a"},
        {"run.foo", "ec=run&el=foo"}, {"run.foo.bar", nullptr}, {"run.", "ec=run"}, {"run", nullptr},
        {"gui.start now&then=1", "ec=gui&el=start%20now%26then%3D1"},
        {"analysis_type.caf\xc3\xa9", "ec=analysis_type&el=caf%C3%A9"}, {"", nullptr}, {"scanner", nullptr},
    };
    const std::string product = "trovix & co", version = "2016 Update 1&x=y";
    std::string prefix;
    {
        statistic_impl_ga_t backend(product, version);
        prefix = "v=1&tid=UA-12345678-42&cid=" + backend.get_uuid() + "&an=" + escaped(product) + "&av=" +
                 version + "&cd1=posix&cd2=" + escaped(usemeter_1_5_7::get_os_name());
        for (const auto& c : cases)
            (&c - cases) % 2 ? backend.notify_feature_usage_ex(c.first, 123456789ull)
                           : backend.notify_feature_usage(c.first);
    }  // destruction waits for every queued hit
    strings_t expected;
    for (const auto& c : cases)
        if (c.second)
            expected.push_back(prefix + "&t=event&" + c.second + "&cd3=y");
    EXPECT_EQ(bodies(), expected);
}

// Operations without a wire form send nothing; disabled collection neither, yet records activity and logs.
TEST_F(e2e, consent_given_at_run_time_takes_effect_at_once)
{
    boost::filesystem::remove(home / "norvel/optin");
    {
        statistic_impl_ga_t backend("trovix", "2016");
        EXPECT_EQ(backend.get_user_consent(), 0);
        backend.notify_feature_usage("run.before");
        backend.set_statistic_collection_enabled(true);
        backend.notify_feature_usage("run.after");
        backend.write_range_metric("gui.x", 1, 2, 3, 4);
        backend.write_log_range_metric("gui.x", 1, 2);
        backend.notify_send_data(true);
        backend.notify_gui_start();
        EXPECT_TRUE(backend.flush() && !backend.send_crash_report("/tmp/x"));
        backend.set_statistic_collection_enabled(false);
        backend.notify_feature_usage("run.refused");
    }
    const strings_t sent = bodies();
    EXPECT_TRUE(sent.size() == 1 && has(sent[0], "&el=after&cd3=n"));
    EXPECT_EQ(read_file(home / "norvel/optin"), "0");
    scoped_env_t disable("NORVEL_STATISTICS_DISABLE", "0");
    log_capture_t log("usemeter.statistic");
    boost::filesystem::remove(home / history_in_home);
    write_file(home / "norvel/optin", "1");
    statistic_impl_ga_t("trovix", "2016").notify_feature_usage("gui.start");
    EXPECT_TRUE(proxy.request_count() == 1 && log.contains("feature_name=gui.start value=1"));
    EXPECT_TRUE(file_exists(home / history_in_home));
}

// One process-wide instance while held, versioned by the service; guards report entry and exit; the
// last reference gone, everything is delivered.
TEST_F(e2e, facade_instance_lives_while_held_and_guards_report_entry_and_exit)
{
    scoped_env_t force("NORVEL_FORCE_FEEDBACK", "1");
    boost::weak_ptr<statistic_t> released;
    {
        const boost::shared_ptr<statistic_t> first = statistic_t::get();
        EXPECT_EQ(first.get(), statistic_t::get().get());
        released = first;
        usemeter::statistic_guard_t guard("scan", ".begin", ".end", first);
        ASSERT_TRUE(proxy.wait_for_requests(1));
        usemeter::statistic_guard_t bare("scan", "", "", first);
    }
    EXPECT_TRUE(released.expired());
    // No service: the version is unknown, and without a whitelist only plain runs are sent.
    locations.reset();
    for (const char* name : {"gui.start", "run.a"})
        statistic_t::get()->notify_feature_usage(name);
    const char* const events[] = {"&ec=scan&el=begin&", "&ec=scan&cd3=", "&ec=scan&cd3=", "&ec=scan&el=end&",
                                  "&ec=run&el=a&"};
    const strings_t sent = bodies();
    ASSERT_EQ(sent.size(), 5u);
    for (std::size_t i = 0; i < 5; ++i)
        EXPECT_TRUE(has(sent[i], i < 4 ? "&av=2015.3.1&" : "&av=unknown&") && has(sent[i], events[i])) << sent[i];
}

// Null handles ignored; consent asked until answered; a backend per handle; a name copied at once.
TEST_F(e2e, flat_entry_points_ask_consent_once_and_keep_one_backend_per_handle)
{
    EXPECT_EQ(usemeter_should_ask_user_consent(nullptr), 0);
    usemeter_notify_feature_usage(nullptr, "run.ignored");
    usemeter_set_statistic_collection_enabled(nullptr, true);
    usemeter_destroy_statistic(nullptr);
    boost::filesystem::remove(home / "norvel/optin");
    locations.reset();  // a C host has no locations service: the product name names the directory
    statistic_handle_t* first = usemeter_create_statistic("trovix", "2016");
    statistic_handle_t* second = usemeter_create_statistic("c host", "1.0");
    EXPECT_EQ(usemeter_should_ask_user_consent(first), 1);
    for (const bool answer : {false, true}) {
        usemeter_set_statistic_collection_enabled(first, answer);
        EXPECT_EQ(usemeter_should_ask_user_consent(first), 0);
    }
    char name[] = "run.first";
    usemeter_notify_feature_usage(first, name);
    name[4] = 'X';
    usemeter_destroy_statistic(first);
    usemeter_set_statistic_collection_enabled(second, true);
    usemeter_notify_feature_usage(second, "run.second");
    usemeter_destroy_statistic(second);
    const strings_t sent = bodies();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_TRUE(has(sent[0], "&an=trovix&av=2016&") && has(sent[0], "&el=first&")) << sent[0];
    EXPECT_TRUE(has(sent[1], "&an=c%20host&av=1.0&") && has(sent[1], "&el=second&")) << sent[1];
    EXPECT_TRUE(file_exists(home / "norvel/c host/settings/statistic/uuid.xml"));
}

TEST(feature_name, grammar_accepts_dotted_words_only)
{
    for (const char* name : {"gui.start", "analysis_type.hotspots", "a", "A1.b2.C3", "100%.done", "_", "%"})
        EXPECT_TRUE(usemeter::statistic_t::is_feature_name_valid(name)) << name;
    const std::string invalid[] = {"", ".", "a.", ".a", "a..b", "a b", "a-b", "a.b ", " a", "a/b", "a:b",
                                   "caf\xc3\xa9", "\xff", std::string("a\0b", 3), "a.b\n"};
    for (const std::string& name : invalid)
        EXPECT_FALSE(usemeter::statistic_t::is_feature_name_valid(name)) << name;
}

}  // namespace
