// The feature-name grammar against a plain reading of it: words of letters, digits, "%"
// and "_" joined by single dots, nothing else.
#include <cctype>
#include <cstdint>
#include <string>

#include "fuzz_scratch.hpp"
#include "usemeter/statistic.hpp"

namespace {

bool is_word_char(unsigned char c)
{
    return std::isalnum(c) || c == '%' || c == '_';
}

bool reference_valid(const std::string& name)
{
    bool word_started = false;
    for (unsigned char c : name) {
        if (c == '.') {
            if (!word_started)
                return false;
            word_started = false;
        } else if (is_word_char(c)) {
            word_started = true;
        } else {
            return false;
        }
    }
    return word_started;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string name(reinterpret_cast<const char*>(data), size);
    const bool valid = usemeter_1_5_7::statistic_t::is_feature_name_valid(name);
    FUZZ_CHECK(valid == reference_valid(name), valid ? "accepted an invalid name" : "refused a valid name");
    return 0;
}
