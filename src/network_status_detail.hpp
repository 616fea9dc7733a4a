// Internals of the corporate-network test, exposed for the tests.
#ifndef USEMETER_NETWORK_STATUS_DETAIL_HPP
#define USEMETER_NETWORK_STATUS_DETAIL_HPP

#include <netdb.h>

namespace usemeter_1_5_7 {
namespace detail {

// Classifies the outcome of one look-up: gai_error is getaddrinfo's result and list its
// answer (null on failure). Returns a network_status_t value.
int classify_lookup(int gai_error, const addrinfo* list);

// Resolves node with the service "domain" over UDP and classifies the answer.
int get_network_status_for(const char* node);

// The node get_network_status() resolves; USEMETER_CORPORATE_DOMAIN unless a test points
// it elsewhere (a numeric address resolves without asking any DNS server).
extern const char* corporate_node_name;

// The resolver call; ::getaddrinfo unless a test replaces it. A replacement returns
// either an error with no list or a list that ::freeaddrinfo may release.
using lookup_fn = int (*)(const char* node, const char* service, const addrinfo* hints,
                          addrinfo** result);
extern lookup_fn lookup;

}  // namespace detail
}  // namespace usemeter_1_5_7

#endif
