#include "collector/store/hit.hpp"

#include <cctype>
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
    const int year = std::stoi(text.substr(0, 4));
    const int month = std::stoi(text.substr(5, 2));
    const int day = std::stoi(text.substr(8, 2));
    if (month < 1 || month > 12 || day < 1)
        return false;
    static const int month_days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return day <= month_days[month - 1] + (month == 2 && leap ? 1 : 0);
}

const char* const export_csv_header = "received,tid,cid,an,av,cd1,cd2,cd3,ec,el\n";

std::string spreadsheet_safe(const std::string& text)
{
    if (!text.empty() && std::string("=+-@\t\r").find(text[0]) != std::string::npos)
        return "'" + text;
    return text;
}

// RFC 4180: quoted only when the field holds a separator, a quote or a line break.
void write_csv_field(std::ostream& out, const std::string& unsafe)
{
    const std::string field = spreadsheet_safe(unsafe);
    if (field.find_first_of(",\"\r\n") == std::string::npos) {
        out << field;
        return;
    }
    out << '"';
    for (char c : field)
        out << (c == '"' ? "\"\"" : std::string(1, c));
    out << '"';
}

}  // namespace usemeter_collector
