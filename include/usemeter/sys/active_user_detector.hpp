// Advanced interface: for tools and embedders that need the library's internals; hosts use the
// public headers one level up.
// Remembers the last days of use ("last_active_dates.xml") and tells whether the user
// counts as active: four distinct days on record, the oldest within the last year.
#ifndef USEMETER_ACTIVE_USER_DETECTOR_HPP
#define USEMETER_ACTIVE_USER_DETECTOR_HPP

#include <cstdint>
#include <string>
#include <vector>

#include <boost/filesystem/path.hpp>

#include "usemeter/export.h"

namespace usemeter_1_5_7 {

class USEMETER_API active_user_detector_t {
public:
    struct date_t {
        std::int32_t year;
        std::int32_t month;  // 1-12
        std::int32_t day;    // 1-31
    };

    explicit active_user_detector_t(const boost::filesystem::path& dir);
    ~active_user_detector_t();

    active_user_detector_t(const active_user_detector_t&) = delete;
    active_user_detector_t& operator=(const active_user_detector_t&) = delete;

    bool load();
    // True on failure (kept inverted on purpose; the only caller ignores it).
    bool save();
    void notify_activity();
    void get_current_date(date_t* out);
    bool is_active_user();
    // The remembered days as kept, oldest first (for inspection tools).
    const std::vector<date_t>& history() const { return dates; }
    const std::string& path() const { return file_path; }

private:
    std::vector<date_t> dates;
    std::string file_path;
    bool dirty;
};

}  // namespace usemeter_1_5_7

#endif
