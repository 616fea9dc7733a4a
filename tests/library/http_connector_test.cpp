// The connector against loopback collectors: what reaches them, the routes, bounded destruction.
#include "library/library_test.hpp"
#include "usemeter/sys/http_connector.hpp"

namespace {

using usemeter_1_5_7::http_connector_t;
using namespace usemeter_test;
using collector_fault_t = std::function<void(loopback_collector_t&)>;

strings_t numbered_bodies(int count)
{
    strings_t bodies;
    while (int(bodies.size()) < count)
        bodies.push_back("v=1&n=" + std::to_string(bodies.size()));
    return bodies;
}

// No developer's proxy settings; http_proxy is set before a connector exists: its worker reads it once.
class http_connector : public ::testing::Test {
protected:
    clean_env_t clean_env;
    std::unique_ptr<http_connector_t> connector;

    void start(const std::string& url, const strings_t& bodies = {})
    {
        connector = std::make_unique<http_connector_t>(url.c_str());
        for (std::string body : bodies)
            connector->post(std::move(body));
    }
};

// With one candidate, the first failed body ends delivery for good; so does an empty body (stop marker).
TEST_F(http_connector, the_first_failure_or_the_stop_marker_ends_delivery)
{
    const struct { const char* name; collector_fault_t fault; strings_t posted; } cases[] = {
        {"204", [](loopback_collector_t& s) { s.answer(204); }, numbered_bodies(3)},
        {"reset", [](loopback_collector_t& s) { s.reset_connections(); }, numbered_bodies(3)},
        {"stop marker", [](loopback_collector_t&) {}, {"v=1&n=0", "", "v=1&never"}},
    };
    for (const auto& c : cases) {
        loopback_collector_t collector;
        c.fault(collector);
        start(collector.url(), c.posted);
        ASSERT_TRUE(collector.wait_for_requests(1)) << c.name;
        connector->post("v=1&late");
        connector.reset();
        EXPECT_EQ(collector.bodies(), numbered_bodies(1)) << c.name;
    }
}

// Two candidates per body, then delivery is off. An empty "http_proxy" is a candidate too; a set one is
// also libcurl's own route, so the target is never contacted directly. Only the lower-case name counts.
TEST_F(http_connector, tries_both_candidates_once_before_giving_up)
{
    loopback_collector_t proxy, target, upper_case;
    scoped_env_t upper("HTTP_PROXY", upper_case.base_url().c_str());
    proxy.answer(500);
    target.answer(500);
    for (const std::string& value : {std::string(), proxy.base_url()}) {
        scoped_env_t http_proxy("http_proxy", value.c_str());
        start(target.url(), numbered_bodies(3));
        connector.reset();
    }
    EXPECT_TRUE(target.bodies() == strings_t(2, "v=1&n=0") && proxy.bodies() == target.bodies());
    EXPECT_EQ(proxy.requests().at(0).target, target.url());
    EXPECT_EQ(upper_case.request_count(), 0u);
}

// The proxy fails while the route without an explicit proxy works: the connector moves there and stays
// ("http_proxy" unset once read: libcurl's route is direct; no_proxy "*" leaves the explicit candidate
// on the proxy). A refused direct route ends delivery.
TEST_F(http_connector, moves_to_the_direct_route_when_the_proxy_fails_and_stays)
{
    const struct { const char* name; collector_fault_t fail; bool direct_listens; } cases[] = {
        {"502", [](loopback_collector_t& p) { p.answer(502); }, true},
        {"connection reset", [](loopback_collector_t& p) { p.reset_connections(); }, true},
        {"refused direct", [](loopback_collector_t& p) { p.answer(500); }, false}};
    for (const auto& c : cases) {
        loopback_collector_t direct, proxy;
        proxy.hold(0ms);
        scoped_env_t http_proxy("http_proxy", proxy.base_url().c_str()), no_proxy("no_proxy", "*");
        if (!c.direct_listens)
            direct.stop();  // its port now refuses connections
        start(direct.url(), numbered_bodies(4));
        ASSERT_TRUE(proxy.wait_for_requests(1)) << c.name;
        ::unsetenv("http_proxy");
        c.fail(proxy);
        connector.reset();
        EXPECT_EQ(proxy.request_count(), 1u) << c.name;
        EXPECT_EQ(direct.bodies(), c.direct_listens ? numbered_bodies(4) : strings_t()) << c.name;
    }
}

}  // namespace
