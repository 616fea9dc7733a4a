#include "host/host_services.hpp"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "process/process.hpp"

namespace host {

namespace {

host_services_t posix_services;
std::atomic<host_services_t*> installed{&posix_services};

bool write_all(int fd, const std::string& data)
{
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

host_services_t::~host_services_t() = default;

int host_services_t::resolve(const char* node, const char* service, const addrinfo& hints,
                             addrinfo** list)
{
    *list = nullptr;
    return ::getaddrinfo(node, service, &hints, list);
}

void host_services_t::release_addresses(addrinfo* list)
{
    // Some C libraries crash on freeaddrinfo(nullptr).
    if (list)
        ::freeaddrinfo(list);
}

int host_services_t::open_file(const std::string& path, int flags, mode_t mode)
{
    return ::open(path.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode);
}

bool host_services_t::replace_file(const std::string& path, const std::string& content)
{
    // An empty path names no file; its temporary would land in the working directory.
    if (path.empty())
        return false;
    std::string temp = path + ".XXXXXX";
    const int fd = ::mkostemp(&temp[0], O_CLOEXEC);  // owner-only, exclusive: no link followed
    if (fd < 0)
        return false;
    const bool written = write_all(fd, content) && ::fsync(fd) == 0;
    const bool closed = ::close(fd) == 0;
    if (written && closed && ::rename(temp.c_str(), path.c_str()) == 0)
        return true;
    ::unlink(temp.c_str());
    return false;
}

std::time_t host_services_t::now()
{
    return std::time(nullptr);
}

int host_services_t::open_socket(int family, int type, int protocol)
{
    return ::socket(family, type | SOCK_CLOEXEC, protocol);
}

pid_t host_services_t::start_child(const char* program, char* const argv[])
{
    return process::start(program, argv);
}

host_services_t& services()
{
    return *installed.load(std::memory_order_acquire);
}

void install(host_services_t* replacement)
{
    installed.store(replacement ? replacement : &posix_services, std::memory_order_release);
}

}  // namespace host
