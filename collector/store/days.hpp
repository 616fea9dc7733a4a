// UTC days, the collector's one calendar: a hit counts for the UTC day it was received, and the
// reports count days and ISO weeks from 1970-01-01.
#ifndef USEMETER_COLLECTOR_DAYS_HPP
#define USEMETER_COLLECTOR_DAYS_HPP

#include <cstdint>
#include <string>

namespace usemeter_collector {

// "YYYY-MM-DD" of a UTC instant.
std::string utc_day(std::int64_t seconds);
// Days since 1970-01-01 of a UTC instant (the number of utc_day's day).
std::int64_t instant_day_number(std::int64_t seconds);
// "YYYY-MM-DDTHH:MM:SSZ"
std::string utc_timestamp(std::int64_t seconds);
// True for "YYYY-MM-DD" naming a day that exists (no 30 February).
bool is_day(const std::string& text);
// Days since 1970-01-01 of a day is_day accepts, and back.
std::int64_t day_number(const std::string& day);
std::string day_text(std::int64_t number);
// The Monday that starts the ISO week of a day number.
std::int64_t monday_of(std::int64_t day);

}  // namespace usemeter_collector

#endif
