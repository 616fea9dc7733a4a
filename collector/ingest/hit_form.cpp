#include "collector/ingest/hit_form.hpp"

#include <algorithm>
#include <map>

#include <curl/curl.h>

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
    if (key == "cid" || key == "tid")
        return 150;
    if (key.size() > 2 && key.compare(0, 2, "cd") == 0 &&
        key.find_first_not_of("0123456789", 2) == std::string::npos)
        return 150;
    return 0;
}

// Form decoding through libcurl: '+' is a space (replaced first, so "%2B" stays a '+'), %XX a
// byte, and a '%' without two hex digits stays as it is.
std::string decode_component(std::string text)
{
    std::replace(text.begin(), text.end(), '+', ' ');
    int length = 0;
    char* decoded = curl_easy_unescape(nullptr, text.data(), static_cast<int>(text.size()), &length);
    if (!decoded)
        return std::string();  // out of memory: a field that then fails validation
    std::string result(decoded, static_cast<std::size_t>(length));
    curl_free(decoded);
    return result;
}

// The sequence length of a UTF-8 lead byte whose continuation bytes are all there, or 0.
std::size_t utf8_sequence(const std::string& text, std::size_t at)
{
    const unsigned char lead = static_cast<unsigned char>(text[at]);
    if (lead < 0x80)
        return 1;
    const std::size_t length = lead >= 0xc2 && lead <= 0xdf ? 2 : lead >= 0xe0 && lead <= 0xef ? 3
                             : lead >= 0xf0 && lead <= 0xf4 ? 4 : 0;
    if (length == 0 || at + length > text.size())
        return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((static_cast<unsigned char>(text[at + i]) & 0xc0) != 0x80)
            return 0;
    const unsigned char second = static_cast<unsigned char>(text[at + 1]);
    // Overlong forms, UTF-16 surrogates and code points past U+10FFFF.
    if ((lead == 0xe0 && second < 0xa0) || (lead == 0xed && second > 0x9f) || (lead == 0xf0 && second < 0x90) ||
        (lead == 0xf4 && second > 0x8f))
        return 0;
    return length;
}

}  // namespace

bool is_utf8(const std::string& text)
{
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = utf8_sequence(text, at);
        if (length == 0)
            return false;
        at += length;
    }
    return true;
}

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
    case rejection_t::bad_encoding: return "bad_encoding";
    }
    return "unknown";
}

const std::vector<rejection_t>& every_rejection()
{
    static const std::vector<rejection_t> reasons = {
        rejection_t::bad_version,      rejection_t::missing_tid, rejection_t::missing_cid,
        rejection_t::bad_type,         rejection_t::missing_category, rejection_t::too_long,
        rejection_t::unsupported_type, rejection_t::bad_encoding};
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
            pairs.emplace_back(decode_component(pair.substr(0, equals)),
                               equals == std::string::npos ? std::string()
                                                           : decode_component(pair.substr(equals + 1)));
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
    hit_t read{received,        fields["tid"], fields["cid"], fields["an"], fields["av"],
               fields["cd1"], fields["cd2"], fields["cd3"], fields["ec"], fields["el"]};
    for (const std::string* field : read.fields())
        if (!is_utf8(*field))
            return rejection_t::bad_encoding;
    hit = std::move(read);
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
