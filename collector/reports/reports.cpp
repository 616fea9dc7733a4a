#include "collector/reports/reports.hpp"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <map>
#include <unordered_map>
#include <unordered_set>

namespace usemeter_collector {

namespace {

const std::int64_t default_days = 30;
// Ten years of days is more than any store holds; anything longer is a typing error.
const std::int64_t longest_range = 3660;
const std::int64_t week = 7, month = 30;

// Distinct client ids over a sliding window of days: add a day, drop the day that left.
// Ids are numbered densely from 0, so the counts are a vector.
class window_t {
public:
    void add(const std::vector<std::size_t>& ids)
    {
        for (std::size_t id : ids) {
            if (id >= count_.size())
                count_.resize(id + 1 + count_.size() / 2);
            if (count_[id]++ == 0)
                ++distinct_;
        }
    }
    void remove(const std::vector<std::size_t>& ids)
    {
        for (std::size_t id : ids)
            if (--count_[id] == 0)
                --distinct_;
    }
    std::int64_t distinct() const { return distinct_; }

private:
    std::vector<int> count_;
    std::int64_t distinct_ = 0;
};

// Client ids numbered densely from 0 in the order first seen. The reports look up every row
// they read, so a lookup touches one slot (open addressing) and the id's text, kept back to
// back with the others.
class client_numbers_t {
public:
    std::size_t number_of(const std::string& cid)
    {
        if (2 * (count_ + 1) > slots_.size())
            grow();
        const std::size_t hash = std::hash<std::string>{}(cid);
        std::size_t at = hash & mask();
        for (; slots_[at].number != empty; at = (at + 1) & mask()) {
            const slot_t& slot = slots_[at];
            if (slot.hash == hash && texts_.compare(slot.start, slot.length, cid) == 0)
                return slot.number;
        }
        slots_[at] = {hash, count_, texts_.size(), cid.size()};
        texts_ += cid;
        return count_++;
    }
    std::size_t count() const { return count_; }

private:
    static constexpr std::size_t empty = SIZE_MAX;
    struct slot_t {
        std::size_t hash = 0, number = empty, start = 0, length = 0;  // the text in texts_
    };

    std::size_t mask() const { return slots_.size() - 1; }
    void grow()
    {
        std::vector<slot_t> old(std::max<std::size_t>(16, 2 * slots_.size()));
        old.swap(slots_);
        for (const slot_t& slot : old) {
            if (slot.number == empty)
                continue;
            std::size_t at = slot.hash & mask();
            while (slots_[at].number != empty)
                at = (at + 1) & mask();
            slots_[at] = slot;
        }
    }

    std::vector<slot_t> slots_;  // a power of two, at most half full
    std::string texts_;
    std::size_t count_ = 0;
};

struct day_users_t {
    std::vector<std::size_t> ids;
    std::int64_t active = 0, fresh = 0;
};

double share(std::int64_t part, std::int64_t whole)
{
    return whole == 0 ? 0.0 : std::round(10000.0 * static_cast<double>(part) /
                                          static_cast<double>(whole)) / 10000.0;
}

// The days settled so far, by id: the last day the id was seen on, and the last day one of
// its rows carried cd3=y.
struct id_marks_t {
    std::vector<std::int64_t> seen_on, active_on;
};

// Each day's client ids once, with how many had cd3=y and how many were new that day; the
// marks find an id's earlier rows of the day without sorting them.
void settle_day(const std::vector<std::pair<std::size_t, bool>>& seen,
                const std::vector<std::int64_t>& first_of_id, std::int64_t offset, id_marks_t& marks,
                day_users_t& users)
{
    for (const auto& [id, active] : seen) {
        if (marks.seen_on[id] != offset) {
            marks.seen_on[id] = offset;
            users.ids.push_back(id);
            users.fresh += first_of_id[id] == offset ? 1 : 0;
        }
        if (active)
            marks.active_on[id] = offset;
    }
    for (std::size_t id : users.ids)
        users.active += marks.active_on[id] == offset ? 1 : 0;
}

// The user-days of since-29..until, each client id numbered once, with each day's new users.
// A store may give a user's day more than once (per version and system) and in any order.
outcome_t collect_user_days(report_source_t& source, const report_query_t& query,
                            std::int64_t first, std::vector<day_users_t>& days)
{
    std::vector<std::pair<std::string, std::string>> firsts;
    if (outcome_t found = source.first_days(query, firsts); !found)
        return found;
    client_numbers_t ids;
    std::vector<std::int64_t> first_of_id;  // by id; -1: before the range
    auto id_of = [&](const std::string& cid) {
        const std::size_t id = ids.number_of(cid);
        if (id == first_of_id.size())
            first_of_id.push_back(-1);
        return id;
    };
    for (const auto& [cid, day] : firsts)
        first_of_id[id_of(cid)] = day_number(day) - first;
    const auto length = static_cast<std::size_t>(day_number(query.until) - first + 1);
    std::vector<std::vector<std::pair<std::size_t, bool>>> seen(length);
    std::string day_before;  // rows come mostly day by day: each day's text read once
    std::int64_t offset = -1;
    outcome_t read = source.user_days(query, day_text(first), query.until,
                                      [&](const std::string& day, const std::string& cid, bool active) {
        if (day != day_before) {
            day_before = day;
            offset = day_number(day) - first;
        }
        if (offset >= 0 && offset < static_cast<std::int64_t>(length))
            seen[static_cast<std::size_t>(offset)].emplace_back(id_of(cid), active);
    });
    if (!read)
        return read;
    days.assign(length, {});
    const std::vector<std::int64_t> never(first_of_id.size(), -1);
    id_marks_t marks{never, never};
    for (std::size_t offset = 0; offset < length; ++offset)
        settle_day(seen[offset], first_of_id, static_cast<std::int64_t>(offset), marks, days[offset]);
    return {};
}

// Hits and the ids behind them, which may repeat.
struct tally_t {
    std::int64_t hits = 0;
    std::vector<std::size_t> ids;
};

// A tally's ids counted once each: marks (by id) holds the number of the tally that last
// counted the id, so one array serves every tally in turn.
std::int64_t distinct_ids(const tally_t& tally, std::size_t tally_number, std::vector<std::size_t>& marks)
{
    std::int64_t distinct = 0;
    for (std::size_t id : tally.ids)
        if (marks[id] != tally_number) {
            marks[id] = tally_number;
            ++distinct;
        }
    return distinct;
}

// Hits and distinct client ids per category (label none) and per category and label. Rows
// come in runs of one category and label, so the tallies are looked up once a run.
outcome_t count_features(report_source_t& source, const report_query_t& query,
                         std::vector<feature_row_t>& rows)
{
    std::map<std::pair<std::string, std::optional<std::string>>, tally_t> tallies;
    client_numbers_t ids;
    std::string category_before, label_before;
    tally_t *category_tally = nullptr, *label_tally = nullptr;
    outcome_t read = source.feature_uses(query, [&](const std::string& category, const std::string& label,
                                                    const std::string& cid, std::int64_t hits) {
        const std::size_t id = ids.number_of(cid);
        if (!category_tally || category != category_before || label != label_before) {
            category_before = category;
            label_before = label;
            category_tally = &tallies[{category, std::nullopt}];
            label_tally = &tallies[{category, label}];
        }
        for (tally_t* tally : {category_tally, label_tally}) {
            tally->hits += hits;
            tally->ids.push_back(id);
        }
    });
    std::vector<std::size_t> marks(ids.count(), 0);
    for (const auto& [key, tally] : tallies)
        rows.push_back({key.first, key.second, tally.hits, distinct_ids(tally, rows.size() + 1, marks)});
    return read;
}

// Digit runs compare as numbers, everything else as text.
int compare_versions(const std::string& a, const std::string& b)
{
    std::size_t i = 0, j = 0;
    auto digit = [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; };
    while (i < a.size() && j < b.size()) {
        if (digit(a[i]) && digit(b[j])) {
            std::size_t ie = i, je = j;
            while (ie < a.size() && digit(a[ie])) ++ie;
            while (je < b.size() && digit(b[je])) ++je;
            const std::string x = a.substr(i, ie - i), y = b.substr(j, je - j);
            const std::string xs = x.substr(std::min(x.find_first_not_of('0'), x.size()));
            const std::string ys = y.substr(std::min(y.find_first_not_of('0'), y.size()));
            if (xs.size() != ys.size())
                return xs.size() < ys.size() ? -1 : 1;
            if (xs != ys)
                return xs < ys ? -1 : 1;
            i = ie;
            j = je;
        } else {
            if (a[i] != b[j])
                return a[i] < b[j] ? -1 : 1;
            ++i;
            ++j;
        }
    }
    if (a.size() - i != b.size() - j)
        return a.size() - i < b.size() - j ? -1 : 1;
    return a < b ? -1 : (b < a ? 1 : 0);
}

}  // namespace

bool version_less(const std::string& a, const std::string& b)
{
    return compare_versions(a, b) < 0;
}

outcome_t complete_query(report_query_t& query, std::int64_t now_seconds)
{
    if (!query.until.empty() && !is_day(query.until))
        return outcome_t::failure("until must be a day YYYY-MM-DD, not '" + query.until + "'");
    if (!query.since.empty() && !is_day(query.since))
        return outcome_t::failure("since must be a day YYYY-MM-DD, not '" + query.since + "'");
    if (query.until.empty())
        query.until = utc_day(now_seconds);
    if (query.since.empty())
        query.since = day_text(day_number(query.until) - (default_days - 1));
    const std::int64_t length = day_number(query.until) - day_number(query.since) + 1;
    if (length < 1)
        return outcome_t::failure("since " + query.since + " is after until " + query.until);
    if (length > longest_range)
        return outcome_t::failure("the range is longer than " + std::to_string(longest_range) +
                                  " days");
    return {};
}

bool parse_top(const std::string& text, std::size_t& top)
{
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    top = std::stoul(text);
    return true;
}

outcome_t active_report(report_source_t& source, const report_query_t& query,
                        std::vector<active_day_t>& days)
{
    std::vector<report_source_t::day_counts_t> counts;
    bool answered = false;
    if (outcome_t counted = source.active_counts(query, counts, answered); !counted || answered) {
        days.clear();
        for (std::size_t offset = 0; offset < counts.size(); ++offset) {
            const report_source_t::day_counts_t& c = counts[offset];
            days.push_back({day_text(day_number(query.since) + static_cast<std::int64_t>(offset)), c.dau,
                            c.wau, c.mau, c.fresh, share(c.active, c.dau), share(c.dau, c.mau)});
        }
        return counted;
    }
    const std::int64_t first = day_number(query.since) - (month - 1);
    std::vector<day_users_t> user_days;
    if (outcome_t collected = collect_user_days(source, query, first, user_days); !collected)
        return collected;
    window_t weekly, monthly;
    days.clear();
    for (std::size_t t = 0; t < user_days.size(); ++t) {
        weekly.add(user_days[t].ids);
        monthly.add(user_days[t].ids);
        if (t >= week)
            weekly.remove(user_days[t - week].ids);
        if (t >= month)
            monthly.remove(user_days[t - month].ids);
        if (t < month - 1)
            continue;
        const day_users_t& today = user_days[t];
        const auto dau = static_cast<std::int64_t>(today.ids.size());
        days.push_back({day_text(first + static_cast<std::int64_t>(t)), dau, weekly.distinct(),
                        monthly.distinct(), today.fresh, share(today.active, dau),
                        share(dau, monthly.distinct())});
    }
    return {};
}

outcome_t features_report(report_source_t& source, const report_query_t& query,
                          std::vector<feature_row_t>& rows)
{
    std::vector<feature_row_t> found;
    if (outcome_t counted = count_features(source, query, found); !counted)
        return counted;
    std::map<std::string, std::int64_t> category_hits;
    for (const feature_row_t& row : found)
        if (!row.label)
            category_hits[row.category] = row.hits;
    auto ranked = [&](const feature_row_t& a, const feature_row_t& b) {
        const std::int64_t ha = category_hits[a.category], hb = category_hits[b.category];
        if (ha != hb)
            return ha > hb;
        if (a.category != b.category)
            return a.category < b.category;
        if (a.label.has_value() != b.label.has_value())
            return !a.label.has_value();
        if (a.hits != b.hits)
            return a.hits > b.hits;
        return a.label < b.label;
    };
    std::sort(found.begin(), found.end(), ranked);
    rows.clear();
    std::size_t categories = 0;
    for (feature_row_t& row : found) {
        if (!row.label && query.top != 0 && ++categories > query.top)
            break;
        rows.push_back(std::move(row));
    }
    return {};
}

outcome_t weekly_trend(report_source_t& source, const report_query_t& query,
                       const std::vector<feature_row_t>& rows, std::vector<trend_row_t>& trend)
{
    const std::int64_t first = monday_of(day_number(query.since));
    const auto weeks = static_cast<std::size_t>((monday_of(day_number(query.until)) - first) / 7 + 1);
    std::map<std::string, std::vector<std::int64_t>> hits;
    for (const feature_row_t& row : rows)
        if (!row.label)
            hits[row.category].assign(weeks, 0);
    const outcome_t read = source.category_days(query, [&](const std::string& day, const std::string& category,
                                                             std::int64_t count) {
        const auto found = hits.find(category);
        if (found != hits.end())
            found->second[static_cast<std::size_t>((monday_of(day_number(day)) - first) / 7)] += count;
    });
    trend.clear();
    for (const feature_row_t& row : rows)
        for (std::size_t week = 0; !row.label && week < weeks; ++week)
            trend.push_back({day_text(first + 7 * static_cast<std::int64_t>(week)), row.category,
                             hits[row.category][week]});
    return read;
}

outcome_t versions_report(report_source_t& source, const report_query_t& query,
                          std::vector<version_row_t>& rows)
{
    if (outcome_t answered = source.versions(query, rows); !answered)
        return answered;
    std::sort(rows.begin(), rows.end(), [](const version_row_t& a, const version_row_t& b) {
        return a.day != b.day ? a.day < b.day : version_less(a.version, b.version);
    });
    return {};
}

outcome_t newest_version(report_source_t& source, const report_query_t& query,
                         const std::vector<version_row_t>& rows, std::optional<newest_version_t>& newest)
{
    newest.reset();
    if (rows.empty() || rows.back().day != query.until)
        return {};
    std::unordered_set<std::string> users;
    const outcome_t read = source.user_days(query, query.until, query.until,
                                            [&](const std::string&, const std::string& cid, bool) { users.insert(cid); });
    const auto dau = static_cast<std::int64_t>(users.size());
    if (read)
        newest = newest_version_t{query.until, rows.back().version, rows.back().users, dau,
                                  share(rows.back().users, dau)};
    return read;
}

outcome_t retention_report(report_source_t& source, const report_query_t& query,
                           std::vector<cohort_t>& cohorts)
{
    report_query_t weeks_query = query;
    weeks_query.version.clear();
    const std::int64_t first = monday_of(day_number(query.since));
    weeks_query.since = day_text(first);
    const auto weeks = static_cast<std::size_t>((monday_of(day_number(query.until)) - first) / week + 1);
    std::vector<std::pair<std::string, std::string>> firsts;
    if (outcome_t found = source.first_days(weeks_query, firsts); !found)
        return found;
    // Each member numbered, and each (member, week) counted once however many days it covers.
    struct member_t {
        std::size_t id, cohort;
    };
    std::unordered_map<std::string, member_t> members;
    for (const auto& [cid, day] : firsts)
        members.emplace(cid, member_t{members.size(), static_cast<std::size_t>((day_number(day) - first) / week)});
    std::unordered_set<std::uint64_t> returned;  // 64 bits even on i386: ids times weeks
    cohorts.assign(weeks, {});
    for (std::size_t w = 0; w < weeks; ++w) {
        cohorts[w].week = day_text(first + week * static_cast<std::int64_t>(w));
        cohorts[w].returning.assign(weeks - w, 0);
    }
    const outcome_t read = source.user_days(weeks_query, weeks_query.since, query.until,
                                            [&](const std::string& day, const std::string& cid, bool) {
        const auto member = members.find(cid);
        const auto in_week = static_cast<std::size_t>((day_number(day) - first) / week);
        if (member == members.end() || in_week >= weeks || in_week < member->second.cohort ||
            !returned.insert(std::uint64_t{member->second.id} * weeks + in_week).second)
            return;
        ++cohorts[member->second.cohort].returning[in_week - member->second.cohort];
    });
    for (cohort_t& cohort : cohorts)
        cohort.users = cohort.returning.front();
    return read;
}

outcome_t adoption_report(report_source_t& source, const report_query_t& query,
                          std::vector<adoption_row_t>& rows)
{
    std::map<std::string, std::unordered_set<std::string>> version_users;
    std::map<std::pair<std::string, std::string>, std::unordered_set<std::string>> category_users;
    const outcome_t read = source.version_categories(query, [&](const std::string& version, const std::string& category,
                                                                const std::string& cid) {
        version_users[version].insert(cid);
        category_users[{version, category}].insert(cid);
    });
    if (!read)
        return read;
    rows.clear();
    for (const auto& [key, users] : category_users) {
        const auto count = static_cast<std::int64_t>(users.size());
        rows.push_back({key.first, key.second, count,
                        share(count, static_cast<std::int64_t>(version_users[key.first].size()))});
    }
    std::sort(rows.begin(), rows.end(), [](const adoption_row_t& a, const adoption_row_t& b) {
        if (a.version != b.version)
            return version_less(a.version, b.version);
        return a.users != b.users ? a.users > b.users : a.category < b.category;
    });
    return {};
}

outcome_t systems_report(report_source_t& source, const report_query_t& query,
                         std::vector<system_row_t>& rows)
{
    if (outcome_t answered = source.systems(query, rows); !answered)
        return answered;
    std::sort(rows.begin(), rows.end(), [](const system_row_t& a, const system_row_t& b) {
        return a.users != b.users ? a.users > b.users : a.system < b.system;
    });
    return {};
}

}  // namespace usemeter_collector
