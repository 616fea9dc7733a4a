// Shared by the fuzz targets: scratch files in one private directory per process, on tmpfs
// when the machine has one (a million executions must not wear a disk), removed at exit.
#ifndef USEMETER_TESTS_FUZZ_FUZZ_SCRATCH_HPP
#define USEMETER_TESTS_FUZZ_FUZZ_SCRATCH_HPP

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include <boost/filesystem/operations.hpp>

// A failed property: print what differs and abort, which both libFuzzer and the replay
// program report as a crash of this input.
#define FUZZ_CHECK(condition, what)                                                          \
    do {                                                                                     \
        if (!(condition)) {                                                                  \
            const std::string what_ = (what);                                                \
            std::fprintf(stderr, "property failed: %s\n  %s\n", #condition, what_.c_str());  \
            std::abort();                                                                    \
        }                                                                                    \
    } while (0)

namespace fuzz {

inline std::string text(const std::uint8_t* data, std::size_t size)
{
    return std::string(reinterpret_cast<const char*>(data), size);
}

class scratch_t {
public:
    scratch_t()
    {
        const char* base = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : std::getenv("TMPDIR");
        dir_ = std::string(base ? base : "/tmp") + "/usemeter-fuzz-XXXXXX";
        FUZZ_CHECK(::mkdtemp(&dir_[0]), "cannot create the scratch directory");
    }
    ~scratch_t() { boost::system::error_code ignored; boost::filesystem::remove_all(dir_, ignored); }
    scratch_t(const scratch_t&) = delete;
    scratch_t& operator=(const scratch_t&) = delete;

    const std::string& dir() const { return dir_; }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

private:
    std::string dir_;
};

// Replaces the file's content with the bytes; aborts when the scratch file system fails,
// since every later verdict would be about a file that is not the input.
inline void write_file(const std::string& path, const std::uint8_t* data, std::size_t size)
{
    std::FILE* file = std::fopen(path.c_str(), "wb");
    const bool written = file && (!size || std::fwrite(data, 1, size, file) == size);
    FUZZ_CHECK(file && std::fclose(file) == 0 && written, path);
}

// The input as the content of a scratch file of this name; returns its path.
inline std::string input_file(const std::string& name, const std::uint8_t* data, std::size_t size)
{
    static const scratch_t scratch;
    const std::string path = scratch.path(name);
    write_file(path, data, size);
    return path;
}

// HOME in a scratch directory, no variable that disables collection, a fixed identifier.
inline void policy_environment(const scratch_t& home)
{
    ::setenv("HOME", home.dir().c_str(), 1);
    for (const char* name : {"NORVEL_STATISTICS_DISABLE", "NORVEL_DONOTSEND_FEEDBACK", "NORVEL_DISABLE_FEEDBACK",
                             "NORVEL_FORCE_FEEDBACK", "no_proxy", "NO_PROXY"})
        ::unsetenv(name);
    ::setenv("NORVEL_FORCE_UUID", "0F1E2D3C-4B5A-4978-8796-A5B4C3D2E1F0", 1);
}

}  // namespace fuzz

#endif
