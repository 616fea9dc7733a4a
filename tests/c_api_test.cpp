// Runs the C host program against the shared library, in a temporary HOME, with the proxy
// variable pointing at a loopback proxy.
#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/wait.h>

#include "support/http_server.hpp"
#include "support/temp_home.hpp"

extern char** environ;

using namespace usemeter_test;

namespace {

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

class c_api_test : public ::testing::Test {
protected:
    clean_env_t clean_env;
    temp_home_t home;
    http_server_t proxy;
    scoped_env_t proxy_var{"http_proxy", proxy.proxy_url().c_str()};
};

TEST_F(c_api_test, consent_question_is_asked_until_answered)
{
    EXPECT_EQ(run_c_host("consent"), 0);
    EXPECT_EQ(read_file(home / "norvel/optin"), "1");
}

TEST_F(c_api_test, two_handles_report_independently_and_deliver_before_destruction)
{
    scoped_env_t force("NORVEL_FORCE_FEEDBACK", "1");
    ASSERT_EQ(run_c_host("report"), 0);
    const std::vector<http_request_t> requests = proxy.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_NE(requests[0].body.find("&an=trovix&av=2016&"), std::string::npos);
    EXPECT_NE(requests[0].body.find("&ec=run&el=first&"), std::string::npos);
    EXPECT_NE(requests[1].body.find("&an=c%20host&av=1.0&"), std::string::npos);
    EXPECT_NE(requests[1].body.find("&ec=run&el=second&"), std::string::npos);
    EXPECT_TRUE(file_exists(home / "norvel/c host/settings/statistic/uuid.xml"));
}

}  // namespace
