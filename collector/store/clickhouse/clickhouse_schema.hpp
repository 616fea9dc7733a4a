// The tables and views of a ClickHouse store, created by whichever collector or report
// reaches ClickHouse first; the collector owns them.
#ifndef USEMETER_COLLECTOR_CLICKHOUSE_SCHEMA_HPP
#define USEMETER_COLLECTOR_CLICKHOUSE_SCHEMA_HPP

#include <cstddef>
#include <cstdint>
#include <string>

#include "collector/store/hit.hpp"

namespace usemeter_collector {

class clickhouse_http_t;
struct clickhouse_address_t;

// Which shard of how many a server is, by its place in the store URI.
struct shard_place_t {
    std::size_t shard = 0, shards = 1;
};

// Creates the database, DATABASE.hits and the report aggregates with the views that feed
// them, unless they exist. A hits table of an earlier version gets the views, and the
// aggregates are back-filled from the hits it holds. The database keeps the place it was
// first given and refuses any other: hits are placed by shard, so a reordered or resized
// host list would misplace users and read another shard's marks.
outcome_t create_clickhouse_schema(clickhouse_http_t& http, const std::string& database, shard_place_t place);

// False only when a shard of address answers that it has no such database (unreachable
// servers say nothing), so that the owners' duties neither create a mistyped one nor hide a
// connection failure behind "no store".
bool clickhouse_database_exists(const clickhouse_address_t& address);

// The last sequence number of collector whose hits have reached the aggregates (0: none).
// Every hit of that collector up to it has, since a collector sends in order.
outcome_t clickhouse_landed_through(clickhouse_http_t& http, const std::string& database,
                                    const std::string& collector, std::int64_t& seq);

}  // namespace usemeter_collector

#endif
