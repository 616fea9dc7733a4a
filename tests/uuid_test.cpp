#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "host_facts_detail.hpp"
#include "support/temp_home.hpp"
#include "usemeter/host_facts.hpp"

namespace {

using namespace usemeter_1_5_7;
using usemeter_test::temp_dir_t;
using usemeter_test::write_file;

bool has_uuid_form(const std::string& text)
{
    static const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");
    return std::regex_match(text, form);
}

TEST(uuid, formats_bytes_in_order_upper_case_and_grouped)
{
    unsigned char counting[16], all_ones[16];
    for (int i = 0; i < 16; ++i) {
        counting[i] = static_cast<unsigned char>(i);
        all_ones[i] = 0xFF;
    }
    unsigned char sample[16] = {0x3F, 0x25, 0x04, 0xE0, 0x4F, 0x89, 0x11, 0xD3,
                                0x9A, 0x0C, 0x03, 0x05, 0xE8, 0x2C, 0x33, 0x01};
    EXPECT_EQ(uuid_bytes_to_str(counting), "00010203-0405-0607-0809-0A0B0C0D0E0F");
    EXPECT_EQ(uuid_bytes_to_str(all_ones), "FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF");
    EXPECT_EQ(uuid_bytes_to_str(sample), "3F2504E0-4F89-11D3-9A0C-0305E82C3301");
}

TEST(uuid, generated_identifiers_have_the_form_and_differ)
{
    const std::string first = generate_uuid4();
    const std::string second = generate_uuid4();
    EXPECT_TRUE(has_uuid_form(first)) << first;
    EXPECT_TRUE(has_uuid_form(second)) << second;
    EXPECT_NE(first, second);
}

TEST(uuid, source_is_used_raw_and_a_short_or_unreadable_one_gives_empty)
{
    temp_dir_t dir;
    write_file(dir / "exact", std::string("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f", 16));
    write_file(dir / "long", std::string(20, '\xAB'));
    write_file(dir / "short", std::string(15, '\x11'));
    write_file(dir / "empty", "");
    write_file(dir / "file", "x");

    struct source_case {
        std::string path;
        const char* expected;
    };
    const source_case cases[] = {
        {dir / "exact", "00010203-0405-0607-0809-0A0B0C0D0E0F"},
        {dir / "long", "ABABABAB-ABAB-ABAB-ABAB-ABABABABABAB"},
        {"/dev/zero", "00000000-0000-0000-0000-000000000000"},
        {dir / "short", ""},
        {dir / "empty", ""},
        {dir / "missing", ""},
        {dir.path(), ""},             // a directory opens but cannot be read
        {dir / "file/below", ""},     // a regular file where a directory should be
    };
    for (const source_case& c : cases)
        EXPECT_EQ(generate_uuid4_from(c.path.c_str()), c.expected) << c.path;
}

}  // namespace
