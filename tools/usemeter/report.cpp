// `report` and `consent`: the two things a host does, done from a shell.
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "common.hpp"

namespace usemeter_tool {

namespace {

std::string first_token(const std::string& path)
{
    std::ifstream file(path);
    std::string token;
    file >> token;
    return token;
}

void print_decision(const built_statistic_t& built, const product_options_t& options)
{
    const inspected_statistic_t& statistic = *built.statistic;
    std::cout << options.product << " " << options.effective_version() << ": collection "
              << (statistic.is_collection_enabled() ? "enabled" : "disabled");
    if (!built.decision_log.empty())
        std::cout << " (library: " << join(built.decision_log, "; ") << ")";
    std::cout << "\n";
}

}  // namespace

int run_report(int argc, char** argv)
{
    product_options_t product;
    bool quiet = false;
    po::options_description options("report options");
    product.add_to(options);
    options.add_options()("quiet,q", po::bool_switch(&quiet), "print nothing but errors");
    po::variables_map values;
    if (!parse_command_line(argc, argv, "usemeter report [options] NAME...", options, values, true))
        return exit_ok;
    if (!values.count("args"))
        throw usage_error("missing feature name (usage: usemeter report [options] NAME...)");
    const auto names = values["args"].as<std::vector<std::string>>();

    product_session_t session(product);
    built_statistic_t built = build_statistic(product);
    inspected_statistic_t& statistic = *built.statistic;
    if (!quiet)
        print_decision(built, product);

    const bool sending = statistic.is_collection_enabled() && statistic.is_ready();
    int queued = 0;
    for (const std::string& name : names) {
        if (!usemeter::statistic_t::is_feature_name_valid(name))
            std::cerr << "usemeter report: warning: '" << name
                      << "' is not a valid feature name (reported anyway)\n";
        std::string category, label;
        const bool admitted = statistic.resolve_event(name, category, label);
        if (!quiet) {
            std::cout << "  " << name << ": ";
            if (!sending)
                std::cout << "not sent (collection disabled)\n";
            else if (admitted)
                std::cout << "queued as ec=" << category << (label.empty() ? "" : " el=" + label)
                          << "\n";
            else
                std::cout << "dropped (no whitelist entry admits it)\n";
        }
        queued += sending && admitted;
        // The same call a host makes; the library applies its own rules again.
        statistic.notify_feature_usage(name);
    }

    if (!quiet && queued)
        std::cout << "waiting for delivery of " << queued << " hit(s)...\n" << std::flush;
    // Destruction drains the connector's queue: every hit above is attempted first.
    built.statistic.reset();
    if (!quiet && queued)
        std::cout << "done\n";
    return exit_ok;
}

int run_consent(int argc, char** argv)
{
    product_options_t product;
    po::options_description options("consent options");
    product.add_to(options);
    po::variables_map values;
    if (!parse_command_line(argc, argv, "usemeter consent [options] [show|yes|no]", options,
                            values, true))
        return exit_ok;
    std::vector<std::string> args;
    if (values.count("args"))
        args = values["args"].as<std::vector<std::string>>();
    if (args.size() > 1)
        throw usage_error("expected one of show, yes, no; got " + std::to_string(args.size()) +
                          " arguments");
    const std::string action = args.empty() ? "show" : args.front();
    if (action != "show" && action != "yes" && action != "no")
        throw usage_error("unknown consent action '" + action + "' (expected show, yes or no)");

    product_session_t session(product);
    built_statistic_t built = build_statistic(product);
    inspected_statistic_t& statistic = *built.statistic;
    const int env_state = usemeter::statistic_impl_t::get_env_vars_state();
    const bool env_decides = env_state != usemeter::statistic_impl_t::evsEnabled;

    if (action != "show") {
        const bool given = action == "yes";
        log_tap_t tap("usemeter.statistic");
        statistic.set_statistic_collection_enabled(given);
        tap.stop();
        // The library writes silently; only reading back shows whether the file took it.
        // Under an environment override the library does not read the file, so we do.
        const bool recorded = env_decides
                                  ? first_token(statistic.consent_path()) == (given ? "1" : "0")
                                  : statistic.get_user_consent() == (given ? 1 : 2);
        if (!recorded)
            throw command_error(statistic.consent_path().empty()
                                    ? "could not record the answer: the library could not "
                                      "prepare the per-user directory (see usemeter status)"
                                    : "could not record the answer in " + statistic.consent_path());
        std::cout << "recorded: consent " << (given ? "given" : "refused") << " in "
                  << statistic.consent_path() << "\n";
        std::cout << "collection is now " << (statistic.is_collection_enabled() ? "enabled" : "disabled");
        const std::vector<std::string> reasons = tap.messages();
        if (!reasons.empty())
            std::cout << " (library: " << join(reasons, "; ") << ")";
        std::cout << "\n";
    }

    const int consent = statistic.get_user_consent();
    std::cout << "consent: " << consent_name(consent) << " - ";
    switch (consent) {
    case usemeter::statistic_impl_t::ucUnknown:
        std::cout << "no answer on record; a host asks the user now\n";
        break;
    case usemeter::statistic_impl_t::ucGranted:
        std::cout << (env_decides ? "forced on by the environment" : "the user agreed") << "\n";
        break;
    default:
        std::cout << (env_decides ? "refused by the environment" : "the user declined") << "\n";
        break;
    }
    if (env_decides)
        std::cout << "note: the environment (" << env_state_name(env_state)
                  << ") overrides the consent file " << statistic.consent_path() << "\n";
    return exit_ok;
}

}  // namespace usemeter_tool
