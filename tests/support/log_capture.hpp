// Kept for existing includes: the capture is the logging unit's own.
#ifndef USEMETER_TESTS_LOG_CAPTURE_HPP
#define USEMETER_TESTS_LOG_CAPTURE_HPP
#include "tracelog/log_capture.hpp"
namespace usemeter_test {
using tracelog::log_capture_t;
using tracelog::log_record_t;
}  // namespace usemeter_test
#endif
