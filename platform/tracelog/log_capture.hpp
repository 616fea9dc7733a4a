// tracelog: an appender that keeps what one logger emits, for the usemeter command (the
// library's own words for its decisions) and for tests (exact comparison).
#ifndef USEMETER_PLATFORM_LOG_CAPTURE_HPP
#define USEMETER_PLATFORM_LOG_CAPTURE_HPP

#include <string>
#include <vector>

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>

namespace tracelog {

struct log_record_t {
    int level;  // log4cplus level: TRACE 0, DEBUG 10000, INFO 20000, WARN 30000, ERROR 40000
    std::string message;
    std::string file;
    int line;
};

// While attached, lowers the logger ("root" for the root logger) to TRACE and records every
// event it sees, from any thread.
class log_capture_t {
public:
    explicit log_capture_t(const std::string& logger_name);
    ~log_capture_t();
    log_capture_t(const log_capture_t&) = delete;
    log_capture_t& operator=(const log_capture_t&) = delete;

    // Detaches early and restores the level; what was recorded stays readable.
    void stop();
    std::vector<log_record_t> records() const;
    // Messages in order; without the ENTER/EXIT scope lines unless asked for.
    std::vector<std::string> messages(bool with_traces = false) const;
    bool contains(const std::string& message) const;
    // Whether a message starts with start: ERROR records end in ", at file: ...".
    bool contains_start(const std::string& start) const;
    void clear();

private:
    class appender_t;
    log4cplus::Logger logger_;
    log4cplus::LogLevel old_level_;
    log4cplus::SharedAppenderPtr appender_;
    bool attached_ = true;
    appender_t& recorder() const;
};

}  // namespace tracelog

#endif
