#include <gtest/gtest.h>

#include <string>

#include "host_facts_detail.hpp"
#include "support/temp_home.hpp"
#include "usemeter/host_facts.hpp"

namespace {

using namespace usemeter_1_5_7;
using usemeter_test::temp_dir_t;
using usemeter_test::write_file;

// The bytes of a literal, embedded NULs included.
template <std::size_t n>
std::string bytes(const char (&literal)[n])
{
    return std::string(literal, n - 1);
}

struct release_case {
    std::string content;
    std::string expected;
};

TEST(os_name, pretty_name_is_the_first_exact_line_trimmed_of_blanks_and_double_quotes)
{
    const std::string big_junk(4 * 1024 * 1024, 'x');
    const release_case cases[] = {
        {"NAME=\"Debian\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nID=debian\n",
         "Debian GNU/Linux 12 (bookworm)"},
        {"PRETTY_NAME=\"  Ubuntu 14.04.5 LTS \" \n", "Ubuntu 14.04.5 LTS"},
        {"PRETTY_NAME=Fedora 39", "Fedora 39"},                        // no final newline
        {"PRETTY_NAME=\"Debian\"\r\nID=debian\r\n", "Debian\"\r"},     // CR-LF keeps \r and "
        {"PRETTY_NAME='Arch Linux'\n", "'Arch Linux'"},
        {"PRETTY_NAME=\t\"Tabbed\"\t\n", "\t\"Tabbed\"\t"},
        {"PRETTY_NAME=\"a \"quoted\" word\"\n", "a \"quoted\" word"},
        {"PRETTY_NAME=\n", ""},
        {"PRETTY_NAME=\" \"\" \"\n", ""},
        {"PRETTY_NAME=\"First\"\nPRETTY_NAME=\"Second\"\n", "First"},
        {"PRETTY_NAME=\nPRETTY_NAME=\"Second\"\n", ""},                // first line wins, even empty
        {"NAME=Debian\nID=debian\n", ""},
        {"  PRETTY_NAME=x\nexport PRETTY_NAME=x\n#PRETTY_NAME=x\npretty_name=x\nPRETTY_NAME x\n", ""},
        {"", ""},
        {bytes("\x00\xff\xfe\x01\n\x7fPRETTY_NAME=no\nPRETTY_NAME=\"B\xc3\xa4r\x01\"\n"),
         "B\xc3\xa4r\x01"},
        {big_junk + "\nPRETTY_NAME=\"Late\"\n", "Late"},
        {big_junk, ""},
    };
    temp_dir_t dir;
    for (const release_case& c : cases) {
        write_file(dir / "os-release", c.content);
        EXPECT_EQ(get_name_from_os_release_file((dir / "os-release").c_str()), c.expected)
            << "content begins [" << c.content.substr(0, 80) << "]";
    }
}

TEST(os_name, redhat_release_gives_the_first_line_untrimmed)
{
    const release_case cases[] = {
        {"CentOS Linux release 7.9.2009 (Core)\nsecond line\n", "CentOS Linux release 7.9.2009 (Core)"},
        {"  \"Quoted\" release  \n", "  \"Quoted\" release  "},
        {"Red Hat Enterprise Linux 8\r\n", "Red Hat Enterprise Linux 8\r"},
        {"No newline", "No newline"},
        {"\nSecond\n", ""},
        {"", ""},
    };
    temp_dir_t dir;
    for (const release_case& c : cases) {
        write_file(dir / "redhat-release", c.content);
        EXPECT_EQ(get_name_from_redhat_release_file((dir / "redhat-release").c_str()), c.expected)
            << "[" << c.content << "]";
    }
}

TEST(os_name, sources_are_tried_in_order_with_a_fixed_fallback)
{
    temp_dir_t dir;
    write_file(dir / "pretty", "PRETTY_NAME=\"Debian 12\"\n");
    write_file(dir / "no-pretty", "NAME=Debian\n");
    write_file(dir / "empty-pretty", "PRETTY_NAME=\"\"\n");
    write_file(dir / "redhat", "Rocky Linux release 9.3 (Blue Onyx)\n");
    write_file(dir / "redhat-empty-line", "\nRocky\n");
    const std::string missing = dir / "missing";

    struct order_case {
        std::string os_release;
        std::string redhat_release;
        const char* expected;
    };
    const order_case cases[] = {
        {dir / "pretty", dir / "redhat", "Debian 12"},
        {dir / "no-pretty", dir / "redhat", "Rocky Linux release 9.3 (Blue Onyx)"},
        {dir / "empty-pretty", dir / "redhat", "Rocky Linux release 9.3 (Blue Onyx)"},
        {missing, dir / "redhat", "Rocky Linux release 9.3 (Blue Onyx)"},
        {dir / "empty-pretty", dir / "redhat-empty-line", "Undefined Linux Version"},
        {missing, missing, "Undefined Linux Version"},
        {dir.path(), dir.path(), "Undefined Linux Version"},  // directories read as nothing
    };
    for (const order_case& c : cases)
        EXPECT_EQ(get_os_name_from(c.os_release.c_str(), c.redhat_release.c_str()), c.expected)
            << c.os_release << " / " << c.redhat_release;
}

TEST(os_name, public_functions_read_the_real_release_files)
{
    EXPECT_EQ(get_name_from_etc_os_release(), get_name_from_os_release_file("/etc/os-release"));
    EXPECT_EQ(get_name_from_etc_redhat_release(),
              get_name_from_redhat_release_file("/etc/redhat-release"));
    EXPECT_EQ(get_os_name(), get_os_name_from("/etc/os-release", "/etc/redhat-release"));
    EXPECT_FALSE(get_os_name().empty());
}

}  // namespace
