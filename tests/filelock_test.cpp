#include <gtest/gtest.h>

#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/temp_home.hpp"
#include "usemeter/filelock.hpp"

namespace {

using usemeter_1_5_7::filelock_t;
using usemeter_test::file_exists;
using usemeter_test::temp_dir_t;
using usemeter_test::write_file;

int count_entries(const std::string& dir)
{
    int count = 0;
    if (DIR* listing = ::opendir(dir.c_str())) {
        while (const dirent* entry = ::readdir(listing))
            count += entry->d_name[0] != '.';
        ::closedir(listing);
    }
    return count;
}

// True when one of the process's descriptors refers to the file (same device and inode).
bool descriptor_open_on(const std::string& path)
{
    struct stat wanted, open_file;
    DIR* fds = ::opendir("/proc/self/fd");
    if (!fds || ::stat(path.c_str(), &wanted) != 0) {
        ADD_FAILURE() << "cannot inspect descriptors of " << path;
        if (fds)
            ::closedir(fds);
        return false;
    }
    bool found = false;
    while (const dirent* entry = ::readdir(fds)) {
        const std::string link = std::string("/proc/self/fd/") + entry->d_name;
        if (::stat(link.c_str(), &open_file) == 0 && open_file.st_dev == wanted.st_dev &&
            open_file.st_ino == wanted.st_ino)
            found = true;
    }
    ::closedir(fds);
    return found;
}

TEST(filelock, lock_file_sits_beside_the_guarded_file_empty_and_without_open_descriptor)
{
    temp_dir_t dir;
    const std::string lock_file = dir / "last_active_dates.lock";
    filelock_t lock(dir / "last_active_dates.xml");
    EXPECT_FALSE(lock.is_locked());
    EXPECT_FALSE(file_exists(lock_file));  // construction touches nothing

    ASSERT_TRUE(lock.lock());
    EXPECT_TRUE(lock.is_locked());
    EXPECT_TRUE(lock.lock());  // taking a held lock again is harmless
    struct stat info;
    ASSERT_EQ(::stat(lock_file.c_str(), &info), 0);
    EXPECT_EQ(info.st_size, 0);
    EXPECT_EQ(count_entries(dir.path()), 1);
    EXPECT_FALSE(descriptor_open_on(lock_file));
    const int probe = ::open(lock_file.c_str(), O_RDONLY);  // the check itself can see one
    EXPECT_TRUE(descriptor_open_on(lock_file));
    ::close(probe);

    lock.unlock();
    EXPECT_FALSE(lock.is_locked());
    EXPECT_FALSE(file_exists(lock_file));
    lock.unlock();  // no-op when not held
}

TEST(filelock, excludes_a_second_holder_until_released_or_destroyed)
{
    temp_dir_t dir;
    const std::string guarded = dir / "state.xml";
    auto first = std::make_unique<filelock_t>(guarded);
    filelock_t second(guarded);
    ASSERT_TRUE(first->lock());
    EXPECT_FALSE(second.lock());
    EXPECT_FALSE(second.is_locked());

    second.unlock();  // a non-holder must not delete the holder's file
    EXPECT_TRUE(file_exists(dir / "state.lock"));
    {
        filelock_t bystander(guarded);
        EXPECT_FALSE(bystander.lock());
    }  // destroying a non-holder leaves the file too
    EXPECT_TRUE(file_exists(dir / "state.lock"));

    first.reset();  // destroying the holder releases
    EXPECT_FALSE(file_exists(dir / "state.lock"));
    EXPECT_TRUE(second.lock());
}

TEST(filelock, fails_without_creating_a_missing_or_blocked_directory)
{
    temp_dir_t dir;
    write_file(dir / "file", "");
    const std::string cases[] = {dir / "missing/state.xml", dir / "file/state.xml"};
    for (const std::string& guarded : cases) {
        filelock_t lock(guarded);
        EXPECT_FALSE(lock.lock()) << guarded;
        EXPECT_FALSE(lock.is_locked());
    }
    EXPECT_FALSE(file_exists(dir / "missing"));
}

// Child that takes the lock, reports the outcome through `report` and, unless it is told to
// die holding it, waits until the parent closes `release`.
pid_t spawn_holder(const std::string& guarded, const int (&report)[2], const int (&release)[2],
                   bool die_holding)
{
    const pid_t child = ::fork();
    if (child != 0)
        return child;
    ::close(report[0]);
    ::close(release[1]);
    filelock_t lock(guarded);
    const char taken = lock.lock() ? '1' : '0';
    if (::write(report[1], &taken, 1) != 1)
        ::_exit(2);
    if (die_holding)
        ::raise(SIGKILL);
    char ignored;
    if (::read(release[0], &ignored, 1) < 0)
        ::_exit(3);
    lock.unlock();
    ::_exit(0);
}

TEST(filelock, excludes_another_process_and_a_dead_holder_blocks_until_the_file_is_deleted)
{
    temp_dir_t dir;
    const std::string guarded = dir / "state.xml";
    for (const bool die_holding : {false, true}) {
        int report[2], release[2];
        ASSERT_EQ(::pipe(report), 0);
        ASSERT_EQ(::pipe(release), 0);
        const pid_t child = spawn_holder(guarded, report, release, die_holding);
        ASSERT_GT(child, 0);
        ::close(report[1]);
        ::close(release[0]);

        char taken = 0;
        EXPECT_EQ(::read(report[0], &taken, 1), 1);
        EXPECT_EQ(taken, '1');
        filelock_t lock(guarded);
        EXPECT_FALSE(lock.lock()) << "die_holding " << die_holding;

        ::close(release[1]);  // end of file lets a live holder release and exit
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ::close(report[0]);
        if (die_holding) {
            EXPECT_TRUE(WIFSIGNALED(status));
            EXPECT_FALSE(lock.lock()) << "a stale lock file is never broken";
            ASSERT_EQ(::unlink((dir / "state.lock").c_str()), 0);
        } else {
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        }
        EXPECT_TRUE(lock.lock()) << "die_holding " << die_holding;
    }
}

}  // namespace
