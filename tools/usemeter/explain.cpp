// `explain`: what each feature name becomes on the wire, in the library's own terms.
#include <iostream>

#include "common.hpp"

namespace usemeter_tool {

namespace {

void explain_name(usemeter::statistic_impl_ga_t& statistic, const std::string& name)
{
    std::cout << "\n" << name << "\n  valid name  "
              << (usemeter::statistic_t::is_feature_name_valid(name)
                      ? "yes"
                      : "no (words of letters, digits, % and _ joined by single dots); the "
                        "library does not check, its filters decide")
              << "\n";
    std::string category, label;
    const auto rule = statistic.resolve_event(name, category, label);
    if (rule == usemeter::statistic_impl_ga_t::event_dropped) {
        std::cout << "  dropped     no whitelist entry is a dotted prefix of it, and it is not a "
                     "plain run.<tool> name\n";
        return;
    }
    std::cout << "  admitted    "
              << (rule == usemeter::statistic_impl_ga_t::event_whitelisted
                      ? "by the whitelist entry \"" + category + "\""
                      : std::string("by the run.<tool> rule (no whitelist entry needed)"))
              << "\n  category    ec=" << category << "\n  label       "
              << (label.empty() ? "(none: no el parameter)" : "el=" + label)
              << "\n  body        " << statistic.build_event_body(category, label) << "\n";
}

}  // namespace

int run_explain(int argc, char** argv)
{
    product_command_t command("explain", " NAME...");
    if (!command.parse(argc, argv, true))
        return exit_ok;
    const std::vector<std::string> names = command.names();
    product_session_t session(command.product);
    usemeter::statistic_impl_ga_t& statistic = *session.statistic;
    const product_options_t& product = command.product;
    const std::string whitelist = usemeter::statistic_impl_ga_t::whitelist_path();
    std::cout << product.product << " " << product.effective_version() << ", whitelist "
              << (whitelist.empty() ? "(none: no data directory)"
                                    : whitelist + " (" + std::to_string(statistic.whitelisted_events().size()) +
                                          " entries)")
              << "\ncollection is "
              << (statistic.is_collection_enabled() ? "enabled" : "disabled: nothing below would be sent now")
              << "\n";
    for (const std::string& name : names)
        explain_name(statistic, name);
    return exit_ok;
}

}  // namespace usemeter_tool
