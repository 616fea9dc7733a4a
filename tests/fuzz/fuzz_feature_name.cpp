// The feature-name grammar against a plain reading of it: words of letters, digits, "%"
// and "_" joined by single dots, nothing else.
#include <cctype>

#include "fuzz_scratch.hpp"
#include "usemeter/statistic.hpp"

namespace {

bool reference_valid(const std::string& name)
{
    bool word_started = false;
    for (unsigned char c : name) {
        if (c == '.' ? !word_started : !(std::isalnum(c) || c == '%' || c == '_'))
            return false;
        word_started = c != '.';
    }
    return word_started;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string name = fuzz::text(data, size);
    const bool valid = usemeter_1_5_7::statistic_t::is_feature_name_valid(name);
    FUZZ_CHECK(valid == reference_valid(name), valid ? "accepted an invalid name" : "refused a valid name");
    return 0;
}
