#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "host_facts_detail.hpp"
#include "support/temp_home.hpp"
#include "usemeter/sys/host_facts.hpp"

namespace {

using namespace usemeter_1_5_7;
using usemeter_test::temp_dir_t;
using usemeter_test::write_file;

TEST(uuid, bytes_are_formatted_in_order_upper_case_and_grouped)
{
    unsigned char counting[16], all_ones[16];
    for (int i = 0; i < 16; ++i)
        counting[i] = static_cast<unsigned char>(i), all_ones[i] = 0xFF;
    EXPECT_EQ(uuid_bytes_to_str(counting), "00010203-0405-0607-0809-0A0B0C0D0E0F");
    EXPECT_EQ(uuid_bytes_to_str(all_ones), "FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF");

    const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");
    const std::string first = generate_uuid4(), second = generate_uuid4();
    EXPECT_TRUE(std::regex_match(first, form)) << first;
    EXPECT_NE(first, second);
}

TEST(uuid, the_source_is_used_raw_and_a_short_or_unreadable_one_gives_empty)
{
    temp_dir_t dir;
    write_file(dir / "long", std::string(20, '\xAB'));
    write_file(dir / "short", std::string(15, '\x11'));
    const std::pair<std::string, const char*> rows[] = {
        {dir / "long", "ABABABAB-ABAB-ABAB-ABAB-ABABABABABAB"},  // the first 16 bytes
        {"/dev/zero", "00000000-0000-0000-0000-000000000000"},
        {dir / "short", ""},
        {dir / "missing", ""},
        {dir.path(), ""},  // a directory opens but cannot be read
    };
    for (const auto& row : rows)
        EXPECT_EQ(generate_uuid4_from(row.first.c_str()), row.second) << row.first;
}

}  // namespace
