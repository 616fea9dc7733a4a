#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <sys/time.h>

#include "support/temp_home.hpp"
#include "usemeter/sys/datetime.hpp"

namespace {

using usemeter_1_5_7::datetime_t;
const char* const invalid_text = "1900-01-00T00:00:00Z";

// One second past the largest signed 32-bit time exists only where time_t is wider.
TEST(datetime, parse_prints_back_normalised_and_refuses_what_does_not_scan)
{
    const char* const after_2038 = sizeof(std::time_t) > 4 ? "2038-01-19T03:14:08Z" : "";
    const std::pair<const char*, const char*> rows[] = {  // text, printed ("" when invalid)
        {"2015-06-30T23:59:59Z", "2015-06-30T23:59:59Z"},
        {"1970-01-01T00:00:00Z", "1970-01-01T00:00:00Z"},
        {"2024-3-7T5:6:9Z", "2024-03-07T05:06:09Z"},       // widths are maxima
        {"2015-06-30T23:59:59X", "2015-06-30T23:59:59Z"},  // the Z is never checked
        {"2015-06-30T23:59:59", "2015-06-30T23:59:59Z"},
        {"2015-02-30T00:00:00Z", "2015-03-02T00:00:00Z"},  // normalised like timegm
        {"2015-00-10T00:00:00Z", "2014-12-10T00:00:00Z"},
        {"2015-06-30T24:00:60Z", "2015-07-01T00:01:00Z"},
        {"1969-12-31T23:59:58Z", "1969-12-31T23:59:58Z"},
        {"1969-12-31T23:59:59Z", ""},  // epoch time -1 is the invalid mark
        {"2038-01-19T03:14:07Z", "2038-01-19T03:14:07Z"},
        {"2038-01-19T03:14:08Z", after_2038},
        {"2015-06-30T23:59:59Z ", ""},  // 21 characters
        {"2015-06-30T23:59", ""},       // five fields
        {"2015/06/30T23:59:59Z", ""},
        {"", ""},
    };
    for (const auto& row : rows) {
        const datetime_t value = datetime_t::parse(row.first);
        EXPECT_EQ(value.is_valid(), *row.second != '\0') << row.first;
        EXPECT_EQ(value.as_string(), *row.second ? row.second : invalid_text) << row.first;
        EXPECT_EQ(value, *row.second ? datetime_t::parse(row.second) : datetime_t()) << row.first;
    }
}

TEST(datetime, comparisons_use_the_epoch_time_only)
{
    const datetime_t invalid, epoch = datetime_t::parse("1970-01-01T00:00:00Z");
    const datetime_t later = datetime_t::parse("2015-06-30T23:59:59Z");
    const datetime_t same_instant = datetime_t::parse("2015-06-30T23:59:59Q");
    EXPECT_TRUE(later == same_instant && !(later != same_instant) && later > epoch);
    EXPECT_FALSE(later < epoch || epoch > later || later > same_instant || later < same_instant);
    const datetime_t before_invalid = datetime_t::parse("1969-12-31T23:59:58Z");  // -2 < -1
    EXPECT_TRUE(epoch < later && invalid < epoch && before_invalid < invalid);
}

TEST(datetime, now_and_file_time_are_utc_whatever_the_time_zone)
{
    usemeter_test::scoped_env_t zone("TZ", "ABC-10");
    ::tzset();
    const auto utc = [](std::time_t clock) {
        std::tm fields = {};
        char text[32];
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", ::gmtime_r(&clock, &fields));
        return std::string(text);
    };
    const std::string before = utc(std::time(nullptr));
    const std::string now = datetime_t::now().as_string();
    EXPECT_TRUE(before <= now && now <= utc(std::time(nullptr))) << now;

    usemeter_test::temp_dir_t dir;
    usemeter_test::write_file(dir / "stamped", "x");
    const timeval stamps[2] = {{0, 0}, {1435708799, 0}};
    ASSERT_EQ(::utimes((dir / "stamped").c_str(), stamps), 0);
    EXPECT_EQ(datetime_t::file_time(dir / "stamped"), datetime_t::parse("2015-06-30T23:59:59Z"));
    EXPECT_EQ(datetime_t::file_time(dir / "stamped").as_string(), "2015-06-30T23:59:59Z");
    EXPECT_FALSE(datetime_t::file_time(dir / "missing").is_valid());
}

}  // namespace
