#include "process/process.hpp"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace process {

namespace {

// Runs in the vfork child, on the parent's stack: only calls that touch no shared state.
// The child has its own copy of the signal dispositions, so resetting them leaves the
// parent's alone.
[[noreturn]] void exec_child(const char* program, char* const argv[], const sigset_t& host_mask)
{
    for (int signal_number = 1; signal_number < NSIG; ++signal_number) {
        struct sigaction current;
        if (::sigaction(signal_number, nullptr, &current) != 0)
            continue;
        if (current.sa_handler == SIG_IGN || current.sa_handler == SIG_DFL)
            continue;  // ignored stays ignored, as exec itself would keep it
        struct sigaction reset {};
        reset.sa_handler = SIG_DFL;
        ::sigaction(signal_number, &reset, nullptr);
    }
    ::sigprocmask(SIG_SETMASK, &host_mask, nullptr);
    ::execv(program, argv);
    ::_exit(255);
}

bool is_safe_owner(uid_t owner)
{
    return owner == 0 || owner == ::getuid();
}

bool is_safe_entry(const struct stat& info)
{
    if (!is_safe_owner(info.st_uid))
        return false;
    const bool others_write = (info.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    return !others_write || (S_ISDIR(info.st_mode) && (info.st_mode & S_ISVTX) != 0);
}

}  // namespace

pid_t start(const char* program, char* const argv[])
{
    // Blocked around vfork so that no host handler runs in the child before it has reset
    // the dispositions; the child restores the host's mask just before exec.
    sigset_t all, host_mask;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &host_mask);
    const pid_t child = ::vfork();
    if (child == 0)
        exec_child(program, argv, host_mask);
    const int saved_errno = errno;
    ::pthread_sigmask(SIG_SETMASK, &host_mask, nullptr);
    errno = saved_errno;
    return child;
}

int wait_exit_status(pid_t child)
{
    int status = 0;
    pid_t waited;
    do {
        waited = ::waitpid(child, &status, 0);
    } while (waited == -1 && errno == EINTR);
    return waited == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool is_privileged()
{
    return ::geteuid() == 0 || ::getuid() != ::geteuid() || ::getgid() != ::getegid();
}

bool is_trusted_program(const std::string& program)
{
    // Judged on the resolved path: a link's own owner says nothing about its target.
    const std::unique_ptr<char, void (*)(void*)> resolved(::realpath(program.c_str(), nullptr),
                                                          &std::free);
    if (!resolved)
        return false;
    std::string path = resolved.get();
    for (;;) {
        struct stat info;
        if (::stat(path.c_str(), &info) != 0 || !is_safe_entry(info))
            return false;
        if (path == "/")
            return true;
        const std::size_t slash = path.rfind('/');
        path = slash == 0 ? "/" : path.substr(0, slash);
    }
}

}  // namespace process
