#include "collector/ingest/metrics.hpp"

#include <sstream>

namespace usemeter_collector {

const std::array<double, 10> metrics_t::bucket_bounds = {0.0005, 0.001, 0.0025, 0.005, 0.01,
                                                         0.025,  0.05,  0.1,    0.5,   1.0};

void metrics_t::count_rejected(rejection_t reason, const std::string& body)
{
    std::lock_guard<std::mutex> lock(mutex_);
    ++rejected_[reason];
    std::deque<std::string>& recent = recent_[reason];
    recent.push_back(body.substr(0, hit_body_limit));
    if (recent.size() > kept_per_reason)
        recent.pop_front();
}

void metrics_t::record_commit(bool ok, double seconds)
{
    if (!ok)
        ++failed_commits_;
    std::lock_guard<std::mutex> lock(mutex_);
    ++commits_;
    commit_seconds_ += seconds;
    for (std::size_t i = 0; i < bucket_bounds.size(); ++i)
        if (seconds <= bucket_bounds[i])
            ++buckets_[i];
}

std::uint64_t metrics_t::rejected(rejection_t reason) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = rejected_.find(reason);
    return found == rejected_.end() ? 0 : found->second;
}

std::vector<std::string> metrics_t::recent_rejections(rejection_t reason) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = recent_.find(reason);
    return found == recent_.end() ? std::vector<std::string>()
                                  : std::vector<std::string>(found->second.begin(), found->second.end());
}

std::string metrics_t::prometheus_text(std::size_t queue_depth) const
{
    std::ostringstream out;
    out << "# HELP usemeter_hits_stored_total Hits committed to the store.\n"
        << "# TYPE usemeter_hits_stored_total counter\n"
        << "usemeter_hits_stored_total " << stored_ << "\n"
        << "# HELP usemeter_hits_rejected_total Hits answered but not stored, by reason.\n"
        << "# TYPE usemeter_hits_rejected_total counter\n";
    std::lock_guard<std::mutex> lock(mutex_);
    for (rejection_t reason : every_rejection()) {
        const auto found = rejected_.find(reason);
        out << "usemeter_hits_rejected_total{reason=\"" << name_of(reason) << "\"} "
            << (found == rejected_.end() ? 0 : found->second) << "\n";
    }
    out << "# HELP usemeter_store_commit_failures_total Store transactions that failed (answered 503).\n"
        << "# TYPE usemeter_store_commit_failures_total counter\n"
        << "usemeter_store_commit_failures_total " << failed_commits_ << "\n"
        << "# HELP usemeter_store_commit_seconds Time of one group commit.\n"
        << "# TYPE usemeter_store_commit_seconds histogram\n";
    for (std::size_t i = 0; i < bucket_bounds.size(); ++i)
        out << "usemeter_store_commit_seconds_bucket{le=\"" << bucket_bounds[i] << "\"} "
            << buckets_[i] << "\n";
    out << "usemeter_store_commit_seconds_bucket{le=\"+Inf\"} " << commits_ << "\n"
        << "usemeter_store_commit_seconds_sum " << commit_seconds_ << "\n"
        << "usemeter_store_commit_seconds_count " << commits_ << "\n"
        << "# HELP usemeter_commit_queue_depth Hits waiting for the store.\n"
        << "# TYPE usemeter_commit_queue_depth gauge\n"
        << "usemeter_commit_queue_depth " << queue_depth << "\n";
    return out.str();
}

}  // namespace usemeter_collector
