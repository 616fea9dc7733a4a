#include "tracelog/host_setup.hpp"

#include <memory>

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>

namespace tracelog {

void load_configuration(const std::string& properties_path)
{
    log4cplus::PropertyConfigurator::doConfigure(LOG4CPLUS_STRING_TO_TSTRING(properties_path));
}

void log_to_stderr(const std::string& logger_name, const std::string& prefix)
{
    log4cplus::Logger logger =
        log4cplus::Logger::getInstance(LOG4CPLUS_STRING_TO_TSTRING(logger_name));
    log4cplus::SharedAppenderPtr appender(new log4cplus::ConsoleAppender(true, true));
    appender->setLayout(std::make_unique<log4cplus::PatternLayout>(
        LOG4CPLUS_STRING_TO_TSTRING(prefix + "%-5p %m%n")));
    logger.addAppender(appender);
    logger.setLogLevel(log4cplus::INFO_LOG_LEVEL);
}

}  // namespace tracelog
