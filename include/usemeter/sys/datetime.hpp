// Advanced interface: for tools and embedders that need the library's internals; hosts use the
// public headers one level up.
// A UTC calendar time with one-second resolution and the text form YYYY-MM-DDTHH:MM:SSZ.
#ifndef USEMETER_DATETIME_HPP
#define USEMETER_DATETIME_HPP

#include <ctime>
#include <string>

#include "usemeter/export.h"

namespace usemeter_1_5_7 {

class USEMETER_API datetime_t {
public:
    // The invalid value: all calendar fields zero, epoch time -1.
    datetime_t();

    static datetime_t now();
    // Invalid when text is longer than 20 characters or does not scan.
    static datetime_t parse(const std::string& text);
    // The file's modification time, or invalid when it cannot be stat'ed.
    static datetime_t file_time(const std::string& path);

    // No validity test: the invalid value prints as 1900-01-00T00:00:00Z.
    std::string as_string() const;
    bool is_valid() const;

    // Compare epoch times only.
    bool operator==(const datetime_t& other) const;
    bool operator!=(const datetime_t& other) const;
    bool operator>(const datetime_t& other) const;
    bool operator<(const datetime_t& other) const;

private:
    static datetime_t from_tm(std::tm broken_down);

    std::tm tm_;
    std::time_t time_;
};

}  // namespace usemeter_1_5_7

#endif
