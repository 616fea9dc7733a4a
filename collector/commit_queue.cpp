#include "commit_queue.hpp"

#include <chrono>
#include <utility>

namespace usemeter_collector {

commit_queue_t::commit_queue_t(store_t& store, commit_observer_t observer, std::size_t max_group)
    : store_(store), observer_(std::move(observer)), max_group_(max_group),
      writer_([this] { write_loop(); })
{
}

commit_queue_t::~commit_queue_t()
{
    stop();
}

outcome_t commit_queue_t::commit(std::vector<hit_t> hits)
{
    if (hits.empty())
        return {};
    ticket_t ticket;
    ticket.hits = std::move(hits);
    std::unique_lock<std::mutex> lock(mutex_);
    if (stopping_)
        return outcome_t::failure("the collector is stopping");
    pending_.push_back(&ticket);
    depth_ += ticket.hits.size();
    queued_.notify_one();
    ticket.finished.wait(lock, [&] { return ticket.done; });
    return ticket.outcome;
}

void commit_queue_t::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    queued_.notify_one();
    if (writer_.joinable())
        writer_.join();
}

// Whole requests, oldest first, until the group is full; at least one request.
std::vector<commit_queue_t::ticket_t*> commit_queue_t::take_group()
{
    std::vector<ticket_t*> group;
    std::size_t hits = 0;
    while (!pending_.empty() && (group.empty() || hits + pending_.front()->hits.size() <= max_group_)) {
        hits += pending_.front()->hits.size();
        group.push_back(pending_.front());
        pending_.pop_front();
    }
    return group;
}

void commit_queue_t::write_loop()
{
    std::vector<hit_t> batch;
    for (;;) {
        std::vector<ticket_t*> group;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            queued_.wait(lock, [&] { return stopping_ || !pending_.empty(); });
            if (pending_.empty())
                return;
            group = take_group();
        }
        batch.clear();
        for (ticket_t* ticket : group)
            batch.insert(batch.end(), ticket->hits.begin(), ticket->hits.end());

        const auto started = std::chrono::steady_clock::now();
        const outcome_t outcome = store_.append(batch);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - started;
        depth_ -= batch.size();
        if (observer_)
            observer_(outcome, batch.size(), took.count());
        {
            std::lock_guard<std::mutex> lock(mutex_);
            for (ticket_t* ticket : group) {
                ticket->outcome = outcome;
                ticket->done = true;
                ticket->finished.notify_one();
            }
        }
    }
}

}  // namespace usemeter_collector
