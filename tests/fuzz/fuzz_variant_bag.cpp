// The variant-bag loader over arbitrary XML. A document that loads must survive a save and
// a reload unchanged: state files are rewritten from what was read, so any drift would
// change a user's identifier or history on the next save.
#include <cmath>

#include "basekit/variant_bag.hpp"
#include "fuzz_scratch.hpp"

using basekit::variant_bag_t;
using basekit::variant_t;

namespace {

// Every field a value keeps, read through accessors (the others derive from these).
bool same_value(const variant_t& a, const variant_t& b)
{
    const double x = a.get<double>(), y = b.get<double>();
    return a.kind() == b.kind() && a.bytes() == b.bytes() && a.get<bool>() == b.get<bool>() &&
           a.get<std::int64_t>() == b.get<std::int64_t>() &&
           a.get<std::uint64_t>() == b.get<std::uint64_t>() &&
           (x == y || (std::isnan(x) && std::isnan(y)));
}

bool same_bag(const variant_bag_t& a, const variant_bag_t& b)
{
    if (a.entries().size() != b.entries().size())
        return false;
    for (std::size_t i = 0; i < a.entries().size(); ++i) {
        const variant_bag_t::entry_t &x = a.entries()[i], &y = b.entries()[i];
        if (x.name != y.name || bool(x.bag) != bool(y.bag) ||
            (x.bag ? !same_bag(*x.bag, *y.bag) : !same_value(x.value, y.value)))
            return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const fuzz::scratch_t scratch;
    static const basekit::path_t path(scratch.dir + "/bag.xml");

    const std::string text(reinterpret_cast<const char*>(data), size);
    variant_bag_t bag;
    if (basekit::parse_variant_bag(bag, text, "bag") != 1) {
        FUZZ_CHECK(bag.entries().empty(), "a refused document left entries behind");
        return 0;
    }
    FUZZ_CHECK(basekit::save_variant_bag2(bag, path, "bag") == 1, "saving a loaded bag failed");
    variant_bag_t reloaded;
    FUZZ_CHECK(basekit::load_variant_bag2(reloaded, path, "bag", false) == 1,
               "a saved bag does not load");
    FUZZ_CHECK(same_bag(bag, reloaded), "a bag changed across save and reload");
    return 0;
}
