#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <sys/time.h>

#include "support/temp_home.hpp"
#include "usemeter/datetime.hpp"

namespace {

using usemeter_1_5_7::datetime_t;

struct parse_case {
    const char* text;
    const char* printed;  // "" when the value is invalid
};

TEST(datetime, parse_prints_back_normalised_and_refuses_what_does_not_scan)
{
    const parse_case cases[] = {
        {"2015-06-30T23:59:59Z", "2015-06-30T23:59:59Z"},
        {"1970-01-01T00:00:00Z", "1970-01-01T00:00:00Z"},
        {"2024-3-7T5:6:9Z", "2024-03-07T05:06:09Z"},          // widths are maxima
        {"2015-06-30T23:59:59X", "2015-06-30T23:59:59Z"},     // the Z is never checked
        {"2015-06-30T23:59:59", "2015-06-30T23:59:59Z"},
        {"2015-02-30T00:00:00Z", "2015-03-02T00:00:00Z"},     // normalised like timegm
        {"2015-04-31T00:00:00Z", "2015-05-01T00:00:00Z"},
        {"2015-13-01T00:00:00Z", "2016-01-01T00:00:00Z"},
        {"2015-00-10T00:00:00Z", "2014-12-10T00:00:00Z"},
        {"2015-06-30T24:00:60Z", "2015-07-01T00:01:00Z"},
        {"2016-02-29T12:00:00Z", "2016-02-29T12:00:00Z"},
        {"1969-12-31T23:59:58Z", "1969-12-31T23:59:58Z"},
        {"1969-12-31T23:59:59Z", ""},                         // epoch time -1 is the invalid mark
        {"2015-06-30T23:59:59Z ", ""},                        // 21 characters
        {"02015-06-30T23:59:59Z", ""},
        {"2015-06-30T23:59", ""},                             // five fields
        {"2015/06/30T23:59:59Z", ""},
        {"hello", ""},
        {"", ""},
    };
    for (const parse_case& c : cases) {
        const datetime_t value = datetime_t::parse(c.text);
        const bool valid = *c.printed != '\0';
        EXPECT_EQ(value.is_valid(), valid) << c.text;
        EXPECT_EQ(value.as_string(), valid ? c.printed : "1900-01-00T00:00:00Z") << c.text;
        if (valid)
            EXPECT_EQ(datetime_t::parse(value.as_string()), value) << c.text;
        else
            EXPECT_EQ(value, datetime_t()) << c.text;
    }
}

TEST(datetime, times_after_2038_depend_on_the_width_of_time_t)
{
    const datetime_t last_32 = datetime_t::parse("2038-01-19T03:14:07Z");
    const datetime_t first_after = datetime_t::parse("2038-01-19T03:14:08Z");
    EXPECT_TRUE(last_32.is_valid());
    if (sizeof(std::time_t) == 4) {
        // One second past the largest signed 32-bit time cannot be represented.
        EXPECT_FALSE(first_after.is_valid());
        EXPECT_EQ(first_after.as_string(), "1900-01-00T00:00:00Z");
    } else {
        EXPECT_TRUE(first_after.is_valid());
        EXPECT_EQ(first_after.as_string(), "2038-01-19T03:14:08Z");
        EXPECT_GT(first_after, last_32);
        EXPECT_EQ(datetime_t::parse("9999-12-31T23:59:59Z").as_string(), "9999-12-31T23:59:59Z");
    }
}

TEST(datetime, comparisons_use_the_epoch_time_only)
{
    const datetime_t invalid;
    const datetime_t before_epoch = datetime_t::parse("1969-12-31T23:59:58Z");
    const datetime_t epoch = datetime_t::parse("1970-01-01T00:00:00Z");
    const datetime_t later = datetime_t::parse("2015-06-30T23:59:59Z");
    const datetime_t same_instant = datetime_t::parse("2015-06-30T23:59:59Q");

    EXPECT_TRUE(later == same_instant);
    EXPECT_FALSE(later != same_instant);
    EXPECT_TRUE(later > epoch && epoch < later);
    EXPECT_FALSE(later < epoch || epoch > later || later > same_instant);
    EXPECT_TRUE(invalid == datetime_t::parse("hello"));
    EXPECT_TRUE(invalid < epoch && invalid < later);
    EXPECT_TRUE(before_epoch < invalid);  // -2 < -1: only times after 1970 sort above it
    EXPECT_EQ(datetime_t::parse("2015-02-30T00:00:00Z"), datetime_t::parse("2015-03-02T00:00:00Z"));
}

TEST(datetime, now_is_utc_whatever_the_time_zone)
{
    usemeter_test::scoped_env_t zone("TZ", "ABC-10");
    ::tzset();
    auto format = [](std::time_t clock) {
        std::tm fields = {};
        ::gmtime_r(&clock, &fields);
        char text[32];
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &fields);
        return std::string(text);
    };
    const std::string before = format(std::time(nullptr));
    const datetime_t now = datetime_t::now();
    const std::string after = format(std::time(nullptr));
    EXPECT_TRUE(now.is_valid());
    EXPECT_LE(before, now.as_string());
    EXPECT_GE(after, now.as_string());
}

TEST(datetime, file_time_is_the_modification_time_in_utc)
{
    usemeter_test::temp_dir_t dir;
    const std::string file = dir / "stamped";
    usemeter_test::write_file(file, "x");
    const timeval stamps[2] = {{0, 0}, {1435708799, 0}};
    ASSERT_EQ(::utimes(file.c_str(), stamps), 0);

    const datetime_t stamped = datetime_t::file_time(file);
    EXPECT_TRUE(stamped.is_valid());
    EXPECT_EQ(stamped.as_string(), "2015-06-30T23:59:59Z");
    EXPECT_EQ(stamped, datetime_t::parse("2015-06-30T23:59:59Z"));
    EXPECT_FALSE(datetime_t::file_time(dir / "missing").is_valid());
    EXPECT_FALSE(datetime_t::file_time("").is_valid());
}

}  // namespace
