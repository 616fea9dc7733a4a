#include "support/fake_tool.hpp"

#include <cerrno>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include "support/temp_home.hpp"

namespace usemeter_test {

fake_tool_t::fake_tool_t(const std::string& path, const std::string& body) : path_(path)
{
    make_dirs(path.substr(0, path.rfind('/')));
    write_file(path, "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\n' \"$a\"; done > " +
                         shell_quote(path + ".args") + "\n" + body + "\n");
    boost::filesystem::permissions(path, boost::filesystem::add_perms | boost::filesystem::owner_exe);
}

fake_tool_t::~fake_tool_t()
{
    ::unlink(path_.c_str());
    ::unlink((path_ + ".args").c_str());
}

std::vector<std::string> fake_tool_t::args() const
{
    std::vector<std::string> args;
    std::istringstream in(read_file(path_ + ".args"));
    for (std::string line; std::getline(in, line);)
        args.push_back(line);
    return args;
}

std::string shell_quote(const std::string& text)
{
    std::string quoted = "'";
    for (char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string on_argument(const std::string& flag, const std::string& command)
{
    return "while [ $# -gt 0 ]; do [ \"$1\" = " + flag + " ] && " + command + "; shift; done\n";
}

std::vector<int> reap_children()
{
    std::vector<int> statuses;
    for (int status = 0;;)
        if (::waitpid(-1, &status, 0) > 0)
            statuses.push_back(status);
        else if (errno != EINTR)
            return statuses;
}

bool has_children()
{
    siginfo_t info{};
    return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

}  // namespace usemeter_test
