#include <gtest/gtest.h>

#include <ctime>

#include "active_user_detector_detail.hpp"
#include "basekit/variant_bag.hpp"
#include "support/temp_home.hpp"
#include "usemeter/active_user_detector.hpp"

using usemeter_1_5_7::active_user_detector_t;
using usemeter_test::file_exists;
using usemeter_test::temp_dir_t;
using usemeter_test::write_file;

namespace {

typedef active_user_detector_t::date_t date_t;

date_t today_plus(int days)
{
    std::time_t when = std::time(nullptr) + days * 86400;
    std::tm local;
    ::localtime_r(&when, &local);
    return date_t{local.tm_year + 1900, local.tm_mon + 1, local.tm_mday};
}

date_t year_ago_plus(int days)
{
    date_t day = today_plus(days);
    day.year -= 1;
    return day;
}

void write_history(const std::string& dir, const std::vector<date_t>& dates)
{
    basekit::variant_bag_t bag;
    for (const date_t& d : dates) {
        basekit::variant_bag_t& item = bag.add_bag("item");
        item.put("Y", basekit::variant_t(d.year));
        item.put("M", basekit::variant_t(d.month));
        item.put("D", basekit::variant_t(d.day));
    }
    ASSERT_EQ(basekit::save_variant_bag2(bag, dir + "/last_active_dates.xml", "bag"), 1);
}

std::vector<date_t> read_history(const std::string& dir)
{
    basekit::variant_bag_t bag;
    std::vector<date_t> dates;
    if (basekit::load_variant_bag2(bag, dir + "/last_active_dates.xml", "bag", false) != 1)
        return dates;
    for (auto it = bag.begin_by_name("item"); !it.at_end(); it.next()) {
        date_t d{};
        usemeter_1_5_7::getVariantInt(it.get_value(), "Y", &d.year);
        usemeter_1_5_7::getVariantInt(it.get_value(), "M", &d.month);
        usemeter_1_5_7::getVariantInt(it.get_value(), "D", &d.day);
        dates.push_back(d);
    }
    return dates;
}

bool operator==(const date_t& a, const date_t& b)
{
    return a.year == b.year && a.month == b.month && a.day == b.day;
}

TEST(active_user_detector, first_run_records_today_once_and_saves_it)
{
    temp_dir_t dir;
    {
        active_user_detector_t detector(dir.path());
        EXPECT_FALSE(detector.is_active_user());
        detector.notify_activity();
        detector.notify_activity();
    }
    const std::vector<date_t> saved = read_history(dir.path());
    ASSERT_EQ(saved.size(), 1u);
    EXPECT_TRUE(saved[0] == today_plus(0));
    EXPECT_FALSE(file_exists(dir / "last_active_dates.lock"));
}

TEST(active_user_detector, an_unchanged_history_is_never_written)
{
    temp_dir_t dir;
    { active_user_detector_t detector(dir.path()); }
    EXPECT_FALSE(file_exists(dir / "last_active_dates.xml"));

    write_history(dir.path(), {today_plus(-3), today_plus(0)});
    const std::string before = usemeter_test::read_file(dir / "last_active_dates.xml");
    {
        active_user_detector_t detector(dir.path());
        detector.notify_activity();  // today is already last
    }
    EXPECT_EQ(usemeter_test::read_file(dir / "last_active_dates.xml"), before);
}

struct verdict_case {
    const char* name;
    std::vector<date_t> history;
    bool active;
};

TEST(active_user_detector, verdict_needs_four_days_the_oldest_strictly_within_a_year)
{
    const verdict_case cases[] = {
        {"three recent days", {today_plus(-3), today_plus(-2), today_plus(-1)}, false},
        {"four recent days", {today_plus(-4), today_plus(-3), today_plus(-2), today_plus(-1)}, true},
        {"oldest exactly a year ago", {year_ago_plus(0), today_plus(-3), today_plus(-2), today_plus(-1)}, false},
        {"oldest a year ago plus a day", {year_ago_plus(1), today_plus(-3), today_plus(-2), today_plus(-1)}, true},
        {"six items, the first decides",
         {year_ago_plus(-5), today_plus(-5), today_plus(-4), today_plus(-3), today_plus(-2), today_plus(-1)}, false},
    };
    for (const verdict_case& c : cases) {
        temp_dir_t dir;
        write_history(dir.path(), c.history);
        active_user_detector_t detector(dir.path());
        EXPECT_EQ(detector.is_active_user(), c.active) << c.name;
    }
}

TEST(active_user_detector, a_new_day_trims_the_history_to_the_last_four)
{
    temp_dir_t dir;
    write_history(dir.path(), {year_ago_plus(-5), today_plus(-5), today_plus(-4), today_plus(-3),
                               today_plus(-2), today_plus(-1)});
    {
        active_user_detector_t detector(dir.path());
        detector.notify_activity();
        EXPECT_TRUE(detector.is_active_user());
    }
    const std::vector<date_t> saved = read_history(dir.path());
    ASSERT_EQ(saved.size(), 4u);
    EXPECT_TRUE(saved.front() == today_plus(-3));
    EXPECT_TRUE(saved.back() == today_plus(0));
}

TEST(active_user_detector, bad_items_and_bad_files_give_an_empty_history)
{
    temp_dir_t dir;
    write_file(dir / "last_active_dates.xml",
               "<bag><item type=\"bag\"><Y type=\"int\">2026</Y><M type=\"string\">1</M><D type=\"int\">1</D></item>"
               "<item type=\"bag\"><Y type=\"int\">2026</Y><D type=\"int\">1</D></item></bag>");
    {
        active_user_detector_t detector(dir.path());
        detector.notify_activity();
    }
    EXPECT_EQ(read_history(dir.path()).size(), 1u);

    write_file(dir / "last_active_dates.xml", "<bag><item");
    { active_user_detector_t detector(dir.path()); detector.notify_activity(); }
    EXPECT_EQ(read_history(dir.path()).size(), 1u);
}

TEST(active_user_detector, a_stale_lock_costs_the_history_but_never_hangs)
{
    temp_dir_t dir;
    write_history(dir.path(), {today_plus(-4), today_plus(-3), today_plus(-2), today_plus(-1)});
    write_file(dir / "last_active_dates.lock", "");
    const std::string before = usemeter_test::read_file(dir / "last_active_dates.xml");
    {
        active_user_detector_t detector(dir.path());
        EXPECT_FALSE(detector.is_active_user());  // not loaded
        detector.notify_activity();
        EXPECT_TRUE(detector.save());  // failure, reported inverted
    }
    EXPECT_EQ(usemeter_test::read_file(dir / "last_active_dates.xml"), before);
    EXPECT_TRUE(file_exists(dir / "last_active_dates.lock"));
}

TEST(active_user_detector, save_reports_failure_inverted)
{
    temp_dir_t dir;
    active_user_detector_t detector(dir.path());
    EXPECT_FALSE(detector.save());  // nothing to write is not a failure
    detector.notify_activity();
    EXPECT_FALSE(detector.save());
    active_user_detector_t elsewhere(dir / "missing");
    elsewhere.notify_activity();
    EXPECT_TRUE(elsewhere.save());
}

}  // namespace
