// tracelog: the log set-up a host program does once at start-up, for the usemeter command
// (the library itself never configures log4cplus).
#ifndef USEMETER_PLATFORM_HOST_SETUP_HPP
#define USEMETER_PLATFORM_HOST_SETUP_HPP

#include <string>

namespace tracelog {

// Loads a log4cplus properties file.
void load_configuration(const std::string& properties_path);

// Sends INFO and above of one logger to standard error, each line led by prefix.
void log_to_stderr(const std::string& logger_name, const std::string& prefix);

}  // namespace tracelog

#endif
