// Realistic synthetic hits for demos, tests and benchmarks: users who join and leave, come
// back on their own habits (less at weekends), use their favourite features, take up new
// versions some days after release, on a few systems. The same seed gives the same hits.
#ifndef USEMETER_COLLECTOR_GENERATOR_HPP
#define USEMETER_COLLECTOR_GENERATOR_HPP

#include <cstdint>
#include <string>
#include <vector>

#include "collector/store/store.hpp"

namespace usemeter_collector {

struct generator_options_t {
    std::string product = "trovix";
    std::int64_t users = 200;
    std::int64_t days = 60;
    std::string until;  // the last day "YYYY-MM-DD" (UTC); required
    std::uint32_t seed = 1;
    std::size_t batch = 500;  // hits per append, as a busy collector's group commit
};

// Appends the hits day by day, in order received, through store.append(); counts them.
outcome_t generate_hits(const generator_options_t& options, store_t& store, std::int64_t& hits);

}  // namespace usemeter_collector

#endif
