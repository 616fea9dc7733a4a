#include "usemeter/orb_accessor.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "basekit/environ.hpp"
#include "host/host_services.hpp"
#include "process/process.hpp"
#include "rtbase/strings.hpp"
#include "tracelog/tracelog.hpp"
#include "usemeter/sys/environment.hpp"
#include "usemeter/sys/filelock.hpp"
#include "usemeter/product_locations.hpp"

namespace usemeter_1_5_7 {

std::string orb_accessor_t::DefaultProductGUID = "{00000000-0000-0000-0000-000000000000}";

orb_accessor_t::~orb_accessor_t() {}

namespace {

const log4cplus::Logger logger = tracelog::log::component_logger("usemeter.orb_accessor");

// Exchange files tried per get_uuid() call before giving up.
const int uuid_exchange_attempts = 19;

bool is_tool_lookup_quiet()
{
    const prodenv::IProductLocations* service = prodenv::IProductLocations::get();
    return service != nullptr && service->isToolLookupQuiet();
}

// Opens an exchange file without following a symbolic link planted at its name and
// without blocking on a planted FIFO; only a regular file is accepted. A new file is
// readable by its owner alone: it carries the user's identifier in a shared directory.
int open_exchange_file(const std::string& name, int flags)
{
    const int fd = host::services().open_file(name, flags | O_NONBLOCK, 0600);
    if (fd < 0)
        return -1;
    struct stat info;
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Creates the exchange file or empties a leftover one. A file with a second hard link
// or another owner was planted by someone else and is left alone: truncating it would
// destroy the file it stands for.
bool create_empty_exchange_file(const std::string& name)
{
    const int fd = open_exchange_file(name, O_WRONLY | O_CREAT);
    if (fd < 0)
        return false;
    struct stat info;
    const bool ours = ::fstat(fd, &info) == 0 && info.st_nlink == 1 && info.st_uid == ::geteuid();
    const bool emptied = ours && ::ftruncate(fd, 0) == 0;
    ::close(fd);
    return emptied;
}

// Reads up to the first newline (not included); an empty file gives an empty line.
bool read_first_line(const std::string& name, std::string& line)
{
    const int fd = open_exchange_file(name, O_RDONLY);
    if (fd < 0)
        return false;
    line.clear();
    char buffer[256];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        const std::string chunk(buffer, static_cast<std::size_t>(got));
        const std::size_t newline = chunk.find('\n');
        line += chunk.substr(0, newline);
        if (newline != std::string::npos)
            break;
    }
    ::close(fd);
    return true;
}

// send_file and send_crash_report differ only in their log label and event word.
bool send_consumed_file(const orb_accessor_impl_t& bridge, const char* label, const char* event,
                        const basekit::path_t& file, bool flag)
{
    const std::string file_text = file.as_string(false);
    LOG4CPLUS_INFO(logger, label << rtbase::escape_controls(file_text));

    std::vector<std::string> arguments = {"-t", "i", "-e", event};
    if (flag)
        arguments.push_back("-f");
    arguments.push_back("-m");
    arguments.push_back(file_text);

    if (bridge.invoke_orb(orb_accessor_impl_t::tool_remote_monitor, arguments, true) == -1)
        return false;
    // The tool deletes what it sent: a file still present was not sent, whatever it exited with.
    return !file.is_exists();
}

}  // namespace

bool orb_accessor_impl_t::send_file(const basekit::path_t& file, bool flag)
{
    TRACELOG_SCOPE(logger,
                   "virtual bool usemeter_1_5_7::orb_accessor_impl_t::send_file(const "
                   "basekit::path_t&, bool)");
    return send_consumed_file(*this, "aggregated_file=", "statistic", file, flag);
}

bool orb_accessor_impl_t::send_usage_package()
{
    TRACELOG_SCOPE(logger, "virtual bool usemeter_1_5_7::orb_accessor_impl_t::send_usage_package()");
    return invoke_orb(tool_remote_monitor, {"-t", "i", "-b"}, true) != -1;
}

bool orb_accessor_impl_t::send_crash_report(const basekit::path_t& file, bool flag)
{
    TRACELOG_SCOPE(logger,
                   "virtual bool usemeter_1_5_7::orb_accessor_impl_t::send_crash_report(const "
                   "basekit::path_t&, bool)");
    return send_consumed_file(*this, "file=", "crash", file, flag);
}

bool orb_accessor_impl_t::is_feedback_enabled() const
{
    TRACELOG_SCOPE(logger,
                   "virtual bool usemeter_1_5_7::orb_accessor_impl_t::is_feedback_enabled() const");
    // Disallowed tool calls answer 0 and so read as enabled; hosts rely on that.
    if (invoke_orb(tool_consent_check, {"-g"}, true) == 0) {
        LOG4CPLUS_INFO(logger, "return: feedback enabled");
        return true;
    }
    LOG4CPLUS_INFO(logger, "return: feedback disabled");
    return false;
}

void orb_accessor_impl_t::notify_gui_start()
{
    TRACELOG_SCOPE(logger, "virtual void usemeter_1_5_7::orb_accessor_impl_t::notify_gui_start()");
    const std::string pid_text = std::to_string(static_cast<unsigned long>(::getpid()));
    invoke_orb(tool_consent_check, {"-w", "-s", pid_text}, false);
}

void orb_accessor_impl_t::check_for_updates(const std::string& product_guid)
{
    TRACELOG_SCOPE(logger,
                   "virtual void usemeter_1_5_7::orb_accessor_impl_t::check_for_updates("
                   "const std::basic_string<char, std::char_traits<char>, std::allocator<char>>&)");
    LOG4CPLUS_INFO(logger, "product_guid=" << rtbase::escape_controls(product_guid));
    if (!is_check_for_updates_enabled()) {
        LOG4CPLUS_INFO(logger, "Check for updates disabled.");
        return;
    }
    invoke_orb(tool_main, {"--product_guid", product_guid, "--action", "check"}, false);
}

void orb_accessor_impl_t::set_product_id(const product_id_t& id)
{
    product_id_ = id;
}

const product_id_t& orb_accessor_impl_t::get_product_id() const
{
    return product_id_;
}

std::string orb_accessor_impl_t::get_uuid() const
{
    TRACELOG_SCOPE(logger,
                   "virtual std::basic_string<char, std::char_traits<char>, std::allocator<char>> "
                   "usemeter_1_5_7::orb_accessor_impl_t::get_uuid() const");
    const prodenv::IProductLocations* service = prodenv::IProductLocations::get();
    if (service == nullptr) {
        TRACELOG_ERROR(logger, "prodenv::IProductLocations::get() is NULL");
        LOG4CPLUS_INFO(logger, "return: empty string");
        return std::string();
    }
    const basekit::path_t temp_dir = service->getTempDir();
    if (temp_dir.empty()) {
        TRACELOG_ERROR(logger, "prodenv::IProductLocations::get()->getTempDir() returned empty path");
        LOG4CPLUS_INFO(logger, "return: empty string");
        return std::string();
    }

    // The process id keeps processes apart; the counter and the lock keep this process's
    // threads and a crashed run's leftovers apart.
    const std::string name_prefix = "uuid-" + std::to_string(::getpid()) + "-";
    for (int n = 1; n <= uuid_exchange_attempts; ++n) {
        basekit::path_t exchange_file(temp_dir);
        exchange_file.append(name_prefix + std::to_string(n) + ".txt");
        const std::string exchange_name = exchange_file.as_string(true);

        filelock_t lock(exchange_file);
        if (!lock.lock())
            continue;
        if (!create_empty_exchange_file(exchange_name))
            continue;
        // The exit status says nothing about the identifier: the file's content does.
        invoke_orb(tool_remote_monitor, {"-u", exchange_name}, true);
        std::string line;
        if (!read_first_line(exchange_name, line))
            continue;
        basekit::remove_file(exchange_file);

        const rtbase::ustring uuid = rtbase::to_ustring(line);
        LOG4CPLUS_INFO(logger, "return: uuid = " << uuid);
        return uuid;
    }
    LOG4CPLUS_INFO(logger, "return: empty string");
    return std::string();
}

bool orb_accessor_impl_t::is_check_for_updates_enabled() const
{
    TRACELOG_SCOPE(logger,
                   "bool usemeter_1_5_7::orb_accessor_impl_t::is_check_for_updates_enabled() const");
    if (basekit::get_environ_value(environment::disable_updates_check).empty()) {
        LOG4CPLUS_TRACE(logger, "Return 'true'");
        return true;
    }
    LOG4CPLUS_TRACE(logger, "Return 'false' - NORVEL_DISABLE_UPDATES_CHECK is set");
    return false;
}

bool orb_accessor_impl_t::is_orb_call_allowed() const
{
    TRACELOG_SCOPE(logger, "bool usemeter_1_5_7::orb_accessor_impl_t::is_orb_call_allowed() const");
    if (basekit::get_environ_value(environment::disable_orb).empty()) {
        LOG4CPLUS_TRACE(logger, "Return 'true'");
        return true;
    }
    LOG4CPLUS_TRACE(logger, "Return 'false' - USEMETER_DISABLE_ORB is set");
    return false;
}

basekit::path_t orb_accessor_impl_t::get_orb_location(orb_tool_t tool) const
{
    const int index = static_cast<int>(tool);
    if (index < 0 || index >= static_cast<int>(sizeof support_tools / sizeof support_tools[0]))
        return basekit::path_t();
    const support_tool_t& entry = support_tools[index];

    // Both variables choose a program: a privileged process does not take them from its caller.
    const basekit::path_t home(basekit::get_secure_environ_value("HOME"));
    if (!home.empty()) {
        basekit::path_t candidate(home);
        candidate.append("norvel").append(entry.sub_directory).append(entry.executable);
        if (candidate.is_exists())
            return candidate;
    }

    basekit::path_t system_candidate("/opt");
    system_candidate.append("norvel").append(entry.sub_directory).append(entry.executable);
    if (system_candidate.is_exists())
        return system_candidate;

    // Consulted last on purpose: an installed tool wins over the override.
    const std::string override_dir = basekit::get_secure_environ_value(environment::orb_tool_dir);
    if (!override_dir.empty()) {
        basekit::path_t candidate(override_dir);
        candidate.append(entry.executable);
        if (candidate.is_exists())
            return candidate;
    }
    return basekit::path_t();
}

int orb_accessor_impl_t::invoke_orb(orb_tool_t tool, const std::vector<std::string>& arguments,
                                    bool sync) const
{
    TRACELOG_SCOPE(logger,
                   "int usemeter_1_5_7::orb_accessor_impl_t::invoke_orb("
                   "usemeter_1_5_7::orb_accessor_impl_t::orb_tool_t, "
                   "const std::vector<std::basic_string<char, std::char_traits<char>, "
                   "std::allocator<char>>>&, bool) const");
    LOG4CPLUS_INFO(logger, "tool=" << static_cast<int>(tool));
    LOG4CPLUS_INFO(logger, "sync=" << sync);
    // Disallowed calls look like a successful run to callers; that is intended.
    if (!is_orb_call_allowed())
        return 0;

    const basekit::path_t location = get_orb_location(tool);
    const std::string location_text = location.as_string(false);
    LOG4CPLUS_INFO(logger, "orb location=" << rtbase::escape_controls(location_text));
    if (!location.is_exists()) {
        if (!is_tool_lookup_quiet())
            TRACELOG_ERROR(logger, "Failed to find orb location");
        return -1;
    }
    // A privileged process would lend its rights to whoever can replace the tool.
    if (process::is_privileged() && !process::is_trusted_program(location_text)) {
        TRACELOG_ERROR(logger, "orb location not trusted in a privileged process");
        return -1;
    }

    // No shell ever sees these strings, so the quote stays empty and nothing is escaped.
    const std::string quote;
    std::vector<std::string> argument_strings;
    argument_strings.reserve(arguments.size() + 1);
    argument_strings.push_back(quote + location_text + quote);
    for (const std::string& argument : arguments)
        argument_strings.push_back(quote + argument + quote);

    std::vector<char*> argument_pointers;
    argument_pointers.reserve(argument_strings.size() + 1);
    for (std::string& argument : argument_strings)
        argument_pointers.push_back(&argument[0]);
    argument_pointers.push_back(nullptr);

    std::string command_line;
    for (const std::string& argument : argument_strings) {
        if (!command_line.empty())
            command_line += ' ';
        command_line += argument;
    }
    LOG4CPLUS_INFO(logger, "orb command line='" << rtbase::escape_controls(command_line) << "'");

    const pid_t child = host::services().start_child(location_text.c_str(), argument_pointers.data());
    if (child == -1) {
        TRACELOG_ERROR(logger, "fork() call was failed");
        return -1;
    }
    // Asynchronous children are not reaped here: the host owns its children.
    if (!sync)
        return 0;
    const int result = process::wait_exit_status(child);
    LOG4CPLUS_INFO(logger, "orb return code=" << result);
    return result;
}

}  // namespace usemeter_1_5_7
