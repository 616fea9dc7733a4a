// A temporary HOME for one test: created empty, exported as HOME, removed afterwards.
#ifndef USEMETER_TESTS_TEMP_HOME_HPP
#define USEMETER_TESTS_TEMP_HOME_HPP

#include <memory>
#include <string>
#include <vector>

namespace usemeter_test {

// Sets (or, with a null value, unsets) an environment variable and restores it on exit.
class scoped_env_t {
public:
    scoped_env_t(const std::string& name, const char* value);
    ~scoped_env_t();

    scoped_env_t(const scoped_env_t&) = delete;
    scoped_env_t& operator=(const scoped_env_t&) = delete;

private:
    std::string name_;
    bool had_value_;
    std::string old_value_;
};

// The variables that steer the library, unset for the lifetime of the object so that the
// developer's own environment cannot leak into a test.
class clean_env_t {
public:
    clean_env_t();

private:
    std::vector<std::unique_ptr<scoped_env_t>> vars_;
};

class temp_home_t {
public:
    temp_home_t();
    ~temp_home_t();

    temp_home_t(const temp_home_t&) = delete;
    temp_home_t& operator=(const temp_home_t&) = delete;

    const std::string& path() const { return path_; }
    // path() + "/" + relative
    std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }

private:
    std::string path_;
    scoped_env_t home_;
};

// A fresh temporary directory, removed with everything in it on destruction.
class temp_dir_t {
public:
    temp_dir_t();
    ~temp_dir_t();

    temp_dir_t(const temp_dir_t&) = delete;
    temp_dir_t& operator=(const temp_dir_t&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }

private:
    std::string path_;
};

// Small file helpers for tests.
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content);
bool file_exists(const std::string& path);
void make_dirs(const std::string& path);

}  // namespace usemeter_test

#endif
