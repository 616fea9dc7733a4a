// One way to reach each store: the URI's scheme picks the driver, both for the store that takes
// hits and for the read-only source the reports ask.
#include <sys/stat.h>

#include "collector/reports/reports.hpp"
#include "collector/store/clickhouse/clickhouse_http.hpp"
#include "collector/store/clickhouse/clickhouse_schema.hpp"
#include "collector/store/clickhouse/store_clickhouse.hpp"
#include "collector/store/sqlite/store_sqlite.hpp"
#include "collector/store/store.hpp"

namespace usemeter_collector {

namespace {

const std::string sqlite_scheme = "sqlite:";
const std::string clickhouse_scheme = "clickhouse+http://";

bool has_scheme(const std::string& uri, const std::string& scheme)
{
    return uri.compare(0, scheme.size(), scheme) == 0 && uri.size() > scheme.size();
}

std::string unknown_store(const std::string& uri)
{
    return "unknown store \"" + uri +
           "\" (expected sqlite:PATH or clickhouse+http://HOST:PORT[,HOST:PORT...]/DATABASE)";
}

}  // namespace

std::unique_ptr<store_t> open_store(const std::string& uri, durability_t durability,
                                    std::string& error, const spool_options_t& spool)
{
    if (has_scheme(uri, clickhouse_scheme)) {
        clickhouse_options_t options;
        options.uri = uri;
        options.spool = spool.path;
        options.spool_max_hits = spool.max_hits;
        options.durability = durability;
        return open_clickhouse_store(options, error);
    }
    if (has_scheme(uri, sqlite_scheme))
        return open_sqlite_store(uri.substr(sqlite_scheme.size()), durability, error);
    error = unknown_store(uri);
    return nullptr;
}

std::unique_ptr<report_source_t> open_report_source(const std::string& uri, std::string& error)
{
    if (has_scheme(uri, clickhouse_scheme))
        return open_clickhouse_report_source(uri, error);
    if (has_scheme(uri, sqlite_scheme))
        return open_sqlite_report_source(uri.substr(sqlite_scheme.size()), error);
    error = unknown_store(uri);
    return nullptr;
}

bool store_exists(const std::string& uri)
{
    struct stat status;
    clickhouse_address_t address;
    std::string error;
    if (has_scheme(uri, clickhouse_scheme))
        return !parse_clickhouse_uri(uri, address, error) || clickhouse_database_exists(address);
    return !has_scheme(uri, sqlite_scheme) || ::stat(uri.c_str() + sqlite_scheme.size(), &status) == 0;
}

}  // namespace usemeter_collector
