// The ClickHouse schema: the hits, and the aggregates the reports read, which ClickHouse
// keeps itself through materialized views, so that rows inserted into hits by anyone (a
// collector, an import, a backfill) reach the reports.
//
// user_days holds one row per product, day, version, system and client id, with whether any
// hit carried cd3=y: a set, so a row that arrives twice changes nothing. feature_days holds
// hit counts per product, day, version, category, label and client id, which a copy would
// change; its view therefore adds, in the same part, a mark per collector with the last
// sequence number of the insert (an = '', day 0, cid = the collector), and a collector asks
// for that mark before it sends a batch whose acknowledgement it has not seen.
#include "collector/store/clickhouse/clickhouse_schema.hpp"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include "collector/store/clickhouse/clickhouse_http.hpp"

namespace usemeter_collector {

namespace {

log4cplus::Logger logger()
{
    return log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("usemeter.collector"));
}

std::string create_table(const std::string& db, const char* definition)
{
    return "CREATE TABLE IF NOT EXISTS " + db + "." + definition;
}

// Partitions by month, so that retention drops whole months cheaply; sorted for the reports,
// which all filter on product and day; (collector, seq) last makes the key one hit's own.
const char* const hits_table =
    "hits (collector String, seq UInt64, received Int64, day Date, tid String, cid String,"
    " an String, av String, cd1 String, cd2 String, cd3 String, ec String, el String)"
    " ENGINE = ReplacingMergeTree() PARTITION BY toYYYYMM(day) ORDER BY (an, day, collector, seq)";

// Copies of a row merge into one; the one kept is active if any was.
const char* const user_days_table =
    "user_days (an String, day Date, av String, cd2 String, cid String, active UInt8)"
    " ENGINE = ReplacingMergeTree(active) PARTITION BY toYYYYMM(day) ORDER BY (an, day, av, cd2, cid)";

const char* const user_days_select =
    " SELECT an, day, av, cd2, cid, max(cd3 = 'y') AS active FROM {hits}"
    " GROUP BY an, day, av, cd2, cid";

// Not partitioned: each insert's counts and its mark are one part, written whole or not at all
// (the view's GROUP BY gives one block for a collector's batch, well under the 100,000 groups
// where ClickHouse would split it).
const char* const feature_days_table =
    "feature_days (an String, day Date, av String, ec String, el String, cid String,"
    " hits AggregateFunction(sum, UInt64), last_seq AggregateFunction(max, UInt64))"
    " ENGINE = AggregatingMergeTree() ORDER BY (an, day, ec, el, cid, av)";

// Every hit once as itself (mark 0) and once as its collector's mark (mark 1).
const char* const feature_days_select =
    " SELECT if(mark, '', an) AS an, if(mark, toDate(0), day) AS day, if(mark, '', av) AS av,"
    " if(mark, '', ec) AS ec, if(mark, '', el) AS el, if(mark, collector, cid) AS cid,"
    " sumState(toUInt64(NOT mark)) AS hits, maxState(if(mark, seq, toUInt64(0))) AS last_seq"
    " FROM {hits} ARRAY JOIN [0, 1] AS mark GROUP BY an, day, av, ec, el, cid";

std::string with_source(std::string select, const std::string& source)
{
    return select.replace(select.find("{hits}"), 6, source);
}

// ClickHouse runs the views of an insert one after the other in the order of their names,
// and stops at the first that fails: the marks come last, so a mark means the whole insert
// has reached both aggregates.
const char* const user_days_view = "feed_1_user_days";
const char* const feature_days_view = "feed_2_feature_days";

std::string view_sql(const std::string& db, const char* view, const std::string& table, const char* select)
{
    return "CREATE MATERIALIZED VIEW " + db + "." + view + " TO " + db + "." + table + " AS" +
           with_source(select, db + ".hits");
}

bool exists(clickhouse_http_t& http, const std::string& db, const std::string& table)
{
    std::string answer;
    return http.run("EXISTS TABLE " + db + "." + table + " FORMAT TabSeparated", "", &answer) &&
           answer == "1\n";
}

// The hits stored before the views existed, once: copies in hits counted once (FINAL), and
// each collector's mark, so that its spool does not send again what is already here.
outcome_t back_fill(clickhouse_http_t& http, const std::string& db)
{
    std::string count;
    outcome_t outcome = http.run("SELECT count() FROM " + db + ".hits FORMAT TabSeparated", "", &count);
    if (!outcome || count == "0\n")
        return outcome;
    LOG4CPLUS_WARN(logger(), "ClickHouse: back-filling the report aggregates of " << db << " from "
                                 << count.substr(0, count.size() - 1) << " stored hits");
    http.set_patient(true);
    outcome = run_each(http, {"INSERT INTO " + db + ".user_days" + with_source(user_days_select, db + ".hits"),
                             "INSERT INTO " + db + ".feature_days" +
                                 with_source(feature_days_select, db + ".hits FINAL")});
    http.set_patient(false);
    if (outcome)
        LOG4CPLUS_WARN(logger(), "ClickHouse: the report aggregates of " << db << " are complete");
    else
        LOG4CPLUS_ERROR(logger(), "ClickHouse: back-filling the report aggregates of " << db << " failed: "
                                      << outcome.error << "; see docs/scaling.md, upgrading");
    return outcome;
}

// The place recorded at the database's first use (by every process that found none, so two
// that disagree both leave their row and both are refused from then on).
outcome_t check_place(clickhouse_http_t& http, const std::string& db, shard_place_t place)
{
    const std::string mine = std::to_string(place.shard) + "\t" + std::to_string(place.shards) + "\n";
    std::string recorded;
    outcome_t outcome =
        run_each(http, {create_table(db, "placement (shard UInt32, shards UInt32) ENGINE = TinyLog")});
    if (outcome)
        outcome = http.run("SELECT DISTINCT shard, shards FROM " + db + ".placement FORMAT TabSeparated", "",
                           &recorded);
    if (outcome && recorded.empty())
        return http.run("INSERT INTO " + db + ".placement FORMAT TabSeparated", mine);
    if (!outcome || recorded == mine)
        return outcome;
    const auto shown = [](std::string rows) {  // "1\t2\n" -> "1 of 2"
        if (!rows.empty() && rows.back() == '\n')
            rows.pop_back();
        for (std::size_t at; (at = rows.find_first_of("\t\n")) != std::string::npos;)
            rows.replace(at, 1, rows[at] == '\t' ? " of " : ", ");
        return rows.substr(0, 60);
    };
    return outcome_t::failure(db + " on this server is shard " + shown(recorded) + " (counted from 0), the store URI"
                              " makes it " + shown(mine) + ": the hosts' order and number must never change");
}

}  // namespace

outcome_t create_clickhouse_schema(clickhouse_http_t& http, const std::string& db, shard_place_t place)
{
    outcome_t outcome = run_each(http, {"CREATE DATABASE IF NOT EXISTS " + db, create_table(db, hits_table)});
    if (outcome)
        outcome = check_place(http, db, place);
    if (!outcome || exists(http, db, feature_days_view))
        return outcome;
    outcome = run_each(http, {create_table(db, user_days_table), create_table(db, feature_days_table)});
    if (outcome && !exists(http, db, user_days_view))
        outcome = http.run(view_sql(db, user_days_view, "user_days", user_days_select));
    if (!outcome)
        return outcome;
    // Without IF NOT EXISTS: of two processes upgrading at once, only the one that created
    // the last view back-fills.
    if (!http.run(view_sql(db, feature_days_view, "feature_days", feature_days_select)))
        return exists(http, db, feature_days_view)
                   ? outcome_t()
                   : outcome_t::failure("cannot create " + db + "." + feature_days_view);
    return back_fill(http, db);
}

bool clickhouse_database_exists(const clickhouse_address_t& address)
{
    for (const std::string& server : address.servers) {
        std::string count;
        if (clickhouse_http_t(server).run("SELECT count() FROM system.databases WHERE name = " +
                                              sql_quoted(address.database) + " FORMAT TabSeparated",
                                          "", &count) && count == "0\n")
            return false;
    }
    return true;
}

outcome_t clickhouse_landed_through(clickhouse_http_t& http, const std::string& db,
                                    const std::string& collector, std::int64_t& seq)
{
    std::string answer;
    const outcome_t outcome = http.run("SELECT maxMerge(last_seq) FROM " + db +
                                           ".feature_days WHERE an = '' AND day = toDate(0) AND cid = " +
                                           sql_quoted(collector) + " FORMAT TabSeparated",
                                       "", &answer);
    if (!outcome)
        return outcome;
    if (answer.empty() || answer.size() > 20 || answer.find_first_not_of("0123456789\n") != std::string::npos)
        return outcome_t::failure("ClickHouse answered an unexpected last sequence number: " + answer);
    seq = std::stoll(answer);
    return {};
}

}  // namespace usemeter_collector
