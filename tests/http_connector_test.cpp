#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "support/http_server.hpp"
#include "support/temp_home.hpp"
#include "usemeter/sys/http_connector.hpp"

namespace {

using usemeter_1_5_7::http_connector_t;
using namespace usemeter_test;
using strings_t = std::vector<std::string>;
using namespace std::chrono_literals;

// Generous limits against hangs; none of them measures speed.
const auto arrival_limit = 20s;
const auto destruction_limit = 30s;

// The bodies of the requests, only those starting with prefix.
strings_t bodies_of(const std::vector<http_request_t>& requests, const std::string& prefix = "")
{
    strings_t bodies;
    for (const http_request_t& r : requests)
        if (r.body.compare(0, prefix.size(), prefix) == 0)
            bodies.push_back(r.body);
    return bodies;
}

strings_t numbered_bodies(int count, const std::string& prefix = "v=1&n=")
{
    strings_t bodies;
    for (int i = 0; i < count; ++i)
        bodies.push_back(prefix + std::to_string(i));
    return bodies;
}

// Every test starts from an environment without the developer's proxy settings; http_proxy is
// set (if at all) before a connector exists, because its worker reads it when it starts.
class http_connector : public ::testing::Test {
protected:
    clean_env_t clean_env;
    http_server_t server;
    std::unique_ptr<http_connector_t> connector;

    void start(const std::string& url, const strings_t& bodies = {})
    {
        connector = std::make_unique<http_connector_t>(url.c_str());
        for (std::string body : bodies)
            connector->post(std::move(body));
    }
    // Destroys the connector and returns how long the destructor took.
    std::chrono::steady_clock::duration destroy()
    {
        const auto begin = std::chrono::steady_clock::now();
        connector.reset();
        return std::chrono::steady_clock::now() - begin;
    }
};

// Host threads post and escape while the worker transfers on the same easy handle; destruction
// right after the last post still delivers every queued body, each thread's in its order.
TEST_F(http_connector, delivers_every_body_once_in_posting_order_as_a_form)
{
    start(server.url());
    std::vector<std::thread> hosts;
    std::vector<int> escape_errors(4, 0);
    for (int t = 0; t < 4; ++t)
        hosts.emplace_back([&, t] {
            for (std::string body : numbered_bodies(75, "t=" + std::to_string(t) + "&n="))
                connector->post(std::move(body));
            for (int i = 0; i < 100; ++i)
                escape_errors[t] += connector->urlencode("a b/" + std::to_string(i))
                                    != "a%20b%2F" + std::to_string(i);
        });
    for (std::thread& h : hosts)
        h.join();
    destroy();

    EXPECT_EQ(escape_errors, std::vector<int>(4, 0));
    const std::vector<http_request_t> requests = server.requests();
    ASSERT_EQ(requests.size(), 300u);
    for (const http_request_t& r : requests)
        EXPECT_EQ(r.method + " " + r.target + " " + r.header("Content-Type"),
                  "POST /collect application/x-www-form-urlencoded");
    for (int t = 0; t < 4; ++t)
        EXPECT_EQ(bodies_of(requests, "t=" + std::to_string(t) + "&n="),
                  numbered_bodies(75, "t=" + std::to_string(t) + "&n="));
}

// With one candidate, the first body that fails switches delivery off for good (a hanging server
// costs one transfer time-out); posting to the switched-off connector still returns at once and
// sends nothing.
TEST_F(http_connector, any_failure_of_the_only_route_stops_delivery)
{
    const std::pair<const char*, std::function<void(http_server_t&)>> cases[] = {
        {"204", [](http_server_t& s) { s.answer(204); }}, {"500", [](http_server_t& s) { s.answer(500); }},
        {"connection closed", [](http_server_t& s) { s.close_without_answer(); }},
        {"hanging", [](http_server_t& s) { s.hang(120s); }},
    };
    for (const auto& c : cases) {
        http_server_t failing;
        c.second(failing);
        start(failing.url(), numbered_bodies(3));
        ASSERT_TRUE(failing.wait_for_requests(1, arrival_limit)) << c.first;
        connector->post("v=1&late");
        EXPECT_LT(destroy(), destruction_limit) << c.first;
        EXPECT_EQ(bodies_of(failing.requests()), numbered_bodies(1)) << c.first;
    }
}

// An empty body is the stop marker: what follows it is never sent, and destruction of an idle
// or stopped worker returns at once.
TEST_F(http_connector, idle_or_stopped_worker_is_destroyed_at_once)
{
    start(server.url());
    EXPECT_LT(destroy(), destruction_limit);
    start(server.url(), {"v=1&first", "", "v=1&never"});
    ASSERT_TRUE(server.wait_for_requests(1, arrival_limit));
    EXPECT_LT(destroy(), destruction_limit);
    EXPECT_EQ(bodies_of(server.requests()), strings_t{"v=1&first"});
}

// Two candidates per body, then delivery is off. An empty "http_proxy" is a candidate of its
// own; a set one is also what libcurl's own route (the null proxy) follows, so the target is
// never contacted directly.
TEST_F(http_connector, tries_both_candidates_once_before_giving_up)
{
    http_server_t proxy;
    proxy.answer(500);
    server.answer(500);
    for (const std::string& value : {std::string(), proxy.proxy_url()}) {
        scoped_env_t http_proxy("http_proxy", value.c_str());
        start(server.url(), numbered_bodies(3));
        destroy();
    }
    EXPECT_EQ(bodies_of(server.requests()), strings_t(2, "v=1&n=0"));
    EXPECT_EQ(bodies_of(proxy.requests()), strings_t(2, "v=1&n=0"));
}

TEST_F(http_connector, delivers_through_the_proxy)
{
    http_server_t proxy;
    proxy.forward_to(server.port());
    scoped_env_t http_proxy("http_proxy", proxy.proxy_url().c_str());
    // A host name that can never resolve: only the proxy can deliver.
    start("http://collector.invalid/collect", numbered_bodies(20));
    destroy();

    ASSERT_EQ(bodies_of(server.requests()), numbered_bodies(20));
    EXPECT_EQ(proxy.requests().size(), 20u);
    EXPECT_EQ(proxy.requests().front().target, "http://collector.invalid/collect");
    EXPECT_EQ(server.requests().front().target, "/collect");
}

// The proxy fails while the route without an explicit proxy works: the connector moves there
// and stays. For libcurl's route to be direct, "http_proxy" is unset once the worker has read
// it, which the first request reaching the proxy proves; the proxy holds that request until
// then. A refused direct route is a failure like any other: nothing more is sent at all.
TEST_F(http_connector, moves_to_the_direct_route_when_the_proxy_fails_and_stays)
{
    const struct {
        const char* name;
        std::function<void(http_server_t&)> fail;
        bool direct_listens;
    } cases[] = {
        {"502", [](http_server_t& p) { p.answer(502); }, true},
        {"connection closed", [](http_server_t& p) { p.close_without_answer(); }, true},
        {"refused direct", [](http_server_t& p) { p.answer(500); }, false},
    };
    for (const auto& c : cases) {
        http_server_t direct, proxy;
        proxy.hang(120s);
        scoped_env_t http_proxy("http_proxy", proxy.proxy_url().c_str());
        if (!c.direct_listens)
            direct.stop();  // its port now refuses connections
        start(direct.url(), numbered_bodies(4));
        ASSERT_TRUE(proxy.wait_for_requests(1, arrival_limit)) << c.name;
        ::unsetenv("http_proxy");
        c.fail(proxy);
        EXPECT_LT(destroy(), destruction_limit) << c.name;
        EXPECT_EQ(proxy.request_count(), 1u) << c.name;
        EXPECT_EQ(bodies_of(direct.requests()), c.direct_listens ? numbered_bodies(4) : strings_t())
            << c.name;
    }
}

TEST_F(http_connector, urlencode_escapes_every_byte_but_unreserved_ones)
{
    start("http://127.0.0.1/collect");  // nothing is posted
    const std::pair<std::string, const char*> cases[] = {
        {"a b&c", "a%20b%26c"}, {"", ""}, {"AZaz09-._~", "AZaz09-._~"},
        {"run.gui/x=1+2?", "run.gui%2Fx%3D1%2B2%3F"}, {"\xc3\xa9\x7f\xff", "%C3%A9%7F%FF"},
        {std::string("a\0b", 3), "a"},  // taken up to the first NUL byte
    };
    for (const auto& c : cases)
        EXPECT_EQ(connector->urlencode(c.first), c.second);
}

}  // namespace
