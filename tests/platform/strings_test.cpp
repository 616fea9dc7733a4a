#include <gtest/gtest.h>

#include "rtbase/strings.hpp"

namespace {

struct strip_case {
    const char* input;
    bool trailing;
    const char* expected;
};

TEST(strip_characters, strips_one_end_and_survives_degenerate_input)
{
    const strip_case cases[] = {
        {"\" Ubuntu 14.04 \"", false, "Ubuntu 14.04 \""},
        {"\" Ubuntu 14.04 \"", true, "\" Ubuntu 14.04"},
        {"", false, ""},
        {"", true, ""},
        {"\"\" \"", false, ""},
        {"\"\" \"", true, ""},
        {"Debian\"\r", true, "Debian\"\r"},
        {"a\"b", true, "a\"b"},
    };
    for (const strip_case& c : cases) {
        std::string text = c.input;
        rtbase::strings::strip_characters(text, " \"", c.trailing);
        EXPECT_EQ(text, c.expected) << "input [" << c.input << "] trailing " << c.trailing;
    }
}

}  // namespace
