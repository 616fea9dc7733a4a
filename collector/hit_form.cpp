#include "hit_form.hpp"

#include <map>

#include <httplib.h>

namespace usemeter_collector {

namespace {

bool is_protocol_type(const std::string& type)
{
    static const char* const types[] = {"pageview", "screenview", "event",  "transaction",
                                        "item",     "social",     "exception", "timing"};
    for (const char* known : types)
        if (type == known)
            return true;
    return false;
}

// The documented byte limit of a parameter's value, or 0 for none.
std::size_t limit_of(const std::string& key)
{
    if (key == "an" || key == "av")
        return 100;
    if (key == "ec")
        return 150;
    if (key == "el" || key == "ea")
        return 500;
    if (key.size() > 2 && key.compare(0, 2, "cd") == 0 &&
        key.find_first_not_of("0123456789", 2) == std::string::npos)
        return 150;
    return 0;
}

}  // namespace

const char* name_of(rejection_t reason)
{
    switch (reason) {
    case rejection_t::none: return "none";
    case rejection_t::bad_version: return "bad_version";
    case rejection_t::missing_tid: return "missing_tid";
    case rejection_t::missing_cid: return "missing_cid";
    case rejection_t::bad_type: return "bad_type";
    case rejection_t::missing_category: return "missing_category";
    case rejection_t::too_long: return "too_long";
    case rejection_t::unsupported_type: return "unsupported_type";
    }
    return "unknown";
}

const std::vector<rejection_t>& every_rejection()
{
    static const std::vector<rejection_t> reasons = {
        rejection_t::bad_version,      rejection_t::missing_tid, rejection_t::missing_cid,
        rejection_t::bad_type,         rejection_t::missing_category, rejection_t::too_long,
        rejection_t::unsupported_type};
    return reasons;
}

std::vector<std::pair<std::string, std::string>> decode_form(const std::string& body)
{
    std::vector<std::pair<std::string, std::string>> pairs;
    std::size_t start = 0;
    while (start <= body.size()) {
        std::size_t end = body.find('&', start);
        if (end == std::string::npos)
            end = body.size();
        const std::string pair = body.substr(start, end - start);
        const std::size_t equals = pair.find('=');
        if (!pair.empty())
            pairs.emplace_back(
                httplib::detail::decode_url(pair.substr(0, equals), true),
                equals == std::string::npos ? std::string()
                                            : httplib::detail::decode_url(pair.substr(equals + 1), true));
        start = end + 1;
    }
    return pairs;
}

rejection_t read_hit(const std::string& body, std::int64_t received, hit_t& hit)
{
    std::map<std::string, std::string> fields;  // the first of repeated keys counts
    for (auto& pair : decode_form(body)) {
        const std::size_t limit = limit_of(pair.first);
        if (limit && pair.second.size() > limit)
            return rejection_t::too_long;
        fields.emplace(std::move(pair.first), std::move(pair.second));
    }
    if (fields["v"] != "1")
        return rejection_t::bad_version;
    if (fields["tid"].empty())
        return rejection_t::missing_tid;
    if (fields["cid"].empty())
        return rejection_t::missing_cid;
    const std::string& type = fields["t"];
    if (!is_protocol_type(type))
        return rejection_t::bad_type;
    if (type == "event" && fields["ec"].empty())
        return rejection_t::missing_category;
    if (type != "event")
        return rejection_t::unsupported_type;
    hit = hit_t{received,        fields["tid"], fields["cid"], fields["an"], fields["av"],
                fields["cd1"], fields["cd2"], fields["cd3"], fields["ec"], fields["el"]};
    return rejection_t::none;
}

std::vector<std::string> batch_lines(const std::string& body)
{
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < body.size()) {
        std::size_t end = body.find('\n', start);
        if (end == std::string::npos)
            end = body.size();
        std::string line = body.substr(start, end - start);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!line.empty())
            lines.push_back(std::move(line));
        start = end + 1;
    }
    return lines;
}

}  // namespace usemeter_collector
