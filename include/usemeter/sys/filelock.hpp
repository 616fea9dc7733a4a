// Advanced interface: for tools and embedders that need the library's internals; hosts use the
// public headers one level up.
// A non-blocking lock between processes: holding it means having created the empty
// file "<guarded name>.lock" exclusively. A lock file left by a dead process blocks
// until someone deletes it; callers retry a few times and then go on without the file.
#ifndef USEMETER_FILELOCK_HPP
#define USEMETER_FILELOCK_HPP

#include "usemeter/export.h"
#include "usemeter/path.hpp"

namespace usemeter_1_5_7 {

class USEMETER_API filelock_t {
public:
    explicit filelock_t(const basekit::path_t& guarded_file);
    ~filelock_t();

    filelock_t(const filelock_t&) = delete;
    filelock_t& operator=(const filelock_t&) = delete;

    // One attempt; true when this object holds the lock afterwards.
    bool lock();
    void unlock();
    bool is_locked() const;
    const basekit::path_t& path() const { return lock_path; }

private:
    bool locked;
    basekit::path_t lock_path;
};

}  // namespace usemeter_1_5_7

#endif
