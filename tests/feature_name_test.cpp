#include <gtest/gtest.h>

#include "usemeter/statistic.hpp"

namespace {

TEST(feature_name, grammar_accepts_dotted_words_only)
{
    const char* valid[] = {"gui.start", "analysis_type.hotspots", "a", "A1.b2.C3", "100%.done", "_", "%"};
    for (const char* name : valid)
        EXPECT_TRUE(usemeter::statistic_t::is_feature_name_valid(name)) << name;

    const std::string invalid[] = {
        "", ".", "a.", ".a", "a..b", "a b", "a-b", "a.b ", " a", "a/b", "a:b",
        "caf\xc3\xa9", "\xff", std::string("a\0b", 3), "a.b\n",
    };
    for (const std::string& name : invalid)
        EXPECT_FALSE(usemeter::statistic_t::is_feature_name_valid(name)) << name;
}

}  // namespace
