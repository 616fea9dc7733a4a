#include "connections.hpp"

#include <cstdlib>

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace usemeter_collector {

connection_pool_t::connection_pool_t(std::size_t limit) : limit_(limit)
{
    threads_.reserve(limit);
    for (std::size_t i = 0; i < limit; ++i)
        threads_.emplace_back([this] { serve(); });
}

connection_pool_t::~connection_pool_t()
{
    shutdown();
}

void connection_pool_t::enqueue(std::function<void()> fn)
{
    std::unique_lock<std::mutex> lock(mutex_);
    slot_free_.wait(lock, [&] { return admitted_ < limit_ || shutting_down_; });
    ++admitted_;
    jobs_.push_back(std::move(fn));
    job_ready_.notify_one();
}

void connection_pool_t::shutdown()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        shutting_down_ = true;
    }
    job_ready_.notify_all();
    slot_free_.notify_all();
    for (std::thread& thread : threads_)
        if (thread.joinable())
            thread.join();
}

void connection_pool_t::serve()
{
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            job_ready_.wait(lock, [&] { return !jobs_.empty() || shutting_down_; });
            if (jobs_.empty())
                return;
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        job();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            --admitted_;
        }
        slot_free_.notify_one();
    }
}

namespace {

int port_of(int fd, bool peer)
{
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    auto* any = reinterpret_cast<sockaddr*>(&address);
    if ((peer ? ::getpeername(fd, any, &length) : ::getsockname(fd, any, &length)) != 0)
        return -1;
    if (address.ss_family == AF_INET)
        return ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
    if (address.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
    return -1;
}

}  // namespace

void shut_down_connections(int server_port, int remote_port)
{
    DIR* dir = ::opendir("/proc/self/fd");
    if (!dir)
        return;
    // The client end of a connection made from this same process has the ports the other
    // way round and is left alone.
    while (dirent* entry = ::readdir(dir)) {
        const int fd = std::atoi(entry->d_name);
        const int peer = fd > 2 ? port_of(fd, true) : -1;
        if (peer >= 0 && port_of(fd, false) == server_port && (remote_port < 0 || peer == remote_port))
            ::shutdown(fd, SHUT_RDWR);
    }
    ::closedir(dir);
}

}  // namespace usemeter_collector
