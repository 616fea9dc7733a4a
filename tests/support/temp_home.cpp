#include "support/temp_home.hpp"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

#include <boost/filesystem.hpp>

namespace usemeter_test {

namespace {

const char* const steering_variables[] = {
    "NORVEL_FORCE_UUID",       "NORVEL_STATISTICS_DISABLE", "NORVEL_DONOTSEND_FEEDBACK",
    "NORVEL_DISABLE_FEEDBACK", "NORVEL_FORCE_FEEDBACK",     "http_proxy",
    "HTTP_PROXY",              "https_proxy",               "all_proxy",
    "ALL_PROXY",               "no_proxy",                  "NO_PROXY",
    "USEMETER_DISABLE_ORB",    "NORVEL_ORBTOOL_DIR",        "NORVEL_DISABLE_UPDATES_CHECK",
};

std::string make_temp_dir(const char* prefix)
{
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/" + prefix + "XXXXXX";
    if (!::mkdtemp(&pattern[0]))
        throw std::runtime_error("cannot create a temporary directory");
    return pattern;
}

}  // namespace

scoped_env_t::scoped_env_t(const std::string& name, const char* value) : name_(name)
{
    const char* old = std::getenv(name.c_str());
    had_value_ = old != nullptr;
    if (old)
        old_value_ = old;
    if (value)
        ::setenv(name.c_str(), value, 1);
    else
        ::unsetenv(name.c_str());
}

scoped_env_t::~scoped_env_t()
{
    if (had_value_)
        ::setenv(name_.c_str(), old_value_.c_str(), 1);
    else
        ::unsetenv(name_.c_str());
}

clean_env_t::clean_env_t()
{
    for (const char* name : steering_variables)
        vars_.push_back(std::make_unique<scoped_env_t>(name, nullptr));
}

temp_home_t::temp_home_t() : path_(make_temp_dir("usemeter-home-")), home_("HOME", path_.c_str())
{
}

temp_home_t::~temp_home_t()
{
    boost::system::error_code ignored;
    boost::filesystem::remove_all(path_, ignored);
}

temp_dir_t::temp_dir_t() : path_(make_temp_dir("usemeter-tmp-"))
{
}

temp_dir_t::~temp_dir_t()
{
    boost::system::error_code ignored;
    boost::filesystem::remove_all(path_, ignored);
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void write_file(const std::string& path, const std::string& content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out)
        throw std::runtime_error("cannot write " + path);
}

bool file_exists(const std::string& path)
{
    struct stat info;
    return ::lstat(path.c_str(), &info) == 0;
}

void make_dirs(const std::string& path)
{
    boost::filesystem::create_directories(path);
}

}  // namespace usemeter_test
