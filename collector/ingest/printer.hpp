// --print: each hit request decoded for a person, with the meaning of every parameter and
// a flag wherever the request goes past the protocol's limits.
#ifndef USEMETER_COLLECTOR_PRINTER_HPP
#define USEMETER_COLLECTOR_PRINTER_HPP

#include <cstddef>
#include <string>

#include "collector/collector.hpp"

namespace usemeter_collector {

std::string describe_hit_request(const hit_request_t& request, std::size_t number);

}  // namespace usemeter_collector

#endif
