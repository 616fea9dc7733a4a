// The days of use: the history file, its trimming, the verdict and the lock around the file.
#include "library/library_test.hpp"

using usemeter_1_5_7::active_user_detector_t;
using namespace usemeter_test;

namespace {

using dates_t = std::vector<date_t>;

// The days as "Y-M-D" texts; without dates, those a new detector loads from dir.
strings_t days(const temp_dir_t& dir, dates_t dates = {})
{
    strings_t out;
    if (dates.empty())
        dates = active_user_detector_t(dir.path()).history();
    for (const date_t& d : dates)
        out.push_back(std::to_string(d.year) + "-" + std::to_string(d.month) + "-" + std::to_string(d.day));
    return out;
}

// Today is added once, four days kept; written only on change. Bad items dropped, bad files reset.
TEST(active_user_detector, records_each_day_once_keeps_four_and_writes_only_changes)
{
    temp_dir_t dir;
    const std::string file = dir / "last_active_dates.xml";
    write_file(file, history_xml({day(-5, 1), day(-5), day(-4), day(-3), day(-2), day(-1)}));
    {
        active_user_detector_t detector(dir.path());
        detector.notify_activity();
        detector.notify_activity();
        EXPECT_TRUE(detector.is_active_user());
    }
    EXPECT_EQ(days(dir), days(dir, {day(-3), day(-2), day(-1), day(0)}));
    EXPECT_FALSE(file_exists(dir / "last_active_dates.lock"));
    const std::pair<std::string, std::size_t> rows[] = {  // content, days afterwards
        {"<bag><item type=\"bag\"><Y type=\"int\">2026</Y><M type=\"string\">1</M><D type=\"int\">1"
         "</D></item><item type=\"bag\"><Y type=\"int\">2026</Y><D type=\"int\">1</D></item></bag>", 1},
        {"<bag><item", 1}, {std::string("\0\1\2", 3), 1}, {history_xml({day(-1), day(0)}), 2},
    };
    for (const auto& row : rows) {
        write_file(file, row.first);
        { active_user_detector_t detector(dir.path()); detector.notify_activity(); }
        EXPECT_EQ(days(dir).size(), row.second);
        EXPECT_TRUE(row.second == 1 || read_file(file) == row.first) << "saving changes the layout";
    }
}

// A stale lock costs the days (not loaded, not saved) but never hangs; so does a missing directory.
TEST(active_user_detector, verdict_needs_four_days_within_a_year_and_a_stale_lock_costs_them)
{
    const dates_t four = {day(-4), day(-3), day(-2), day(-1)};
    const struct { dates_t dates; bool active, locked = false; } rows[] = {
        {{day(-3), day(-2), day(-1)}, false}, {four, true}, {four, false, true},
        {{day(0, 1), day(-3), day(-2), day(-1)}, false},  // the oldest exactly a year ago
        {{day(1, 1), day(-3), day(-2), day(-1)}, true},
        {{day(-5, 1), day(-5), day(-4), day(-3), day(-2), day(-1)}, false},  // the first decides
    };
    for (const auto& row : rows) {
        temp_dir_t dir;
        write_file(dir / "last_active_dates.xml", history_xml(row.dates));
        if (row.locked)
            write_file(dir / "last_active_dates.lock", "");
        active_user_detector_t detector(dir.path());
        EXPECT_EQ(detector.is_active_user(), row.active) << &row - rows;
        detector.notify_activity();
        EXPECT_EQ(detector.save(), row.locked) << "true means failure";
        EXPECT_TRUE(!row.locked || read_file(dir / "last_active_dates.xml") == history_xml(row.dates));
    }
    const temp_dir_t dir;
    active_user_detector_t elsewhere(dir / "missing");
    EXPECT_FALSE(elsewhere.save());  // nothing to write is no failure
    elsewhere.notify_activity();
    EXPECT_TRUE(elsewhere.save());
}

}  // namespace
