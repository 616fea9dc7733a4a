#include "tracelog/tracelog.hpp"

#include <log4cplus/appender.h>
#include <log4cplus/nullappender.h>

namespace tracelog {
namespace log {

namespace {

const char* const quiet_appender_name = "usemeter-quiet";

// One shared instance, so observers are told apart from it by identity.
const log4cplus::SharedAppenderPtr& quiet_appender()
{
    static const log4cplus::SharedAppenderPtr quiet = [] {
        log4cplus::SharedAppenderPtr appender(new log4cplus::NullAppender());
        appender->setName(quiet_appender_name);
        return appender;
    }();
    return quiet;
}

}  // namespace

void configureComponentLogger(const std::string& name)
{
    log4cplus::Logger logger = log4cplus::Logger::getInstance(name);
    if (!logger.getAppender(quiet_appender_name))
        logger.addAppender(quiet_appender());
}

bool is_observed(const log4cplus::Logger& logger, log4cplus::LogLevel level)
{
    if (!logger.isEnabledFor(level))
        return false;
    log4cplus::Logger current = logger;
    for (;;) {
        for (const log4cplus::SharedAppenderPtr& appender : current.getAllAppenders())
            if (appender.get() != quiet_appender().get())
                return true;
        // The root has no parent (asking for it logs a complaint).
        if (!current.getAdditivity() || current.getName() == "root")
            return false;
        current = current.getParent();
    }
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
