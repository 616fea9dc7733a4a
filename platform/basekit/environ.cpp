#include "basekit/environ.hpp"

#include <cstdlib>
#include <unistd.h>

namespace basekit {

std::string get_environ_value(const std::string& name)
{
    const char* value = std::getenv(name.c_str());
    return value ? std::string(value) : std::string();
}

std::string get_secure_environ_value(const std::string& name)
{
    const char* value = ::secure_getenv(name.c_str());
    return value ? std::string(value) : std::string();
}

bool remove_file(const path_t& path)
{
    return ::unlink(path.as_string(false).c_str()) == 0;
}

}  // namespace basekit
