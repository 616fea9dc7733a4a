// Advanced interface: for tools and embedders that need the library's internals; hosts use the
// public headers one level up.
// The analytics backend: turns each permitted feature use into one Measurement
// Protocol v1 event hit and hands it to the connector's background thread.
#ifndef USEMETER_STATISTIC_IMPL_GA_HPP
#define USEMETER_STATISTIC_IMPL_GA_HPP

#include <set>
#include <string>

#include "usemeter/sys/active_user_detector.hpp"
#include "usemeter/sys/http_connector.hpp"
#include "usemeter/sys/statistic_impl.hpp"

namespace usemeter_1_5_7 {

class USEMETER_API statistic_impl_ga_t : public statistic_impl_t {
public:
    statistic_impl_ga_t(const std::string& product_name, const std::string& product_version);
    ~statistic_impl_ga_t() override;

    void notify_feature_usage_ex(const std::string& name, unsigned long long value) override;
    void write_range_metric(const std::string&, unsigned long long, unsigned long long,
                            unsigned char, unsigned long long) override;
    void write_log_range_metric(const std::string&, unsigned long long, unsigned char) override;
    void notify_send_data(bool) override;
    bool flush() override;

    void queue_ga_event(const std::string& category, const std::string& label);

    // Inspection for tools and tests; reporting itself goes through the operations above.
    // Which rule admits a feature name: the longest whitelisted dotted prefix, or a plain
    // "run.<tool>" that needs no entry; event_dropped (false) when none does.
    enum event_rule_t { event_dropped = 0, event_whitelisted, event_tool_run };
    // The event a feature name becomes, and the rule that admitted it.
    event_rule_t resolve_event(const std::string& name, std::string& category, std::string& label) const;
    // The exact body queue_ga_event would post for this event now.
    std::string build_event_body(const std::string& category, const std::string& label);
    const std::set<std::string>& whitelisted_events() const { return enabled_events; }
    bool is_ready() const { return ready; }
    bool is_collection_enabled() const { return enabled_; }
    // A feature use becomes a hit only when both hold.
    bool is_sending() const { return enabled_ && ready; }
    // Where the whitelist is read from: <data dir>/statistic/enabled_stat_events.xml, or
    // empty when the product-locations service is missing or names no data directory.
    static std::string whitelist_path();

    // "http://www.google-analytics.com/collect"
    static const char* ga_url;

private:
    active_user_detector_t active_user_detector;
    http_connector_t connector;
    std::string tracking_id;
    bool ready;
    std::string payload_prefix;
    std::set<std::string> enabled_events;
};

}  // namespace usemeter_1_5_7

#endif
