// Internals of the corporate-network test, exposed for the tests.
#ifndef USEMETER_NETWORK_STATUS_DETAIL_HPP
#define USEMETER_NETWORK_STATUS_DETAIL_HPP

#include <netdb.h>

namespace usemeter_1_5_7 {
namespace detail {

// Classifies the outcome of one look-up: gai_error is getaddrinfo's result and list its
// answer (null on failure). Returns a network_status_t value.
int classify_lookup(int gai_error, const addrinfo* list);

}  // namespace detail
}  // namespace usemeter_1_5_7

#endif
