// `consent`: show or record the user's answer, as a host does after asking.
#include <fstream>
#include <iostream>

#include "common.hpp"
#include "tracelog/log_capture.hpp"

namespace usemeter_tool {

namespace {

void record(usemeter::statistic_impl_ga_t& statistic, bool given)
{
    tracelog::log_capture_t tap("usemeter.statistic");
    statistic.set_statistic_collection_enabled(given);
    tap.stop();
    // The library writes silently; only reading the file back shows whether it took the answer.
    std::ifstream file(statistic.consent_path());
    std::string token;
    file >> token;
    if (token != (given ? "1" : "0"))
        throw command_error(statistic.consent_path().empty()
                                ? "could not record the answer: the per-user directory could not "
                                  "be prepared (see usemeter status)"
                                : "could not record the answer in " + statistic.consent_path());
    std::cout << "recorded: consent " << (given ? "given" : "refused") << " in "
              << statistic.consent_path() << "\ncollection is now "
              << (statistic.is_collection_enabled() ? "enabled" : "disabled") << " (library: "
              << join(tap.messages(), "; ") << ")\n";
}

}  // namespace

int run_consent(int argc, char** argv)
{
    product_command_t command("consent", " [show|yes|no]");
    if (!command.parse(argc, argv, true))
        return exit_ok;
    const std::vector<std::string> args = positional(command.values);
    const std::string action = args.empty() ? "show" : args.front();
    if (args.size() > 1 || (action != "show" && action != "yes" && action != "no"))
        throw usage_error("expected one of show, yes, no; got '" + join(args, " ") + "'");

    product_session_t session(command.product);
    usemeter::statistic_impl_ga_t& statistic = *session.statistic;
    if (action != "show")
        record(statistic, action == "yes");

    const int env_state = usemeter::statistic_impl_t::get_env_vars_state();
    std::cout << "consent: " << consent_name(statistic.get_user_consent())
              << (statistic.get_user_consent() == usemeter::statistic_impl_t::ucUnknown
                      ? " - no answer on record; a host asks the user now"
                      : "")
              << "\n";
    if (env_state != usemeter::statistic_impl_t::evsEnabled)
        std::cout << "note: the environment (" << env_state_name(env_state)
                  << ") overrides the consent file " << statistic.consent_path() << "\n";
    return exit_ok;
}

}  // namespace usemeter_tool
