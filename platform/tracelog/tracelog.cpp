#include "tracelog/tracelog.hpp"

#include <log4cplus/appender.h>
#include <log4cplus/nullappender.h>

namespace tracelog {
namespace log {

namespace {
const char* const quiet_appender_name = "usemeter-quiet";
}

void configureComponentLogger(const std::string& name)
{
    log4cplus::Logger logger = log4cplus::Logger::getInstance(name);
    if (logger.getAppender(quiet_appender_name))
        return;
    log4cplus::SharedAppenderPtr quiet(new log4cplus::NullAppender());
    quiet->setName(quiet_appender_name);
    logger.addAppender(quiet);
}

log4cplus::Logger component_logger(const std::string& name)
{
    configureComponentLogger(name);
    return log4cplus::Logger::getInstance(name);
}

}  // namespace log

trace_scope_t::trace_scope_t(const log4cplus::Logger& logger, const char* signature,
                             const char* file, int line)
    : logger_(logger), signature_(signature), file_(file), line_(line),
      enabled_(logger.isEnabledFor(log4cplus::TRACE_LOG_LEVEL))
{
    if (enabled_)
        logger_.forcedLog(log4cplus::TRACE_LOG_LEVEL, std::string("ENTER: ") + signature_, file_,
                          line_);
}

trace_scope_t::~trace_scope_t()
{
    if (enabled_)
        logger_.forcedLog(log4cplus::TRACE_LOG_LEVEL, std::string("EXIT:  ") + signature_, file_,
                          line_);
}

}  // namespace tracelog
