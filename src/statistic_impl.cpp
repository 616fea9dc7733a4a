#include "usemeter/sys/statistic_impl.hpp"

#include <cctype>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>

#include "basekit/environ.hpp"
#include "basekit/variant_bag.hpp"
#include "host/host_services.hpp"
#include "rtbase/strings.hpp"
#include "usemeter/sys/environment.hpp"
#include "tracelog/tracelog.hpp"
#include "usemeter/sys/host_facts.hpp"
#include "usemeter/product_locations.hpp"

namespace usemeter_1_5_7 {

namespace {

const log4cplus::Logger logger = tracelog::log::component_logger("usemeter.statistic");

bool is_set(const char* variable)
{
    // Only presence counts: "0" or "no" switch as surely as "1".
    return !basekit::get_environ_value(variable).empty();
}

// A name that would lead out of its own directory under $HOME/norvel.
bool is_unsafe_directory_name(const std::string& name)
{
    return name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos;
}

// The consent decision needs the first token's first two bytes; blanks before it are skipped
// only this far, so a huge file costs no more than this.
const std::size_t consent_read_limit = 64 * 1024;

enum class token_t { unreadable, one, other };

token_t read_first_token(const std::string& path)
{
    // O_NONBLOCK: a FIFO planted in the file's place must not hang the host.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return token_t::unreadable;
    std::string token;
    bool token_ended = false;
    std::size_t total = 0;
    ssize_t got = 0;
    char buffer[4096];
    while (!token_ended && total < consent_read_limit) {
        got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        total += static_cast<std::size_t>(got);
        for (ssize_t i = 0; i < got && !token_ended; ++i) {
            if (std::isspace(static_cast<unsigned char>(buffer[i])) == 0)
                token += buffer[i];
            token_ended = token.size() == 2 || (!token.empty() && std::isspace(static_cast<unsigned char>(buffer[i])));
        }
    }
    ::close(fd);
    if (got < 0 && total == 0)  // e.g. a directory in the file's place
        return token_t::unreadable;
    return token == "1" ? token_t::one : token_t::other;
}

}  // namespace

statistic_impl_t::statistic_impl_t(const std::string& product_name,
                                   const std::string& product_version)
    : product_name_(product_name), product_version_(product_version), enabled_(false)
{
    // Without its directories the object stays silent rather than failing the host.
    if (!initialize_paths())
        return;
    load_uuid();
    enabled_ = is_enabled();
}

statistic_impl_t::~statistic_impl_t() = default;

bool statistic_impl_t::initialize_paths()
{
    try {
        const prodenv::IProductLocations* locations = prodenv::IProductLocations::get();

        // HOME chooses where files are written: a privileged process does not take it from its caller.
        const std::string home = basekit::get_secure_environ_value("HOME");
        const boost::filesystem::path base =
            boost::filesystem::path(home.empty() ? std::string(".") : home) / "norvel";

        const char* product_dir = locations ? locations->getProductDirName() : nullptr;
        const std::string product = product_dir ? std::string(product_dir) : product_name_;
        if (is_unsafe_directory_name(product)) {
            LOG4CPLUS_INFO(logger, "statistic disabled: product name '" << rtbase::escape_controls(product)
                                   << "' cannot name a directory");
            return false;
        }

        boost::filesystem::create_directories(base);
        optin_path_ = (base / "optin").string();

        settings_dir_ = base / product / "settings" / "statistic";
        boost::filesystem::create_directories(settings_dir_);
        uuid_path_ = (settings_dir_ / "uuid.xml").string();
        return true;
    } catch (const boost::filesystem::filesystem_error& error) {
        // Support's first question is why nothing was sent; answer it here.
        LOG4CPLUS_INFO(logger, "statistic disabled: cannot prepare per-user directories: " << error.what());
        return false;
    }
}

std::string statistic_impl_t::load_uuid()
{
    TRACELOG_SCOPE(logger, "std::basic_string<char, std::char_traits<char>, std::allocator<char>> "
                           "usemeter_1_5_7::statistic_impl_t::load_uuid()");

    // A forced identifier is taken as it stands and leaves the file alone.
    uuid_ = basekit::get_environ_value(environment::force_uuid);
    if (!uuid_.empty())
        return uuid_;

    basekit::variant_bag_t bag;
    const basekit::path_t path(uuid_path_);
    if (basekit::load_variant_bag2(bag, path, "bag", false) == 1) {
        // A bag that loads is trusted and never rewritten, even without a usable "UUID":
        // reporting then stays off until someone fixes or removes the file.
        const basekit::variant_t value = bag.get_variant("UUID", basekit::variant_t());
        if (value.kind() == basekit::variant_t::vt_string)
            uuid_ = value.bytes();
        return uuid_;
    }

    // Missing or unreadable: start afresh. A failed save only costs a new identifier
    // next time.
    uuid_ = generate_uuid4();
    bag.clear();
    bag.put("UUID", basekit::variant_t(uuid_));
    basekit::save_variant_bag2(bag, path, "bag");
    return uuid_;
}

void statistic_impl_t::notify_gui_start() {}

std::string statistic_impl_t::get_uuid() const
{
    return uuid_;
}

void statistic_impl_t::notify_feature_usage(const std::string& name)
{
    notify_feature_usage_ex(name, 1);
}

bool statistic_impl_t::send_crash_report(const std::string&)
{
    return false;
}

statistic_impl_t::env_vars_state_t statistic_impl_t::get_env_vars_state()
{
    TRACELOG_SCOPE(logger, "static usemeter_1_5_7::statistic_impl_t::env_vars_state_t "
                           "usemeter_1_5_7::statistic_impl_t::get_env_vars_state()");

    // First match wins, so a disabling variable always beats the forcing one.
    static const struct {
        const char* variable;
        env_vars_state_t state;
        const char* message;
    } rules[] = {
        {environment::statistics_disable, evsDisabled,
         "Return 'evsDisabled' - NORVEL_STATISTICS_DISABLE is set"},
        {environment::do_not_send_feedback, evsDisabled,
         "Return 'evsDisabled' - NORVEL_DONOTSEND_FEEDBACK is set"},
        {environment::disable_feedback, evsDisabled,
         "Return 'evsDisabled' - NORVEL_DISABLE_FEEDBACK is set"},
        {environment::force_feedback, evsEnabledForced,
         "Return 'evsEnabledForced' - NORVEL_FORCE_FEEDBACK is set"},
    };
    for (const auto& rule : rules) {
        if (is_set(rule.variable)) {
            LOG4CPLUS_TRACE(logger, rule.message);
            return rule.state;
        }
    }
    LOG4CPLUS_TRACE(logger, "Return 'evsEnabled'");
    return evsEnabled;
}

bool statistic_impl_t::is_enabled() const
{
    TRACELOG_SCOPE(logger, "bool usemeter_1_5_7::statistic_impl_t::is_enabled() const");

    if (uuid_.empty()) {
        LOG4CPLUS_INFO(logger, "Return 'false' - empty uuid. reporting disabled");
        return false;
    }

    switch (get_env_vars_state()) {
    case evsDisabled:
        LOG4CPLUS_TRACE(logger, "Return 'false' - statistic disabled due to environment variables");
        return false;
    case evsEnabledForced:
        LOG4CPLUS_TRACE(logger, "Return 'true' - statistic forcefully enabled by environment variables");
        return true;
    case evsEnabledUnconditional:
        LOG4CPLUS_TRACE(logger, "Return 'true' - statistic forcefully enabled by build time "
                                "ENABLE_UNCONDITIONAL_DELIVERY option");
        return true;
    case evsEnabled:
        break;
    }

    switch (get_network_status()) {
    case nsExcludedNetwork:
        LOG4CPLUS_TRACE(logger, "Return 'false' - excluded network");
        return false;
    case nsError:
        LOG4CPLUS_TRACE(logger, "Return 'false' - network error");
        return false;
    default:
        break;
    }

    return get_user_consent() == ucGranted;
}

bool statistic_impl_t::consults_network() const
{
    // The order of is_enabled(): only an open decision with an identifier reaches the test.
    return !uuid_.empty() && get_env_vars_state() == evsEnabled;
}

int statistic_impl_t::get_user_consent() const
{
    switch (get_env_vars_state()) {
    case evsEnabledForced:
    case evsEnabledUnconditional:
        return ucGranted;
    case evsDisabled:
        return ucRefused;
    case evsEnabled:
        break;
    }

    const token_t token = read_first_token(optin_path_);
    if (token == token_t::unreadable) {
        LOG4CPLUS_TRACE(logger, "optin file missing/not readable");
        return ucUnknown;
    }
    LOG4CPLUS_TRACE(logger, "optin file content read");
    if (token == token_t::one) {
        LOG4CPLUS_TRACE(logger, "optin file enables statistic");
        return ucGranted;
    }
    LOG4CPLUS_TRACE(logger, "optin file disables statistic");
    return ucRefused;
}

void statistic_impl_t::set_statistic_collection_enabled(bool enabled)
{
    // Replaced, not truncated: a link planted at the name is not followed, a full disk keeps
    // the recorded answer, and a reader never meets an empty file. Failures are silent by
    // contract: the decision below then reflects the old file.
    host::services().replace_file(optin_path_, enabled ? "1" : "0");
    enabled_ = is_enabled();
}

bool statistic_impl_t::is_send_files_disabled() const
{
    TRACELOG_SCOPE(logger,
                   "bool usemeter_1_5_7::statistic_impl_t::is_send_files_disabled() const");

    // Only this switch forbids files; the other disabling variables stop statistics only.
    if (is_set(environment::do_not_send_feedback)) {
        LOG4CPLUS_TRACE(logger, "Return 'true' - NORVEL_DONOTSEND_FEEDBACK is enabled");
        return true;
    }
    LOG4CPLUS_TRACE(logger, "Return 'false'");
    return false;
}

}  // namespace usemeter_1_5_7
