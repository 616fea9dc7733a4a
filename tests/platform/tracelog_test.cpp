#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <log4cplus/nullappender.h>

#include "support/log_capture.hpp"
#include "tracelog/tracelog.hpp"

namespace {

// Runs body in a child with stderr captured; returns what it wrote there.
template <class Body>
std::string child_stderr(Body body)
{
    int pipe_fds[2];
    if (::pipe(pipe_fds) != 0)
        return "pipe failed";
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(pipe_fds[1], 2);
        ::close(pipe_fds[0]);
        body();
        ::_exit(0);
    }
    ::close(pipe_fds[1]);
    std::string out;
    char buffer[256];
    ssize_t n;
    while ((n = ::read(pipe_fds[0], buffer, sizeof buffer)) > 0)
        out.append(buffer, static_cast<std::size_t>(n));
    ::close(pipe_fds[0]);
    ::waitpid(child, nullptr, 0);
    return out;
}

TEST(tracelog, an_unconfigured_host_sees_no_log4cplus_noise)
{
    const std::string noise = child_stderr([] {
        const log4cplus::Logger logger = tracelog::log::component_logger("usemeter.test");
        LOG4CPLUS_INFO(logger, "info");
        LOG4CPLUS_ERROR(logger, "error");
        TRACELOG_INFO(logger, "info");
    });
    EXPECT_EQ(noise, "");
}

TEST(tracelog, records_reach_appenders_the_host_adds_anywhere_in_the_chain)
{
    const log4cplus::Logger logger = tracelog::log::component_logger("usemeter.test");
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    EXPECT_FALSE(tracelog::log::is_observed(logger, log4cplus::INFO_LOG_LEVEL));
    {
        usemeter_test::log_capture_t on_root("root");
        EXPECT_TRUE(tracelog::log::is_observed(logger, log4cplus::INFO_LOG_LEVEL));
        TRACELOG_INFO(logger, "seen " << 1);
        EXPECT_TRUE(on_root.contains("seen 1"));

        log4cplus::Logger::getInstance("usemeter.test").setAdditivity(false);
        EXPECT_FALSE(tracelog::log::is_observed(logger, log4cplus::INFO_LOG_LEVEL));
        log4cplus::Logger::getInstance("usemeter.test").setAdditivity(true);

        root.setLogLevel(log4cplus::WARN_LOG_LEVEL);
        EXPECT_FALSE(tracelog::log::is_observed(logger, log4cplus::INFO_LOG_LEVEL));
    }
    {
        usemeter_test::log_capture_t on_own("usemeter.test");
        EXPECT_TRUE(tracelog::log::is_observed(logger, log4cplus::INFO_LOG_LEVEL));
    }
}

TEST(tracelog, trace_scope_logs_enter_and_exit_also_on_early_return)
{
    const log4cplus::Logger logger = tracelog::log::component_logger("usemeter.test");
    usemeter_test::log_capture_t log("usemeter.test");
    auto traced = [&](bool early) {
        TRACELOG_SCOPE(logger, "int f(bool)");
        if (early)
            return 1;
        TRACELOG_ERROR(logger, "failed " << 2);
        return 0;
    };
    traced(true);
    traced(false);
    const std::vector<std::string> expected = {"ENTER: int f(bool)", "EXIT:  int f(bool)", "ENTER: int f(bool)",
                                               "failed 2, at file: tests/platform/tracelog_test.cpp:81",
                                               "EXIT:  int f(bool)"};
    EXPECT_EQ(log.messages(true), expected);
}

}  // namespace
