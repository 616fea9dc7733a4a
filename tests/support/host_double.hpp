// A host whose services answer or fail as a test says, installed for the double's lifetime.
#ifndef USEMETER_TESTS_HOST_DOUBLE_HPP
#define USEMETER_TESTS_HOST_DOUBLE_HPP

#include <cerrno>
#include <fcntl.h>
#include <string>

#include "host/host_services.hpp"

namespace usemeter_test {

struct host_double_t : host::host_services_t {
    host_double_t() { host::install(this); }
    ~host_double_t() override { host::install(nullptr); }

    // The corporate name resolves as this numeric node does, or fails with resolve_error.
    std::string resolves_as = "127.0.0.1";
    int resolve_error = 0;
    int lookups = 0;
    std::string seen_service;
    addrinfo seen_hints{};
    // No file can be created or replaced: a read-only or full file system.
    bool files_fail = false;

    int resolve(const char*, const char* service, const addrinfo& hints, addrinfo** list) override
    {
        ++lookups;
        seen_service = service;
        seen_hints = hints;
        *list = nullptr;
        return resolve_error ? resolve_error
                             : host_services_t::resolve(resolves_as.c_str(), service, hints, list);
    }
    int open_file(const std::string& path, int flags, mode_t mode) override
    {
        if (files_fail && (flags & O_CREAT))
            return errno = EROFS, -1;
        return host_services_t::open_file(path, flags, mode);
    }
    bool replace_file(const std::string& path, const std::string& content) override
    {
        return !files_fail && host_services_t::replace_file(path, content);
    }
};

}  // namespace usemeter_test

#endif
