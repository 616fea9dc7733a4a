// The logging layer as a host meets it: silent unless configured, records wherever the host
// listens, scopes traced.
#include <gtest/gtest.h>

#include <cstdio>
#include <unistd.h>

#include "tracelog/log_capture.hpp"
#include "tracelog/tracelog.hpp"

namespace {

const log4cplus::Logger logger = tracelog::log::component_logger("usemeter.test");

// Each case runs in a process of its own: here nothing has configured log4cplus yet.
TEST(tracelog, an_unconfigured_host_sees_no_log4cplus_noise)
{
    std::FILE* captured = std::tmpfile();
    const int saved_stderr = ::dup(2);
    ASSERT_TRUE(captured && ::dup2(::fileno(captured), 2) == 2);
    LOG4CPLUS_ERROR(logger, "error");
    TRACELOG_INFO(logger, "info");
    ::dup2(saved_stderr, 2);
    ::close(saved_stderr);
    EXPECT_EQ(::lseek(::fileno(captured), 0, SEEK_END), 0) << "log4cplus wrote to stderr";
    std::fclose(captured);
}

// Observed wherever an appender listens up the chain, unless additivity or a level cuts it;
// a scope logs enter and exit, also on an early return.
TEST(tracelog, records_reach_appenders_the_host_adds_anywhere_in_the_chain)
{
    const auto observed = [] { return tracelog::log::is_observed(logger, log4cplus::INFO_LOG_LEVEL); };
    EXPECT_FALSE(observed());
    {
        tracelog::log_capture_t on_root("root");
        EXPECT_TRUE(observed());
        TRACELOG_INFO(logger, "seen " << 1);
        EXPECT_TRUE(on_root.contains("seen 1"));
        log4cplus::Logger::getInstance("usemeter.test").setAdditivity(false);
        EXPECT_FALSE(observed());
        log4cplus::Logger::getInstance("usemeter.test").setAdditivity(true);
        log4cplus::Logger::getRoot().setLogLevel(log4cplus::WARN_LOG_LEVEL);
        EXPECT_FALSE(observed());
    }
    tracelog::log_capture_t log("usemeter.test");
    EXPECT_TRUE(observed());
    int error_line = 0;
    auto traced = [&](bool early) {
        TRACELOG_SCOPE(logger, "int f(bool)");
        if (early)
            return 1;
        TRACELOG_ERROR(logger, "failed " << 2);
        error_line = __LINE__ - 1;
        return 0;
    };
    traced(true);
    traced(false);
    const std::string error = "failed 2, at file: tests/platform/tracelog_test.cpp:" + std::to_string(error_line);
    const std::string enter = "ENTER: int f(bool)", exit = "EXIT:  int f(bool)";
    EXPECT_EQ(log.messages(true), (std::vector<std::string>{enter, exit, enter, error, exit}));
}

}  // namespace
