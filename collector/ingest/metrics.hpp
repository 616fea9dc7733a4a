// What the collector counts, for /metrics (Prometheus text) and for tests: hits stored,
// hits rejected by reason with the last few bodies of each, and store commit latency.
// Every member is safe to use from any thread; memory stays bounded whatever arrives.
#ifndef USEMETER_COLLECTOR_METRICS_HPP
#define USEMETER_COLLECTOR_METRICS_HPP

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "collector/ingest/hit_form.hpp"

namespace usemeter_collector {

class metrics_t {
public:
    static const std::size_t kept_per_reason = 5;

    void count_stored(std::size_t hits) { stored_ += hits; }
    void count_rejected(rejection_t reason, const std::string& body);
    void record_commit(bool ok, double seconds);

    std::uint64_t stored() const { return stored_; }
    std::uint64_t rejected(rejection_t reason) const;
    // The newest bodies last, at most kept_per_reason.
    std::vector<std::string> recent_rejections(rejection_t reason) const;

    // queue_depth: hits waiting for the writer at this moment.
    std::string prometheus_text(std::size_t queue_depth) const;

private:
    static const std::array<double, 10> bucket_bounds;

    std::atomic<std::uint64_t> stored_{0};
    std::atomic<std::uint64_t> failed_commits_{0};
    mutable std::mutex mutex_;  // guards everything below
    std::map<rejection_t, std::uint64_t> rejected_;
    std::map<rejection_t, std::deque<std::string>> recent_;
    std::array<std::uint64_t, 10> buckets_{};  // commits at or under each bound
    std::uint64_t commits_ = 0;
    double commit_seconds_ = 0;
};

}  // namespace usemeter_collector

#endif
