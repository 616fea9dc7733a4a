#include <gtest/gtest.h>

#include "usemeter/path.hpp"

namespace {

struct ext_case {
    const char* path;
    const char* expected;
};

TEST(path, change_ext_replaces_only_the_last_extension_of_the_last_component)
{
    const ext_case cases[] = {
        {"/h/norvel/p/last_active_dates.xml", "/h/norvel/p/last_active_dates.lock"},
        {"/tmp/uuid-4711-1.txt", "/tmp/uuid-4711-1.lock"},
        {"/tmp/archive.tar.gz", "/tmp/archive.tar.lock"},
        {"/tmp/noext", "/tmp/noext.lock"},
        {"/tmp/.hidden", "/tmp/.hidden.lock"},
        {"/a.d/file", "/a.d/file.lock"},
        {"relative.xml", "relative.lock"},
    };
    for (const ext_case& c : cases) {
        basekit::path_t path(c.path);
        EXPECT_EQ(path.change_ext("lock").as_string(false), c.expected) << c.path;
    }
}

TEST(path, append_joins_with_single_separators)
{
    EXPECT_EQ(basekit::path_t("").append("norvel").as_string(), "norvel");
    EXPECT_EQ(basekit::path_t("/h").append("norvel").append("orb").as_string(), "/h/norvel/orb");
    EXPECT_EQ(basekit::path_t("/h/").append("x").as_string(), "/h/x");
    EXPECT_EQ(basekit::path_t("/h/").append("/x").as_string(), "/h/x");
}

TEST(path, existence_and_emptiness)
{
    EXPECT_TRUE(basekit::path_t("/").is_exists());
    EXPECT_FALSE(basekit::path_t("/no/such/usemeter/path").is_exists());
    EXPECT_FALSE(basekit::path_t("").is_exists());
    EXPECT_TRUE(basekit::path_t(static_cast<const char*>(nullptr)).empty());
}

}  // namespace
