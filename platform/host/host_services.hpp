// The host services the library needs from the operating system, behind one interface so
// that tests can make each of them fail on purpose. The POSIX implementation is the default;
// a test installs a subclass that overrides what it wants to break.
#ifndef USEMETER_PLATFORM_HOST_SERVICES_HPP
#define USEMETER_PLATFORM_HOST_SERVICES_HPP

#include <ctime>
#include <string>

#include <netdb.h>
#include <sys/types.h>

namespace host {

class host_services_t {
public:
    virtual ~host_services_t();

    // getaddrinfo's contract: 0 and a list for release_addresses, or an EAI_* error and no list.
    virtual int resolve(const char* node, const char* service, const addrinfo& hints, addrinfo** list);
    virtual void release_addresses(addrinfo* list);

    // open(2) that never follows a link at the last component and never leaks into children.
    virtual int open_file(const std::string& path, int flags, mode_t mode);
    // Writes content to a fresh owner-only file beside path and renames it over path: a reader
    // sees the old content or the new, never a part, and a link at path is replaced, not followed.
    virtual bool replace_file(const std::string& path, const std::string& content);

    virtual std::time_t now();

    // socket(2), close-on-exec.
    virtual int open_socket(int family, int type, int protocol);

    // Starts program with argv (see process::start); the child's id, or -1.
    virtual pid_t start_child(const char* program, char* const argv[]);
};

// The installed services; the POSIX ones unless a test installed others.
host_services_t& services();

// Installs replacement (not owned) until it is uninstalled with null. Only for tests and fuzz
// targets, before the library's threads use the services.
void install(host_services_t* replacement);

}  // namespace host

#endif
