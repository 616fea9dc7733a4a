// The SQLite store: WAL, a versioned schema, and the rollups the reports read, all kept in
// the transaction that appends the hits.
#ifndef USEMETER_COLLECTOR_STORE_SQLITE_HPP
#define USEMETER_COLLECTOR_STORE_SQLITE_HPP

#include <memory>
#include <string>

#include "collector/store/store.hpp"

namespace usemeter_collector {

// nullptr with error set when the file cannot be opened or its schema is newer than ours.
std::unique_ptr<store_t> open_sqlite_store(const std::string& path, durability_t durability,
                                           std::string& error);

// The schema version this collector writes (PRAGMA user_version).
int sqlite_schema_version();

}  // namespace usemeter_collector

#endif
