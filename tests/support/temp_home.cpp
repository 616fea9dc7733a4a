#include "support/temp_home.hpp"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include <boost/filesystem.hpp>

#include "usemeter/sys/environment.hpp"

namespace usemeter_test {

namespace fs = boost::filesystem;

scoped_env_t::scoped_env_t(const std::string& name, const char* value)
    : name_(name), old_value_(std::getenv(name.c_str()) ? std::getenv(name.c_str()) : ""),
      had_value_(std::getenv(name.c_str()) != nullptr)
{
    value ? ::setenv(name.c_str(), value, 1) : ::unsetenv(name.c_str());
}

scoped_env_t::~scoped_env_t()
{
    had_value_ ? ::setenv(name_.c_str(), old_value_.c_str(), 1) : ::unsetenv(name_.c_str());
}

clean_env_t::clean_env_t()
{
    for (const char* name : usemeter_1_5_7::environment::all)
        vars_.emplace_back(name, nullptr);
    for (const char* name : {"HTTP_PROXY", "https_proxy", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"})
        vars_.emplace_back(name, nullptr);  // libcurl's own
}

temp_dir_t::temp_dir_t()
{
    path_ = (fs::temp_directory_path() / "usemeter-test-XXXXXX").string();
    if (!::mkdtemp(&path_[0]))
        throw std::runtime_error("cannot create a temporary directory");
}

temp_dir_t::~temp_dir_t()
{
    boost::system::error_code ignored;
    fs::remove_all(path_, ignored);
}

std::string read_file(const std::string& path)
{
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

void write_file(const std::string& path, const std::string& content)
{
    if (!(std::ofstream(path, std::ios::binary | std::ios::trunc) << content))
        throw std::runtime_error("cannot write " + path);
}

bool file_exists(const std::string& path) { return fs::exists(fs::symlink_status(path)); }
void make_dirs(const std::string& path) { fs::create_directories(path); }
long count_entries(const std::string& dir) { return std::distance(fs::directory_iterator(dir), {}); }

}  // namespace usemeter_test
