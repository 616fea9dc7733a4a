// `status` and `explain`: what the library decided, why, and what it would send. Every
// answer comes from the library's own exported functions; the tool only arranges them.
#include <cstdio>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "common.hpp"
#include "usemeter/sys/active_user_detector.hpp"
#include "usemeter/sys/http_connector.hpp"
#include "usemeter/orb_accessor.hpp"

namespace usemeter_tool {

namespace {

// Every environment variable the library reads, in the order a reader meets them.
const char* const library_variables[] = {
    "HOME",
    "NORVEL_STATISTICS_DISABLE",
    "NORVEL_DONOTSEND_FEEDBACK",
    "NORVEL_DISABLE_FEEDBACK",
    "NORVEL_FORCE_FEEDBACK",
    "NORVEL_FORCE_UUID",
    "http_proxy",
    "USEMETER_DISABLE_ORB",
    "NORVEL_ORBTOOL_DIR",
    "NORVEL_DISABLE_UPDATES_CHECK",
};

struct file_info_t {
    std::string label;
    std::string path;
    bool exists;
    std::string note;
};

struct tool_info_t {
    std::string name;
    std::string location;  // "" when not found
};

struct status_t {
    std::string product, version, home;
    bool locations_service = false;
    std::vector<file_info_t> files;
    std::string uuid, uuid_source;
    std::vector<std::pair<std::string, std::string>> variables;  // the ones that are set
    int env_state = 0;
    bool send_files_disabled = false;
    bool network_tested = false;
    int network_status = 0;
    int consent = 0;
    bool enabled = false, ready = false;
    std::vector<std::string> decision_log;
    std::string whitelist_path;
    bool whitelist_exists = false;
    std::vector<std::string> whitelist;
    std::vector<std::string> history;
    bool active = false;
    std::vector<std::string> proxies;
    bool tool_calls_allowed = true;
    std::vector<tool_info_t> tools;
};

std::string first_line(const std::string& path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

std::string directory_of(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

std::string format_date(const usemeter::active_user_detector_t::date_t& date)
{
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d", static_cast<int>(date.year),
                  static_cast<int>(date.month), static_cast<int>(date.day));
    return text;
}

status_t collect_status(const product_options_t& options, const product_session_t& session)
{
    status_t status;
    status.product = options.product;
    status.version = options.effective_version();
    status.home = env_value("HOME");
    status.locations_service = session.has_locations_service();
    for (const char* name : library_variables) {
        const char* value = std::getenv(name);
        if (value && *value && std::string(name) != "HOME")
            status.variables.emplace_back(name, value);
    }

    built_statistic_t built = build_statistic(options);
    const inspected_statistic_t& statistic = *built.statistic;
    status.decision_log = built.decision_log;
    status.enabled = statistic.is_collection_enabled();
    status.ready = statistic.is_ready();
    status.uuid = statistic.get_uuid();
    status.uuid_source = !env_value("NORVEL_FORCE_UUID").empty() ? "NORVEL_FORCE_UUID"
                         : status.uuid.empty()                  ? "none"
                                                                : "uuid.xml";

    const std::string consent_path = statistic.consent_path();
    const std::string settings_dir = statistic.settings_dir();
    const std::string history_path =
        settings_dir.empty() ? std::string() : settings_dir + "/last_active_dates.xml";
    const std::string base_dir = consent_path.empty() ? std::string() : directory_of(consent_path);
    std::string consent_note = "missing";
    if (path_exists(consent_path))
        consent_note = "holds \"" + first_line(consent_path) + "\"";
    status.files = {
        {"base directory", base_dir, path_exists(base_dir), ""},
        {"consent file", consent_path, path_exists(consent_path), consent_note},
        {"settings directory", settings_dir, path_exists(settings_dir), ""},
        {"identifier file", statistic.uuid_path(), path_exists(statistic.uuid_path()), ""},
        {"activity history", history_path, path_exists(history_path), ""},
    };

    status.env_state = usemeter::statistic_impl_t::get_env_vars_state();
    status.send_files_disabled = statistic.is_send_files_disabled();
    // The library looks the corporate name up only when the environment leaves the
    // decision open; doing the same keeps `status` from asking a resolver needlessly.
    status.network_tested =
        !status.uuid.empty() && status.env_state == usemeter::statistic_impl_t::evsEnabled;
    if (status.network_tested)
        status.network_status = usemeter::get_network_status();
    status.consent = statistic.get_user_consent();

    status.whitelist_path = session.whitelist_path();
    status.whitelist_exists = path_exists(status.whitelist_path);
    status.whitelist.assign(statistic.whitelisted_events().begin(),
                            statistic.whitelisted_events().end());

    if (!settings_dir.empty()) {
        usemeter::active_user_detector_t detector{boost::filesystem::path(settings_dir)};
        for (const auto& date : detector.history())
            status.history.push_back(format_date(date));
        status.active = detector.is_active_user();
    }

    std::vector<std::string> proxies;
    usemeter::collect_proxy_info(usemeter::statistic_impl_ga_t::ga_url, &proxies);
    status.proxies = proxies;

    usemeter::orb_accessor_impl_t orb;
    status.tool_calls_allowed = orb.is_orb_call_allowed();
    const std::pair<usemeter::orb_accessor_impl_t::orb_tool_t, const char*> tools[] = {
        {usemeter::orb_accessor_impl_t::tool_remote_monitor, "norvelremotemon"},
        {usemeter::orb_accessor_impl_t::tool_main, "orb"},
        {usemeter::orb_accessor_impl_t::tool_consent_check, "checkOPTINconsent"},
    };
    for (const auto& tool : tools)
        status.tools.push_back({tool.second, orb.get_orb_location(tool.first).as_string()});
    return status;
}

std::string consent_meaning(int consent)
{
    switch (consent) {
    case 0: return "no answer on record: a host asks the user";
    case 1: return "given";
    case 2: return "refused";
    }
    return "?";
}

std::string network_meaning(int status)
{
    switch (status) {
    case usemeter::nsExcludedNetwork: return "the corporate network: nothing is sent from here";
    case usemeter::nsOk: return "not the corporate network";
    case usemeter::nsError: return "the look-up failed (no resolver?): nothing is sent";
    }
    return "?";
}

void print_status_text(const status_t& s)
{
    auto row = [](const std::string& label, const std::string& value) {
        std::cout << "  " << std::left << std::setw(20) << label << value << "\n";
    };
    std::cout << "usemeter status for " << s.product << " " << s.version << "\n";

    std::cout << "\nper-user files (HOME=" << (s.home.empty() ? "(unset)" : s.home) << ")\n";
    for (const file_info_t& file : s.files) {
        if (file.path.empty()) {
            row(file.label, "(not resolved: the library could not prepare its directories)");
            continue;
        }
        row(file.label, file.path + "  [" + (file.note.empty() ? (file.exists ? "exists" : "missing")
                                                               : file.note) +
                            "]");
    }

    std::cout << "\nidentifier\n";
    row("cid", s.uuid.empty() ? "(empty: nothing can be sent)" : s.uuid);
    row("from", s.uuid_source);

    std::cout << "\nenvironment\n";
    if (s.variables.empty())
        row("variables", "none of the library's variables is set");
    for (const auto& variable : s.variables)
        std::cout << "  " << variable.first << "=\"" << variable.second << "\"\n";
    row("state", std::string(env_state_name(s.env_state)) + " (" + std::to_string(s.env_state) + ")");
    row("sending files", s.send_files_disabled ? "refused (NORVEL_DONOTSEND_FEEDBACK)" : "allowed");

    std::cout << "\nnetwork\n";
    if (s.network_tested)
        row("corporate test", std::string(network_status_name(s.network_status)) + " (" +
                                  std::to_string(s.network_status) + "): " +
                                  network_meaning(s.network_status));
    else
        row("corporate test", "not run: the library does not consult it in this state");

    std::cout << "\nconsent\n";
    row("answer", std::string(consent_name(s.consent)) + " (" + std::to_string(s.consent) + "): " +
                      consent_meaning(s.consent) +
                      (s.env_state == 0 ? "" : " by the environment; the consent file is not read"));

    std::cout << "\ndecision\n";
    row("collection", s.enabled ? "ENABLED: permitted feature uses are sent"
                                : "DISABLED: nothing is sent");
    if (!s.ready)
        row("backend", "not ready: every event is dropped");
    if (s.decision_log.empty())
        row("library's reason", "(nothing logged)");
    for (std::size_t i = 0; i < s.decision_log.size(); ++i)
        row(i == 0 ? "library's reason" : "", s.decision_log[i]);
    if (s.enabled == false && s.env_state == 0 && s.network_tested &&
        s.network_status == usemeter::nsOk && s.consent != 1)
        row("", "(no consent given: the library logs no separate message for this)");

    std::cout << "\nwhitelist\n";
    if (s.whitelist_path.empty())
        row("file", "none: no data directory (give --data-dir)");
    else
        row("file", s.whitelist_path + (s.whitelist_exists ? "" : "  [missing]"));
    row("entries", s.whitelist.empty() ? "(none)" : join(s.whitelist, ", "));
    row("always admitted", "run.<tool> (one word after \"run.\")");

    std::cout << "\nactive use\n";
    row("days on record", s.history.empty() ? "(none)" : join(s.history, ", "));
    row("active user", std::string(s.active ? "yes (cd3=y)" : "no (cd3=n)") +
                           ": needs 4 days on record, the oldest within a year");

    std::cout << "\nproxy candidates, in the order tried\n";
    int n = 0;
    for (const std::string& proxy : s.proxies)
        row(std::to_string(++n) + ".", "\"" + proxy + "\" (http_proxy)");
    row(std::to_string(++n) + ".", "no explicit proxy (libcurl's own environment rules)");

    std::cout << "\nsupport tools\n";
    row("tool calls", s.tool_calls_allowed ? "allowed" : "disallowed (USEMETER_DISABLE_ORB)");
    for (const tool_info_t& tool : s.tools)
        row(tool.name, tool.location.empty() ? "not found" : tool.location);
}

void print_status_json(const status_t& s)
{
    json_t root = json_t::object();
    json_t& product = root.set("product", json_t::object());
    product.set("name", s.product);
    product.set("version", s.version);
    product.set("locations_service", s.locations_service);
    root.set("home", s.home);

    json_t& files = root.set("files", json_t::object());
    const char* const keys[] = {"base_dir", "consent_file", "settings_dir", "uuid_file",
                                "history_file"};
    for (std::size_t i = 0; i < s.files.size(); ++i) {
        json_t& file = files.set(keys[i], json_t::object());
        file.set("path", s.files[i].path);
        file.set("exists", s.files[i].exists);
    }

    json_t& identifier = root.set("identifier", json_t::object());
    identifier.set("cid", s.uuid);
    identifier.set("source", s.uuid_source);

    json_t& environment = root.set("environment", json_t::object());
    json_t& variables = environment.set("set", json_t::object());
    for (const auto& variable : s.variables)
        variables.set(variable.first, variable.second);
    environment.set("state", env_state_name(s.env_state));
    environment.set("state_value", s.env_state);
    environment.set("send_files_disabled", s.send_files_disabled);

    json_t& network = root.set("network", json_t::object());
    network.set("tested", s.network_tested);
    network.set("status", s.network_tested ? json_t(network_status_name(s.network_status)) : json_t());
    network.set("status_value", s.network_tested ? json_t(s.network_status) : json_t());

    json_t& consent = root.set("consent", json_t::object());
    consent.set("value", s.consent);
    consent.set("name", consent_name(s.consent));
    consent.set("ask_user", s.consent == 0);

    json_t& decision = root.set("decision", json_t::object());
    decision.set("enabled", s.enabled);
    decision.set("ready", s.ready);
    json_t& log = decision.set("library_log", json_t::array());
    for (const std::string& message : s.decision_log)
        log.push(message);

    json_t& whitelist = root.set("whitelist", json_t::object());
    whitelist.set("path", s.whitelist_path);
    whitelist.set("exists", s.whitelist_exists);
    json_t& entries = whitelist.set("entries", json_t::array());
    for (const std::string& entry : s.whitelist)
        entries.push(entry);

    json_t& active = root.set("active_user", json_t::object());
    json_t& days = active.set("days", json_t::array());
    for (const std::string& day : s.history)
        days.push(day);
    active.set("active", s.active);

    json_t& proxies = root.set("proxy_candidates", json_t::array());
    for (const std::string& proxy : s.proxies)
        proxies.push(proxy);
    proxies.push(json_t());  // no explicit proxy

    json_t& tools = root.set("support_tools", json_t::object());
    tools.set("calls_allowed", s.tool_calls_allowed);
    json_t& locations = tools.set("locations", json_t::object());
    for (const tool_info_t& tool : s.tools)
        locations.set(tool.name, tool.location.empty() ? json_t() : json_t(tool.location));

    std::cout << root.dump() << "\n";
}

}  // namespace

int run_status(int argc, char** argv)
{
    product_options_t product;
    bool as_json = false;
    po::options_description options("status options");
    product.add_to(options);
    options.add_options()("json", po::bool_switch(&as_json), "print one JSON object for scripts");
    po::variables_map values;
    if (!parse_command_line(argc, argv, "usemeter status [options]", options, values, false))
        return exit_ok;

    product_session_t session(product);
    const status_t status = collect_status(product, session);
    if (as_json)
        print_status_json(status);
    else
        print_status_text(status);
    return exit_ok;
}

int run_explain(int argc, char** argv)
{
    product_options_t product;
    po::options_description options("explain options");
    product.add_to(options);
    po::variables_map values;
    if (!parse_command_line(argc, argv, "usemeter explain [options] NAME...", options, values, true))
        return exit_ok;
    if (!values.count("args"))
        throw usage_error("missing feature name (usage: usemeter explain [options] NAME...)");
    const auto names = values["args"].as<std::vector<std::string>>();

    product_session_t session(product);
    built_statistic_t built = build_statistic(product);
    inspected_statistic_t& statistic = *built.statistic;
    const auto& whitelist = statistic.whitelisted_events();

    std::cout << product.product << " " << product.effective_version() << ", whitelist ";
    if (session.whitelist_path().empty())
        std::cout << "(none: no data directory)";
    else
        std::cout << session.whitelist_path() << " (" << whitelist.size() << " entries)";
    std::cout << "\ncollection is " << (statistic.is_collection_enabled() ? "enabled" : "disabled")
              << (statistic.is_collection_enabled() ? "" : ": nothing below would be sent now")
              << "\n";

    for (const std::string& name : names) {
        std::cout << "\n" << name << "\n";
        std::cout << "  valid name  "
                  << (usemeter::statistic_t::is_feature_name_valid(name)
                          ? "yes"
                          : "no (words of letters, digits, % and _ joined by single dots); "
                            "the library does not check, its filters decide")
                  << "\n";
        std::string category, label;
        if (!statistic.resolve_event(name, category, label)) {
            std::cout << "  dropped     no whitelist entry is a dotted prefix of it, and it is not "
                         "a plain run.<tool> name\n";
            continue;
        }
        if (whitelist.count(category))
            std::cout << "  admitted    by the whitelist entry \"" << category << "\"\n";
        else
            std::cout << "  admitted    by the run.<tool> rule (no whitelist entry needed)\n";
        std::cout << "  category    ec=" << category << "\n";
        std::cout << "  label       " << (label.empty() ? "(none: no el parameter)" : "el=" + label)
                  << "\n";
        std::cout << "  body        " << statistic.build_event_body(category, label) << "\n";
    }
    return exit_ok;
}

}  // namespace usemeter_tool
