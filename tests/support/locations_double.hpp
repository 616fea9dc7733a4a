// Kept for existing includes: the fixed service is the platform's own.
#ifndef USEMETER_TESTS_LOCATIONS_DOUBLE_HPP
#define USEMETER_TESTS_LOCATIONS_DOUBLE_HPP
#include "prodenv/fixed_locations.hpp"
namespace usemeter_test {
using locations_double_t = prodenv::fixed_locations_t;
}  // namespace usemeter_test
#endif
