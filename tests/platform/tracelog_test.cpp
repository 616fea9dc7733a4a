// The logging layer as a host meets it: heard anywhere up the chain, scopes traced. (Silence when
// unconfigured: faults.no_user_directories_no_file_anywhere.)
#include <gtest/gtest.h>

#include "tracelog/log_capture.hpp"
#include "tracelog/tracelog.hpp"

namespace {

const log4cplus::Logger logger = tracelog::log::component_logger("usemeter.test");

// Observed wherever an appender listens up the chain unless additivity or a level cuts it; a scope logs
// enter and exit, also on an early return.
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
