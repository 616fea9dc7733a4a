// The tables and views of a ClickHouse store, created by whichever collector or report
// reaches ClickHouse first; the collector owns them.
#ifndef USEMETER_COLLECTOR_CLICKHOUSE_SCHEMA_HPP
#define USEMETER_COLLECTOR_CLICKHOUSE_SCHEMA_HPP

#include <cstdint>
#include <string>

#include "collector/store/hit.hpp"

namespace usemeter_collector {

class clickhouse_http_t;

// Creates the database, DATABASE.hits and the report aggregates with the views that feed
// them, unless they exist. A hits table of an earlier version gets the views, and the
// aggregates are back-filled from the hits it holds.
outcome_t create_clickhouse_schema(clickhouse_http_t& http, const std::string& database);

// The last sequence number of collector whose hits have reached the aggregates (0: none).
// Every hit of that collector up to it has, since a collector sends in order.
outcome_t clickhouse_landed_through(clickhouse_http_t& http, const std::string& database,
                                    const std::string& collector, std::int64_t& seq);

}  // namespace usemeter_collector

#endif
