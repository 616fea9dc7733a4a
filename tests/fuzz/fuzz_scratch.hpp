// Shared by the fuzz targets: a failed property, the input as text, and scratch files in one private directory per process, on tmpfs
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

}  // namespace fuzz

#endif
