// Shared by the usemeter commands: exit codes and errors, the option preamble, the product
// options every library command takes and the statistics object built from them.
#ifndef USEMETER_TOOL_COMMON_HPP
#define USEMETER_TOOL_COMMON_HPP

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/program_options.hpp>

#include "prodenv/fixed_locations.hpp"
#include "usemeter/sys/statistic_impl_ga.hpp"

namespace usemeter_tool {

namespace po = boost::program_options;

enum exit_code_t { exit_ok = 0, exit_failure = 1, exit_usage = 2 };

// Bad command-line input: main prints the one-line message and exits with exit_usage.
struct usage_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Anything else that stops a command: one line, exit_failure.
struct command_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Parses a command's arguments (argv[0] is the command name); the positional ones land in
// "args". Returns false when --help was given and printed.
bool parse_command_line(int argc, char** argv, const std::string& usage,
                        po::options_description& options, po::variables_map& values,
                        bool takes_arguments);
std::vector<std::string> positional(const po::variables_map& values);

// --product, --version and the product-locations flags.
struct product_options_t {
    std::string product = "trovix";
    std::string version;  // empty: --product-version, else "unknown"
    std::string data_dir, product_dir, temp_dir, product_version, log_config;

    void add_to(po::options_description& options);
    std::string effective_version() const;
};

// The shared preamble of the library commands: the product options plus the command's own
// (added to `options` before parse()).
struct product_command_t {
    product_command_t(const std::string& name, const std::string& arguments);

    product_options_t product;
    po::options_description options;
    po::variables_map values;
    std::string usage;

    // False when --help was given and printed.
    bool parse(int argc, char** argv, bool takes_arguments);
    // The feature names given; a usage error when there are none.
    std::vector<std::string> names() const;
};

// The host side of one command: the log configuration loaded, the locations service the
// flags ask for installed (uninstalled on destruction), and the backend built as a host
// builds it, with the library's construction-time decision records.
struct product_session_t {
    explicit product_session_t(const product_options_t& options);

    const product_options_t& options;
    std::unique_ptr<prodenv::fixed_locations_t> locations;
    std::unique_ptr<usemeter::statistic_impl_ga_t> statistic;
    std::vector<std::string> decision_log;
};

// Names of the library's enumerations as its log and documentation spell them.
const char* env_state_name(int state);
const char* network_status_name(int status);
const char* consent_name(int consent);
std::string join(const std::vector<std::string>& items, const std::string& separator);

// The commands; each returns the process exit code.
int run_report(int argc, char** argv);
int run_consent(int argc, char** argv);
int run_status(int argc, char** argv);
int run_explain(int argc, char** argv);
int run_collector(int argc, char** argv);
int run_generate(int argc, char** argv);
int run_stats(int argc, char** argv);

}  // namespace usemeter_tool

#endif
