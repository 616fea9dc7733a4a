// The ClickHouse store: hits are committed to a local SQLite spool (so a 200 means exactly
// what it means with the SQLite store) and a forwarder thread sends them on to ClickHouse in
// order, in batches of thousands of rows or after a time bound, over its HTTP interface.
// A hit leaves the spool only once ClickHouse has acknowledged the insert that held it.
//
// Shards: with several hosts, each holds the whole schema and the hits of the client ids
// clickhouse_shard_of places there. A batch is split by shard, each part inserted into its
// shard at once, and the batch leaves the spool once every shard has taken its part.
//
// Nothing counted twice: before it sends a batch whose acknowledgement it has not seen (the
// first after a start or a failure), the forwarder asks every shard how far its hits have
// reached that shard's aggregates (clickhouse_landed_through, one mark per shard), sends each
// shard only its hits above its mark, and drops from the spool what every shard holds. A part
// that stopped half way (hits stored, aggregates not) is sent again whole: the hits table is
// a ReplacingMergeTree on a key that ends in (collector, seq), so merges drop the copies, and
// export and erase count distinct keys until then; the user sets are unchanged by a copy.
//
// Threads: the commit writer calls append(); one forwarder thread owns the ClickHouse
// connection used for inserts; the owners' duties and the reports open their own.
// mutex_ guards stopping_ and the forwarder's wake-up; counters are atomic.
#ifndef USEMETER_COLLECTOR_STORE_CLICKHOUSE_HPP
#define USEMETER_COLLECTOR_STORE_CLICKHOUSE_HPP

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "collector/store/clickhouse/clickhouse_schema.hpp"
#include "collector/store/store.hpp"

namespace usemeter_collector {

// Points in the forwarding of one batch where tests inject faults.
enum class forward_step_t {
    send,         // the rows are about to be sent
    acknowledged  // ClickHouse answered 200, the rows are still in the spool
};

struct clickhouse_options_t {
    std::string uri;  // clickhouse+http://HOST:PORT[,HOST:PORT...]/DATABASE
    // The spool file; empty: no spool and no forwarder, for the owners' duties alone.
    std::string spool;
    durability_t durability = durability_t::normal;
    // Past this many hits waiting for ClickHouse, append() fails (the collector answers 503).
    std::size_t spool_max_hits = 10000000;
    std::size_t batch_rows = 20000;
    // A batch smaller than batch_rows is sent once its oldest hit has waited this long.
    std::chrono::milliseconds batch_wait{1000};
    // Failed inserts are retried after a pause that doubles up to this.
    std::chrono::milliseconds retry_max{2000};
    // Tests only: false makes that step fail as if the connection had dropped there.
    std::function<bool(forward_step_t)> fault;
};

// The table every ClickHouse statement of the collector names: "DATABASE.hits".
std::string clickhouse_hits_table(const std::string& database);

// nullptr with error set when the URI is malformed or the spool cannot be opened. ClickHouse
// itself need not be up: the schema is created on the first successful connection.
std::unique_ptr<store_t> open_clickhouse_store(const clickhouse_options_t& options, std::string& error);

}  // namespace usemeter_collector

#endif
