#include "usemeter/sys/statistic_impl_ga.hpp"

#include <log4cplus/loggingmacros.h>

#include "basekit/variant_bag.hpp"
#include "rtbase/strings.hpp"
#include "tracelog/tracelog.hpp"
#include "usemeter/sys/host_facts.hpp"
#include "usemeter/product_locations.hpp"

namespace usemeter_1_5_7 {

namespace {

const log4cplus::Logger logger = tracelog::log::component_logger("usemeter.statistic");

const char* const measurement_tracking_id = "UA-12345678-42";
const char* const os_family = "posix";
const std::string run_prefix = "run.";
// The collector refuses longer bodies, and one refused body switches delivery off.
const std::size_t protocol_body_limit = 8192;

}  // namespace

std::string statistic_impl_ga_t::whitelist_path()
{
    const prodenv::IProductLocations* locations = prodenv::IProductLocations::get();
    const char* data_dir = locations ? locations->getDataDir() : nullptr;
    if (!data_dir)
        return std::string();
    return basekit::path_t(data_dir).append("statistic").append("enabled_stat_events.xml").as_string();
}

// Set at configure time (USEMETER_COLLECTOR_URL), so an organisation's build reports to its own collector.
const char* statistic_impl_ga_t::ga_url = USEMETER_COLLECTOR_URL;

statistic_impl_ga_t::statistic_impl_ga_t(const std::string& product_name,
                                         const std::string& product_version)
    : statistic_impl_t(product_name, product_version),
      active_user_detector(has_user_directories() ? settings_dir_ : boost::filesystem::path()),
      connector(ga_url),
      tracking_id(measurement_tracking_id),
      ready(false)
{
    const std::string os_name = get_os_name();
    // A build without a tracking identifier stays inert: every event is dropped.
    if (tracking_id.empty())
        return;

    payload_prefix = "v=1&tid=" + tracking_id + "&cid=" + uuid_ + "&an=" +
                     connector.urlencode(product_name_) + "&av=" + product_version_ +
                     "&cd1=" + connector.urlencode(os_family) + "&cd2=" + connector.urlencode(os_name);

    const std::string path = whitelist_path();
    basekit::variant_bag_t whitelist;
    if (!path.empty() && basekit::load_variant_bag2(whitelist, path, "bag", false) == 1) {
        for (auto event = whitelist.begin_by_name("event"); !event.at_end(); event.next()) {
            const basekit::variant_t name = event.get_value().get_variant("name", basekit::variant_t());
            if (name.can_get<const char*>())
                enabled_events.insert(name.get<const char*>());
        }
    }
    ready = true;
}

// Members go in reverse order: the connector drains its queue before the detector saves.
statistic_impl_ga_t::~statistic_impl_ga_t() = default;

void statistic_impl_ga_t::notify_feature_usage_ex(const std::string& name, unsigned long long value)
{
    TRACELOG_SCOPE(logger, "virtual void usemeter_1_5_7::statistic_impl_ga_t::notify_feature_usage_ex("
                           "const std::basic_string<char, std::char_traits<char>, std::allocator<char>>&, "
                           "unsigned long long)");
    TRACELOG_INFO(logger, "feature_name=" << rtbase::escape_controls(name) << " value=" << value);

    // Days of use count whether or not anything may be sent.
    active_user_detector.notify_activity();
    if (!is_sending())
        return;

    std::string category, label;
    if (resolve_event(name, category, label))
        queue_ga_event(category, label);
}

statistic_impl_ga_t::event_rule_t statistic_impl_ga_t::resolve_event(const std::string& name,
                                                                    std::string& category,
                                                                    std::string& label) const
{
    std::string key = name;
    for (;;) {
        if (enabled_events.count(key)) {
            label = key.size() < name.size() ? name.substr(key.size() + 1) : std::string();
            category = std::move(key);
            return event_whitelisted;
        }
        const std::size_t dot = key.rfind('.');
        if (dot == std::string::npos)
            break;
        key.resize(dot);
    }

    // A plain tool run is reported without a whitelist entry; deeper names need one.
    if (name.compare(0, run_prefix.size(), run_prefix) == 0 &&
        name.find('.', run_prefix.size()) == std::string::npos) {
        category = "run";
        label = name.substr(run_prefix.size());
        return event_tool_run;
    }
    return event_dropped;
}

void statistic_impl_ga_t::queue_ga_event(const std::string& category, const std::string& label)
{
    std::string body = build_event_body(category, label);
    if (body.size() > protocol_body_limit) {
        LOG4CPLUS_INFO(logger, "hit not sent: its body of " << body.size() << " bytes exceeds the "
                               "protocol's limit of " << protocol_body_limit << " bytes");
        return;
    }
    connector.post(std::move(body));
}

std::string statistic_impl_ga_t::build_event_body(const std::string& category, const std::string& label)
{
    const std::string encoded_category = connector.urlencode(category);
    const std::string encoded_label = label.empty() ? std::string() : connector.urlencode(label);
    const char* const active = active_user_detector.is_active_user() ? "y" : "n";

    // Sized exactly: bodies may queue by the thousand behind a dead route.
    std::string body;
    body.reserve(payload_prefix.size() + 12 + encoded_category.size() +
                 (label.empty() ? 0 : 4 + encoded_label.size()) + 6);
    body += payload_prefix;
    body += "&t=event&ec=";
    body += encoded_category;
    if (!label.empty()) {
        body += "&el=";
        body += encoded_label;
    }
    body += "&cd3=";
    body += active;
    return body;
}

void statistic_impl_ga_t::write_range_metric(const std::string&, unsigned long long,
                                             unsigned long long, unsigned char, unsigned long long)
{
}

void statistic_impl_ga_t::write_log_range_metric(const std::string&, unsigned long long, unsigned char)
{
}

void statistic_impl_ga_t::notify_send_data(bool)
{
}

bool statistic_impl_ga_t::flush()
{
    return true;
}

}  // namespace usemeter_1_5_7
