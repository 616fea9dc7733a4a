// usemeter: report feature uses, record consent, explain what the library decides and
// what it would send, and receive hits on a loopback collector.
#include <cstring>
#include <iostream>
#include <string>

#include "common.hpp"

namespace {

using namespace usemeter_tool;

struct command_t {
    const char* name;
    int (*run)(int argc, char** argv);
    const char* summary;
};

const command_t commands[] = {
    {"report", run_report, "report feature uses and wait for their delivery"},
    {"consent", run_consent, "show or record the user's answer (show|yes|no)"},
    {"status", run_status, "explain the whole decision chain for this user and product"},
    {"explain", run_explain, "show what each feature name becomes on the wire"},
    {"collector", run_collector, "run the collector service; export or erase its hits"},
    {"stats", run_stats, "active users, retention, features, adoption, versions and systems from a store"},
};

void print_usage(std::ostream& out)
{
    out << "usage: usemeter <command> [options] [arguments]\n\ncommands:\n";
    for (const command_t& command : commands)
        out << "  " << command.name << std::string(12 - std::strlen(command.name), ' ')
            << command.summary << "\n";
    out << "\n'usemeter <command> --help' lists a command's options.\n";
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::cerr << "usemeter: missing command (try 'usemeter --help')\n";
        return exit_usage;
    }
    const std::string name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        print_usage(std::cout);
        return exit_ok;
    }
    if (name == "--version") {
        std::cout << "usemeter " << USEMETER_TOOL_VERSION << "\n";
        return exit_ok;
    }

    for (const command_t& command : commands) {
        if (name != command.name)
            continue;
        try {
            return command.run(argc - 1, argv + 1);
        } catch (const po::error& error) {
            std::cerr << "usemeter " << name << ": " << error.what() << "\n";
            return exit_usage;
        } catch (const usage_error& error) {
            std::cerr << "usemeter " << name << ": " << error.what() << "\n";
            return exit_usage;
        } catch (const std::exception& error) {
            std::cerr << "usemeter " << name << ": " << error.what() << "\n";
            return exit_failure;
        }
    }
    std::cerr << "usemeter: unknown command '" << name << "' (try 'usemeter --help')\n";
    return exit_usage;
}
