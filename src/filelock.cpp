#include "usemeter/sys/filelock.hpp"

#include <fcntl.h>
#include <unistd.h>

#include "basekit/environ.hpp"
#include "host/host_services.hpp"

namespace usemeter_1_5_7 {

filelock_t::filelock_t(const basekit::path_t& guarded_file) : locked(false), lock_path(guarded_file)
{
    lock_path.change_ext("lock");
}

filelock_t::~filelock_t()
{
    if (is_locked())
        unlock();
}

bool filelock_t::lock()
{
    if (locked)
        return true;
    // The exclusive create is the whole protocol; why it failed (lock held, directory
    // missing, no permission) makes no difference to the caller.
    const int fd = host::services().open_file(lock_path.as_string(false), O_RDONLY | O_CREAT | O_EXCL, 0666);
    if (fd < 0)
        return false;
    locked = true;
    // The lock is the file's existence; no descriptor is kept.
    ::close(fd);
    return locked;
}

void filelock_t::unlock()
{
    if (!locked)
        return;
    // Cleared even when the delete fails, so the file is never removed twice.
    basekit::remove_file(lock_path);
    locked = false;
}

bool filelock_t::is_locked() const
{
    return locked;
}

}  // namespace usemeter_1_5_7
