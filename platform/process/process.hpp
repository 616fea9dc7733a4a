// Starting and waiting for child processes. The program and every argument are prepared by
// the caller: the child does nothing but reset its signal state and exec, or exit.
#ifndef USEMETER_PLATFORM_PROCESS_HPP
#define USEMETER_PLATFORM_PROCESS_HPP

#include <string>

#include <sys/types.h>

namespace process {

// vforks and execs program with argv (argv[0] included, null-terminated). The child starts
// with the signal mask and descriptors it would have inherited from the caller, but with the
// caller's caught signals back at their defaults: no host handler ever runs in the child on
// the host's memory. An exec that fails ends the child with status 255. Returns the child's
// id, or -1 when no child could be made.
pid_t start(const char* program, char* const argv[]);

// Waits for child, through interrupted waits; its exit status, or -1 when it was killed by a
// signal or cannot be waited for.
int wait_exit_status(pid_t child);

// True in a set-user-ID or set-group-ID process, and in any process running as root.
bool is_privileged();

// True when program and every directory above it are owned by root (or by the real user,
// when that is not root) and nobody else can replace them: no group or other write bit, except
// on a directory with the sticky bit, where others cannot rename what they do not own.
bool is_trusted_program(const std::string& program);

}  // namespace process

#endif
