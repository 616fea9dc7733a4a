// The durable spool in front of a remote store: hits committed here are answered 200 and
// wait, in order, until the remote store has acknowledged them.
//
// Every hit gets a sequence number that is never reused (AUTOINCREMENT), and the spool
// keeps a random instance id of its own; together they name the hit everywhere, so that a
// batch sent twice is recognised as the same hits, whichever collector sent it.
//
// Threads: the commit writer appends and one forwarder reads and removes, each on its own
// connection (WAL lets them overlap); each connection has its own mutex.
#ifndef USEMETER_COLLECTOR_SPOOL_SQLITE_HPP
#define USEMETER_COLLECTOR_SPOOL_SQLITE_HPP

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "collector/store/store.hpp"

namespace usemeter_collector {

// A hit as read from the spool: its texts point into SQLite's row, valid only while the
// reader's callback runs (no copy per field).
struct spooled_row_t {
    std::int64_t seq = 0;
    std::int64_t received = 0;
    std::array<std::string_view, 9> fields;  // hit_t::fields() order
};

class spool_t {
public:
    // nullptr with error set when the file cannot be opened or set up.
    static std::unique_ptr<spool_t> open(const std::string& path, durability_t durability,
                                         std::string& error);
    ~spool_t();
    spool_t(const spool_t&) = delete;
    spool_t& operator=(const spool_t&) = delete;

    const std::string& instance() const { return instance_; }
    // Hits held now.
    std::int64_t size() const { return size_; }

    // All of them or none, durable as durability promises.
    outcome_t append(const std::vector<hit_t>& hits);
    // Hands take up to limit of the oldest hits after seq, oldest first.
    outcome_t read_after(std::int64_t seq, std::size_t limit,
                         const std::function<void(const spooled_row_t&)>& take);
    // Drops every hit up to and including seq (they have been acknowledged).
    outcome_t remove_through(std::int64_t seq);

private:
    struct connection_t;
    spool_t(std::string path);
    outcome_t set_up(durability_t durability);
    outcome_t set_up_reader(durability_t durability);

    const std::string path_;
    std::unique_ptr<connection_t> writer_;
    std::unique_ptr<connection_t> reader_;
    std::string instance_;
    std::atomic<std::int64_t> size_{0};
};

}  // namespace usemeter_collector

#endif
