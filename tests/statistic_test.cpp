// The facade, its process-wide instance and the guard, as a C++ host uses them.
#include <gtest/gtest.h>

#include "network_status_detail.hpp"
#include "support/http_server.hpp"
#include "support/locations_double.hpp"
#include "support/log_capture.hpp"
#include "support/temp_home.hpp"
#include "usemeter/statistic.hpp"

using namespace usemeter_test;

namespace {

class facade_test : public ::testing::Test {
protected:
    clean_env_t clean_env;
    temp_home_t home;
    temp_dir_t data;
    http_server_t proxy;
    scoped_env_t proxy_var{"http_proxy", proxy.proxy_url().c_str()};
    scoped_env_t force{"NORVEL_FORCE_FEEDBACK", "1"};

    facade_test()
    {
        make_dirs(data / "statistic");
        write_file(data / "statistic/enabled_stat_events.xml",
                   "<bag><event type=\"bag\"><name type=\"string\">scan</name></event></bag>");
    }

    std::vector<std::string> bodies() const
    {
        std::vector<std::string> out;
        for (const http_request_t& request : proxy.requests())
            out.push_back(request.body);
        return out;
    }

    static std::size_t constructions(const log_capture_t& log)
    {
        std::size_t n = 0;
        for (const std::string& message : log.messages(true))
            n += message.rfind("ENTER: ", 0) == 0 && message.find("load_uuid") != std::string::npos;
        return n;
    }
};

TEST_F(facade_test, one_instance_while_held_and_a_new_one_after_release)
{
    log_capture_t log("usemeter.statistic");
    {
        boost::shared_ptr<usemeter::statistic_t> first = usemeter::statistic_t::get();
        boost::shared_ptr<usemeter::statistic_t> second = usemeter::statistic_t::get();
        EXPECT_EQ(first.get(), second.get());
        EXPECT_EQ(constructions(log), 1u);
    }
    boost::shared_ptr<usemeter::statistic_t> third = usemeter::statistic_t::get();
    EXPECT_EQ(constructions(log), 2u);
    EXPECT_EQ(third->get_uuid().size(), 36u);
}

TEST_F(facade_test, version_comes_from_the_service_or_is_unknown)
{
    usemeter::statistic_t::get()->notify_feature_usage("run.a");
    {
        locations_double_t locations;
        locations.data_dir = data.path();
        usemeter::statistic_t::get()->notify_feature_usage("run.b");
    }
    const std::vector<std::string> sent = bodies();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_NE(sent[0].find("&an=trovix&av=unknown&"), std::string::npos);
    EXPECT_NE(sent[1].find("&an=trovix&av=2015.3.1&"), std::string::npos);
}

TEST_F(facade_test, guard_reports_entry_at_once_and_exit_at_scope_end)
{
    locations_double_t locations;
    locations.data_dir = data.path();
    {
        usemeter::statistic_guard_t guard("scan", ".begin", ".end", usemeter::statistic_t::get());
        ASSERT_TRUE(proxy.wait_for_requests(1, std::chrono::seconds(30)));
        usemeter::statistic_guard_t bare("scan", "", "", usemeter::statistic_t::get());
    }
    // The guards held the last references: the instance is gone and has delivered everything.
    const std::vector<std::string> sent = bodies();
    ASSERT_EQ(sent.size(), 4u);
    const char* expected[] = {"&ec=scan&el=begin&", "&ec=scan&cd3=", "&ec=scan&cd3=", "&ec=scan&el=end&"};
    for (std::size_t i = 0; i < 4; ++i)
        EXPECT_NE(sent[i].find(expected[i]), std::string::npos) << sent[i];
}

}  // namespace
