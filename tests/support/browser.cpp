#include "browser.hpp"

#include <chrono>
#include <csignal>
#include <sstream>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include "temp_home.hpp"

extern char** environ;

namespace usemeter_test {

namespace {

int wait_or_stop(pid_t pid, std::chrono::seconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (::waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(-pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Headless chromium logs every console message, whatever its level, and every uncaught
// exception as INFO:CONSOLE; a page that logs nothing of its own has none.
std::string console_messages(const std::string& log)
{
    std::istringstream lines(log);
    std::string messages;
    for (std::string line; std::getline(lines, line);)
        if (line.find(":CONSOLE") != std::string::npos)
            messages += line + "\n";
    return messages;
}

}  // namespace

browser_run_t headless_chromium(const std::string& dir, const std::string& url,
                                const std::string& action)
{
    static int profiles = 0;
    std::vector<std::string> args = {
        "/usr/bin/chromium", "--headless", "--no-sandbox", "--disable-gpu",
        "--disable-background-networking", "--disable-component-update", "--disable-sync",
        "--no-first-run", "--no-proxy-server", "--enable-logging=stderr", "--v=0",
        "--virtual-time-budget=10000", "--user-data-dir=" + dir + "/chromium-" + std::to_string(++profiles)};
    std::istringstream extra(action);
    for (std::string word; extra >> word;)
        args.push_back(word);
    args.push_back(url);
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);

    const std::string out = dir + "/chromium.out", err = dir + "/chromium.err";
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
    pid_t pid = 0;
    browser_run_t run;
    if (posix_spawn(&pid, argv[0], &files, &attributes, argv.data(), environ) == 0)
        run.status = wait_or_stop(pid, std::chrono::seconds(90));
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    run.out = read_file(out);
    run.console = console_messages(read_file(err));
    return run;
}

}  // namespace usemeter_test
