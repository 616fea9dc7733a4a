#include "collector/store/clickhouse/store_clickhouse.hpp"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <condition_variable>
#include <cstdint>
#include <future>
#include <mutex>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include "collector/store/clickhouse/clickhouse_http.hpp"
#include "collector/store/clickhouse/clickhouse_schema.hpp"
#include "collector/store/sqlite/spool_sqlite.hpp"

namespace usemeter_collector {

namespace {

log4cplus::Logger logger()
{
    return log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("usemeter.collector"));
}

const std::string hit_columns = std::string("collector, seq, received, day, ") + hit_field_columns;

// Hits read from the spool, as rows for an insert into each shard.
struct batch_t {
    std::size_t hits = 0;
    std::int64_t last_seq = 0;
    std::vector<std::string> rows;  // by shard
};

// Appends spooled hits to a batch, each to its client id's shard, leaving out the hits a
// shard already holds (seq up to its landed_through). Straight from the spool's row into the
// insert's text: no copy of a hit in between.
class tsv_writer_t {
public:
    tsv_writer_t(const std::string& instance, const std::vector<std::int64_t>& landed_through, batch_t& batch)
        : instance_(instance), landed_through_(landed_through), batch_(batch)
    {
        batch_.rows.resize(landed_through_.size());
    }

    void reserve(std::size_t hits)
    {
        for (std::string& shard_rows : batch_.rows)
            shard_rows.reserve(shard_rows.size() + hits * 160 / batch_.rows.size());
    }

    void append(const spooled_row_t& hit)
    {
        ++batch_.hits;
        batch_.last_seq = hit.seq;
        const std::size_t shard = clickhouse_shard_of(hit.fields[1], batch_.rows.size());  // fields[1]: cid
        if (hit.seq <= landed_through_[shard])
            return;
        std::string& row = batch_.rows[shard];
        row += instance_;
        append_number(row += '\t', hit.seq);
        append_number(row += '\t', hit.received);
        row += '\t';
        row += day_of(hit.received);
        for (const std::string_view field : hit.fields)
            append_tsv_field(row += '\t', field);
        row += '\n';
    }

private:
    static void append_number(std::string& row, std::int64_t number)
    {
        char digits[24];
        row.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
    }

    // A batch's hits share a day or two: the day's text is made once per day.
    const std::string& day_of(std::int64_t received)
    {
        const std::int64_t day = instant_day_number(received);
        if (day != day_number_) {
            day_number_ = day;
            day_ = utc_day(received);
        }
        return day_;
    }

    const std::string& instance_;
    const std::vector<std::int64_t>& landed_through_;
    batch_t& batch_;
    std::string day_;
    std::int64_t day_number_ = INT64_MIN;  // none yet
};

std::string day_range_condition(const std::string& since, const std::string& until)
{
    std::string condition = "1";
    if (!since.empty())
        condition += " AND day >= toDate(" + sql_quoted(since) + ")";
    if (!until.empty())
        condition += " AND day <= toDate(" + sql_quoted(until) + ")";
    return condition;
}

// A whole decimal number and nothing else.
template <typename number_t>
bool parse_number(const std::string& text, number_t& number)
{
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    return parsed.ec == std::errc() && parsed.ptr == end;
}

// A one-number answer.
outcome_t read_count(const std::string& answer, std::int64_t& count)
{
    return parse_number(answer.substr(0, answer.find('\n')), count)
               ? outcome_t()
               : outcome_t::failure("ClickHouse answered an unexpected count: " + answer.substr(0, 100));
}

// A hit as export reads it: received, collector, seq and the text fields, with the key the
// shards' rows are merged by.
struct exported_hit_t {
    std::int64_t received = 0;
    std::uint64_t seq = 0;
    std::vector<std::string> row;

    bool operator<(const exported_hit_t& other) const
    {
        if (received != other.received)
            return received < other.received;
        return row[1] != other.row[1] ? row[1] < other.row[1] : seq < other.seq;
    }
};

const std::size_t exported_columns = 3 + 9;

// One shard's hits of the days condition allows, in export order, one row per hit however
// often it was sent.
outcome_t read_export(clickhouse_http_t& http, const std::string& database, shard_place_t place,
                      const std::string& condition, std::vector<exported_hit_t>& hits)
{
    std::string result;
    outcome_t outcome = create_clickhouse_schema(http, database, place);
    if (outcome)
        outcome = http.run(std::string("SELECT received, collector, seq, ") + hit_field_columns + " FROM " +
                               clickhouse_hits_table(database) + " WHERE " + condition +
                               " ORDER BY received, collector, seq LIMIT 1 BY collector, seq FORMAT TabSeparated",
                           std::string(), &result);
    each_tsv_row(result, [&](const std::vector<std::string>& row) {
        exported_hit_t hit;
        if (outcome && row.size() == exported_columns && parse_number(row[0], hit.received) &&
            parse_number(row[2], hit.seq)) {
            hit.row = row;
            hits.push_back(std::move(hit));
        } else if (outcome) {
            outcome = outcome_t::failure("ClickHouse answered hits of an unexpected shape");
        }
    });
    return outcome;
}

using connections_t = std::vector<std::unique_ptr<clickhouse_http_t>>;

class clickhouse_store_t : public store_t {
public:
    clickhouse_store_t(clickhouse_options_t options, clickhouse_address_t address,
                       std::unique_ptr<spool_t> spool)
        : options_(std::move(options)), address_(std::move(address)),
          table_(clickhouse_hits_table(address_.database)), spool_(std::move(spool)),
          schema_ready_(address_.servers.size(), false), landed_through_(address_.servers.size(), 0)
    {
        if (spool_)
            forwarder_ = std::thread([this] { forward_loop(); });
    }

    ~clickhouse_store_t() override
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        if (forwarder_.joinable())
            forwarder_.join();
    }

    outcome_t append(const std::vector<hit_t>& hits) override
    {
        if (!spool_)
            return outcome_t::failure("this ClickHouse store was opened without a spool");
        if (spool_->size() + static_cast<std::int64_t>(hits.size()) >
            static_cast<std::int64_t>(options_.spool_max_hits)) {
            refused_ += hits.size();
            return outcome_t::failure("the spool is full: " + std::to_string(spool_->size()) +
                                      " hits wait for ClickHouse (--spool-max-hits " +
                                      std::to_string(options_.spool_max_hits) + ")");
        }
        const outcome_t outcome = spool_->append(hits);
        if (outcome)
            wake_.notify_one();
        return outcome;
    }

    // Each shard's hits in the order received (then collector, seq), merged into that order.
    outcome_t export_csv(std::ostream& out, const std::string& since,
                         const std::string& until) override
    {
        std::vector<std::vector<exported_hit_t>> shards(address_.servers.size());
        const outcome_t outcome = on_every_shard(address_.servers, [&](clickhouse_http_t& http, std::size_t shard) {
            return read_export(http, address_.database, {shard, shards.size()}, day_range_condition(since, until),
                               shards[shard]);
        });
        if (!outcome)
            return outcome;
        std::vector<exported_hit_t> hits;
        for (std::vector<exported_hit_t>& shard : shards) {
            const auto before = static_cast<std::ptrdiff_t>(hits.size());
            hits.insert(hits.end(), std::make_move_iterator(shard.begin()), std::make_move_iterator(shard.end()));
            shard = {};
            std::inplace_merge(hits.begin(), hits.begin() + before, hits.end());
        }
        out << export_csv_header;
        for (const exported_hit_t& hit : hits) {
            out << utc_timestamp(hit.received);
            for (std::size_t column = 3; column < hit.row.size(); ++column) {
                out << ',';
                write_csv_field(out, hit.row[column]);
            }
            out << '\n';
        }
        return {};
    }

    outcome_t erase_client(const std::string& cid, std::int64_t& erased) override
    {
        return erase_where("cid = " + sql_quoted(cid), erased);
    }

    outcome_t erase_before(const std::string& first_kept_day, std::int64_t& erased) override
    {
        return erase_where("day < toDate(" + sql_quoted(first_kept_day) + ")", erased);
    }

    std::int64_t backlog() const override { return spool_ ? unsent() : 0; }

    std::string metrics_text() const override
    {
        std::ostringstream out;
        out << "# HELP usemeter_spool_hits Hits committed to the spool, not yet acknowledged by ClickHouse.\n"
            << "# TYPE usemeter_spool_hits gauge\n"
            << "usemeter_spool_hits " << backlog() << "\n"
            << "# HELP usemeter_spool_max_hits The spool's bound; past it hits are answered 503.\n"
            << "# TYPE usemeter_spool_max_hits gauge\n"
            << "usemeter_spool_max_hits " << options_.spool_max_hits << "\n"
            << "# HELP usemeter_spool_refused_hits_total Hits answered 503 because the spool was full.\n"
            << "# TYPE usemeter_spool_refused_hits_total counter\n"
            << "usemeter_spool_refused_hits_total " << refused_ << "\n"
            << "# HELP usemeter_forwarded_hits_total Hits ClickHouse acknowledged.\n"
            << "# TYPE usemeter_forwarded_hits_total counter\n"
            << "usemeter_forwarded_hits_total " << forwarded_ << "\n"
            << "# HELP usemeter_forward_failures_total Inserts into ClickHouse that failed and wait for a retry.\n"
            << "# TYPE usemeter_forward_failures_total counter\n"
            << "usemeter_forward_failures_total " << forward_failures_ << "\n";
        return out.str();
    }

private:
    // Hits in the spool that ClickHouse has not acknowledged. The spool's size is read first:
    // unremoved_ is cleared before a removal, so the answer may be high for a moment, never low.
    std::int64_t unsent() const
    {
        const std::int64_t held = spool_->size();
        return held - unremoved_;
    }

    // Sends batches while there are hits: full ones at once, a remainder after the time bound.
    // A failed batch stays in the spool and is sent again whole after a pause. Acknowledged
    // hits leave the spool while the next batch is inserted, or once there is none. On stop,
    // one last attempt; whatever fails then stays for the next start.
    void forward_loop()
    {
        connections_t shards;
        for (const std::string& server : address_.servers)
            shards.push_back(std::make_unique<clickhouse_http_t>(server));
        std::chrono::milliseconds pause{100};
        bool failing = false;
        for (bool last = false; !last;) {
            last = failing ? sleep_unless_stopped(pause) : wait_for_batch();
            outcome_t outcome;
            while (unsent() > 0 && outcome) {
                outcome = forward_batch(shards);
                note_outcome(outcome, failing);
                if (!last && unsent() < static_cast<std::int64_t>(options_.batch_rows))
                    break;
            }
            if (outcome)
                note_outcome(outcome = remove_acknowledged(), failing);
            pause = outcome ? std::chrono::milliseconds(100) : std::min(pause * 2, options_.retry_max);
        }
    }

    // Until a full batch waits or the time bound has passed; true once stopping.
    bool wait_for_batch()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait_for(lock, options_.batch_wait, [&] {
            return stopping_ || unsent() >= static_cast<std::int64_t>(options_.batch_rows);
        });
        return stopping_;
    }

    bool sleep_unless_stopped(std::chrono::milliseconds pause)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait_for(lock, pause, [&] { return stopping_; });
        return stopping_;
    }

    // Sends the oldest batch, each shard its part, at once. While ClickHouse inserts it, the
    // previous batch leaves the spool and the next one is read and formatted, so that the
    // spool's share of the time hides behind the insert's. The batch is acknowledged once
    // every shard has taken its part.
    outcome_t forward_batch(connections_t& shards)
    {
        outcome_t outcome = create_schemas(shards);
        if (outcome && !landed_known_)
            outcome = skip_landed(shards);
        if (!outcome)
            return outcome;
        batch_t batch = std::move(next_);
        next_ = batch_t();
        outcome = top_up(batch, acknowledged_);
        if (!outcome || batch.hits == 0)
            return outcome;
        if (!fault_allows(forward_step_t::send))
            return outcome_t::failure("injected fault before sending");
        std::vector<std::future<outcome_t>> inserts;
        for (std::size_t shard = 0; shard < shards.size(); ++shard)
            inserts.push_back(insert_part(*shards[shard], batch.rows[shard]));
        const outcome_t removed = remove_acknowledged();
        top_up(next_, batch.last_seq);
        outcome = take_answers(inserts, batch.last_seq);
        if (outcome) {
            acknowledged_ = batch.last_seq;
            unremoved_ += static_cast<std::int64_t>(batch.hits);
            forwarded_ += batch.hits;
            outcome = removed;
        }
        if (!outcome) {
            next_ = batch_t();  // sent again from the oldest hit on, to each shard what it lacks
            landed_known_ = false;
        }
        return outcome;
    }

    // On each shard's first successful connection; every shard is tried.
    outcome_t create_schemas(connections_t& shards)
    {
        outcome_t outcome;
        for (std::size_t shard = 0; shard < shards.size(); ++shard) {
            if (schema_ready_[shard])
                continue;
            const outcome_t created =
                create_clickhouse_schema(*shards[shard], address_.database, {shard, shards.size()});
            schema_ready_[shard] = created.ok;
            if (outcome && !created)
                outcome = created;
        }
        return outcome;
    }

    // A shard with no hits in the batch has nothing to insert.
    std::future<outcome_t> insert_part(clickhouse_http_t& http, const std::string& rows)
    {
        const auto insert = [this, &http, &rows] { return rows.empty() ? outcome_t() : http.run(insert_, rows); };
        return std::async(rows.empty() ? std::launch::deferred : std::launch::async, insert);
    }

    // Waits for every shard's answer; each shard that took its part holds its hits through
    // last. The first failure, if any.
    outcome_t take_answers(std::vector<std::future<outcome_t>>& inserts, std::int64_t last)
    {
        std::vector<outcome_t> answers;
        for (auto& insert : inserts)
            answers.push_back(insert.get());
        const auto failed = std::find_if(answers.begin(), answers.end(), [](const outcome_t& o) { return !o.ok; });
        if (failed == answers.end() && !fault_allows(forward_step_t::acknowledged))
            return outcome_t::failure("injected fault: the acknowledgement was lost");
        for (std::size_t shard = 0; shard < answers.size(); ++shard)
            if (answers[shard])
                landed_through_[shard] = std::max(landed_through_[shard], last);
        return failed == answers.end() ? outcome_t() : *failed;
    }

    outcome_t remove_acknowledged()
    {
        const std::int64_t held = unremoved_.exchange(0);
        const outcome_t outcome = held ? spool_->remove_through(acknowledged_) : outcome_t();
        if (!outcome)
            unremoved_ += held;
        return outcome;
    }

    // Reads each shard's mark for this collector: the hits it holds although no
    // acknowledgement said so (lost, or sent before a restart) are not sent to it again, and
    // those every shard holds leave the spool.
    outcome_t skip_landed(connections_t& shards)
    {
        for (std::size_t shard = 0; shard < shards.size(); ++shard) {
            std::int64_t landed = 0;
            const outcome_t read =
                clickhouse_landed_through(*shards[shard], address_.database, spool_->instance(), landed);
            if (!read)
                return read;
            landed_through_[shard] = std::max(landed_through_[shard], landed);
        }
        const std::int64_t everywhere = *std::min_element(landed_through_.begin(), landed_through_.end());
        outcome_t outcome;
        if (everywhere > acknowledged_) {
            const std::int64_t held = unremoved_.exchange(0);
            outcome = spool_->remove_through(everywhere);
            if (outcome)
                acknowledged_ = everywhere;
            else
                unremoved_ += held;
        }
        landed_known_ = outcome.ok;
        return outcome;
    }

    // Fills batch up to batch_rows with the hits after its last (or after seq when empty).
    outcome_t top_up(batch_t& batch, std::int64_t seq)
    {
        const std::size_t had = batch.hits;
        if (had >= options_.batch_rows)
            return {};
        tsv_writer_t writer(spool_->instance(), landed_through_, batch);
        writer.reserve(options_.batch_rows - had);
        const outcome_t outcome = spool_->read_after(had ? batch.last_seq : seq, options_.batch_rows - had,
                                                     [&](const spooled_row_t& hit) { writer.append(hit); });
        if (!outcome)
            batch = batch_t();
        return outcome;
    }

    bool fault_allows(forward_step_t step) const { return !options_.fault || options_.fault(step); }

    // One record when ClickHouse stops taking hits and one when it takes them again.
    void note_outcome(const outcome_t& outcome, bool& failing)
    {
        if (!outcome)
            ++forward_failures_;
        if (outcome.ok != failing)
            return;
        failing = !outcome.ok;
        if (failing)
            LOG4CPLUS_WARN(logger(), "ClickHouse does not take hits; they wait in the spool ("
                                         << spool_->size() << " now) and are sent again: " << outcome.error);
        else
            LOG4CPLUS_WARN(logger(), "ClickHouse takes hits again; " << spool_->size()
                                                                      << " wait in the spool");
    }

    // Mutations run in the background; the count and the removal are done once the
    // mutation is, so the number printed is the number gone. Every shard erases its own.
    outcome_t erase_where(const std::string& condition, std::int64_t& erased)
    {
        std::vector<std::int64_t> counts(address_.servers.size(), 0);
        const outcome_t outcome = on_every_shard(address_.servers, [&](clickhouse_http_t& http, std::size_t shard) {
            return erase_on_shard(http, {shard, counts.size()}, condition, counts[shard]);
        });
        erased = 0;
        for (const std::int64_t count : counts)
            erased += count;
        return outcome;
    }

    outcome_t erase_on_shard(clickhouse_http_t& http, shard_place_t place, const std::string& condition,
                             std::int64_t& erased)
    {
        std::string result;
        outcome_t outcome = create_clickhouse_schema(http, address_.database, place);
        if (outcome)
            outcome = http.run("SELECT uniqExact(collector, seq) FROM " + table_ + " WHERE " +
                                         condition + " FORMAT TabSeparated",
                                     std::string(), &result);
        if (outcome)
            outcome = read_count(result, erased);
        if (!outcome || erased == 0)
            return outcome;
        const std::string& db = address_.database;
        outcome = run_each(http, {"ALTER TABLE " + table_ + " DELETE WHERE " + condition,
                                  "ALTER TABLE " + db + ".user_days DELETE WHERE " + condition,
                                  "ALTER TABLE " + db + ".feature_days DELETE WHERE (" + condition +
                                      ") AND day > toDate(0)"});  // the collectors' marks stay
        return outcome ? wait_for_mutations(http) : outcome;
    }

    outcome_t wait_for_mutations(clickhouse_http_t& http)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(10);
        for (;;) {
            std::string answer;
            std::int64_t pending = 0;
            outcome_t outcome = http.run(
                "SELECT count() FROM system.mutations WHERE database = " +
                    sql_quoted(address_.database) + " AND is_done = 0 FORMAT TabSeparated",
                std::string(), &answer);
            if (outcome)
                outcome = read_count(answer, pending);
            if (!outcome || pending == 0)
                return outcome;
            if (std::chrono::steady_clock::now() > deadline)
                return outcome_t::failure("ClickHouse has not finished deleting after 10 minutes;"
                                          " it goes on in the background");
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

    const clickhouse_options_t options_;
    const clickhouse_address_t address_;
    const std::string table_;
    const std::string insert_ = "INSERT INTO " + table_ + " (" + hit_columns + ") FORMAT TabSeparated";
    std::unique_ptr<spool_t> spool_;
    // The forwarder's own, like landed_known_, acknowledged_ and next_; by shard.
    std::vector<bool> schema_ready_;
    std::vector<std::int64_t> landed_through_;  // the shard holds every hit of its own up to this seq
    bool landed_known_ = false;
    std::int64_t acknowledged_ = 0;  // every shard has acknowledged every hit up to this seq
    std::atomic<std::int64_t> unremoved_{0};  // acknowledged hits still in the spool
    batch_t next_;
    std::atomic<std::uint64_t> refused_{0};
    std::atomic<std::uint64_t> forwarded_{0};
    std::atomic<std::uint64_t> forward_failures_{0};
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread forwarder_;
};

}  // namespace

std::string clickhouse_hits_table(const std::string& database)
{
    return database + ".hits";
}

std::unique_ptr<store_t> open_clickhouse_store(const clickhouse_options_t& options, std::string& error)
{
    clickhouse_address_t address;
    if (!parse_clickhouse_uri(options.uri, address, error))
        return nullptr;
    std::unique_ptr<spool_t> spool;
    if (!options.spool.empty() && !(spool = spool_t::open(options.spool, options.durability, error)))
        return nullptr;
    return std::make_unique<clickhouse_store_t>(options, std::move(address), std::move(spool));
}

}  // namespace usemeter_collector
