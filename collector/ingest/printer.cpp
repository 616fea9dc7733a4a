#include "collector/ingest/printer.hpp"

#include <cstdio>
#include <iomanip>
#include <sstream>

#include "collector/ingest/hit_form.hpp"

namespace usemeter_collector {

namespace {

const char* meaning_of(const std::string& key)
{
    static const std::pair<const char*, const char*> meanings[] = {
        {"v", "protocol version"},
        {"tid", "tracking id"},
        {"cid", "client id (anonymous per-user identifier)"},
        {"an", "application name (product)"},
        {"av", "application version"},
        {"cd1", "custom dimension 1: OS family"},
        {"cd2", "custom dimension 2: OS name"},
        {"cd3", "custom dimension 3: active user (y/n)"},
        {"t", "hit type"},
        {"ec", "event category"},
        {"ea", "event action"},
        {"el", "event label"},
        {"ev", "event value"},
    };
    for (const auto& meaning : meanings)
        if (key == meaning.first)
            return meaning.second;
    return "";
}

// Control characters would garble the terminal: they are shown escaped.
std::string printable(const std::string& text)
{
    std::string out;
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

void describe_hit(std::ostringstream& out, const std::string& body)
{
    for (const auto& pair : decode_form(body))
        out << "  " << std::left << std::setw(5) << printable(pair.first) << " " << std::setw(40)
            << printable(pair.second) << " " << meaning_of(pair.first) << "\n";
    hit_t hit;
    const rejection_t verdict = read_hit(body, 0, hit);
    if (body.size() > hit_body_limit)
        out << "  ! body is " << body.size() << " bytes, over the protocol's " << hit_body_limit << "\n";
    else if (verdict != rejection_t::none)
        out << "  ! not stored: " << name_of(verdict) << "\n";
}

}  // namespace

std::string describe_hit_request(const hit_request_t& request, std::size_t number)
{
    const bool proxy_form = request.target.compare(0, 7, "http://") == 0;
    std::ostringstream out;
    out << "hit " << number << ": " << printable(request.method) << " "
        << printable(request.target) << (proxy_form ? " (proxy form)" : " (direct)") << ", "
        << request.body.size() << " bytes\n";
    if (request.target.find("/batch") == std::string::npos) {
        describe_hit(out, request.body);
        return out.str();
    }
    std::size_t line_number = 0;
    for (const std::string& line : batch_lines(request.body)) {
        out << " line " << ++line_number << ":\n";
        describe_hit(out, line);
    }
    return out.str();
}

}  // namespace usemeter_collector
