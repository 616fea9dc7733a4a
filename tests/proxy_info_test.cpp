#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/temp_home.hpp"
#include "usemeter/http_connector.hpp"

namespace {

using usemeter_1_5_7::collect_proxy_info;
using usemeter_test::clean_env_t;
using usemeter_test::scoped_env_t;

TEST(collect_proxy_info, appends_http_proxy_verbatim_for_every_url)
{
    const struct {
        const char* value;  // null: unset
        std::vector<std::string> appended;
    } cases[] = {
        {nullptr, {}},
        {"", {""}},
        {"http://127.0.0.1:3128", {"http://127.0.0.1:3128"}},
        // Lists and stray blanks are libcurl's to interpret, not ours.
        {" http://a:1, http://b:2 ,c ", {" http://a:1, http://b:2 ,c "}},
        {"user:secret@proxy", {"user:secret@proxy"}},
    };
    const char* const urls[] = {"http://www.google-analytics.com/collect", "http://127.0.0.1/", ""};
    for (const auto& c : cases) {
        clean_env_t clean_env;
        scoped_env_t http_proxy("http_proxy", c.value);
        for (const char* url : urls) {
            std::vector<std::string> proxies = {"kept"};
            collect_proxy_info(url, &proxies);
            std::vector<std::string> expected = {"kept"};
            expected.insert(expected.end(), c.appended.begin(), c.appended.end());
            EXPECT_EQ(proxies, expected) << (c.value ? c.value : "(unset)") << " for " << url;
        }
    }
}

TEST(collect_proxy_info, reads_no_other_proxy_variable)
{
    clean_env_t clean_env;
    scoped_env_t upper("HTTP_PROXY", "http://127.0.0.1:1");
    scoped_env_t https("https_proxy", "http://127.0.0.1:2");
    scoped_env_t all("all_proxy", "http://127.0.0.1:3");
    scoped_env_t no_proxy("no_proxy", "*");
    std::vector<std::string> proxies;
    collect_proxy_info("http://127.0.0.1/collect", &proxies);
    EXPECT_TRUE(proxies.empty());
}

}  // namespace
