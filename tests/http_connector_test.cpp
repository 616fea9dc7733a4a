#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/fake_proxy.hpp"
#include "support/http_server.hpp"
#include "support/temp_home.hpp"
#include "usemeter/http_connector.hpp"

namespace {

using usemeter_1_5_7::http_connector_t;
using usemeter_test::clean_env_t;
using usemeter_test::fake_proxy_t;
using usemeter_test::http_request_t;
using usemeter_test::http_server_t;
using usemeter_test::scoped_env_t;
using namespace std::chrono_literals;

// Generous limits against hangs; none of them measures speed.
const auto arrival_limit = 20s;
const auto destruction_limit = 30s;

// A host name that can never resolve: a request naming it reaches only the loopback proxy.
const char* const unreachable_url = "http://collector.invalid/collect";

std::vector<std::string> bodies_of(const std::vector<http_request_t>& requests)
{
    std::vector<std::string> bodies;
    for (const http_request_t& r : requests)
        bodies.push_back(r.body);
    return bodies;
}

std::vector<std::string> numbered_bodies(int count, const std::string& prefix = "v=1&n=")
{
    std::vector<std::string> bodies;
    for (int i = 0; i < count; ++i)
        bodies.push_back(prefix + std::to_string(i));
    return bodies;
}

void post_all(http_connector_t& connector, const std::vector<std::string>& bodies)
{
    for (std::string body : bodies)
        connector.post(std::move(body));
}

// Destroys the connector and returns how long the destructor took.
std::chrono::steady_clock::duration destroy(std::unique_ptr<http_connector_t>& connector)
{
    const auto start = std::chrono::steady_clock::now();
    connector.reset();
    return std::chrono::steady_clock::now() - start;
}

// Every test starts from an environment without the developer's proxy settings; http_proxy is
// set (if at all) before a connector exists, because its worker reads it when it starts.
class http_connector : public ::testing::Test {
protected:
    clean_env_t clean_env;
    http_server_t server;
};

TEST_F(http_connector, posts_each_body_once_in_order_as_a_form)
{
    const std::vector<std::string> bodies = {"v=1&tid=a", "v=1&tid=b&x=%20", "v=1&tid=c"};
    auto connector = std::make_unique<http_connector_t>(server.url().c_str());
    post_all(*connector, bodies);
    ASSERT_TRUE(server.wait_for_requests(bodies.size(), arrival_limit));
    connector.reset();

    const std::vector<http_request_t> requests = server.requests();
    EXPECT_EQ(bodies_of(requests), bodies);
    for (const http_request_t& r : requests) {
        EXPECT_EQ(r.method, "POST");
        EXPECT_EQ(r.target, "/collect");
        EXPECT_EQ(r.header("Content-Type"), "application/x-www-form-urlencoded");
        EXPECT_EQ(r.header("Content-Length"), std::to_string(r.body.size()));
    }
}

TEST_F(http_connector, destruction_delivers_every_queued_body_first)
{
    const std::vector<std::string> bodies = numbered_bodies(300);
    auto connector = std::make_unique<http_connector_t>(server.url().c_str());
    post_all(*connector, bodies);
    connector.reset();
    EXPECT_EQ(bodies_of(server.requests()), bodies);
}

TEST_F(http_connector, bodies_from_several_threads_keep_each_threads_order)
{
    auto connector = std::make_unique<http_connector_t>(server.url().c_str());
    std::vector<std::thread> hosts;
    for (int t = 0; t < 4; ++t)
        hosts.emplace_back([&, t] {
            post_all(*connector, numbered_bodies(50, "t=" + std::to_string(t) + "&n="));
        });
    for (std::thread& h : hosts)
        h.join();
    connector.reset();

    const std::vector<std::string> received = bodies_of(server.requests());
    ASSERT_EQ(received.size(), 200u);
    for (int t = 0; t < 4; ++t) {
        const std::string prefix = "t=" + std::to_string(t) + "&n=";
        std::vector<std::string> of_thread;
        for (const std::string& b : received)
            if (b.compare(0, prefix.size(), prefix) == 0)
                of_thread.push_back(b);
        EXPECT_EQ(of_thread, numbered_bodies(50, prefix));
    }
}

// With one candidate, the first body that fails switches delivery off for good.
TEST_F(http_connector, any_failure_of_the_only_route_stops_delivery)
{
    struct failure_case {
        const char* name;
        std::function<void(http_server_t&)> set_up;
    };
    const failure_case cases[] = {
        {"204", [](http_server_t& s) { s.answer(204); }},
        {"500", [](http_server_t& s) { s.answer(500); }},
        {"404", [](http_server_t& s) { s.answer(404); }},
        {"connection closed", [](http_server_t& s) { s.close_without_answer(); }},
    };
    for (const failure_case& c : cases) {
        http_server_t failing;
        c.set_up(failing);
        auto connector = std::make_unique<http_connector_t>(failing.url().c_str());
        post_all(*connector, numbered_bodies(3));
        ASSERT_TRUE(failing.wait_for_requests(1, arrival_limit)) << c.name;
        // Posting to a switched-off connector still returns at once and sends nothing.
        connector->post("v=1&late");
        connector.reset();
        EXPECT_EQ(bodies_of(failing.requests()), numbered_bodies(1)) << c.name;
    }
}

TEST_F(http_connector, a_hanging_server_costs_one_time_out_then_delivery_is_off)
{
    server.hang(120s);
    auto connector = std::make_unique<http_connector_t>(server.url().c_str());
    post_all(*connector, numbered_bodies(20));
    ASSERT_TRUE(server.wait_for_requests(1, arrival_limit));
    EXPECT_LT(destroy(connector), destruction_limit);
    EXPECT_EQ(server.request_count(), 1u);
}

TEST_F(http_connector, idle_connector_is_destroyed_without_delay)
{
    auto connector = std::make_unique<http_connector_t>(server.url().c_str());
    EXPECT_LT(destroy(connector), destruction_limit);
    EXPECT_EQ(server.request_count(), 0u);
}

TEST_F(http_connector, an_empty_body_stops_the_worker_early)
{
    auto connector = std::make_unique<http_connector_t>(server.url().c_str());
    connector->post("v=1&first");
    connector->post(std::string());
    connector->post("v=1&never");
    ASSERT_TRUE(server.wait_for_requests(1, arrival_limit));
    EXPECT_LT(destroy(connector), destruction_limit);
    EXPECT_EQ(bodies_of(server.requests()), std::vector<std::string>{"v=1&first"});
}

// An empty "http_proxy" is a candidate of its own: the route without an explicit proxy is
// tried twice before a body counts as lost.
TEST_F(http_connector, empty_http_proxy_means_two_attempts_without_proxy)
{
    scoped_env_t http_proxy("http_proxy", "");
    server.answer(500);
    auto connector = std::make_unique<http_connector_t>(server.url().c_str());
    post_all(*connector, numbered_bodies(3));
    connector.reset();
    EXPECT_EQ(bodies_of(server.requests()), std::vector<std::string>(2, "v=1&n=0"));
}

// libcurl's own route reads "http_proxy" as well, so while it is set both candidates go through
// the proxy: the target host is never contacted directly.
TEST_F(http_connector, both_candidates_use_the_proxy_named_in_the_environment)
{
    fake_proxy_t proxy;
    proxy.answer(500);
    scoped_env_t http_proxy("http_proxy", proxy.url().c_str());
    auto connector = std::make_unique<http_connector_t>(server.url().c_str());
    post_all(*connector, numbered_bodies(3));
    connector.reset();
    EXPECT_EQ(bodies_of(proxy.requests()), std::vector<std::string>(2, "v=1&n=0"));
    EXPECT_EQ(server.request_count(), 0u);
}

TEST_F(http_connector, delivers_through_the_proxy_on_kept_connections)
{
    fake_proxy_t proxy;
    proxy.forward_to(server.port());
    scoped_env_t http_proxy("http_proxy", proxy.url().c_str());
    const std::vector<std::string> bodies = numbered_bodies(20);
    auto connector = std::make_unique<http_connector_t>(unreachable_url);
    post_all(*connector, bodies);
    connector.reset();

    const std::vector<http_request_t> at_proxy = proxy.requests();
    ASSERT_EQ(at_proxy.size(), bodies.size());
    EXPECT_EQ(at_proxy.front().request_line(), "POST http://collector.invalid/collect HTTP/1.1");
    EXPECT_EQ(bodies_of(server.requests()), bodies);
    EXPECT_EQ(server.requests().front().target, "/collect");
}

// The proxy fails while the route without an explicit proxy works: the connector moves there
// and stays. For libcurl's route to be direct, "http_proxy" is unset once the worker has read
// it, which the first request reaching the proxy proves; the proxy holds that request until then.
TEST_F(http_connector, moves_to_the_direct_route_when_the_proxy_fails_and_stays)
{
    struct proxy_failure {
        const char* name;
        std::function<void(fake_proxy_t&)> fail;
    };
    const proxy_failure cases[] = {
        {"502", [](fake_proxy_t& p) { p.answer(502); }},
        {"connection closed", [](fake_proxy_t& p) { p.close_without_answer(); }},
    };
    for (const proxy_failure& c : cases) {
        http_server_t direct;
        fake_proxy_t proxy;
        proxy.hang(120s);
        scoped_env_t http_proxy("http_proxy", proxy.url().c_str());
        auto connector = std::make_unique<http_connector_t>(direct.url().c_str());
        post_all(*connector, numbered_bodies(4));
        ASSERT_TRUE(proxy.wait_for_requests(1, arrival_limit)) << c.name;
        ::unsetenv("http_proxy");
        c.fail(proxy);
        connector.reset();
        EXPECT_EQ(proxy.request_count(), 1u) << c.name;
        EXPECT_EQ(bodies_of(direct.requests()), numbered_bodies(4)) << c.name;
    }
}

// Same arrangement with nothing listening behind the direct route: a refused connection is a
// failure like any other, so after the first body the proxy sees nothing more.
TEST_F(http_connector, refused_direct_route_after_a_failing_proxy_stops_delivery)
{
    fake_proxy_t proxy;
    proxy.hang(120s);
    scoped_env_t http_proxy("http_proxy", proxy.url().c_str());
    const std::string refused =
        "http://127.0.0.1:" + std::to_string(usemeter_test::unused_loopback_port()) + "/collect";
    auto connector = std::make_unique<http_connector_t>(refused.c_str());
    post_all(*connector, numbered_bodies(4));
    ASSERT_TRUE(proxy.wait_for_requests(1, arrival_limit));
    ::unsetenv("http_proxy");
    proxy.answer(500);
    EXPECT_LT(destroy(connector), destruction_limit);
    EXPECT_EQ(proxy.request_count(), 1u);
}

TEST(http_connector_urlencode, escapes_every_byte_but_unreserved_ones)
{
    clean_env_t clean_env;
    http_connector_t connector("http://127.0.0.1/collect");  // nothing is posted
    const struct {
        std::string text;
        const char* expected;
    } cases[] = {
        {"a b&c", "a%20b%26c"},
        {"", ""},
        {"AZaz09-._~", "AZaz09-._~"},
        {"run.gui/x=1+2?", "run.gui%2Fx%3D1%2B2%3F"},
        {"\xc3\xa9\x7f\xff", "%C3%A9%7F%FF"},
        {std::string("a\0b", 3), "a"},  // taken up to the first NUL byte
    };
    for (const auto& c : cases)
        EXPECT_EQ(connector.urlencode(c.text), c.expected);
}

// Host threads escape while the worker transfers on the same easy handle.
TEST_F(http_connector, urlencode_runs_on_host_threads_during_transfers)
{
    auto connector = std::make_unique<http_connector_t>(server.url().c_str());
    post_all(*connector, numbered_bodies(100));
    std::vector<std::thread> hosts;
    std::vector<int> mismatches(4, 0);
    for (int t = 0; t < 4; ++t)
        hosts.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i)
                if (connector->urlencode("feature name/" + std::to_string(i))
                    != "feature%20name%2F" + std::to_string(i))
                    ++mismatches[t];
        });
    for (std::thread& h : hosts)
        h.join();
    connector.reset();
    EXPECT_EQ(mismatches, std::vector<int>(4, 0));
    EXPECT_EQ(server.request_count(), 100u);
}

}  // namespace
