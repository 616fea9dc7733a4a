// Fake support tools: small /bin/sh scripts that stand in for the real executables.
// Each records its argument vector (one argument per line) in "<script>.args" and then
// acts as its behaviour says.
#ifndef USEMETER_TESTS_FAKE_TOOL_HPP
#define USEMETER_TESTS_FAKE_TOOL_HPP

#include <string>
#include <vector>

#include <sys/types.h>

#include "usemeter/orb_accessor.hpp"

namespace usemeter_test {

struct fake_tool_behaviour_t {
    int exit_status = 0;
    bool consume_m_file = true;  // delete the file named after "-m"
    bool write_u_file = false;   // write u_content (verbatim) into the file named after "-u"
    std::string u_content;
    int kill_signal = 0;         // when non-zero, kill itself with this signal instead of exiting
    std::string wait_for;        // when set, wait (at most 30 s) until this path exists
    std::string done_marker;     // when set, create this file just before ending
};

class fake_tool_t {
public:
    // Writes the script at `path` (creating its directories) with the given mode.
    fake_tool_t(const std::string& path, const fake_tool_behaviour_t& behaviour,
                mode_t mode = 0755);

    const std::string& path() const { return path_; }
    std::string args_file() const { return path_ + ".args"; }
    bool ran() const;
    // The argument vector of the last run, without the program name.
    std::vector<std::string> recorded_args() const;
    void forget_run() const;

private:
    std::string path_;
};

const char* tool_executable(usemeter_1_5_7::orb_accessor_impl_t::orb_tool_t tool);
// Where the library looks under a home directory: <home>/norvel/<sub-directory>/<executable>.
std::string home_tool_path(const std::string& home,
                           usemeter_1_5_7::orb_accessor_impl_t::orb_tool_t tool);
// Where the library looks in the override directory: <dir>/<executable>.
std::string override_tool_path(const std::string& dir,
                               usemeter_1_5_7::orb_accessor_impl_t::orb_tool_t tool);

// Waits for every child of this process and returns their wait statuses.
std::vector<int> reap_children();
// True while this process has any child, running or not yet reaped (reaps nothing).
bool has_children();

}  // namespace usemeter_test

#endif
