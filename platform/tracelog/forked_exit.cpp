// exit() in a forked child of any process that loaded the library.
//
// log4cplus 2.0 starts its thread pool when it is loaded, and its library destructor waits
// until every pool thread has left. A forked child inherits the pool's bookkeeping but none of
// its threads, so that destructor would wait forever: every host that forks and then exits
// without exec would hang. Libraries are finalised after the program's exit handlers ran, the
// dependent ones first, so this library's own finaliser runs before log4cplus's. In a forked
// child that is leaving through exit(), it flushes the standard streams as exit() would and
// ends the process with exit()'s status right there. In the process that loaded the library
// nothing changes.
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include <pthread.h>
#include <unistd.h>

namespace tracelog {
namespace {

const pid_t loading_process = ::getpid();
bool exiting = false;
int exit_status = 0;

// The status exit() was given; finalisers are not told it.
void record_exit_status(int status, void*)
{
    exiting = true;
    exit_status = status;
}

// Registered in the parent before its first fork, where registering is safe, so that every
// child inherits it. It runs before any library is finalised.
void register_exit_recorder()
{
    static const int registered = ::on_exit(record_exit_status, nullptr);
    static_cast<void>(registered);
}

struct forked_child_exit_t {
    forked_child_exit_t() { ::pthread_atfork(register_exit_recorder, nullptr, nullptr); }
    ~forked_child_exit_t()
    {
        // Also reached on dlclose(): only an exit() in a child ends the process here.
        if (::getpid() == loading_process || !exiting)
            return;
        // Streams that do not share stdio's buffers (sync_with_stdio(false)) first.
        std::cout.flush();
        std::clog.flush();
        std::fflush(nullptr);
        ::_exit(exit_status);
    }
} const forked_child_exit;

}  // namespace
}  // namespace tracelog
