// Shared by the collector's tests: a shell command's answer, and a loopback collector that
// stores into a SQLite store and serves its reports.
#ifndef USEMETER_TESTS_SUPPORT_COLLECTOR_FIXTURE_HPP
#define USEMETER_TESTS_SUPPORT_COLLECTOR_FIXTURE_HPP

#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include <sys/wait.h>

#include "collector/collector.hpp"
#include "collector/reports/report_page.hpp"

namespace usemeter_test {

struct command_result_t {
    int status;  // the exit status, -1 when killed
    std::string out;
};

inline command_result_t run_command(const std::string& command)
{
    FILE* pipe = ::popen(command.c_str(), "r");
    std::string out;
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        out.append(buffer, n);
    const int status = ::pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

#ifdef USEMETER_TOOL
// The usemeter command's standard output for arguments.
inline command_result_t run_tool(const std::string& arguments)
{
    return run_command(std::string(USEMETER_TOOL) + " " + arguments + " 2>/dev/null");
}
#endif

// Started on 127.0.0.1 and a free port; adjust() may change the options first.
inline std::unique_ptr<usemeter_collector::collector_t> start_report_collector(
    const std::string& store, const std::string& token = "",
    const std::function<void(usemeter_collector::collector_options_t&)>& adjust = nullptr)
{
    usemeter_collector::collector_options_t options;
    options.listen = "127.0.0.1:0";
    options.store = store;
    options.report_token = token;
    auto routes = std::make_shared<usemeter_collector::report_routes_t>(store, token);
    options.mount = [routes](usemeter_collector::http_server_t& server) { routes->mount(server); };
    if (adjust)
        adjust(options);
    auto collector = std::make_unique<usemeter_collector::collector_t>(options);
    return collector->start() ? std::move(collector) : nullptr;
}

}  // namespace usemeter_test

#endif
