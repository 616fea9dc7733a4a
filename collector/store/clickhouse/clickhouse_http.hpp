// ClickHouse over its HTTP interface with libcurl: one statement per request, inserted rows
// and results as TabSeparated text. No client library is needed for that.
#ifndef USEMETER_COLLECTOR_CLICKHOUSE_HTTP_HPP
#define USEMETER_COLLECTOR_CLICKHOUSE_HTTP_HPP

#include <functional>
#include <string>
#include <vector>

#include "collector/store/hit.hpp"

namespace usemeter_collector {

// Where the hits live: "clickhouse+http://HOST:PORT/DATABASE".
struct clickhouse_address_t {
    std::string server;    // "http://HOST:PORT"
    std::string database;  // an identifier, so that it can stand unquoted in statements
};

// False with error set unless uri has the form above.
bool parse_clickhouse_uri(const std::string& uri, clickhouse_address_t& address, std::string& error);

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

// TabSeparated text: a field escaped for a row, and the rows of a result unescaped.
void append_tsv_field(std::string& row, const std::string& field);
std::vector<std::vector<std::string>> parse_tsv(const std::string& text);
// The same, one row at a time, for results too large to hold twice.
void each_tsv_row(const std::string& text, const std::function<void(const std::vector<std::string>&)>& take);
// A string literal for a statement.
std::string sql_quoted(const std::string& text);

}  // namespace usemeter_collector

#endif
