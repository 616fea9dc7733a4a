#include <gtest/gtest.h>

#include "usemeter/path.hpp"

namespace {

using basekit::path_t;

TEST(path, change_ext_replaces_only_the_last_extension_of_the_last_component)
{
    const std::pair<const char*, const char*> rows[] = {
        {"/tmp/uuid-4711-1.txt", "/tmp/uuid-4711-1.lock"},
        {"/tmp/archive.tar.gz", "/tmp/archive.tar.lock"},
        {"/tmp/noext", "/tmp/noext.lock"},
        {"/tmp/.hidden", "/tmp/.hidden.lock"},
        {"/a.d/file", "/a.d/file.lock"},
        {"relative.xml", "relative.lock"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(path_t(row.first).change_ext("lock").as_string(false), row.second) << row.first;
}

TEST(path, append_joins_with_single_separators_and_only_real_paths_exist)
{
    EXPECT_EQ(path_t("").append("norvel").as_string(), "norvel");
    EXPECT_EQ(path_t("/h").append("norvel").append("orb").as_string(), "/h/norvel/orb");
    EXPECT_EQ(path_t("/h/").append("/x").as_string(), "/h/x");
    EXPECT_TRUE(path_t("/").is_exists());
    EXPECT_FALSE(path_t("/no/such/usemeter/path").is_exists() || path_t("").is_exists());
    EXPECT_TRUE(path_t(static_cast<const char*>(nullptr)).empty());
}

}  // namespace
