#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <string>
#include <vector>

#include "network_status_detail.hpp"
#include "usemeter/statistic_impl.hpp"

using usemeter::nsError;
using usemeter::nsExcludedNetwork;
using usemeter::nsOk;
namespace detail = usemeter::detail;

namespace {

// A synthetic answer list: "v4:a.b.c.d" or "v6:<address>" entries, linked in order.
class answer_t {
public:
    explicit answer_t(const std::vector<std::string>& entries) : v4_(entries.size()), v6_(entries.size())
    {
        infos_.resize(entries.size());
        for (std::size_t i = 0; i < entries.size(); ++i) {
            addrinfo& info = infos_[i];
            const std::string text = entries[i].substr(3);
            if (entries[i].compare(0, 3, "v4:") == 0) {
                v4_[i].sin_family = AF_INET;
                ::inet_pton(AF_INET, text.c_str(), &v4_[i].sin_addr);
                info.ai_family = AF_INET;
                info.ai_addr = reinterpret_cast<sockaddr*>(&v4_[i]);
                info.ai_addrlen = sizeof(sockaddr_in);
            } else {
                v6_[i].sin6_family = AF_INET6;
                ::inet_pton(AF_INET6, text.c_str(), &v6_[i].sin6_addr);
                // Where an IPv4 address would lie, put 10.x: only the family may decide.
                const unsigned char ten[4] = {10, 1, 2, 3};
                std::memcpy(&v6_[i].sin6_flowinfo, ten, sizeof ten);
                info.ai_family = AF_INET6;
                info.ai_addr = reinterpret_cast<sockaddr*>(&v6_[i]);
                info.ai_addrlen = sizeof(sockaddr_in6);
            }
            info.ai_next = i + 1 < entries.size() ? &infos_[i + 1] : nullptr;
        }
    }
    const addrinfo* list() const { return infos_.empty() ? nullptr : &infos_[0]; }

private:
    std::vector<sockaddr_in> v4_;
    std::vector<sockaddr_in6> v6_;
    std::vector<addrinfo> infos_;
};

TEST(network_status, classifies_lookup_outcomes)
{
    const struct row_t {
        int gai_error;
        std::vector<std::string> entries;
        int expected;
    } rows[] = {
        {EAI_NONAME, {}, nsOk},
        {EAI_NODATA, {}, nsOk},
        {EAI_AGAIN, {}, nsError},
        {EAI_FAIL, {}, nsError},
        {EAI_SERVICE, {}, nsError},
        {EAI_SYSTEM, {}, nsError},
        {0, {}, nsOk},
        {0, {"v6:::1", "v6:fd00::10"}, nsOk},
        {0, {"v4:127.0.0.1", "v4:11.0.0.1", "v4:9.255.255.255", "v4:192.168.10.10"}, nsOk},
        {0, {"v6:::1", "v4:127.0.0.1", "v4:10.9.8.7", "v4:172.16.0.1"}, nsExcludedNetwork},
        {0, {"v4:10.0.0.0"}, nsExcludedNetwork},
    };
    for (const row_t& row : rows) {
        answer_t answer(row.entries);
        EXPECT_EQ(detail::classify_lookup(row.gai_error, answer.list()), row.expected)
            << row.gai_error << " " << row.entries.size();
    }
}

TEST(network_status, resolves_numeric_nodes_without_dns)
{
    EXPECT_EQ(detail::get_network_status_for("10.1.2.3"), nsExcludedNetwork);
    EXPECT_EQ(detail::get_network_status_for("127.0.0.1"), nsOk);
    EXPECT_EQ(detail::get_network_status_for("::1"), nsOk);

    detail::corporate_node_name = "10.1.2.3";
    EXPECT_EQ(usemeter::get_network_status(), nsExcludedNetwork);
    detail::corporate_node_name = "127.0.0.1";
    EXPECT_EQ(usemeter::get_network_status(), nsOk);
}

addrinfo seen_hints;
std::string seen_node, seen_service;

int unreachable_resolver(const char* node, const char* service, const addrinfo* hints, addrinfo**)
{
    seen_node = node;
    seen_service = service;
    seen_hints = *hints;
    return EAI_AGAIN;
}

TEST(network_status, asks_for_the_domain_service_over_udp)
{
    detail::lookup = &unreachable_resolver;
    detail::corporate_node_name = "corp.example.invalid";
    EXPECT_EQ(usemeter::get_network_status(), nsError);
    EXPECT_EQ(seen_node, "corp.example.invalid");
    EXPECT_EQ(seen_service, "domain");
    EXPECT_EQ(seen_hints.ai_flags, 0);
    EXPECT_EQ(seen_hints.ai_family, AF_UNSPEC);
    EXPECT_EQ(seen_hints.ai_socktype, SOCK_DGRAM);
    EXPECT_EQ(seen_hints.ai_protocol, 17);
}

}  // namespace
