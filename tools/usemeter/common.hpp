// Shared pieces of the usemeter command: the product options every library command
// takes, the product-locations service built from them, a tap on the library's log,
// and a small JSON writer.
#ifndef USEMETER_TOOL_COMMON_HPP
#define USEMETER_TOOL_COMMON_HPP

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <boost/program_options.hpp>
#include <log4cplus/appender.h>
#include <log4cplus/logger.h>

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

// --product, --version and the product-locations flags.
struct product_options_t {
    std::string product = "trovix";
    std::string version;          // empty: --product-version, else "unknown"
    std::string data_dir;
    std::string product_dir;
    std::string temp_dir;
    std::string product_version;  // "a.b.c" for the locations service
    std::string log_config;

    void add_to(po::options_description& options);
    std::string effective_version() const;
    bool wants_locations_service() const;
};

// Installs the product-locations service the flags describe (if any) and loads a
// log4cplus configuration file (if given). Uninstalls the service when destroyed.
class product_session_t {
public:
    explicit product_session_t(const product_options_t& options);
    ~product_session_t();

    product_session_t(const product_session_t&) = delete;
    product_session_t& operator=(const product_session_t&) = delete;

    bool has_locations_service() const { return static_cast<bool>(service_); }
    // Where the backend reads its whitelist, or "" without a data directory.
    std::string whitelist_path() const;

private:
    class locations_t;
    const product_options_t& options_;
    std::unique_ptr<locations_t> service_;
};

// The backend as the library builds it, plus read access to the paths the policy core
// resolved, so that the tool shows the library's own answers instead of recomputing them.
class inspected_statistic_t : public usemeter::statistic_impl_ga_t {
public:
    using statistic_impl_ga_t::statistic_impl_ga_t;
    const std::string& consent_path() const { return optin_path_; }
    const std::string& uuid_path() const { return uuid_path_; }
    std::string settings_dir() const { return settings_dir_.string(); }
};

// While alive, lowers a library logger to TRACE and keeps the records it emits
// (without the ENTER/EXIT scope lines): the library's own words for its decisions.
class log_tap_t {
public:
    explicit log_tap_t(const std::string& logger_name);
    ~log_tap_t();

    log_tap_t(const log_tap_t&) = delete;
    log_tap_t& operator=(const log_tap_t&) = delete;

    // Detaches early; the records taken so far stay readable.
    void stop();
    std::vector<std::string> messages() const;

private:
    class appender_t;
    log4cplus::Logger logger_;
    log4cplus::LogLevel old_level_;
    log4cplus::SharedAppenderPtr appender_;
    bool attached_;
};

// Builds the backend with its construction-time decision records captured.
struct built_statistic_t {
    std::unique_ptr<inspected_statistic_t> statistic;
    std::vector<std::string> decision_log;
};
built_statistic_t build_statistic(const product_options_t& options);

// A JSON value kept in insertion order; enough for `status --json`.
class json_t {
public:
    json_t() : kind_(kind_t::null) {}
    json_t(bool value) : kind_(kind_t::boolean), text_(value ? "true" : "false") {}
    json_t(int value) : kind_(kind_t::number), text_(std::to_string(value)) {}
    json_t(const std::string& value) : kind_(kind_t::string), text_(value) {}
    json_t(const char* value) : kind_(kind_t::string), text_(value) {}

    static json_t object() { return json_t(kind_t::object); }
    static json_t array() { return json_t(kind_t::array); }

    // Object member (appended; keys are not de-duplicated).
    json_t& set(const std::string& key, json_t value);
    // Array element.
    json_t& push(json_t value);

    std::string dump(int indent = 0) const;

private:
    enum class kind_t { null, boolean, number, string, array, object };
    explicit json_t(kind_t kind) : kind_(kind) {}
    kind_t kind_;
    std::string text_;
    std::vector<std::pair<std::string, json_t>> members_;
};

std::string json_quote(const std::string& text);

// Small helpers.
std::string env_value(const char* name);  // "" when unset
bool path_exists(const std::string& path);
std::string join(const std::vector<std::string>& items, const std::string& separator);

// Names of the library's enumerations as they appear in its log and documentation.
const char* env_state_name(int state);
const char* network_status_name(int status);
const char* consent_name(int consent);

// The commands; each returns the process exit code.
int run_report(int argc, char** argv);
int run_consent(int argc, char** argv);
int run_status(int argc, char** argv);
int run_explain(int argc, char** argv);
int run_collector(int argc, char** argv);
int run_generate(int argc, char** argv);
int run_stats(int argc, char** argv);

// Parses a command's arguments (argv[0] is the command name); the positional ones land in
// "args". Returns false when --help was given and printed.
bool parse_command_line(int argc, char** argv, const std::string& usage,
                        po::options_description& options, po::variables_map& values,
                        bool takes_arguments);

}  // namespace usemeter_tool

#endif
