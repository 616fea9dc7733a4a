// Connection handling that cpp-httplib leaves to its user: a pool that admits a bounded
// number of connections, each with a thread of its own, and closing a connection without
// an answer (httplib gives a handler no access to its socket).
#ifndef USEMETER_COLLECTOR_CONNECTIONS_HPP
#define USEMETER_COLLECTOR_CONNECTIONS_HPP

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <httplib.h>

namespace usemeter_collector {

// Every admitted connection gets a thread at once, so a kept-alive client never makes the
// next one wait. When all are taken, the accept loop waits here and further clients wait in
// the kernel's backlog: no queue grows without bound.
class connection_pool_t : public httplib::TaskQueue {
public:
    explicit connection_pool_t(std::size_t limit);
    ~connection_pool_t() override;

    void enqueue(std::function<void()> fn) override;
    void shutdown() override;

private:
    void serve();

    const std::size_t limit_;
    std::mutex mutex_;
    std::condition_variable job_ready_;
    std::condition_variable slot_free_;
    std::deque<std::function<void()>> jobs_;
    std::size_t admitted_ = 0;  // queued or running
    bool shutting_down_ = false;
    std::vector<std::thread> threads_;
};

// Shuts down the accepted sockets of this process whose local port is server_port and whose
// peer port is remote_port (every peer when remote_port < 0). httplib then closes them.
void shut_down_connections(int server_port, int remote_port);

}  // namespace usemeter_collector

#endif
