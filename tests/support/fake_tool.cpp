#include "support/fake_tool.hpp"

#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/temp_home.hpp"

namespace usemeter_test {

namespace {

using tool_t = usemeter_1_5_7::orb_accessor_impl_t::orb_tool_t;

std::string shell_quote(const std::string& text)
{
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    return quoted + "'";
}

std::string script_text(const std::string& args_file, const fake_tool_behaviour_t& behaviour)
{
    std::ostringstream s;
    s << "#!/bin/sh\n";
    s << "if [ $# -gt 0 ]; then printf '%s\\n' \"$@\" > " << shell_quote(args_file)
      << "; else : > " << shell_quote(args_file) << "; fi\n";
    s << "prev=\n"
         "for a in \"$@\"; do\n"
         "  case \"$prev\" in\n";
    if (behaviour.consume_m_file)
        s << "    -m) rm -f -- \"$a\" ;;\n";
    if (behaviour.write_u_file)
        s << "    -u) printf '%s' " << shell_quote(behaviour.u_content) << " > \"$a\" ;;\n";
    s << "  esac\n"
         "  prev=$a\n"
         "done\n";
    if (!behaviour.wait_for.empty())
        s << "i=0\n"
             "while [ ! -e "
          << shell_quote(behaviour.wait_for)
          << " ] && [ $i -lt 600 ]; do sleep 0.05; i=$((i + 1)); done\n";
    if (!behaviour.done_marker.empty())
        s << ": > " << shell_quote(behaviour.done_marker) << "\n";
    if (behaviour.kill_signal != 0)
        s << "kill -" << behaviour.kill_signal << " $$\n";
    s << "exit " << behaviour.exit_status << "\n";
    return s.str();
}

const char* sub_directory(tool_t tool)
{
    return tool == usemeter_1_5_7::orb_accessor_impl_t::tool_main ? "orb" : "orb/bin/ia32";
}

}  // namespace

fake_tool_t::fake_tool_t(const std::string& path, const fake_tool_behaviour_t& behaviour,
                         mode_t mode)
    : path_(path)
{
    const std::size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0)
        make_dirs(path.substr(0, slash));
    write_file(path, script_text(args_file(), behaviour));
    if (::chmod(path.c_str(), mode) != 0)
        throw std::runtime_error("cannot chmod " + path);
}

bool fake_tool_t::ran() const
{
    return file_exists(args_file());
}

std::vector<std::string> fake_tool_t::recorded_args() const
{
    std::vector<std::string> args;
    std::istringstream in(read_file(args_file()));
    for (std::string line; std::getline(in, line);)
        args.push_back(line);
    return args;
}

void fake_tool_t::forget_run() const
{
    ::unlink(args_file().c_str());
}

const char* tool_executable(tool_t tool)
{
    switch (tool) {
    case usemeter_1_5_7::orb_accessor_impl_t::tool_remote_monitor:
        return "norvelremotemon";
    case usemeter_1_5_7::orb_accessor_impl_t::tool_main:
        return "orb";
    case usemeter_1_5_7::orb_accessor_impl_t::tool_consent_check:
        return "checkOPTINconsent";
    }
    return "";
}

std::string home_tool_path(const std::string& home, tool_t tool)
{
    return home + "/norvel/" + sub_directory(tool) + "/" + tool_executable(tool);
}

std::string override_tool_path(const std::string& dir, tool_t tool)
{
    return dir + "/" + tool_executable(tool);
}

std::vector<int> reap_children()
{
    std::vector<int> statuses;
    for (;;) {
        int status = 0;
        const pid_t pid = ::waitpid(-1, &status, 0);
        if (pid > 0)
            statuses.push_back(status);
        else if (errno != EINTR)
            return statuses;
    }
}

bool has_children()
{
    siginfo_t info{};
    return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

}  // namespace usemeter_test
