// The date-time parser: any text gives either the invalid value or a normalised time that
// prints back to text which parses to the same instant.
#include "fuzz_scratch.hpp"
#include "usemeter/sys/datetime.hpp"

using usemeter_1_5_7::datetime_t;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const datetime_t value = datetime_t::parse(text);

    if (!value.is_valid()) {
        FUZZ_CHECK(value == datetime_t(), "an invalid parse result carries an epoch time");
        FUZZ_CHECK(value.as_string() == "1900-01-00T00:00:00Z", "an invalid value prints a time");
        return 0;
    }
    FUZZ_CHECK(text.size() <= 20, "accepted text longer than the canonical form");

    // Years past 9999 print wider than the parser reads; only canonical-width text must
    // come back unchanged.
    const std::string printed = value.as_string();
    if (printed.size() <= 20) {
        const datetime_t again = datetime_t::parse(printed);
        FUZZ_CHECK(again.is_valid() && again == value && again.as_string() == printed, printed);
    }
    return 0;
}
