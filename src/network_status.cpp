#include "usemeter/sys/statistic_impl.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "host/host_services.hpp"
#include "network_status_detail.hpp"

#ifndef USEMETER_CORPORATE_DOMAIN
#error "USEMETER_CORPORATE_DOMAIN must name the corporate DNS domain"
#endif

namespace usemeter_1_5_7 {
namespace detail {

int classify_lookup(int gai_error, const addrinfo* list)
{
    if (gai_error != 0) {
        // An unknown name means we are outside the corporate network, not that the
        // resolver is broken.
        if (gai_error == EAI_NONAME)
            return nsOk;
#ifdef EAI_NODATA
        if (gai_error == EAI_NODATA)
            return nsOk;
#endif
        return nsError;
    }
    // The corporate name resolves to a 10.0.0.0/8 address only from inside.
    for (const addrinfo* entry = list; entry; entry = entry->ai_next) {
        if (entry->ai_family != AF_INET || !entry->ai_addr)
            continue;
        const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ai_addr);
        if ((ntohl(address->sin_addr.s_addr) >> 24) == 10)
            return nsExcludedNetwork;
    }
    return nsOk;
}

}  // namespace detail

const char* statistic_impl_t::corporate_node_name()
{
    return USEMETER_CORPORATE_DOMAIN;
}

int get_network_status()
{
    addrinfo hints{};
    hints.ai_flags = 0;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_protocol = 17;  // UDP

    host::host_services_t& services = host::services();
    addrinfo* list = nullptr;
    const int gai_error = services.resolve(USEMETER_CORPORATE_DOMAIN, "domain", hints, &list);
    const int status = detail::classify_lookup(gai_error, gai_error == 0 ? list : nullptr);
    services.release_addresses(list);
    return status;
}

}  // namespace usemeter_1_5_7
