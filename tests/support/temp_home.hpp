// Temporary directories and environment for tests, undone on destruction.
#ifndef USEMETER_TESTS_TEMP_HOME_HPP
#define USEMETER_TESTS_TEMP_HOME_HPP

#include <list>
#include <string>

#include <boost/core/noncopyable.hpp>

namespace usemeter_test {

// Sets (or, with a null value, unsets) an environment variable and restores it on exit.
class scoped_env_t : boost::noncopyable {
public:
    scoped_env_t(const std::string& name, const char* value);
    ~scoped_env_t();

private:
    std::string name_, old_value_;
    bool had_value_;
};

// The variables that steer the library, unset while alive: the developer's environment stays out.
struct clean_env_t {
    clean_env_t();
    std::list<scoped_env_t> vars_;
};

// A fresh temporary directory, removed with everything in it on destruction.
class temp_dir_t : boost::noncopyable {
public:
    temp_dir_t();
    ~temp_dir_t();
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }

private:
    std::string path_;
};

// A temporary directory exported as HOME.
class temp_home_t : public temp_dir_t {
    scoped_env_t home_{"HOME", path().c_str()};
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content);
bool file_exists(const std::string& path);  // also for dangling links
void make_dirs(const std::string& path);
long count_entries(const std::string& dir);  // of a directory, "." and ".." not counted

}  // namespace usemeter_test

#endif
