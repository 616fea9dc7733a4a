#include "common.hpp"

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <sstream>

#include <sys/stat.h>

#include <log4cplus/configurator.h>
#include <log4cplus/spi/loggingevent.h>

#include "usemeter/product_locations.hpp"

namespace usemeter_tool {

// ---- product options and the locations service ---------------------------------------

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
    if (!version.empty())
        return version;
    if (!product_version.empty())
        return product_version;
    return "unknown";
}

bool product_options_t::wants_locations_service() const
{
    return !data_dir.empty() || !product_dir.empty() || !temp_dir.empty() ||
           !product_version.empty();
}

class product_session_t::locations_t : public prodenv::IProductLocations {
public:
    locations_t(const product_options_t& options)
        : dir_name_(options.product_dir.empty() ? options.product : options.product_dir),
          data_dir_(options.data_dir),
          temp_dir_(options.temp_dir.empty() ? default_temp_dir() : options.temp_dir)
    {
        if (!options.product_version.empty() &&
            !parse_triple(options.product_version, major_, minor_, update_))
            throw usage_error("--product-version must be three numbers like 2024.1.0, not '" +
                              options.product_version + "'");
    }

    void getProductVersion(int& major, int& minor, int& update) const override
    {
        major = major_;
        minor = minor_;
        update = update_;
    }
    const char* getProductDirName() const override { return dir_name_.c_str(); }
    const char* getDataDir() const override
    {
        return data_dir_.empty() ? nullptr : data_dir_.c_str();
    }
    basekit::path_t getTempDir() const override { return basekit::path_t(temp_dir_); }
    bool isToolLookupQuiet() const override { return false; }

private:
    static bool parse_triple(const std::string& text, int& major, int& minor, int& update)
    {
        int* const parts[] = {&major, &minor, &update};
        std::size_t at = 0;
        for (int i = 0; i < 3; ++i) {
            if (i > 0 && (at >= text.size() || text[at++] != '.'))
                return false;
            const std::size_t end = text.find_first_not_of("0123456789", at);
            const std::size_t digits = (end == std::string::npos ? text.size() : end) - at;
            if (digits == 0 || digits > 9)
                return false;
            *parts[i] = std::stoi(text.substr(at, digits));
            at += digits;
        }
        return at == text.size();
    }

    static std::string default_temp_dir()
    {
        const std::string tmp = env_value("TMPDIR");
        return tmp.empty() ? "/tmp" : tmp;
    }

    std::string dir_name_;
    std::string data_dir_;
    std::string temp_dir_;
    int major_ = 0, minor_ = 0, update_ = 0;
};

product_session_t::product_session_t(const product_options_t& options) : options_(options)
{
    if (!options.log_config.empty()) {
        if (!path_exists(options.log_config))
            throw usage_error("--log-config: no such file: " + options.log_config);
        log4cplus::PropertyConfigurator::doConfigure(options.log_config);
    }
    if (options.wants_locations_service()) {
        service_.reset(new locations_t(options));
        prodenv::IProductLocations::set(service_.get());
    }
}

product_session_t::~product_session_t()
{
    if (service_)
        prodenv::IProductLocations::set(nullptr);
}

std::string product_session_t::whitelist_path() const
{
    if (options_.data_dir.empty())
        return std::string();
    return options_.data_dir + "/statistic/enabled_stat_events.xml";
}

// ---- log tap ---------------------------------------------------------------------------

class log_tap_t::appender_t : public log4cplus::Appender {
public:
    ~appender_t() override { destructorImpl(); }
    void close() override {}

    std::vector<std::string> snapshot() const
    {
        std::lock_guard<std::mutex> guard(mutex_);
        return messages_;
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        const std::string& message = event.getMessage();
        if (message.rfind("ENTER: ", 0) == 0 || message.rfind("EXIT:  ", 0) == 0)
            return;
        std::lock_guard<std::mutex> guard(mutex_);
        messages_.push_back(message);
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> messages_;
};

log_tap_t::log_tap_t(const std::string& logger_name)
    : logger_(log4cplus::Logger::getInstance(logger_name)),
      old_level_(logger_.getLogLevel()),
      appender_(new appender_t()),
      attached_(true)
{
    appender_->setName("usemeter-tool-tap");
    logger_.addAppender(appender_);
    logger_.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
}

log_tap_t::~log_tap_t()
{
    stop();
}

void log_tap_t::stop()
{
    if (!attached_)
        return;
    attached_ = false;
    logger_.removeAppender(appender_);
    logger_.setLogLevel(old_level_);
}

std::vector<std::string> log_tap_t::messages() const
{
    return static_cast<appender_t&>(*appender_).snapshot();
}

built_statistic_t build_statistic(const product_options_t& options)
{
    built_statistic_t built;
    log_tap_t tap("usemeter.statistic");
    built.statistic.reset(new inspected_statistic_t(options.product, options.effective_version()));
    tap.stop();
    built.decision_log = tap.messages();
    return built;
}

// ---- JSON ------------------------------------------------------------------------------

json_t& json_t::set(const std::string& key, json_t value)
{
    members_.emplace_back(key, std::move(value));
    return members_.back().second;
}

json_t& json_t::push(json_t value)
{
    members_.emplace_back(std::string(), std::move(value));
    return members_.back().second;
}

std::string json_quote(const std::string& text)
{
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                out += escaped;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    return out + "\"";
}

std::string json_t::dump(int indent) const
{
    switch (kind_) {
    case kind_t::null: return "null";
    case kind_t::boolean:
    case kind_t::number: return text_;
    case kind_t::string: return json_quote(text_);
    case kind_t::array:
    case kind_t::object: break;
    }
    const bool is_object = kind_ == kind_t::object;
    if (members_.empty())
        return is_object ? "{}" : "[]";
    const std::string pad(indent + 2, ' ');
    std::string out = is_object ? "{\n" : "[\n";
    for (std::size_t i = 0; i < members_.size(); ++i) {
        out += pad;
        if (is_object)
            out += json_quote(members_[i].first) + ": ";
        out += members_[i].second.dump(indent + 2);
        out += i + 1 < members_.size() ? ",\n" : "\n";
    }
    return out + std::string(indent, ' ') + (is_object ? "}" : "]");
}

// ---- helpers ---------------------------------------------------------------------------

std::string env_value(const char* name)
{
    const char* value = std::getenv(name);
    return value ? value : "";
}

bool path_exists(const std::string& path)
{
    struct stat info;
    return !path.empty() && ::stat(path.c_str(), &info) == 0;
}

std::string join(const std::vector<std::string>& items, const std::string& separator)
{
    std::string out;
    for (const std::string& item : items) {
        if (!out.empty())
            out += separator;
        out += item;
    }
    return out;
}

const char* env_state_name(int state)
{
    switch (state) {
    case usemeter::statistic_impl_t::evsEnabled: return "evsEnabled";
    case usemeter::statistic_impl_t::evsEnabledForced: return "evsEnabledForced";
    case usemeter::statistic_impl_t::evsEnabledUnconditional: return "evsEnabledUnconditional";
    case usemeter::statistic_impl_t::evsDisabled: return "evsDisabled";
    }
    return "unknown";
}

const char* network_status_name(int status)
{
    switch (status) {
    case usemeter::nsExcludedNetwork: return "nsExcludedNetwork";
    case usemeter::nsOk: return "nsOk";
    case usemeter::nsError: return "nsError";
    }
    return "unknown";
}

const char* consent_name(int consent)
{
    switch (consent) {
    case usemeter::statistic_impl_t::ucUnknown: return "ucUnknown";
    case usemeter::statistic_impl_t::ucGranted: return "ucGranted";
    case usemeter::statistic_impl_t::ucRefused: return "ucRefused";
    }
    return "unknown";
}

bool parse_command_line(int argc, char** argv, const std::string& usage,
                        po::options_description& options, po::variables_map& values,
                        bool takes_arguments)
{
    options.add_options()("help,h", "show this help");
    po::options_description hidden;
    hidden.add_options()("args", po::value<std::vector<std::string>>());
    po::options_description all;
    all.add(options).add(hidden);
    po::positional_options_description positional;
    positional.add("args", -1);

    // Long options only: "-x" must not silently become a positional argument.
    po::store(po::command_line_parser(argc, argv)
                  .options(all)
                  .positional(positional)
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
        throw usage_error("unexpected argument '" +
                          values["args"].as<std::vector<std::string>>().front() + "'");
    return true;
}

}  // namespace usemeter_tool
