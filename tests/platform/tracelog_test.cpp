#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <log4cplus/nullappender.h>

#include "tracelog/log_capture.hpp"
#include "tracelog/tracelog.hpp"

namespace {

const log4cplus::Logger logger = tracelog::log::component_logger("usemeter.test");

// Runs body in a child with stderr captured; returns what it wrote there.
template <class Body>
std::string child_stderr(Body body)
{
    int fds[2];
    if (::pipe(fds) != 0)
        return "pipe failed";
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(fds[1], 2);
        body();
        ::_exit(0);
    }
    ::close(fds[1]);
    std::string out;
    char buffer[256];
    for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;)
        out.append(buffer, static_cast<std::size_t>(n));
    ::close(fds[0]);
    ::waitpid(child, nullptr, 0);
    return out;
}

TEST(tracelog, an_unconfigured_host_sees_no_log4cplus_noise)
{
    const std::string noise = child_stderr([] {
        LOG4CPLUS_INFO(logger, "info");
        LOG4CPLUS_ERROR(logger, "error");
        TRACELOG_INFO(logger, "info");
    });
    EXPECT_EQ(noise, "");
}

TEST(tracelog, records_reach_appenders_the_host_adds_anywhere_in_the_chain)
{
    EXPECT_FALSE(tracelog::log::is_observed(logger, log4cplus::INFO_LOG_LEVEL));
    {
        tracelog::log_capture_t on_root("root");
        EXPECT_TRUE(tracelog::log::is_observed(logger, log4cplus::INFO_LOG_LEVEL));
        TRACELOG_INFO(logger, "seen " << 1);
        EXPECT_TRUE(on_root.contains("seen 1"));

        log4cplus::Logger::getInstance("usemeter.test").setAdditivity(false);
        EXPECT_FALSE(tracelog::log::is_observed(logger, log4cplus::INFO_LOG_LEVEL));
        log4cplus::Logger::getInstance("usemeter.test").setAdditivity(true);

        log4cplus::Logger::getRoot().setLogLevel(log4cplus::WARN_LOG_LEVEL);
        EXPECT_FALSE(tracelog::log::is_observed(logger, log4cplus::INFO_LOG_LEVEL));
    }
    {
        tracelog::log_capture_t on_own("usemeter.test");
        EXPECT_TRUE(tracelog::log::is_observed(logger, log4cplus::INFO_LOG_LEVEL));
    }
}

TEST(tracelog, trace_scope_logs_enter_and_exit_also_on_early_return)
{
    tracelog::log_capture_t log("usemeter.test");
    auto traced = [&](bool early) {
        TRACELOG_SCOPE(logger, "int f(bool)");
        if (early)
            return 1;
        TRACELOG_ERROR(logger, "failed " << 2);
        return 0;
    };
    traced(true);
    traced(false);
    EXPECT_EQ(log.messages(true),
              (std::vector<std::string>{"ENTER: int f(bool)", "EXIT:  int f(bool)", "ENTER: int f(bool)",
                                        "failed 2, at file: tests/platform/tracelog_test.cpp:77",
                                        "EXIT:  int f(bool)"}));
}

}  // namespace
