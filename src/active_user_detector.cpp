#include "usemeter/sys/active_user_detector.hpp"

#include <ctime>
#include <unistd.h>

#include "active_user_detector_detail.hpp"
#include "basekit/variant_bag.hpp"
#include "host/host_services.hpp"
#include "usemeter/sys/filelock.hpp"

namespace usemeter_1_5_7 {

namespace {

// The history keeps this many days, and a user is active once this many are on record;
// the two must stay equal.
const std::size_t active_days = 4;

const int load_lock_attempts = 5;
const useconds_t load_lock_pause_us = 20000;

bool same_day(const active_user_detector_t::date_t& a, const active_user_detector_t::date_t& b)
{
    return a.year == b.year && a.month == b.month && a.day == b.day;
}

// Field by field; a day that does not exist (29 February a year back) is never normalised.
bool later_than(const active_user_detector_t::date_t& a, const active_user_detector_t::date_t& b)
{
    if (a.year != b.year)
        return a.year > b.year;
    if (a.month != b.month)
        return a.month > b.month;
    return a.day > b.day;
}

}  // namespace

bool getVariantInt(const basekit::variant_bag_t& bag, const char* name, int* out)
{
    const basekit::variant_t value = bag.get_variant(name, basekit::variant_t());
    if (!value.can_get<std::int32_t>())
        return false;
    *out = value.get<std::int32_t>();
    return true;
}

// Without a directory (the per-user directories could not be prepared) the history lives in
// memory only: an empty path would otherwise put the file into the host's working directory.
active_user_detector_t::active_user_detector_t(const boost::filesystem::path& dir)
    : file_path(dir.empty() ? std::string() : (dir / "last_active_dates.xml").string()), dirty(false)
{
    load();
}

active_user_detector_t::~active_user_detector_t()
{
    if (dirty)
        save();
}

bool active_user_detector_t::load()
{
    if (file_path.empty())
        return false;
    filelock_t lock(file_path);
    for (int attempt = 0; attempt < load_lock_attempts; ++attempt) {
        if (lock.lock())
            break;
        ::usleep(load_lock_pause_us);
    }
    if (!lock.is_locked())
        return false;

    basekit::variant_bag_t bag;
    if (basekit::load_variant_bag2(bag, file_path, "bag", false) != 1)
        return false;
    for (auto item = bag.begin_by_name("item"); !item.at_end(); item.next()) {
        date_t date;
        if (getVariantInt(item.get_value(), "Y", &date.year) &&
            getVariantInt(item.get_value(), "M", &date.month) &&
            getVariantInt(item.get_value(), "D", &date.day))
            dates.push_back(date);
    }
    return true;
}

bool active_user_detector_t::save()
{
    if (dates.empty())
        return false;
    if (file_path.empty())
        return true;

    basekit::variant_bag_t bag;
    for (const date_t& date : dates) {
        basekit::variant_bag_t& item = bag.add_bag("item");
        item.put("Y", basekit::variant_t(date.year));
        item.put("M", basekit::variant_t(date.month));
        item.put("D", basekit::variant_t(date.day));
    }

    filelock_t lock(file_path);
    if (!lock.lock())
        return true;
    return basekit::save_variant_bag2(bag, file_path, "bag") != 1;
}

void active_user_detector_t::notify_activity()
{
    date_t today;
    get_current_date(&today);
    if (dates.empty() || !same_day(dates.back(), today)) {
        dates.push_back(today);
        dirty = true;
    }
    if (dates.size() > active_days)
        dates.erase(dates.begin(), dates.end() - active_days);
}

void active_user_detector_t::get_current_date(date_t* out)
{
    // Every report asks for today; localtime_r takes a process-wide lock, so each thread
    // converts a given second once.
    thread_local std::time_t converted_second = -1;
    thread_local date_t converted_date{};
    const std::time_t now = host::services().now();
    if (now != converted_second) {
        std::tm local;
        ::localtime_r(&now, &local);
        converted_date = date_t{local.tm_year + 1900, local.tm_mon + 1, local.tm_mday};
        converted_second = now;
    }
    *out = converted_date;
}

bool active_user_detector_t::is_active_user()
{
    date_t year_ago;
    get_current_date(&year_ago);
    year_ago.year -= 1;
    if (dates.size() < active_days)
        return false;
    return later_than(dates.front(), year_ago);
}

}  // namespace usemeter_1_5_7
