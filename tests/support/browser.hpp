// Debian's chromium, headless, on loopback pages only, in a profile of its own.
#ifndef USEMETER_TESTS_BROWSER_HPP
#define USEMETER_TESTS_BROWSER_HPP

#include <string>

namespace usemeter_test {

struct browser_run_t {
    int status = -1;             // exit status; -1 when it had to be stopped
    std::string out;             // standard output (the DOM for --dump-dom)
    std::string console;         // the page's console messages and uncaught exceptions
};

// Runs chromium on url with action ("--dump-dom", "--screenshot=PATH ..."), its profile
// under dir; stopped (its whole process group) after 90 s.
browser_run_t headless_chromium(const std::string& dir, const std::string& url,
                                const std::string& action);

}  // namespace usemeter_test

#endif
