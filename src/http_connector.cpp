// Concurrency protocol of http_connector_t
//
// Two kinds of thread meet in a connector: any number of host threads, which call post() and
// urlencode(), and the one worker thread that the constructor starts.
//
// - queue: the only lock. post() takes its mutex just long enough to append a moved string and
//   wake the worker; the worker takes it to pull the front body and drops it before any network
//   work, so a slow or dead network never reaches a host thread.
// - proxies, current_proxy, active and every transfer option of the easy handle belong to the
//   worker alone. proxies is filled when the worker starts, not in the constructor, so that
//   construction does no more than start a thread.
// - curl and url are written by the constructor before the worker exists and only read
//   afterwards; starting the thread publishes them.
// - urlencode() hands the easy handle to curl_easy_escape from a host thread while the worker
//   may be in the middle of a transfer on that handle. This is sound only because escaping
//   never looks at the handle (see urlencode below); nothing else of the handle is shared.
// - Shutdown: the destructor queues the empty stop marker behind every pending body and joins
//   the worker, which therefore attempts everything posted before it. Each attempt is bounded
//   by the 5-second transfer time-out, and once active is false later bodies are dropped
//   without network access, so the join waits at most about one failing body's worth of
//   time-outs. Only after the join are the handle and libcurl's global state released.
#include "usemeter/sys/http_connector.hpp"

#include <atomic>
#include <cstdlib>
#include <dirent.h>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <new>
#include <set>
#include <unistd.h>

#include <curl/curl.h>

#include "host/host_services.hpp"

// curl_easy_escape has ignored its handle argument since 7.82.0 (before that it could consult
// the handle for a character-set conversion). urlencode() relies on that to escape on host
// threads while the worker transfers with the same handle; this system ships 7.88.1.
static_assert(LIBCURL_VERSION_NUM >= 0x075200,
              "urlencode() needs a libcurl whose escaping does not touch the easy handle");

namespace usemeter_1_5_7 {

namespace {
std::atomic<std::uint32_t> delivered_bodies{0};
}

std::uint32_t http_connector_t::delivered_total()
{
    return delivered_bodies.load();
}

// libcurl's default write callback would print the response body to stdout.
size_t http_connector_t::discard_response(char*, size_t size, size_t nmemb, void*)
{
    return size * nmemb;
}

void body_queue_t::forget_other_threads()
{
    new (&mtx_) boost::mutex();
    new (&cond_) boost::condition_variable();
}

namespace {

// Every socket of a transfer is close-on-exec, so no support tool inherits a connection.
curl_socket_t open_socket(void*, curlsocktype, curl_sockaddr* address)
{
    const int fd = host::services().open_socket(address->family, address->socktype, address->protocol);
    return fd < 0 ? CURL_SOCKET_BAD : fd;
}

// libcurl keeps a socket pair of its own in every multi handle (and so in the one behind
// curl_easy_perform) and creates it without close-on-exec. The worker therefore drives its
// transfers through a multi handle it makes itself, and marks whatever descriptors appear while
// that handle is made.
std::set<int> open_descriptors()
{
    std::set<int> descriptors;
    if (DIR* dir = ::opendir("/proc/self/fd")) {
        while (const dirent* entry = ::readdir(dir))
            if (entry->d_name[0] != '.')
                descriptors.insert(std::atoi(entry->d_name));
        descriptors.erase(::dirfd(dir));  // the listing's own, gone when it is closed
        ::closedir(dir);
    }
    return descriptors;
}

CURLM* make_multi_handle()
{
    const std::set<int> before = open_descriptors();
    CURLM* multi = curl_multi_init();
    for (const int fd : open_descriptors())
        if (!before.count(fd)) {
            const int flags = ::fcntl(fd, F_GETFD);
            if (flags >= 0)
                ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
        }
    return multi;
}

// The worker's multi handle, used by that thread alone.
thread_local CURLM* worker_multi = nullptr;

// curl_easy_perform over the worker's own multi handle; connections stay cached in it.
CURLcode perform_transfer(CURL* curl)
{
    if (!worker_multi || curl_multi_add_handle(worker_multi, curl) != CURLM_OK)
        return CURLE_FAILED_INIT;
    CURLcode result = CURLE_FAILED_INIT;
    for (int running = 1; running;) {
        if (curl_multi_perform(worker_multi, &running) != CURLM_OK)
            break;
        if (running && curl_multi_poll(worker_multi, nullptr, 0, 1000, nullptr) != CURLM_OK)
            break;
    }
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(worker_multi, &left))
        if (message->msg == CURLMSG_DONE)
            result = message->data.result;
    curl_multi_remove_handle(worker_multi, curl);
    return result;
}

// What a connector leaves behind in a forked child stays reachable from here, so that a leak
// checker at the child's exit does not count it.
std::vector<const void*>& abandoned_in_child()
{
    static std::vector<const void*> objects;
    return objects;
}

}  // namespace

// CURLOPT_NOSIGNAL: the library never touches the host's signal dispositions (libcurl would
// swap SIGPIPE's around each transfer). This libcurl resolves names on a thread of its own, so
// its time-outs need no SIGALRM either.
http_connector_t::http_connector_t(const char* url)
    : curl(nullptr), url(url), current_proxy(0), active(true), owner_pid(::getpid())
{
    curl_global_init(CURL_GLOBAL_ALL);
    curl = curl_easy_init();
    if (curl) {
        curl_easy_setopt(curl, CURLOPT_URL, this->url.c_str());
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &http_connector_t::discard_response);
        curl_easy_setopt(curl, CURLOPT_TIMEOUT, 5L);
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_OPENSOCKETFUNCTION, &open_socket);
    }
    try {
        worker.reset(new boost::thread(&http_connector_t::backgroundThread, this));
    } catch (...) {
        curl_easy_cleanup(curl);
        curl_global_cleanup();
        throw;
    }
}

http_connector_t::~http_connector_t()
{
    if (::getpid() != owner_pid) {
        // A forked child has the object but not its worker: joining would wait forever, and
        // the handle may be mid-transfer in the parent's copy. Both are left as they are; the
        // queued bodies are the parent's to send.
        abandoned_in_child().push_back(worker.release());
        abandoned_in_child().push_back(curl);
        queue.forget_other_threads();
        return;
    }
    try {
        // A host that interrupts its own boost::thread must not cut the join short: the handle
        // is released below and the worker may still be using it.
        boost::this_thread::disable_interruption keep_joining;
        try {
            queue.push(std::string());
        } catch (...) {
            // Without the marker the worker would wait forever; a closed queue still hands out
            // what it holds and then ends the worker the same way.
            queue.close();
        }
        // Destruction from the worker itself is a programming error. The join would throw, and
        // with that caught below the object would be freed under the running worker.
        if (worker->get_id() == boost::this_thread::get_id())
            std::terminate();
        worker->join();
        curl_easy_cleanup(curl);
        curl_global_cleanup();
    } catch (...) {
        // The worker may still run: leaking the handle is the only safe choice left.
    }
}

void http_connector_t::post(std::string&& data)
{
    queue.push(std::move(data));
}

std::string http_connector_t::urlencode(const std::string& text)
{
    // Length 0: libcurl measures the text up to its first NUL byte. A null result makes the
    // std::string constructor throw, which is the caller's to handle.
    std::unique_ptr<char, void (*)(void*)> escaped(curl_easy_escape(curl, text.c_str(), 0),
                                                 &curl_free);
    return std::string(escaped.get());
}

void http_connector_t::backgroundThread()
{
    collect_proxy_info(url.c_str(), &proxies);
    proxies.push_back(std::string());
    worker_multi = make_multi_handle();
    for (;;) {
        std::string body;
        if (queue.wait_pull(body) != boost::concurrent::queue_op_status::success || body.empty())
            break;
        perform_post(std::move(body));
    }
    curl_multi_cleanup(worker_multi);
    worker_multi = nullptr;
}

// Taken by value: CURLOPT_POSTFIELDS does not copy, so the body must outlive every attempt.
void http_connector_t::perform_post(std::string data)
{
    if (!curl || !active)
        return;
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, data.c_str());
    const std::uint32_t n = static_cast<std::uint32_t>(proxies.size());
    for (std::uint32_t attempt = 0; attempt < n; ++attempt) {
        const std::string& proxy = proxies[current_proxy];
        // A null pointer, not "": the route without an explicit proxy keeps libcurl's own
        // environment rules, whereas "" would forbid every proxy. An explicit proxy is always
        // used: an empty exclusion list keeps no_proxy from sending that attempt around it.
        curl_easy_setopt(curl, CURLOPT_PROXY,
                         proxy.empty() ? static_cast<const char*>(nullptr) : proxy.c_str());
        curl_easy_setopt(curl, CURLOPT_NOPROXY, proxy.empty() ? static_cast<const char*>(nullptr) : "");
        long status = 0;
        if (perform_transfer(curl) == CURLE_OK
            && curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK
            && status == 200) {
            ++delivered_bodies;
            return;
        }  // current_proxy stays: the next body starts with the route that worked
        current_proxy = (current_proxy + 1) % n;
    }
    active = false;
}

}  // namespace usemeter_1_5_7
