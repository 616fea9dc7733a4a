#include <gtest/gtest.h>

#include <csignal>
#include <iterator>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

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

TEST(filelock, excludes_another_process_and_a_dead_holders_file_blocks_until_deleted)
{
    temp_dir_t dir;
    const std::string guarded = dir / "state.xml";
    for (const bool kill_holder : {false, true}) {
        int report[2], release[2];
        ASSERT_TRUE(::pipe(report) == 0 && ::pipe(release) == 0);
        const pid_t holder = ::fork();
        ASSERT_GE(holder, 0);
        if (holder == 0) {  // takes the lock, says so and holds it until its pipe closes
            ::close(release[1]);
            filelock_t lock(guarded);
            char taken = lock.lock() ? '1' : '0';
            if (::write(report[1], &taken, 1) != 1 || ::read(release[0], &taken, 1) < 0)
                ::_exit(3);
            lock.unlock();
            ::_exit(0);
        }
        ::close(report[1]);
        ::close(release[0]);
        char taken = 0;
        EXPECT_EQ(::read(report[0], &taken, 1), 1);
        EXPECT_EQ(taken, '1');
        filelock_t lock(guarded);
        EXPECT_FALSE(lock.lock()) << "kill_holder " << kill_holder;
        if (kill_holder)
            ::kill(holder, SIGKILL);
        ::close(release[1]);
        ASSERT_EQ(::waitpid(holder, nullptr, 0), holder);
        ::close(report[0]);
        if (kill_holder) {
            EXPECT_FALSE(lock.lock()) << "a stale lock file is never broken";
            ASSERT_EQ(::unlink((dir / "state.lock").c_str()), 0);
        }
        EXPECT_TRUE(lock.lock()) << "kill_holder " << kill_holder;
    }
}

}  // namespace
