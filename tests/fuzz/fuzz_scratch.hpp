// Scratch files for fuzz targets: one private directory per process, on tmpfs when the
// machine has one (a million executions must not wear a disk), removed at exit.
#ifndef USEMETER_TESTS_FUZZ_FUZZ_SCRATCH_HPP
#define USEMETER_TESTS_FUZZ_FUZZ_SCRATCH_HPP

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include <boost/filesystem/operations.hpp>

namespace fuzz {

class scratch_t {
public:
    scratch_t()
    {
        const char* base = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : std::getenv("TMPDIR");
        std::string pattern = std::string(base ? base : "/tmp") + "/usemeter-fuzz-XXXXXX";
        if (!::mkdtemp(&pattern[0])) {
            std::perror("mkdtemp");
            std::abort();
        }
        dir_ = pattern;
    }
    ~scratch_t()
    {
        boost::system::error_code ignored;
        boost::filesystem::remove_all(dir_, ignored);
    }
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
    if (!file || (size && std::fwrite(data, 1, size, file) != size) || std::fclose(file) != 0) {
        std::perror(path.c_str());
        std::abort();
    }
}

// A failed property: print what differs and abort, which both libFuzzer and the replay
// program report as a crash of this input.
#define FUZZ_CHECK(condition, what)                                                  \
    do {                                                                             \
        if (!(condition)) {                                                          \
            std::fprintf(stderr, "property failed: %s\n  %s\n", #condition, what);  \
            std::abort();                                                            \
        }                                                                            \
    } while (0)

}  // namespace fuzz

#endif
