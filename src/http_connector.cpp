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
#include <exception>
#include <memory>

#include <curl/curl.h>

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

// No CURLOPT_NOSIGNAL: this libcurl resolves names on a thread of its own, so its time-outs
// never raise SIGALRM in the host process.
http_connector_t::http_connector_t(const char* url)
    : curl(nullptr), url(url), current_proxy(0), active(true)
{
    curl_global_init(CURL_GLOBAL_ALL);
    curl = curl_easy_init();
    if (curl) {
        curl_easy_setopt(curl, CURLOPT_URL, this->url.c_str());
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &http_connector_t::discard_response);
        curl_easy_setopt(curl, CURLOPT_TIMEOUT, 5L);
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
                                                 &std::free);
    return std::string(escaped.get());
}

void http_connector_t::backgroundThread()
{
    collect_proxy_info(url.c_str(), &proxies);
    proxies.push_back(std::string());
    for (;;) {
        std::string body;
        if (queue.wait_pull(body) != boost::concurrent::queue_op_status::success || body.empty())
            return;
        perform_post(std::move(body));
    }
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
        // environment rules, whereas "" would forbid every proxy.
        curl_easy_setopt(curl, CURLOPT_PROXY,
                         proxy.empty() ? static_cast<const char*>(nullptr) : proxy.c_str());
        long status = 0;
        if (curl_easy_perform(curl) == CURLE_OK
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
