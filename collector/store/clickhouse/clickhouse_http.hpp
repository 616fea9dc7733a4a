// ClickHouse over its HTTP interface with libcurl: one statement per request, inserted rows
// and results as TabSeparated text. No client library is needed for that.
#ifndef USEMETER_COLLECTOR_CLICKHOUSE_HTTP_HPP
#define USEMETER_COLLECTOR_CLICKHOUSE_HTTP_HPP

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "collector/store/hit.hpp"

namespace usemeter_collector {

// Where the hits live: "clickhouse+http://HOST:PORT[,HOST:PORT...]/DATABASE". Several hosts
// are the shards of one database, each holding the whole schema; a client id's hits live on
// shard clickhouse_shard_of(cid, shards), so the hosts' order must never change for a database.
struct clickhouse_address_t {
    std::vector<std::string> servers;  // "http://HOST:PORT", one per shard, in the URI's order
    std::string database;              // an identifier, so that it can stand unquoted in statements
};

// False with error set unless uri has the form above, with no host named twice.
bool parse_clickhouse_uri(const std::string& uri, clickhouse_address_t& address, std::string& error);

// The shard of a client id: the 64-bit FNV-1a hash of its bytes, modulo the number of shards.
// Fixed for good: a database's hits are placed by it.
std::size_t clickhouse_shard_of(std::string_view cid, std::size_t shards);

// One connection, kept alive between statements. Not for use by two threads at once.
class clickhouse_http_t {
public:
    explicit clickhouse_http_t(std::string server);
    ~clickhouse_http_t();
    clickhouse_http_t(const clickhouse_http_t&) = delete;
    clickhouse_http_t& operator=(const clickhouse_http_t&) = delete;

    // Runs statement. For "INSERT ... FORMAT TabSeparated", rows is the data; result (if
    // given) receives what a SELECT returns. Fails unless ClickHouse answered 200.
    outcome_t run(const std::string& statement, const std::string& rows = std::string(),
                  std::string* result = nullptr);

    // For statements that work for minutes before they answer (a back-fill, a merge): a
    // silent server is waited for. Otherwise 60 s of silence count as a failure.
    void set_patient(bool patient) { patient_ = patient; }

private:
    bool patient_ = false;
    void* curl_;
    std::string server_;
};

// Runs statements in order, up to the first that fails.
outcome_t run_each(clickhouse_http_t& http, const std::vector<std::string>& statements);

// Runs ask(connection, shard) on every shard at once, each on a connection of its own (the
// last in the calling thread, so one shard needs no thread); the first shard's failure, if any.
outcome_t on_every_shard(const std::vector<std::string>& servers,
                         const std::function<outcome_t(clickhouse_http_t&, std::size_t)>& ask);

// TabSeparated text: a field escaped for a row, and the rows of a result unescaped.
void append_tsv_field(std::string& row, std::string_view field);
std::vector<std::vector<std::string>> parse_tsv(const std::string& text);
// The same, one row at a time, for results too large to hold twice.
void each_tsv_row(const std::string& text, const std::function<void(const std::vector<std::string>&)>& take);
// A string literal for a statement.
std::string sql_quoted(const std::string& text);

}  // namespace usemeter_collector

#endif
