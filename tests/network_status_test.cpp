#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <string>
#include <vector>

#include "network_status_detail.hpp"
#include "usemeter/sys/statistic_impl.hpp"

using namespace usemeter_1_5_7;

namespace {

// Each entry is one answer of a synthetic list ("v4:a.b.c.d" or "v6:<address>"), linked in
// order; a v6 entry carries 10.1.2.3 where an IPv4 address would lie, so only the family decides.
int classify(int gai_error, const std::vector<std::string>& entries)
{
    std::vector<sockaddr_in6> addresses(entries.size());
    std::vector<addrinfo> infos(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const bool v4 = entries[i].compare(0, 3, "v4:") == 0;
        auto* v4_address = reinterpret_cast<sockaddr_in*>(&addresses[i]);
        ::inet_pton(AF_INET, "10.1.2.3", &v4_address->sin_addr);
        addresses[i].sin6_family = v4 ? AF_INET : AF_INET6;
        ::inet_pton(v4 ? AF_INET : AF_INET6, entries[i].c_str() + 3,
                    v4 ? static_cast<void*>(&v4_address->sin_addr) : &addresses[i].sin6_addr);
        infos[i].ai_family = addresses[i].sin6_family;
        infos[i].ai_addr = reinterpret_cast<sockaddr*>(&addresses[i]);
        infos[i].ai_next = i + 1 < entries.size() ? &infos[i + 1] : nullptr;
    }
    return detail::classify_lookup(gai_error, infos.empty() ? nullptr : &infos[0]);
}

TEST(network_status, classifies_lookup_outcomes)
{
    const struct {
        int gai_error;
        std::vector<std::string> entries;
        int expected;
    } rows[] = {
        {EAI_NONAME, {}, nsOk}, {EAI_NODATA, {}, nsOk}, {EAI_AGAIN, {}, nsError},
        {EAI_FAIL, {}, nsError}, {EAI_SYSTEM, {}, nsError}, {0, {}, nsOk},
        {0, {"v6:::1", "v6:fd00::10"}, nsOk},
        {0, {"v4:127.0.0.1", "v4:11.0.0.1", "v4:9.255.255.255", "v4:192.168.10.10"}, nsOk},
        {0, {"v6:::1", "v4:127.0.0.1", "v4:10.9.8.7", "v4:172.16.0.1"}, nsExcludedNetwork},
        {0, {"v4:10.0.0.0"}, nsExcludedNetwork},
    };
    for (const auto& row : rows)
        EXPECT_EQ(classify(row.gai_error, row.entries), row.expected)
            << row.gai_error << " " << row.entries.size();
}

}  // namespace
