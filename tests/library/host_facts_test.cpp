// The host facts: OS name, identifier source, date-time and file lock.
#include <sys/time.h>

#include "host_facts_detail.hpp"
#include "library/library_test.hpp"
#include "usemeter/sys/datetime.hpp"
#include "usemeter/sys/filelock.hpp"
#include "usemeter/sys/host_facts.hpp"

using namespace usemeter_1_5_7;
using namespace usemeter_test;

namespace {

// PRETTY_NAME of os-release, else redhat-release's first line as is, else a fixed text; missing = empty.
TEST(os_name, each_release_file_is_read_as_its_format_says_in_order)
{
    const char* const missing = nullptr;
    const std::string undefined = "Undefined Linux Version";
    // The files' contents, "<dir>" or missing.
    const struct { const char* os; std::string expected; const char* redhat = "Fallback\n"; } rows[] = {
        {"NAME=\"Debian\"\nPRETTY_NAME=\"Debian 12\"\nID=debian\n", "Debian 12"},
        {"PRETTY_NAME=\"  Ubuntu 14.04 LTS \" \n", "Ubuntu 14.04 LTS"},  // blanks and " trimmed
        {"PRETTY_NAME=\"Debian\"\r\nID=debian\r\n", "Debian\"\r"},  // CR-LF keeps \r and "
        {"PRETTY_NAME=Fedora 39", "Fedora 39"}, {"PRETTY_NAME='Arch Linux'\n", "'Arch Linux'"},
        {"PRETTY_NAME=\"a \"quoted\" word\"\n", "a \"quoted\" word"}, {"PRETTY_NAME=\" \"\" \"\n", "Fallback"},
        {"PRETTY_NAME=\t\"Tabbed\"\t\n", "\t\"Tabbed\"\t"},
        {"PRETTY_NAME=\nPRETTY_NAME=\"Second\"\n", "Fallback"},  // the first line wins, even empty
        {"  PRETTY_NAME=x\nexport PRETTY_NAME=x\n#PRETTY_NAME=x\npretty_name=x\nNAME=x\n", "Fallback"},
        {missing, "CentOS Linux 7.9 (Core)", "CentOS Linux 7.9 (Core)\nsecond\n"},
        {"", "  \"Quoted\" release  ", "  \"Quoted\" release  \n"},  // untrimmed
        {missing, "Red Hat Enterprise Linux 8\r", "Red Hat Enterprise Linux 8\r\n"},
        {"", undefined, "\nSecond\n"}, {missing, undefined, missing}, {"<dir>", undefined, "<dir>"},
    };
    temp_dir_t dir;
    const auto place = [&dir](const char* content, const std::string& name) {
        if (content && content != std::string("<dir>"))
            write_file(dir / name, content);
        return !content ? dir / "missing" : *content == '<' ? dir.path() : dir / name;
    };
    for (const auto& row : rows)
        EXPECT_EQ(get_os_name_from(place(row.os, "os").c_str(), place(row.redhat, "rh").c_str()), row.expected)
            << &row - rows;
    EXPECT_EQ(get_os_name(), get_os_name_from("/etc/os-release", "/etc/redhat-release"));
    EXPECT_EQ(get_name_from_etc_os_release(), get_name_from_os_release_file("/etc/os-release"));
}

// The first 16 bytes raw, upper case, grouped; a short or unreadable source (a directory) gives empty.
TEST(uuid, the_source_is_formatted_raw_and_a_short_or_unreadable_one_gives_empty)
{
    unsigned char counting[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    EXPECT_EQ(uuid_bytes_to_str(counting), "00010203-0405-0607-0809-0A0B0C0D0E0F");
    EXPECT_NE(generate_uuid4(), generate_uuid4());
    temp_dir_t dir;
    write_file(dir / "long", std::string(20, '\xAB'));
    write_file(dir / "short", std::string(15, '\x11'));
    const std::pair<std::string, const char*> rows[] = {
        {dir / "long", "ABABABAB-ABAB-ABAB-ABAB-ABABABABABAB"},
        {"/dev/zero", "00000000-0000-0000-0000-000000000000"},
        {dir / "short", ""}, {dir / "missing", ""}, {dir.path(), ""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(generate_uuid4_from(row.first.c_str()), row.second) << row.first;
}

// UTC whatever the time zone. 2038-01-19T03:14:08Z exists only with a wider time_t. Comparisons use
// the epoch time only: the invalid mark (-1) sorts between -2 and 0.
TEST(datetime, parse_prints_back_normalised_now_and_file_time_in_utc)
{
    scoped_env_t zone("TZ", "ABC-10");
    ::tzset();
    const char* const after_2038 = sizeof(std::time_t) > 4 ? "2038-01-19T03:14:08Z" : "";
    const std::pair<const char*, const char*> rows[] = {  // text, printed ("" when invalid)
        {"2015-06-30T23:59:59Z", "2015-06-30T23:59:59Z"}, {"1970-01-01T00:00:00Z", "1970-01-01T00:00:00Z"},
        {"2015-06-30T23:59:59", "2015-06-30T23:59:59Z"}, {"2024-3-7T5:6:9Z", "2024-03-07T05:06:09Z"},  // maxima
        {"2015-06-30T23:59:59X", "2015-06-30T23:59:59Z"},  // the Z is never checked
        {"2015-02-30T00:00:00Z", "2015-03-02T00:00:00Z"}, {"2015-00-10T00:00:00Z", "2014-12-10T00:00:00Z"},
        {"2015-06-30T24:00:60Z", "2015-07-01T00:01:00Z"}, {"1969-12-31T23:59:58Z", "1969-12-31T23:59:58Z"},
        {"1969-12-31T23:59:59Z", ""},  // epoch time -1 is the invalid mark
        {"2038-01-19T03:14:07Z", "2038-01-19T03:14:07Z"}, {"2038-01-19T03:14:08Z", after_2038},
        {"2015-06-30T23:59:59Z ", ""}, {"2015-06-30T23:59", ""}, {"2015/06/30T23:59:59Z", ""}, {"", ""},
    };
    for (const auto& row : rows) {
        const datetime_t value = datetime_t::parse(row.first);
        EXPECT_EQ(value.is_valid(), *row.second != '\0') << row.first;
        EXPECT_EQ(value.as_string(), *row.second ? row.second : "1900-01-00T00:00:00Z") << row.first;
        EXPECT_EQ(value, *row.second ? datetime_t::parse(row.second) : datetime_t()) << row.first;
    }
    const auto at = [](const char* text) { return datetime_t::parse(text); };
    const datetime_t invalid, epoch = at("1970-01-01T00:00:00Z"), later = at("2015-06-30T23:59:59Z");
    const datetime_t same_instant = at("2015-06-30T23:59:59Q"), before = at("1969-12-31T23:59:58Z");
    EXPECT_TRUE(later == same_instant && !(later != same_instant) && !(later == epoch) && later > epoch);
    EXPECT_FALSE(later < epoch || epoch > later || later > same_instant || later < same_instant);
    EXPECT_TRUE(epoch < later && invalid < epoch && before < invalid);
    const auto utc = [](std::time_t clock) {
        std::tm fields = {};
        char text[32];
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", ::gmtime_r(&clock, &fields));
        return std::string(text);
    };
    const std::string earlier = utc(std::time(nullptr)), now = datetime_t::now().as_string();
    EXPECT_TRUE(earlier <= now && now <= utc(std::time(nullptr))) << now;
    temp_dir_t dir;
    write_file(dir / "stamped", "x");
    const timeval stamps[2] = {{0, 0}, {1435708799, 0}};
    ASSERT_EQ(::utimes((dir / "stamped").c_str(), stamps), 0);
    EXPECT_EQ(datetime_t::file_time(dir / "stamped").as_string(), "2015-06-30T23:59:59Z");
    EXPECT_FALSE(datetime_t::file_time(dir / "missing").is_valid());
}

TEST(filelock, an_empty_file_beside_the_guarded_one_that_only_its_holder_removes)
{
    temp_dir_t dir;
    const std::string guarded = dir / "state.xml", lock_file = dir / "state.lock";
    filelock_t first(guarded);
    auto second = std::make_unique<filelock_t>(guarded);
    EXPECT_FALSE(file_exists(lock_file));  // construction touches nothing
    const long descriptors = count_entries("/proc/self/fd");
    ASSERT_TRUE(first.lock() && first.lock());  // taking a held lock again is harmless
    EXPECT_EQ(count_entries("/proc/self/fd"), descriptors);
    EXPECT_TRUE(read_file(lock_file).empty() && count_entries(dir.path()) == 1);
    EXPECT_FALSE(second->lock() || second->is_locked());
    second->unlock();
    filelock_t(guarded).lock();  // a failed attempt, destroyed at once
    EXPECT_TRUE(file_exists(lock_file)) << "a non-holder deleted the holder's file";
    first.unlock();
    EXPECT_FALSE(file_exists(lock_file));
    ASSERT_TRUE(second->lock());
    first.unlock();
    EXPECT_TRUE(file_exists(lock_file)) << "a released lock deleted the file twice";
    second.reset();
    EXPECT_FALSE(file_exists(lock_file)) << "destroying the holder releases";
}

}  // namespace
