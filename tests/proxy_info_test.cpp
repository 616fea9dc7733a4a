#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/temp_home.hpp"
#include "usemeter/sys/http_connector.hpp"

namespace {

using usemeter_test::scoped_env_t;

// Only "http_proxy" counts, verbatim (lists and blanks are libcurl's to interpret), whatever
// the URL; the other proxy variables are set here to prove they are not read.
TEST(collect_proxy_info, appends_http_proxy_verbatim_for_every_url)
{
    usemeter_test::clean_env_t clean_env;
    scoped_env_t upper("HTTP_PROXY", "http://127.0.0.1:1"), all("all_proxy", "http://127.0.0.1:2");
    for (const char* value : {static_cast<const char*>(nullptr), "", " http://a:1, http://b:2 ,c "}) {
        scoped_env_t http_proxy("http_proxy", value);
        for (const char* url : {"http://www.google-analytics.com/collect", ""}) {
            std::vector<std::string> proxies = {"kept"}, expected = {"kept"};
            if (value)
                expected.push_back(value);
            usemeter_1_5_7::collect_proxy_info(url, &proxies);
            EXPECT_EQ(proxies, expected) << (value ? value : "(unset)") << " for " << url;
        }
    }
}

}  // namespace
