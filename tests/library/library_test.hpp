// What the library's test files share: doubles, log capture, the units' headers, days-of-use files.
#ifndef USEMETER_TESTS_LIBRARY_TEST_HPP
#define USEMETER_TESTS_LIBRARY_TEST_HPP

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <ctime>
#include <functional>
#include <optional>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

#include "prodenv/fixed_locations.hpp"
#include "support/fake_tool.hpp"
#include "support/host_double.hpp"
#include "support/loopback_user.hpp"
#include "tracelog/log_capture.hpp"
#include "usemeter/orb_accessor.hpp"
#include "usemeter/statistic.hpp"
#include "usemeter/sys/active_user_detector.hpp"
#include "usemeter/sys/statistic_impl_ga.hpp"

namespace usemeter_test {

using namespace std::chrono_literals;
using tracelog::log_capture_t;
using strings_t = std::vector<std::string>;
using usemeter_1_5_7::orb_accessor_impl_t;
using usemeter_1_5_7::statistic_impl_ga_t;
using date_t = usemeter_1_5_7::active_user_detector_t::date_t;

const orb_accessor_impl_t::orb_tool_t monitor = orb_accessor_impl_t::tool_remote_monitor;
const char* const monitor_in_home = "norvel/orb/bin/ia32/norvelremotemon";
const char* const history_in_home = "norvel/trovix/settings/statistic/last_active_dates.xml";

// A fake tool's body that writes content to the exchange file named after "-u", only while its lock is held.
inline std::string writing_uuid(const std::string& content)
{ return on_argument("-u", "[ -e \"${2%.txt}.lock\" ] && printf %s " + shell_quote(content) + " > \"$2\""); }

inline bool has(const std::string& text, const std::string& part) { return text.find(part) != text.npos; }

// Today shifted by some days, a year back when asked, in the user's local calendar.
inline date_t day(int days_from_today, int years_back = 0)
{
    const std::time_t when = std::time(nullptr) + days_from_today * 86400;
    std::tm local;
    ::localtime_r(&when, &local);
    return date_t{local.tm_year + 1900 - years_back, local.tm_mon + 1, local.tm_mday};
}

// A days-of-use file as the detector saves it.
inline std::string history_xml(const std::vector<date_t>& dates)
{
    std::string items;
    for (const date_t& d : dates)
        items += "<item type=\"bag\"><Y type=\"int\">" + std::to_string(d.year) + "</Y><M type=\"int\">" +
                 std::to_string(d.month) + "</M><D type=\"int\">" + std::to_string(d.day) + "</D></item>";
    return "<bag>" + items + "</bag>";
}

}  // namespace usemeter_test

#endif
