// A user in a temporary HOME whose hits go to a loopback server standing in as the proxy
// named by "http_proxy", with collection forced on: the usual stage of end-to-end tests.
#ifndef USEMETER_TESTS_LOOPBACK_USER_HPP
#define USEMETER_TESTS_LOOPBACK_USER_HPP

#include "support/http_server.hpp"
#include "support/temp_home.hpp"

namespace usemeter_test {

struct loopback_user_t {
    clean_env_t clean_env;
    temp_home_t home;
    http_server_t proxy;
    scoped_env_t proxy_var{"http_proxy", proxy.proxy_url().c_str()};
    scoped_env_t force{"NORVEL_FORCE_FEEDBACK", "1"};
};

}  // namespace usemeter_test

#endif
