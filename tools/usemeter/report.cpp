// `report`: feature uses reported through the same call a host makes, then delivered.
#include <iostream>

#include "common.hpp"

namespace usemeter_tool {

namespace {

struct fate_t {
    bool queued;
    std::string text;
};

// What the library will do with the name, in its own terms.
fate_t fate(const usemeter::statistic_impl_ga_t& statistic, const std::string& name)
{
    if (!statistic.is_sending())
        return {false, "not sent (collection disabled)"};
    std::string category, label;
    if (!statistic.resolve_event(name, category, label))
        return {false, "dropped (no whitelist entry admits it)"};
    return {true, "queued as ec=" + category + (label.empty() ? "" : " el=" + label)};
}

}  // namespace

int run_report(int argc, char** argv)
{
    product_command_t command("report", " NAME...");
    bool quiet = false;
    command.options.add_options()("quiet,q", po::bool_switch(&quiet), "print nothing but errors");
    if (!command.parse(argc, argv, true))
        return exit_ok;
    const std::vector<std::string> names = command.names();
    const product_options_t& product = command.product;

    product_session_t session(product);
    usemeter::statistic_impl_ga_t& statistic = *session.statistic;
    if (!quiet)
        std::cout << product.product << " " << product.effective_version() << ": collection "
                  << (statistic.is_sending() ? "enabled" : "disabled") << " (library: "
                  << join(session.decision_log, "; ") << ")\n";
    int queued = 0;
    for (const std::string& name : names) {
        if (!usemeter::statistic_t::is_feature_name_valid(name))
            std::cerr << "usemeter report: warning: '" << name
                      << "' is not a valid feature name (reported anyway)\n";
        const fate_t what = fate(statistic, name);
        queued += what.queued;
        if (!quiet)
            std::cout << "  " << name << ": " << what.text << "\n";
        statistic.notify_feature_usage(name);
    }
    if (queued == 0)
        return exit_ok;

    // Destruction drains the connector's queue: every hit above is attempted first.
    const std::uint32_t delivered_before = usemeter::http_connector_t::delivered_total();
    session.statistic.reset();
    const std::uint32_t delivered = usemeter::http_connector_t::delivered_total() - delivered_before;
    if (!quiet)
        std::cout << "delivered " << delivered << " of " << queued << " hit(s)\n";
    if (delivered == 0)
        throw command_error("no hit was delivered (see 'proxy candidates' in usemeter status)");
    return exit_ok;
}

}  // namespace usemeter_tool
