// A hit as the collector keeps it: when it arrived and the fields the library sends.
// Nothing about the sender (address, port, user agent) is ever part of it.
#ifndef USEMETER_COLLECTOR_HIT_HPP
#define USEMETER_COLLECTOR_HIT_HPP

#include <array>
#include <cstdint>
#include <ostream>
#include <string>
#include <utility>

#include "collector/store/days.hpp"

namespace usemeter_collector {

struct hit_t {
    std::int64_t received = 0;  // UTC seconds since the epoch
    std::string tid, cid, an, av, cd1, cd2, cd3, ec, el;

    // The text fields in the one order every table, export and spool keeps them.
    std::array<std::string*, 9> fields() { return {&tid, &cid, &an, &av, &cd1, &cd2, &cd3, &ec, &el}; }
    std::array<const std::string*, 9> fields() const
    {
        return {&tid, &cid, &an, &av, &cd1, &cd2, &cd3, &ec, &el};
    }
};

// What a fallible step returns: failures carry one line for the log and the caller.
struct outcome_t {
    bool ok = true;
    std::string error;

    static outcome_t failure(std::string why) { return {false, std::move(why)}; }
    explicit operator bool() const { return ok; }
};


// The export's CSV form, the same from every store: this header line, then per hit the
// received time (utc_timestamp) and the nine fields, each written by write_csv_field.
extern const char* const export_csv_header;
// The text fields' columns in hit_t::fields() order, as every table of hits names them.
// Constant, so other units' constants may be built from it at start-up.
inline constexpr const char* hit_field_columns = "tid, cid, an, av, cd1, cd2, cd3, ec, el";
// RFC 4180 after spreadsheet_safe: quoted only when the field holds a separator, a quote or
// a line break, or is empty and quote_empty (where an empty text must differ from a null).
std::string csv_field(const std::string& field, bool quote_empty = false);
void write_csv_field(std::ostream& out, const std::string& field);
// A cell a spreadsheet would run as a formula (=, +, -, @, tab, CR first) gets a leading '.
std::string spreadsheet_safe(const std::string& text);

}  // namespace usemeter_collector

#endif
