#include <gtest/gtest.h>

#include <string>

#include "host_facts_detail.hpp"
#include "support/temp_home.hpp"
#include "usemeter/sys/host_facts.hpp"

namespace {

using namespace usemeter_1_5_7;
using usemeter_test::temp_dir_t;
using usemeter_test::write_file;
using rows_t = std::vector<std::pair<std::string, std::string>>;  // content, name

TEST(os_name, each_release_file_is_read_as_its_format_says)
{
    const rows_t os_release = {
        {"NAME=\"Debian\"\nPRETTY_NAME=\"Debian 12\"\nID=debian\n", "Debian 12"},
        {"PRETTY_NAME=\"  Ubuntu 14.04 LTS \" \n", "Ubuntu 14.04 LTS"},  // blanks and " trimmed
        {"PRETTY_NAME=Fedora 39", "Fedora 39"},
        {"PRETTY_NAME=\"Debian\"\r\nID=debian\r\n", "Debian\"\r"},  // CR-LF keeps \r and "
        {"PRETTY_NAME='Arch Linux'\n", "'Arch Linux'"},
        {"PRETTY_NAME=\"a \"quoted\" word\"\n", "a \"quoted\" word"},
        {"PRETTY_NAME=\t\"Tabbed\"\t\n", "\t\"Tabbed\"\t"},
        {"PRETTY_NAME=\" \"\" \"\n", ""},
        {"PRETTY_NAME=\"First\"\nPRETTY_NAME=\"Second\"\n", "First"},
        {"PRETTY_NAME=\nPRETTY_NAME=\"Second\"\n", ""},  // the first line wins, even empty
        {"  PRETTY_NAME=x\nexport PRETTY_NAME=x\n#PRETTY_NAME=x\npretty_name=x\nNAME=x\n", ""},
    };
    const rows_t redhat_release = {
        {"CentOS Linux release 7.9.2009 (Core)\nsecond\n", "CentOS Linux release 7.9.2009 (Core)"},
        {"  \"Quoted\" release  \n", "  \"Quoted\" release  "},  // untrimmed
        {"Red Hat Enterprise Linux 8\r\n", "Red Hat Enterprise Linux 8\r"},
        {"\nSecond\n", ""},
    };
    temp_dir_t dir;
    const std::string file = dir / "release";
    for (const auto& row : os_release) {
        write_file(file, row.first);
        EXPECT_EQ(get_name_from_os_release_file(file.c_str()), row.second) << row.first;
    }
    for (const auto& row : redhat_release) {
        write_file(file, row.first);
        EXPECT_EQ(get_name_from_redhat_release_file(file.c_str()), row.second) << row.first;
    }
}

TEST(os_name, sources_are_tried_in_order_with_a_fixed_fallback)
{
    temp_dir_t dir;
    const std::string pretty = dir / "pretty", none = dir / "none", empty = dir / "empty";
    const std::string redhat = dir / "redhat", missing = dir / "missing";
    write_file(pretty, "PRETTY_NAME=\"Debian 12\"\n");
    write_file(none, "NAME=Debian\n");
    write_file(empty, "\nPRETTY_NAME=\"\"\nRocky\n");  // an empty first line too
    write_file(redhat, "Rocky Linux release 9.3\n");
    const std::string rows[][3] = {
        {pretty, redhat, "Debian 12"},
        {none, redhat, "Rocky Linux release 9.3"},
        {empty, redhat, "Rocky Linux release 9.3"},
        {missing, redhat, "Rocky Linux release 9.3"},
        {empty, empty, "Undefined Linux Version"},
        {missing, missing, "Undefined Linux Version"},
        {dir.path(), dir.path(), "Undefined Linux Version"},  // directories read as nothing
    };
    for (const auto& row : rows)
        EXPECT_EQ(get_os_name_from(row[0].c_str(), row[1].c_str()), row[2]) << row[0] << row[1];
    EXPECT_EQ(get_os_name(), get_os_name_from("/etc/os-release", "/etc/redhat-release"));
    EXPECT_EQ(get_name_from_etc_os_release(), get_name_from_os_release_file("/etc/os-release"));
    EXPECT_EQ(get_name_from_etc_redhat_release(),
              get_name_from_redhat_release_file("/etc/redhat-release"));
}

}  // namespace
