// The store interface: where committed hits live. One writer (the commit queue) appends;
// the owners' duties (export, erasure, retention) may run from other processes meanwhile.
#ifndef USEMETER_COLLECTOR_STORE_HPP
#define USEMETER_COLLECTOR_STORE_HPP

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "collector/store/hit.hpp"

namespace usemeter_collector {

enum class durability_t {
    normal,  // survives a crash of the collector
    full     // also survives a power loss, at the cost of a flush per commit
};

class store_t {
public:
    virtual ~store_t() = default;

    // Keeps all hits or none, together with the rollups. Returns only once they are durable
    // as the store's durability promises; a failure names the reason (disk full, read-only).
    virtual outcome_t append(const std::vector<hit_t>& hits) = 0;
    // Writes the hits received on days since..until (inclusive, "" = open) as CSV, oldest
    // first, with the header line.
    virtual outcome_t export_csv(std::ostream& out, const std::string& since,
                                 const std::string& until) = 0;
    // Removes every hit and rollup row of one client id; erased counts the hits.
    virtual outcome_t erase_client(const std::string& cid, std::int64_t& erased) = 0;
    // Removes hits received before first_kept_day ("YYYY-MM-DD") and keeps rollups consistent.
    virtual outcome_t erase_before(const std::string& first_kept_day, std::int64_t& erased) = 0;

    // Hits committed but not yet where they finally live (a remote store's spool); 0 for a
    // store that writes in place.
    virtual std::int64_t backlog() const { return 0; }
    // The store's own lines for /metrics (Prometheus text).
    virtual std::string metrics_text() const { return std::string(); }
};

// The local spool of a remote store (ClickHouse): committed hits wait there for the remote end.
struct spool_options_t {
    std::string path;  // empty: no spool, so no forwarding (enough for the owners' duties)
    std::size_t max_hits = 10000000;  // past this, commits fail and hits are answered 503
};

// Opens the store a URI names ("sqlite:PATH", "clickhouse+http://HOST:PORT[,HOST:PORT...]/DATABASE");
// nullptr with error set when it cannot. spool matters to remote stores only.
std::unique_ptr<store_t> open_store(const std::string& uri, durability_t durability,
                                    std::string& error, const spool_options_t& spool = spool_options_t());
// False for a SQLite file or a ClickHouse database that is missing: the owners' commands must
// not create one.
bool store_exists(const std::string& uri);
// Creates path with mode 0600 unless it exists, so that SQLite (and its -wal and -shm files,
// which take the database's mode) never makes client ids readable by other users.
void create_private_file(const std::string& path);

}  // namespace usemeter_collector

#endif
