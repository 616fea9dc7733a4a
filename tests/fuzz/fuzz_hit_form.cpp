// The collector's reading of what any sender posts: a body as one hit (/collect) and as a
// batch, one hit per line (/batch). Nothing crashes or hangs, and every accepted hit is one
// that no report, page or export can trip over: its fields within their limits, text that
// a strict UTF-8 encoder takes, and the fields a hit needs present.
#include <cstdio>
#include <cstdlib>

#include <nlohmann/json.hpp>

#include "collector/ingest/hit_form.hpp"

// A failed property prints what differs and aborts: libFuzzer and the replaying test both
// report that as a crash of this input.
#define FUZZ_CHECK(condition, what)                                                          \
    do {                                                                                     \
        if (!(condition)) {                                                                  \
            const std::string what_ = (what);                                                \
            std::fprintf(stderr, "property failed: %s\n  %s\n", #condition, what_.c_str());  \
            std::abort();                                                                    \
        }                                                                                    \
    } while (0)

namespace uc = usemeter_collector;

namespace {

void check_accepted(const uc::hit_t& hit)
{
    const std::pair<const std::string*, std::size_t> limits[] = {
        {&hit.tid, 150}, {&hit.cid, 150}, {&hit.an, 100}, {&hit.av, 100}, {&hit.cd1, 150},
        {&hit.cd2, 150}, {&hit.cd3, 150}, {&hit.ec, 150}, {&hit.el, 500}};
    for (const auto& [field, limit] : limits) {
        FUZZ_CHECK(field->size() <= limit, *field);
        try {
            static_cast<void>(nlohmann::json(*field).dump());
        } catch (const nlohmann::json::exception&) {
            FUZZ_CHECK(false, "not UTF-8: " + *field);
        }
    }
    FUZZ_CHECK(!hit.tid.empty() && !hit.cid.empty() && !hit.ec.empty(), hit.tid + "|" + hit.cid + "|" + hit.ec);
}

void read_one(const std::string& body)
{
    uc::hit_t hit;
    if (uc::read_hit(body, 1700000000, hit) == uc::rejection_t::none)
        check_accepted(hit);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string body(reinterpret_cast<const char*>(data), size);
    read_one(body);
    for (const std::string& line : uc::batch_lines(body)) {
        FUZZ_CHECK(!line.empty() && line.find('\n') == std::string::npos, line);
        read_one(line);
    }
    return 0;
}
