#include <gtest/gtest.h>

#include <string>

#include "host_facts_detail.hpp"
#include "support/temp_home.hpp"
#include "usemeter/sys/host_facts.hpp"

namespace {

using namespace usemeter_1_5_7;
using usemeter_test::temp_dir_t;
using usemeter_test::write_file;

// The first 16 bytes of the source, raw, in order, upper case and grouped; a short or
// unreadable source gives empty. (The form of a generated identifier is the policy test's.)
TEST(uuid, the_source_is_formatted_raw_and_a_short_or_unreadable_one_gives_empty)
{
    unsigned char counting[16];
    for (int i = 0; i < 16; ++i)
        counting[i] = static_cast<unsigned char>(i);
    EXPECT_EQ(uuid_bytes_to_str(counting), "00010203-0405-0607-0809-0A0B0C0D0E0F");
    EXPECT_NE(generate_uuid4(), generate_uuid4());
    temp_dir_t dir;
    write_file(dir / "long", std::string(20, '\xAB'));
    write_file(dir / "short", std::string(15, '\x11'));
    const std::pair<std::string, const char*> rows[] = {
        {dir / "long", "ABABABAB-ABAB-ABAB-ABAB-ABABABABABAB"},
        {"/dev/zero", "00000000-0000-0000-0000-000000000000"},
        {dir / "short", ""},
        {dir / "missing", ""},
        {dir.path(), ""},  // a directory opens but cannot be read
    };
    for (const auto& row : rows)
        EXPECT_EQ(generate_uuid4_from(row.first.c_str()), row.second) << row.first;
}

}  // namespace
