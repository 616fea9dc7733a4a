#include "collector/ingest/commit_queue.hpp"

#include <chrono>
#include <iterator>
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
    std::shared_ptr<group_t> group;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_)
            return outcome_t::failure("the collector is stopping");
        group = join_group(hits);
        // A writer that is busy comes back for the queue by itself.
        if (writer_idle_) {
            writer_idle_ = false;
            queued_.notify_one();
        }
    }
    std::unique_lock<std::mutex> lock(group->mutex);
    group->finished.wait(lock, [&] { return group->done; });
    return group->outcome;
}

// Under mutex_. Whole requests in arrival order; a full open group makes way for a new one.
std::shared_ptr<commit_queue_t::group_t> commit_queue_t::join_group(std::vector<hit_t>& hits)
{
    const bool open_fits = !groups_.empty() &&
                           groups_.back()->hits.size() + hits.size() <= max_group_;
    if (!open_fits)
        groups_.push_back(std::make_shared<group_t>());
    std::vector<hit_t>& queued = groups_.back()->hits;
    queued.insert(queued.end(), std::make_move_iterator(hits.begin()), std::make_move_iterator(hits.end()));
    depth_ += hits.size();
    return groups_.back();
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

void commit_queue_t::finish(group_t& group, const outcome_t& outcome)
{
    {
        std::lock_guard<std::mutex> lock(group.mutex);
        group.outcome = outcome;
        group.done = true;
    }
    group.finished.notify_all();
}

void commit_queue_t::write_loop()
{
    for (;;) {
        std::shared_ptr<group_t> group;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            writer_idle_ = groups_.empty() && !stopping_;
            queued_.wait(lock, [&] { return stopping_ || !groups_.empty(); });
            writer_idle_ = false;
            if (groups_.empty())
                return;
            group = std::move(groups_.front());
            groups_.pop_front();
        }
        const auto started = std::chrono::steady_clock::now();
        const outcome_t outcome = store_.append(group->hits);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - started;
        depth_ -= group->hits.size();
        if (observer_)
            observer_(outcome, group->hits.size(), took.count());
        finish(*group, outcome);
    }
}

}  // namespace usemeter_collector
