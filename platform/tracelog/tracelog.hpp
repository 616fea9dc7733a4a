// tracelog: component loggers over log4cplus, the enter/exit trace scope and the
// ERROR location tail.
#ifndef USEMETER_PLATFORM_TRACELOG_HPP
#define USEMETER_PLATFORM_TRACELOG_HPP

#include <string>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

namespace tracelog {
namespace log {

// Prepares the named logger for the library's records without deciding where they go:
// the host's log4cplus configuration sets levels and appenders. A do-nothing appender
// keeps log4cplus from printing its "no appenders" warning in unconfigured hosts.
void configureComponentLogger(const std::string& name);

// Configures and returns the named component logger.
log4cplus::Logger component_logger(const std::string& name);

// True when a record at `level` on `logger` would reach an appender other than the library's
// do-nothing one. Checked afresh on every call, so appenders a host adds at any time see
// every later record; records nobody would see are then not even formatted.
bool is_observed(const log4cplus::Logger& logger, log4cplus::LogLevel level);

}  // namespace log

// Logs "ENTER: <signature>" at TRACE when built and "EXIT:  <signature>" when destroyed.
// Costs one level test when TRACE is off.
class trace_scope_t {
public:
    trace_scope_t(const log4cplus::Logger& logger, const char* signature, const char* file,
                  int line);
    ~trace_scope_t();

    trace_scope_t(const trace_scope_t&) = delete;
    trace_scope_t& operator=(const trace_scope_t&) = delete;

private:
    const log4cplus::Logger& logger_;
    const char* signature_;
    const char* file_;
    int line_;
    bool enabled_;
};

}  // namespace tracelog

#define TRACELOG_CONCAT_INNER(a, b) a##b
#define TRACELOG_CONCAT(a, b) TRACELOG_CONCAT_INNER(a, b)

// Opens the enter/exit trace for the rest of the enclosing scope.
#define TRACELOG_SCOPE(logger, signature) \
    ::tracelog::trace_scope_t TRACELOG_CONCAT(tracelog_scope_, __LINE__)(logger, signature, __FILE__, __LINE__)

// Logs at ERROR with the location tail ", at file: <source path>:<line>".
// LOG4CPLUS_INFO that skips formatting when no appender of the host would receive the record.
#define TRACELOG_INFO(logger, message)                                                  \
    do {                                                                                \
        if (::tracelog::log::is_observed(logger, log4cplus::INFO_LOG_LEVEL))            \
            LOG4CPLUS_INFO(logger, message);                                            \
    } while (0)

#define TRACELOG_ERROR(logger, message) \
    LOG4CPLUS_ERROR(logger, message << ", at file: " << __FILE__ << ":" << __LINE__)

#endif
