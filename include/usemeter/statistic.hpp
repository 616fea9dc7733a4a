// The host-facing statistics facade.
//
// Typical use:
//     auto stat = usemeter::statistic_t::get();
//     stat->notify_feature_usage("analysis_type.hotspots");
// or, around an activity:
//     usemeter::statistic_guard_t guard("scan", ".begin", ".end", usemeter::statistic_t::get());
#ifndef USEMETER_STATISTIC_HPP
#define USEMETER_STATISTIC_HPP

#include <string>

#include <boost/shared_ptr.hpp>

#include "usemeter/export.h"

namespace usemeter_1_5_7 {

// The order of the virtual operations is part of the binary interface: hosts call
// through it. Append nothing in between.
class USEMETER_API statistic_t {
public:
    virtual ~statistic_t();

    virtual void notify_gui_start() = 0;
    virtual std::string get_uuid() const = 0;
    virtual void notify_feature_usage(const std::string& name) = 0;
    // Deliberately not pure here; the policy core re-declares it pure.
    virtual void notify_feature_usage_ex(const std::string& name, unsigned long long value);
    virtual void write_range_metric(const std::string& name, unsigned long long value,
                                    unsigned long long range, unsigned char buckets,
                                    unsigned long long base) = 0;
    virtual void write_log_range_metric(const std::string& name, unsigned long long value,
                                        unsigned char buckets) = 0;
    virtual void notify_send_data(bool send) = 0;
    virtual bool flush() = 0;
    virtual bool send_crash_report(const std::string& file) = 0;
    // 0: no decision on record, 1: granted, 2: refused.
    virtual int get_user_consent() const;
    virtual void set_statistic_collection_enabled(bool enabled);

    // The process-wide instance for the product "trovix"; built on first demand and
    // destroyed when its last holder lets go. Never empty; throws only on genuine
    // failures (memory, mutex).
    static boost::shared_ptr<statistic_t> get();

    // True when name is one or more words of [A-Za-z0-9%_] joined by single dots.
    static bool is_feature_name_valid(const std::string& name);
};

// Reports stem+entry_suffix when built and stem+exit_suffix when destroyed.
class USEMETER_API statistic_guard_t {
public:
    statistic_guard_t(const std::string& stem, const std::string& entry_suffix,
                      const std::string& exit_suffix, boost::shared_ptr<statistic_t> statistic);
    ~statistic_guard_t();

    statistic_guard_t(const statistic_guard_t&) = delete;
    statistic_guard_t& operator=(const statistic_guard_t&) = delete;

private:
    std::string stem_;
    std::string entry_suffix_;
    std::string exit_suffix_;
    boost::shared_ptr<statistic_t> statistic_;
};

}  // namespace usemeter_1_5_7

namespace usemeter = usemeter_1_5_7;

#endif
