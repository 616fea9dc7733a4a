// Internals of the active-user detector, shared with its tests.
#ifndef USEMETER_SRC_ACTIVE_USER_DETECTOR_DETAIL_HPP
#define USEMETER_SRC_ACTIVE_USER_DETECTOR_DETAIL_HPP

namespace basekit {
class variant_bag_t;
}

namespace usemeter_1_5_7 {

// Reads one numeric value of a bag as a 32-bit integer; false (out unchanged) when the
// value is missing or not a number.
bool getVariantInt(const basekit::variant_bag_t& bag, const char* name, int* out);

}  // namespace usemeter_1_5_7

#endif
