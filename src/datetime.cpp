#include "usemeter/sys/datetime.hpp"

#include <cstdio>
#include <sys/stat.h>

#include "host/host_services.hpp"

namespace usemeter_1_5_7 {

namespace {

const std::size_t canonical_length = 20;  // YYYY-MM-DDTHH:MM:SSZ

}  // namespace

datetime_t::datetime_t() : tm_(), time_(-1)
{
}

datetime_t datetime_t::from_tm(std::tm broken_down)
{
    datetime_t value;
    // timegm also normalises the fields (a 31st of April becomes the 1st of May).
    value.time_ = ::timegm(&broken_down);
    value.tm_ = broken_down;
    return value;
}

datetime_t datetime_t::now()
{
    const std::time_t clock = host::services().now();
    std::tm broken_down = {};
    ::gmtime_r(&clock, &broken_down);
    return from_tm(broken_down);
}

datetime_t datetime_t::parse(const std::string& text)
{
    if (text.size() > canonical_length)
        return datetime_t();
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    // The widths are maxima, so unpadded fields pass; the closing Z is never checked.
    if (std::sscanf(text.c_str(), "%04d-%02d-%02dT%02d:%02d:%02dZ", &year, &month, &day, &hour,
                    &minute, &second) != 6)
        return datetime_t();
    std::tm broken_down = {};
    broken_down.tm_year = year - 1900;
    broken_down.tm_mon = month - 1;
    broken_down.tm_mday = day;
    broken_down.tm_hour = hour;
    broken_down.tm_min = minute;
    broken_down.tm_sec = second;
    const datetime_t value = from_tm(broken_down);
    return value.time_ == -1 ? datetime_t() : value;
}

datetime_t datetime_t::file_time(const std::string& path)
{
    struct stat info;
    std::tm broken_down = {};
    if (::stat(path.c_str(), &info) != 0 || !::gmtime_r(&info.st_mtime, &broken_down))
        return datetime_t();
    return from_tm(broken_down);
}

std::string datetime_t::as_string() const
{
    char text[96];
    std::snprintf(text, sizeof text, "%04lld-%02d-%02dT%02d:%02d:%02dZ",
                  static_cast<long long>(tm_.tm_year) + 1900, tm_.tm_mon + 1, tm_.tm_mday,
                  tm_.tm_hour, tm_.tm_min, tm_.tm_sec);
    return text;
}

bool datetime_t::is_valid() const
{
    if (time_ == -1)
        return false;
    std::tm copy = tm_;
    return ::timegm(&copy) != -1;
}

bool datetime_t::operator==(const datetime_t& other) const
{
    return time_ == other.time_;
}

bool datetime_t::operator!=(const datetime_t& other) const
{
    return time_ != other.time_;
}

bool datetime_t::operator>(const datetime_t& other) const
{
    return time_ > other.time_;
}

bool datetime_t::operator<(const datetime_t& other) const
{
    return time_ < other.time_;
}

}  // namespace usemeter_1_5_7
