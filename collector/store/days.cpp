#include "collector/store/days.hpp"

#include <cctype>
#include <cstdio>
#include <ctime>

namespace usemeter_collector {

namespace {

std::string format_utc(std::int64_t seconds, const char* format)
{
    const std::time_t time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    gmtime_r(&time, &parts);
    char text[32];
    return std::string(text, std::strftime(text, sizeof text, format, &parts));
}

}  // namespace

std::string utc_day(std::int64_t seconds)
{
    return format_utc(seconds, "%Y-%m-%d");
}

std::int64_t instant_day_number(std::int64_t seconds)
{
    return seconds / 86400 - (seconds % 86400 < 0 ? 1 : 0);
}

std::string utc_timestamp(std::int64_t seconds)
{
    return format_utc(seconds, "%Y-%m-%dT%H:%M:%SZ");
}

bool is_day(const std::string& text)
{
    if (text.size() != 10 || text[4] != '-' || text[7] != '-')
        return false;
    for (std::size_t i : {0, 1, 2, 3, 5, 6, 8, 9})
        if (!std::isdigit(static_cast<unsigned char>(text[i])))
            return false;
    // A day that does not exist comes back as another one (2026-02-30 as 2026-03-02).
    return day_text(day_number(text)) == text;
}

std::int64_t day_number(const std::string& day)
{
    // Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's days_from_civil).
    std::int64_t y = std::stoll(day.substr(0, 4));
    const std::int64_t m = std::stoll(day.substr(5, 2)), d = std::stoll(day.substr(8, 2));
    y -= m <= 2;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const std::int64_t yoe = y - era * 400;
    const std::int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

std::string day_text(std::int64_t number)
{
    // The inverse (civil_from_days), in integers: no time_t, so no 2038 on 32-bit systems.
    const std::int64_t z = number + 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const std::int64_t doe = z - era * 146097;
    const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const std::int64_t mp = (5 * doy + 2) / 153;
    const std::int64_t d = doy - (153 * mp + 2) / 5 + 1;
    const std::int64_t m = mp < 10 ? mp + 3 : mp - 9;
    const std::int64_t y = yoe + era * 400 + (m <= 2);
    char text[64];  // room for any int64 the compiler imagines; real days take 10
    std::snprintf(text, sizeof text, "%04lld-%02lld-%02lld", static_cast<long long>(y),
                  static_cast<long long>(m), static_cast<long long>(d));
    return text;
}

std::int64_t monday_of(std::int64_t day)
{
    // 1970-01-01 was a Thursday: day 0 is 3 days after its week's Monday.
    return day - ((day + 3) % 7 + 7) % 7;
}

}  // namespace usemeter_collector
