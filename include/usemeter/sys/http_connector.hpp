// Advanced interface: for tools and embedders that need the library's internals; hosts use the
// public headers one level up.
// Posts request bodies to one URL from a background thread; see http_connector.cpp for
// the threading protocol.
#ifndef USEMETER_HTTP_CONNECTOR_HPP
#define USEMETER_HTTP_CONNECTOR_HPP

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <boost/thread/sync_queue.hpp>
#include <boost/thread/thread.hpp>

#include "usemeter/export.h"

typedef void CURL;  // as libcurl declares it

namespace usemeter_1_5_7 {

// The connector's queue, which a forked child can let go of: the child's copy of the
// condition variable still counts the parent's waiting worker, and destroying it would wait
// for that worker forever.
class body_queue_t : public boost::sync_queue<std::string> {
public:
    // Only in a forked child, where no other thread exists: starts the lock and the condition
    // afresh, leaving the inherited copies as they are.
    void forget_other_threads();
};

class USEMETER_API http_connector_t {
public:
    explicit http_connector_t(const char* url);
    // Attempts every body posted before it, then joins the worker.
    ~http_connector_t();

    http_connector_t(const http_connector_t&) = delete;
    http_connector_t& operator=(const http_connector_t&) = delete;

    // Queues a body; never waits on the network. Bodies must not be empty (the empty
    // string is the worker's stop marker).
    void post(std::string&& data);
    // libcurl's URL escaping; safe on any thread while the worker transfers.
    std::string urlencode(const std::string& text);
    // Bodies answered 200 by all connectors of this process so far (for inspection tools:
    // read it after destroying a connector to count what that one delivered).
    static std::uint32_t delivered_total();

private:
    void backgroundThread();
    void perform_post(std::string data);
    static size_t discard_response(char* ptr, size_t size, size_t nmemb, void* userdata);

    body_queue_t queue;
    std::unique_ptr<boost::thread> worker;
    CURL* curl;
    std::string url;
    std::vector<std::string> proxies;
    std::uint32_t current_proxy;
    bool active;
    // The process that started the worker; in a forked child the destructor does not join.
    int owner_pid;
};

// Appends the proxy candidates for url: the value of "http_proxy" verbatim, if set.
USEMETER_API void collect_proxy_info(const char* url, std::vector<std::string>* proxies);

}  // namespace usemeter_1_5_7

#endif
