// basekit environment and file helpers.
#ifndef USEMETER_PLATFORM_BASEKIT_ENVIRON_HPP
#define USEMETER_PLATFORM_BASEKIT_ENVIRON_HPP

#include <string>

#include "usemeter/path.hpp"

namespace basekit {

// The variable's value, or "" when it is unset.
std::string get_environ_value(const std::string& name);

// As above, but "" in a set-user-ID or set-group-ID process: for values that choose files or
// programs, which such a process must not take from its caller.
std::string get_secure_environ_value(const std::string& name);

// Deletes a file; true when it is gone afterwards because of this call.
bool remove_file(const path_t& path);

}  // namespace basekit

#endif
