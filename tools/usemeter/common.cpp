#include "common.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>


#include "tracelog/host_setup.hpp"
#include "tracelog/log_capture.hpp"

namespace usemeter_tool {

bool parse_command_line(int argc, char** argv, const std::string& usage,
                        po::options_description& options, po::variables_map& values,
                        bool takes_arguments)
{
    options.add_options()("help,h", "show this help");
    po::options_description hidden;
    hidden.add_options()("args", po::value<std::vector<std::string>>());
    po::options_description all;
    all.add(options).add(hidden);
    po::positional_options_description rest;
    rest.add("args", -1);

    // Long options only: "-x" must not silently become a positional argument.
    po::store(po::command_line_parser(argc, argv)
                  .options(all)
                  .positional(rest)
                  .style(po::command_line_style::default_style &
                         ~po::command_line_style::allow_guessing)
                  .run(),
              values);
    if (values.count("help")) {
        std::cout << "usage: " << usage << "\n\n" << options;
        return false;
    }
    po::notify(values);
    if (!takes_arguments && values.count("args"))
        throw usage_error("unexpected argument '" + positional(values).front() + "'");
    return true;
}

std::vector<std::string> positional(const po::variables_map& values)
{
    return values.count("args") ? values["args"].as<std::vector<std::string>>()
                                : std::vector<std::string>();
}

void product_options_t::add_to(po::options_description& options)
{
    options.add_options()
        ("product", po::value(&product)->default_value(product),
         "product name (also the per-user settings directory without --product-dir)")
        ("version", po::value(&version)->value_name("VERSION"),
         "product version as sent in \"av\" (default: --product-version, else \"unknown\")")
        ("data-dir", po::value(&data_dir)->value_name("DIR"),
         "product data directory; the whitelist is DIR/statistic/enabled_stat_events.xml")
        ("product-dir", po::value(&product_dir)->value_name("NAME"),
         "per-user settings sub-directory under $HOME/norvel (default: the product name)")
        ("temp-dir", po::value(&temp_dir)->value_name("DIR"),
         "temporary directory of the product-locations service")
        ("product-version", po::value(&product_version)->value_name("A.B.C"),
         "version triple of the product-locations service")
        ("log-config", po::value(&log_config)->value_name("FILE"),
         "log4cplus properties file to load before using the library");
}

std::string product_options_t::effective_version() const
{
    return !version.empty() ? version : !product_version.empty() ? product_version : "unknown";
}

product_command_t::product_command_t(const std::string& name, const std::string& arguments)
    : options(name + " options"), usage("usemeter " + name + " [options]" + arguments)
{
    product.add_to(options);
}

bool product_command_t::parse(int argc, char** argv, bool takes_arguments)
{
    return parse_command_line(argc, argv, usage, options, values, takes_arguments);
}

std::vector<std::string> product_command_t::names() const
{
    const std::vector<std::string> given = positional(values);
    if (given.empty())
        throw usage_error("missing feature name (usage: " + usage + ")");
    return given;
}

namespace {

void parse_version_triple(const std::string& text, int (&parts)[3])
{
    char dot1 = 0, dot2 = 0, rest = 0;
    const int scanned = std::sscanf(text.c_str(), "%9d%c%9d%c%9d%c", &parts[0], &dot1, &parts[1],
                                    &dot2, &parts[2], &rest);
    if (scanned != 5 || dot1 != '.' || dot2 != '.' || text.find_first_not_of("0123456789.") != std::string::npos)
        throw usage_error("--product-version must be three numbers like 2024.1.0, not '" + text + "'");
}

std::unique_ptr<prodenv::fixed_locations_t> install_locations(const product_options_t& o)
{
    if (o.data_dir.empty() && o.product_dir.empty() && o.temp_dir.empty() && o.product_version.empty())
        return nullptr;
    int version[3] = {0, 0, 0};
    if (!o.product_version.empty())
        parse_version_triple(o.product_version, version);
    auto locations = std::make_unique<prodenv::fixed_locations_t>();
    locations->product_dir = o.product_dir.empty() ? o.product : o.product_dir;
    locations->data_dir = o.data_dir;
    const char* tmp = std::getenv("TMPDIR");
    locations->temp_dir = !o.temp_dir.empty() ? o.temp_dir : tmp && *tmp ? tmp : "/tmp";
    std::copy(version, version + 3, locations->version);
    return locations;
}

}  // namespace

product_session_t::product_session_t(const product_options_t& o) : options(o)
{
    if (!o.log_config.empty()) {
        if (!std::ifstream(o.log_config))
            throw usage_error("--log-config: no such file: " + o.log_config);
        tracelog::load_configuration(o.log_config);
    }
    locations = install_locations(o);
    tracelog::log_capture_t tap("usemeter.statistic");
    statistic = std::make_unique<usemeter::statistic_impl_ga_t>(o.product, o.effective_version());
    tap.stop();
    decision_log = tap.messages();
}

const char* env_state_name(int state)
{
    static const char* const names[] = {"evsEnabled", "evsEnabledForced", "evsEnabledUnconditional",
                                        "evsDisabled"};
    return state >= 0 && state < 4 ? names[state] : "unknown";
}

const char* network_status_name(int status)
{
    static const char* const names[] = {"nsExcludedNetwork", "nsOk", "nsError"};
    return status >= 0 && status < 3 ? names[status] : "unknown";
}

const char* consent_name(int consent)
{
    static const char* const names[] = {"ucUnknown", "ucGranted", "ucRefused"};
    return consent >= 0 && consent < 3 ? names[consent] : "unknown";
}

std::string join(const std::vector<std::string>& items, const std::string& separator)
{
    std::string out;
    for (const std::string& item : items)
        out += (out.empty() ? "" : separator) + item;
    return out;
}

}  // namespace usemeter_tool
