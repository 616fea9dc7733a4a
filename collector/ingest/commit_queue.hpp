// The one writer: request handlers hand in their hits and wait; a single thread commits
// whatever has queued up while it wrote the previous group in one transaction (group commit)
// and only then wakes them. It does not wait for a group to fill: on a busy machine, waiting
// for handlers that are not yet running costs more than the smaller transactions (measured).
// So a handler that got "committed" answers 200 for hits that are in the store.
//
// Handlers add their hits straight to the open group, and everyone in a group waits on that
// group's own flag: the writer wakes a whole group with one call, and woken handlers never
// need the queue's lock, so they do not block again on the way out (the stored rate under
// load about doubled, measured).
//
// Threads: any number of callers of commit(); one writer thread owns all store writes.
// mutex_ guards groups_, writer_idle_ and stopping_; a group's own mutex guards its outcome.
// stop() lets the writer drain the queue, so nothing accepted is dropped on SIGTERM.
#ifndef USEMETER_COLLECTOR_COMMIT_QUEUE_HPP
#define USEMETER_COLLECTOR_COMMIT_QUEUE_HPP

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "collector/store/store.hpp"

namespace usemeter_collector {

class commit_queue_t {
public:
    // Called by the writer after every commit attempt with its outcome, size and duration.
    using commit_observer_t = std::function<void(const outcome_t&, std::size_t hits, double seconds)>;

    // max_group: hits per transaction; a request's hits are never split across two.
    commit_queue_t(store_t& store, commit_observer_t observer, std::size_t max_group = 512);
    ~commit_queue_t();

    commit_queue_t(const commit_queue_t&) = delete;
    commit_queue_t& operator=(const commit_queue_t&) = delete;

    // Blocks until the hits are committed (ok) or their transaction failed.
    // After stop() it fails at once.
    outcome_t commit(std::vector<hit_t> hits);
    // Hits waiting for the writer.
    std::size_t depth() const { return depth_; }
    // Commits everything queued, then ends the writer. Idempotent.
    void stop();

private:
    // One transaction's worth of requests. Shared, so that the writer can wake its waiters
    // after letting go of it and the last one out frees it.
    struct group_t {
        std::vector<hit_t> hits;
        std::mutex mutex;
        std::condition_variable finished;
        bool done = false;
        outcome_t outcome;
    };

    void write_loop();
    std::shared_ptr<group_t> join_group(std::vector<hit_t>& hits);
    static void finish(group_t& group, const outcome_t& outcome);

    store_t& store_;
    const commit_observer_t observer_;
    const std::size_t max_group_;
    std::mutex mutex_;
    std::condition_variable queued_;
    std::deque<std::shared_ptr<group_t>> groups_;  // the back one is open to new requests
    bool writer_idle_ = false;
    bool stopping_ = false;
    std::atomic<std::size_t> depth_{0};
    std::thread writer_;
};

}  // namespace usemeter_collector

#endif
