// Fake support tools: /bin/sh scripts standing in for the real executables. Each run writes
// its arguments, one a line, to "<script>.args" and then runs the script's body.
#ifndef USEMETER_TESTS_FAKE_TOOL_HPP
#define USEMETER_TESTS_FAKE_TOOL_HPP

#include <string>
#include <vector>

namespace usemeter_test {

// The script exists for the object's lifetime; its directories are created and left.
class fake_tool_t {
public:
    explicit fake_tool_t(const std::string& path, const std::string& body = "");
    ~fake_tool_t();
    fake_tool_t(const fake_tool_t&) = delete;

    const std::string& path() const { return path_; }
    std::vector<std::string> args() const;  // the last run's, without the program name

private:
    std::string path_;
};

std::string shell_quote(const std::string& text);
// Shell text that runs `command` with the argument following `flag` as "$2".
std::string on_argument(const std::string& flag, const std::string& command);

// Waits for every child of this process and returns their wait statuses.
std::vector<int> reap_children();
// True while this process has a child, running or not yet reaped (reaps nothing).
bool has_children();

}  // namespace usemeter_test

#endif
