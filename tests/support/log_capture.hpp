// Records what the library logs on one logger, for exact comparison in tests.
#ifndef USEMETER_TESTS_LOG_CAPTURE_HPP
#define USEMETER_TESTS_LOG_CAPTURE_HPP

#include <string>
#include <vector>

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>

namespace usemeter_test {

struct log_record_t {
    int level;  // log4cplus level: TRACE 0, DEBUG 10000, INFO 20000, WARN 30000, ERROR 40000
    std::string message;
    std::string file;
    int line;
};

// While alive, sets the logger ("root" for the root logger) to TRACE and records every
// event it sees.
class log_capture_t {
public:
    explicit log_capture_t(const std::string& logger_name);
    ~log_capture_t();
    log_capture_t(const log_capture_t&) = delete;
    log_capture_t& operator=(const log_capture_t&) = delete;

    std::vector<log_record_t> records() const;
    // Messages only, in order; optionally without the ENTER/EXIT trace lines.
    std::vector<std::string> messages(bool with_traces = false) const;
    bool contains(const std::string& message) const;
    void clear();

private:
    class appender_t;
    log4cplus::Logger logger_;
    log4cplus::LogLevel old_level_;
    log4cplus::SharedAppenderPtr appender_;
    appender_t& recorder() const;
};

}  // namespace usemeter_test

#endif
