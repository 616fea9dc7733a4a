// Reading hits from their form-encoded bodies and judging them as the protocol's endpoint
// does for the fields this system uses.
#ifndef USEMETER_COLLECTOR_HIT_FORM_HPP
#define USEMETER_COLLECTOR_HIT_FORM_HPP

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "collector/store/hit.hpp"

namespace usemeter_collector {

// The protocol's limits: one hit's body, and a batch of hits one per line.
const std::size_t hit_body_limit = 8192;
const std::size_t batch_body_limit = 16384;
const std::size_t batch_hit_limit = 20;

// Why a hit is not stored. "unsupported_type" is a valid hit of a type other than event.
enum class rejection_t {
    none,
    bad_version,       // v missing or not 1
    missing_tid,
    missing_cid,
    bad_type,          // t missing or not a type of the protocol
    missing_category,  // an event without ec
    too_long,          // a field over its documented limit
    unsupported_type,
    bad_encoding,      // a stored field that is not valid UTF-8
};
const char* name_of(rejection_t reason);
const std::vector<rejection_t>& every_rejection();

bool is_utf8(const std::string& text);

// The decoded key/value pairs in body order.
std::vector<std::pair<std::string, std::string>> decode_form(const std::string& body);

// Fills hit (received included) and returns none, or returns why it cannot be stored.
rejection_t read_hit(const std::string& body, std::int64_t received, hit_t& hit);

// The lines of a batch body that hold a hit.
std::vector<std::string> batch_lines(const std::string& body);

}  // namespace usemeter_collector

#endif
