#include "collector/store/clickhouse/clickhouse_http.hpp"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <future>
#include <utility>

#include <curl/curl.h>

namespace usemeter_collector {

namespace {

std::size_t append_to_string(char* data, std::size_t size, std::size_t count, void* target)
{
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

bool is_identifier(const std::string& text)
{
    if (text.empty() || std::isdigit(static_cast<unsigned char>(text[0])))
        return false;
    for (char c : text)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_')
            return false;
    return true;
}

std::string first_line(const std::string& text)
{
    return text.substr(0, std::min(text.find('\n'), std::size_t(300)));
}

// HOST:PORT, the port all digits.
bool is_host_and_port(const std::string& text)
{
    const std::size_t colon = text.rfind(':');
    return colon != std::string::npos && colon > 0 && colon + 1 < text.size() &&
           text.find_first_not_of("0123456789", colon + 1) == std::string::npos;
}

// The hosts of "HOST:PORT[,HOST:PORT...]" as servers; false unless each is HOST:PORT, once.
bool parse_hosts(const std::string& hosts, std::vector<std::string>& servers)
{
    for (std::size_t start = 0, end; start <= hosts.size(); start = end + 1) {
        end = std::min(hosts.find(',', start), hosts.size());
        const std::string server = "http://" + hosts.substr(start, end - start);
        if (!is_host_and_port(hosts.substr(start, end - start)) ||
            std::find(servers.begin(), servers.end(), server) != servers.end())
            return false;
        servers.push_back(server);
    }
    return true;
}

}  // namespace

bool parse_clickhouse_uri(const std::string& uri, clickhouse_address_t& address, std::string& error)
{
    const std::string scheme = "clickhouse+http://";
    const std::size_t slash = uri.find('/', scheme.size());
    std::vector<std::string> servers;
    if (uri.compare(0, scheme.size(), scheme) != 0 || slash == std::string::npos ||
        !parse_hosts(uri.substr(scheme.size(), slash - scheme.size()), servers) ||
        !is_identifier(uri.substr(slash + 1))) {
        error = "a ClickHouse store is clickhouse+http://HOST:PORT[,HOST:PORT...]/DATABASE (each host once,"
                " DATABASE letters, digits and _), not \"" + uri + "\"";
        return false;
    }
    address.servers = std::move(servers);
    address.database = uri.substr(slash + 1);
    return true;
}

std::size_t clickhouse_shard_of(std::string_view cid, std::size_t shards)
{
    if (shards == 1)
        return 0;  // one server: no hash to work out per hit
    std::uint64_t hash = 14695981039346656037u;
    for (unsigned char c : cid)
        hash = (hash ^ c) * 1099511628211u;
    return static_cast<std::size_t>(hash % shards);
}

clickhouse_http_t::clickhouse_http_t(std::string server)
    : curl_(curl_easy_init()), server_(std::move(server))
{
}

clickhouse_http_t::~clickhouse_http_t()
{
    curl_easy_cleanup(static_cast<CURL*>(curl_));
}

outcome_t clickhouse_http_t::run(const std::string& statement, const std::string& rows,
                                 std::string* result)
{
    CURL* curl = static_cast<CURL*>(curl_);
    if (!curl)
        return outcome_t::failure("cannot create an HTTP client for ClickHouse");
    // An INSERT's statement travels in the URL so that its rows can be the body.
    std::string url = server_ + "/";
    const std::string* body = &statement;
    if (!rows.empty()) {
        char* escaped = curl_easy_escape(curl, statement.data(), static_cast<int>(statement.size()));
        url += std::string("?query=") + escaped;
        curl_free(escaped);
        body = &rows;
    }
    std::string answer;
    curl_easy_reset(curl);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body->data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append_to_string);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
    // The hosts' proxy settings are for the hosts' hits, never for the store.
    curl_easy_setopt(curl, CURLOPT_PROXY, "");
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, 3000L);
    // A server that stalls mid-answer counts as failed; a long but moving insert does not.
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, patient_ ? 0L : 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 60L);
    const CURLcode code = curl_easy_perform(curl);
    if (code != CURLE_OK)
        return outcome_t::failure("cannot reach ClickHouse at " + server_ + ": " + curl_easy_strerror(code));
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    if (status != 200)
        return outcome_t::failure("ClickHouse at " + server_ + " answered " + std::to_string(status) +
                                  ": " + first_line(answer));
    if (result)
        *result = std::move(answer);
    return {};
}

namespace {

// The bytes TabSeparated escapes, looked up in one step per byte.
struct tsv_escaped_t {
    bool bytes[256] = {};
    constexpr tsv_escaped_t()
    {
        for (const unsigned char c : {'\\', '\t', '\n', '\r', '\0'})
            bytes[c] = true;
    }
};
constexpr tsv_escaped_t tsv_escaped;

bool needs_tsv_escape(std::string_view field)
{
    for (const char c : field)
        if (tsv_escaped.bytes[static_cast<unsigned char>(c)])
            return true;
    return false;
}

}  // namespace

void append_tsv_field(std::string& row, std::string_view field)
{
    if (!needs_tsv_escape(field)) {
        row += field;  // the usual case: nothing to escape
        return;
    }
    for (char c : field) {
        switch (c) {
        case '\\': row += "\\\\"; break;
        case '\t': row += "\\t"; break;
        case '\n': row += "\\n"; break;
        case '\r': row += "\\r"; break;
        case '\0': row += "\\0"; break;
        default: row += c;
        }
    }
}

void each_tsv_row(const std::string& text, const std::function<void(const std::vector<std::string>&)>& take)
{
    std::vector<std::string> row(1);
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\n') {
            take(row);
            row.assign(1, std::string());
        } else if (c == '\t') {
            row.emplace_back();
        } else if (c == '\\' && i + 1 < text.size()) {
            const char next = text[++i];
            const std::string from = "btnrf0", to("\b\t\n\r\f\0", 6);
            const std::size_t known = from.find(next);
            row.back() += known == std::string::npos ? next : to[known];
        } else {
            row.back() += c;
        }
    }
}

std::vector<std::vector<std::string>> parse_tsv(const std::string& text)
{
    std::vector<std::vector<std::string>> rows;
    each_tsv_row(text, [&](const std::vector<std::string>& row) { rows.push_back(row); });
    return rows;
}

std::string sql_quoted(const std::string& text)
{
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\0') {
            quoted += "\\0";
            continue;
        }
        if (c == '\'' || c == '\\')
            quoted += '\\';
        quoted += c;
    }
    return quoted + "'";
}

outcome_t run_each(clickhouse_http_t& http, const std::vector<std::string>& statements)
{
    outcome_t outcome;
    for (auto statement = statements.begin(); outcome && statement != statements.end(); ++statement)
        outcome = http.run(*statement);
    return outcome;
}

outcome_t on_every_shard(const std::vector<std::string>& servers,
                         const std::function<outcome_t(clickhouse_http_t&, std::size_t)>& ask)
{
    std::vector<outcome_t> outcomes(servers.size());
    const auto ask_shard = [&](std::size_t shard) {
        clickhouse_http_t http(servers[shard]);
        outcomes[shard] = ask(http, shard);
    };
    std::vector<std::future<void>> others;
    for (std::size_t shard = 0; shard + 1 < servers.size(); ++shard)
        others.push_back(std::async(std::launch::async, ask_shard, shard));
    ask_shard(servers.size() - 1);
    for (auto& other : others)
        other.get();
    for (const outcome_t& outcome : outcomes)
        if (!outcome)
            return outcome;
    return {};
}

}  // namespace usemeter_collector
