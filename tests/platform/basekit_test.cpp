// The platform's path, and the variant bag behind every state file.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include "basekit/variant_bag.hpp"
#include "support/temp_home.hpp"
#include "usemeter/path.hpp"

using basekit::path_t;
using basekit::variant_bag_t;
using basekit::variant_t;
using namespace usemeter_test;

namespace {

TEST(path, change_ext_replaces_the_last_extension_and_append_joins_with_single_separators)
{
    const std::pair<const char*, const char*> rows[] = {
        {"/tmp/uuid-4711-1.txt", "/tmp/uuid-4711-1.lock"}, {"/tmp/archive.tar.gz", "/tmp/archive.tar.lock"},
        {"/tmp/noext", "/tmp/noext.lock"}, {"/tmp/.hidden", "/tmp/.hidden.lock"}, {"/a.d/file", "/a.d/file.lock"},
        {"relative.xml", "relative.lock"}};
    for (const auto& row : rows)
        EXPECT_EQ(path_t(row.first).change_ext("lock").as_string(false), row.second) << row.first;
    EXPECT_EQ(path_t("").append("norvel").as_string(), "norvel");
    EXPECT_EQ(path_t("/h").append("norvel").append("orb").as_string(), "/h/norvel/orb");
    EXPECT_EQ(path_t("/h/").append("/x").as_string(), "/h/x");
    EXPECT_TRUE(path_t("/").is_exists() && path_t(static_cast<const char*>(nullptr)).empty());
    EXPECT_FALSE(path_t("/no/such/usemeter/path").is_exists() || path_t("").is_exists());
}

// The saved text is what earlier releases read; loading gives back every type, the order, repeated names.
TEST(variant_bag, saves_the_documented_xml_loads_back_every_type_and_refuses_bad_files)
{
    temp_dir_t dir;
    variant_bag_t bag;
    bag.put("UUID", variant_t("0F1E2D3C"));
    bag.put("text", variant_t(std::string("a <b> & \"c\"")));
    bag.put("i", variant_t(std::int32_t(-7)));
    bag.put("i64", variant_t(std::int64_t(1) << 40));
    bag.put("u64", variant_t(std::uint64_t(18446744073709551615ull)));
    bag.put("d", variant_t(0.25));
    bag.put("b", variant_t(true));
    bag.put("raw", variant_t::blob(std::string("\x00\xff", 2)));
    for (int day : {20, 21})
        bag.add_bag("item").put("D", variant_t(std::int32_t(day)));
    const std::string path = dir / "state.xml";
    variant_bag_t loaded;  // loading restores every value, type and the order exactly
    ASSERT_EQ(basekit::save_variant_bag2(bag, path, "bag"), 1);
    ASSERT_EQ(basekit::load_variant_bag2(loaded, path, "bag", false), 1);
    EXPECT_EQ(read_file(path), read_file(USEMETER_TEST_SOURCE_DIR "/data/variant_bag_saved.xml"));
    ASSERT_EQ(basekit::save_variant_bag2(loaded, dir / "again.xml", "bag"), 1);
    EXPECT_EQ(read_file(dir / "again.xml"), read_file(path));
    // A refused document leaves an empty bag, an unparsable value loads as empty, bad places fail.
    const auto repeat = [](const std::string& text, int n) {
        std::string out;
        while (n--)
            out += text;
        return out;
    };
    const std::pair<std::string, int> rows[] = {
        {"<?xml version=\"1.0\"?><bag><UUID type=\"string\">ab", 0}, {"<!-- c --><bag></bag>", 1},
        {"<bag>" + repeat("<x type=\"bag\">", 100000), 0},
        {"<bag>" + repeat("<x type=\"bag\">", 5000) + repeat("</x>", 5000) + "</bag>", 1},
    };
    for (const auto& row : rows) {
        variant_bag_t bag;
        bag.put("stale", variant_t("value"));
        EXPECT_EQ(basekit::parse_variant_bag(bag, row.first, "bag"), row.second) << row.first.substr(0, 60);
        EXPECT_TRUE(bag.get_variant("stale", variant_t()).empty());
        int depth = 0;  // 64 levels with the root; deeper bags load as empty values
        for (const variant_bag_t* inner = &bag; !inner->entries().empty() && inner->entries()[0].bag; ++depth)
            inner = inner->entries()[0].bag.get();
        EXPECT_EQ(depth, row.second && row.first.size() > 1000 ? 63 : 0);
    }
    const std::string values = "<bag><a type=\"int\">12x</a><b type=\"int\">99999999999</b><c>untyped</c>"
                               "<d type=\"weird\">1</d><e type=\"bool\">yes</e><f type=\"blob\">abc</f>"
                               "<g type=\"uint64\">-1</g><h type=\"int\">+</h><i type=\"int\"> -2147483648\n</i>"
                               "<j type=\"string\">" + std::string(8 << 20, 'A') + "</j></bag>";
    ASSERT_EQ(basekit::parse_variant_bag(bag, values, "bag"), 1);
    for (const char* name : {"a", "b", "c", "d", "e", "f", "g", "h"}) {
        const variant_t value = bag.get_variant(name, variant_t("absent"));
        EXPECT_TRUE(value.empty()) << name;
        EXPECT_FALSE(value.can_get<std::int32_t>() || value.can_get<const char*>()) << name;
    }
    EXPECT_EQ(bag.get_variant("i", variant_t()).get<std::int32_t>(), INT32_MIN);
    EXPECT_EQ(bag.get_variant("j", variant_t()).bytes().size(), std::size_t(8) << 20);
    write_file(dir / "file", "x");
    for (const std::string& bad : {dir / "missing.xml", dir.path()})  // a directory too
        EXPECT_EQ(basekit::load_variant_bag2(bag, bad, "bag", false), 0) << bad;
    for (const std::string& bad : {dir / "missing/f.xml", dir / "file/f.xml"})  // a file in the way
        EXPECT_EQ(basekit::save_variant_bag2(bag, bad, "bag"), 0) << bad;
}

TEST(variant_bag, a_process_killed_while_saving_leaves_the_old_or_the_new_file)
{
    temp_dir_t dir;
    const std::string path = dir / "state.xml";
    variant_bag_t old_bag, big;
    old_bag.put("V", variant_t("old"));
    big.put("V", variant_t("new"));
    big.put("padding", variant_t(std::string(1 << 20, 'p')));
    ASSERT_EQ(basekit::save_variant_bag2(old_bag, path, "bag"), 1);
    for (int round = 0; round < 20; ++round) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        while (child == 0)
            basekit::save_variant_bag2(big, path, "bag");
        ::usleep(1000 * (round % 5 + 1));
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        variant_bag_t seen;
        ASSERT_EQ(basekit::load_variant_bag2(seen, path, "bag", false), 1) << "round " << round;
        const std::string v = seen.get_variant("V", variant_t()).get<std::string>();
        EXPECT_TRUE(v == "old" || v == "new") << v;
    }
}

}  // namespace
