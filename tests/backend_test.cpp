// The backend's parts below the wire: the feature-name grammar and the days of use.
#include <gtest/gtest.h>

#include <ctime>

#include "support/temp_home.hpp"
#include "usemeter/statistic.hpp"
#include "usemeter/sys/active_user_detector.hpp"

using usemeter_1_5_7::active_user_detector_t;
using namespace usemeter_test;

namespace {

typedef active_user_detector_t::date_t date_t;

// Today shifted by some days, a year back when asked, in the user's local calendar.
date_t day(int days_from_today, int years_back = 0)
{
    const std::time_t when = std::time(nullptr) + days_from_today * 86400;
    std::tm local;
    ::localtime_r(&when, &local);
    return date_t{local.tm_year + 1900 - years_back, local.tm_mon + 1, local.tm_mday};
}

std::string history_file(const temp_dir_t& dir) { return dir / "last_active_dates.xml"; }

std::string text(const date_t& d)
{
    return std::to_string(d.year) + "-" + std::to_string(d.month) + "-" + std::to_string(d.day);
}

void write_history(const temp_dir_t& dir, const std::vector<date_t>& dates)
{
    std::string items;
    for (const date_t& d : dates)
        items += "<item type=\"bag\"><Y type=\"int\">" + std::to_string(d.year) +
                 "</Y><M type=\"int\">" + std::to_string(d.month) + "</M><D type=\"int\">" +
                 std::to_string(d.day) + "</D></item>";
    write_file(history_file(dir), "<bag>" + items + "</bag>");
}

// The saved days as "Y-M-D" texts, as a new detector loads them.
std::vector<std::string> saved_days(const temp_dir_t& dir)
{
    std::vector<std::string> days;
    const active_user_detector_t detector(dir.path());
    for (const date_t& d : detector.history())
        days.push_back(text(d));
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
    EXPECT_EQ(saved_days(dir), (std::vector<std::string>{text(day(-3)), text(day(-2)),
                                                         text(day(-1)), text(day(0))}));
    EXPECT_FALSE(file_exists(dir / "last_active_dates.lock"));
    write_history(dir, {day(-1), day(0)});  // saving would have changed the layout
    const std::string before = read_file(history_file(dir));
    { active_user_detector_t detector(dir.path()); detector.notify_activity(); }
    EXPECT_EQ(read_file(history_file(dir)), before);
}

TEST(active_user_detector, verdict_needs_four_days_the_oldest_strictly_within_a_year)
{
    const struct {
        const char* name;
        std::vector<date_t> history;
        bool active;
    } cases[] = {
        {"three recent days", {day(-3), day(-2), day(-1)}, false},
        {"four recent days", {day(-4), day(-3), day(-2), day(-1)}, true},
        {"oldest exactly a year ago", {day(0, 1), day(-3), day(-2), day(-1)}, false},
        {"oldest a year ago plus a day", {day(1, 1), day(-3), day(-2), day(-1)}, true},
        {"six items, the first decides",
         {day(-5, 1), day(-5), day(-4), day(-3), day(-2), day(-1)}, false},
    };
    for (const auto& c : cases) {
        temp_dir_t dir;
        write_history(dir, c.history);
        EXPECT_EQ(active_user_detector_t(dir.path()).is_active_user(), c.active) << c.name;
    }
}

TEST(active_user_detector, bad_items_are_dropped_and_bad_files_start_afresh)
{
    temp_dir_t dir;
    const std::string files[] = {
        "<bag><item type=\"bag\"><Y type=\"int\">2026</Y><M type=\"string\">1</M>"
        "<D type=\"int\">1</D></item>"
        "<item type=\"bag\"><Y type=\"int\">2026</Y><D type=\"int\">1</D></item></bag>",
        "<bag><item",
        std::string("\0\1\2", 3),
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

TEST(feature_name, grammar_accepts_dotted_words_only)
{
    const char* valid[] = {"gui.start", "analysis_type.hotspots", "a", "A1.b2.C3", "100%.done", "_", "%"};
    for (const char* name : valid)
        EXPECT_TRUE(usemeter::statistic_t::is_feature_name_valid(name)) << name;

    const std::string invalid[] = {
        "", ".", "a.", ".a", "a..b", "a b", "a-b", "a.b ", " a", "a/b", "a:b",
        "caf\xc3\xa9", "\xff", std::string("a\0b", 3), "a.b\n",
    };
    for (const std::string& name : invalid)
        EXPECT_FALSE(usemeter::statistic_t::is_feature_name_valid(name)) << name;
}

}  // namespace
