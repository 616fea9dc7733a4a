// A host less tidy than a test host, as its own process:  untidy_host PRODUCT FORM [configured]
// FORM: "none" (no child), "exit" (no statistics object), "destroy" (the child destroys the inherited
// one), "atexit" (a hook of the child destroys it). "configured": the host set up log4cplus. Prints the
// child's output, its status or "hung", the parent's log record; exits 0 when both finished.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

#include <log4cplus/consoleappender.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <usemeter/usemeter.h>

namespace {

statistic_handle_t* inherited = nullptr;

[[noreturn]] void run_child(const char* form)
{
    std::printf("child output");  // left in stdio's buffer: exit() must flush it
    if (std::strcmp(form, "destroy") == 0)
        usemeter_destroy_statistic(inherited);
    if (std::strcmp(form, "atexit") == 0)
        std::atexit([] { usemeter_destroy_statistic(inherited); std::printf(" hook ran"); });
    std::exit(7);
}

// The child's status, or -1 after 10 s (it is killed then).
int wait_for(pid_t child)
{
    for (int tenths = 0, status = 0; tenths < 100; ++tenths, ::usleep(100000))
        if (::waitpid(child, &status, WNOHANG) == child)
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    return -1;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
        return 2;
    const std::string form = argv[2];
    if (argc > 3 && std::strcmp(argv[3], "configured") == 0) {
        log4cplus::Logger::getRoot().addAppender(log4cplus::SharedAppenderPtr(new log4cplus::ConsoleAppender()));
        log4cplus::Logger::getRoot().setLogLevel(log4cplus::INFO_LOG_LEVEL);
    }
    if (form != "exit") {
        inherited = usemeter_create_statistic(argv[1], "1.0");
        usemeter_notify_feature_usage(inherited, "run.before_fork");
    }
    if (form != "none") {
        std::fflush(stdout);
        const pid_t child = ::fork();
        if (child == 0)
            run_child(form.c_str());
        const int status = wait_for(child);
        status < 0 ? std::printf("\nchild hung\n") : std::printf("\nchild exit %d\n", status);
        std::fflush(stdout);
        LOG4CPLUS_WARN(log4cplus::Logger::getInstance("untidy_host"), "parent still logs");
        if (status < 0)
            return 1;
    }
    if (inherited) {
        usemeter_notify_feature_usage(inherited, "run.after_fork");
        usemeter_destroy_statistic(inherited);
    }
    return 0;
}
