#include <gtest/gtest.h>

#include <iterator>
#include <memory>
#include <string>

#include <boost/filesystem.hpp>

#include "support/temp_home.hpp"
#include "usemeter/sys/filelock.hpp"

namespace {

using usemeter_1_5_7::filelock_t;
using namespace usemeter_test;

std::ptrdiff_t count_entries(const std::string& dir)
{
    return std::distance(boost::filesystem::directory_iterator(dir), {});
}

TEST(filelock, an_empty_file_beside_the_guarded_one_that_only_its_holder_removes)
{
    temp_dir_t dir;
    const std::string guarded = dir / "state.xml", lock_file = dir / "state.lock";
    filelock_t first(guarded);
    auto second = std::make_unique<filelock_t>(guarded);
    EXPECT_FALSE(file_exists(lock_file));  // construction touches nothing
    const std::ptrdiff_t descriptors = count_entries("/proc/self/fd");
    ASSERT_TRUE(first.lock());
    EXPECT_TRUE(first.lock());  // taking a held lock again is harmless
    EXPECT_EQ(count_entries("/proc/self/fd"), descriptors);
    EXPECT_TRUE(file_exists(lock_file) && read_file(lock_file).empty());
    EXPECT_EQ(count_entries(dir.path()), 1);

    EXPECT_FALSE(second->lock());
    EXPECT_FALSE(second->is_locked());
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

// A lock file left by a dead process blocks every later holder until someone deletes it: the
// active-user detector's tests show that side.
TEST(filelock, fails_without_creating_a_missing_or_blocked_directory)
{
    temp_dir_t dir;
    write_file(dir / "file", "");
    for (const std::string& guarded : {dir / "missing/state.xml", dir / "file/state.xml"}) {
        filelock_t lock(guarded);
        EXPECT_FALSE(lock.lock()) << guarded;
        EXPECT_FALSE(lock.is_locked());
    }
    EXPECT_FALSE(file_exists(dir / "missing"));
}

}  // namespace
