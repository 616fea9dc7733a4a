#include "usemeter/sys/http_connector.hpp"

#include <cstdlib>

#include "usemeter/sys/environment.hpp"

namespace usemeter_1_5_7 {

// The URL is accepted for a per-destination answer but deliberately unused: every destination
// gets the same candidate, and no exclusion list is consulted. Only the lower-case variable is
// read, verbatim; libcurl interprets the text when it is used as the proxy.
void collect_proxy_info(const char* /*url*/, std::vector<std::string>* proxies)
{
    if (const char* value = std::getenv(environment::http_proxy))
        proxies->push_back(value);
}

}  // namespace usemeter_1_5_7
