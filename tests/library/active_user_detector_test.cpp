// The days of use: the history file, its trimming, the verdict and the lock around the file.
#include <gtest/gtest.h>

#include <ctime>

#include "support/temp_home.hpp"
#include "usemeter/sys/active_user_detector.hpp"

using usemeter_1_5_7::active_user_detector_t;
using namespace usemeter_test;

namespace {

typedef active_user_detector_t::date_t date_t;
using dates_t = std::vector<date_t>;

// Today shifted by some days, a year back when asked, in the user's local calendar.
date_t day(int days_from_today, int years_back = 0)
{
    const std::time_t when = std::time(nullptr) + days_from_today * 86400;
    std::tm local;
    ::localtime_r(&when, &local);
    return date_t{local.tm_year + 1900 - years_back, local.tm_mon + 1, local.tm_mday};
}

std::string history_file(const temp_dir_t& dir) { return dir / "last_active_dates.xml"; }

void write_history(const temp_dir_t& dir, const dates_t& dates)
{
    std::string items;
    for (const date_t& d : dates)
        items += "<item type=\"bag\"><Y type=\"int\">" + std::to_string(d.year) + "</Y><M type=\"int\">" +
                 std::to_string(d.month) + "</M><D type=\"int\">" + std::to_string(d.day) + "</D></item>";
    write_file(history_file(dir), "<bag>" + items + "</bag>");
}

// The saved days as "Y-M-D" texts, as a new detector loads them.
std::vector<std::string> saved_days(const temp_dir_t& dir, const dates_t& dates = {})
{
    std::vector<std::string> days;
    const dates_t shown = dates.empty() ? active_user_detector_t(dir.path()).history() : dates;
    for (const date_t& d : shown)
        days.push_back(std::to_string(d.year) + "-" + std::to_string(d.month) + "-" + std::to_string(d.day));
    return days;
}

// Today is added once, the history trimmed to the last four days; a file is written only when
// something changed.
TEST(active_user_detector, records_each_day_once_keeps_four_and_writes_only_changes)
{
    temp_dir_t dir;
    { active_user_detector_t untouched(dir.path()); }
    EXPECT_FALSE(file_exists(history_file(dir)));
    write_history(dir, {day(-5, 1), day(-5), day(-4), day(-3), day(-2), day(-1)});
    {
        active_user_detector_t detector(dir.path());
        detector.notify_activity();
        detector.notify_activity();
        EXPECT_TRUE(detector.is_active_user());
    }
    EXPECT_EQ(saved_days(dir), saved_days(dir, {day(-3), day(-2), day(-1), day(0)}));
    EXPECT_FALSE(file_exists(dir / "last_active_dates.lock"));
    write_history(dir, {day(-1), day(0)});  // saving would have changed the layout
    const std::string before = read_file(history_file(dir));
    { active_user_detector_t detector(dir.path()); detector.notify_activity(); }
    EXPECT_EQ(read_file(history_file(dir)), before);
}

TEST(active_user_detector, verdict_needs_four_days_the_oldest_strictly_within_a_year)
{
    const std::pair<dates_t, bool> rows[] = {
        {{day(-3), day(-2), day(-1)}, false},
        {{day(-4), day(-3), day(-2), day(-1)}, true},
        {{day(0, 1), day(-3), day(-2), day(-1)}, false},  // the oldest exactly a year ago
        {{day(1, 1), day(-3), day(-2), day(-1)}, true},
        {{day(-5, 1), day(-5), day(-4), day(-3), day(-2), day(-1)}, false},  // the first decides
    };
    for (const auto& row : rows) {
        temp_dir_t dir;
        write_history(dir, row.first);
        EXPECT_EQ(active_user_detector_t(dir.path()).is_active_user(), row.second) << &row - rows;
    }
}

TEST(active_user_detector, bad_items_are_dropped_and_bad_files_start_afresh)
{
    temp_dir_t dir;
    const std::string files[] = {
        "<bag><item type=\"bag\"><Y type=\"int\">2026</Y><M type=\"string\">1</M><D type=\"int\">1</D>"
        "</item><item type=\"bag\"><Y type=\"int\">2026</Y><D type=\"int\">1</D></item></bag>",
        "<bag><item", std::string("\0\1\2", 3),
    };
    for (const std::string& content : files) {
        write_file(history_file(dir), content);
        { active_user_detector_t detector(dir.path()); detector.notify_activity(); }
        EXPECT_EQ(saved_days(dir).size(), 1u);
    }
}

TEST(active_user_detector, a_stale_lock_or_missing_directory_costs_the_days_but_never_hangs)
{
    temp_dir_t dir;
    write_history(dir, {day(-4), day(-3), day(-2), day(-1)});
    write_file(dir / "last_active_dates.lock", "");
    const std::string before = read_file(history_file(dir));
    {
        active_user_detector_t detector(dir.path());
        EXPECT_FALSE(detector.is_active_user());  // not loaded
        detector.notify_activity();
        EXPECT_TRUE(detector.save());  // true means failure
    }
    EXPECT_EQ(read_file(history_file(dir)), before);
    active_user_detector_t elsewhere(dir / "missing");
    EXPECT_FALSE(elsewhere.save());  // nothing to write is no failure
    elsewhere.notify_activity();
    EXPECT_TRUE(elsewhere.save());
}

}  // namespace
