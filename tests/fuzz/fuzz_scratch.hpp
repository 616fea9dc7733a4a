// Shared by the fuzz targets: a failed property, and a private scratch directory per
// process, on tmpfs where there is one (a million runs must not wear a disk).
#ifndef USEMETER_TESTS_FUZZ_FUZZ_SCRATCH_HPP
#define USEMETER_TESTS_FUZZ_FUZZ_SCRATCH_HPP

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include <boost/filesystem/operations.hpp>

// A failed property prints what differs and aborts: libFuzzer and the replay program both
// report that as a crash of this input.
#define FUZZ_CHECK(condition, what)                                                          \
    do {                                                                                     \
        if (!(condition)) {                                                                  \
            const std::string what_ = (what);                                                \
            std::fprintf(stderr, "property failed: %s\n  %s\n", #condition, what_.c_str());  \
            std::abort();                                                                    \
        }                                                                                    \
    } while (0)

namespace fuzz {

// Removed at exit.
struct scratch_t {
    std::string dir = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm/usemeter-fuzz-XXXXXX"
                                                       : "/tmp/usemeter-fuzz-XXXXXX";
    scratch_t() { FUZZ_CHECK(::mkdtemp(&dir[0]), "cannot create the scratch directory"); }
    ~scratch_t() { boost::system::error_code ignored; boost::filesystem::remove_all(dir, ignored); }
};

}  // namespace fuzz

#endif
