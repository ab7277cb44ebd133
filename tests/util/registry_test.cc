// The registry: entries by inode, warnings, descriptors that stay open until the last handle goes, forked children.
// Method: handles are bare file_states on scratch files; a forked child asks the kernel what locks the parent holds.
#include "file/registry.h"
#include "lock/lock.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class Registry : public testing::Test {
protected:
    Registry()
    {
        char name[] = "/tmp/registry_XXXXXX";
        close(mkstemp(name));
        path_ = name;
    }
    ~Registry() override { unlink(path_.c_str()); }

    file_state opened(const std::string &path, bool read_only = false)
    {
        file_state file{};
        file.path = path.c_str();
        file.kind_flags = kind_regular;
        file.mode_flags = read_only ? mode_read_only : 0;
        file.file_lock_state = file_lock_none;
        file.single_record_lock.l_type = F_UNLCK;
        file.lock_defaults.lock_flags = VFS_LOCK_SEVERAL;
        file.fd = registry_open(path.c_str(), read_only ? O_RDONLY : O_RDWR, 0666);
        EXPECT_NE(file.fd, -1);
        return file;
    }
    // Does another process see a lock of this one at the offset?
    bool locked_for_others(uint64_t offset) const
    {
        const pid_t child = fork();
        if (child == 0) {
            struct flock probe = {};
            probe.l_type = F_WRLCK;
            probe.l_start = static_cast<off_t>(offset);
            probe.l_len = 1;
            const int fd = open(path_.c_str(), O_RDWR);
            _exit(fcntl(fd, F_GETLK, &probe) == 0 && probe.l_type == F_UNLCK ? 0 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        return WEXITSTATUS(status) == 1;
    }

    std::string path_;
};

TEST_F(Registry, WarnsOfRiskyMultipleOpensByTheResolvedName)
{
    const std::string link = path_ + ".link";
    ASSERT_EQ(symlink(path_.c_str(), link.c_str()), 0);
    file_state first = opened(path_), second = opened(link), third = opened(path_, true);
    testing::internal::CaptureStderr();
    ASSERT_EQ(registry_add(&first, nullptr), 0);
    ASSERT_EQ(registry_add(&second, nullptr), 0);
    const std::string write_mode = "Warning:  File " + path_ + " opened multiple times in write mode(";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), write_mode + "2: r/o 0, r/w 2), corruption is likely!\n");
    testing::internal::CaptureStderr();
    ASSERT_EQ(registry_add(&third, nullptr), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Warning:  File " + path_ +
                  " opened multiple times, in mixed modes(3: r/o 1, r/w 2), results are "
                  "unpredictable!\n" +
                  write_mode + "3: r/o 1, r/w 2), corruption is likely!\n");
    EXPECT_EQ(first.shared, second.shared);
    EXPECT_EQ(registry_handles(&first), 3u);
    for (file_state *file : {&first, &second, &third}) EXPECT_EQ(registry_release(file, nullptr), 0);
    EXPECT_EQ(registry_release(&first, nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    unlink(link.c_str());
}

TEST_F(Registry, ClosingAHandleKeepsTheLocksOfTheOther)
{
    testing::internal::CaptureStderr();
    file_state keeper = opened(path_), leaver = opened(path_);
    ASSERT_EQ(registry_add(&keeper, nullptr), 0);
    ASSERT_EQ(registry_add(&leaver, nullptr), 0);
    ASSERT_EQ(lock_set({.file = &keeper, .kind = lock_record, .write = true, .start = 100, .length = 8}), 0);
    ASSERT_EQ(lock_set({.file = &leaver, .kind = lock_record, .write = true, .start = 200, .length = 8}), 0);
    const int parked = leaver.fd;
    EXPECT_EQ(registry_release(&leaver, nullptr), 1); // one other handle, and locks
    EXPECT_EQ(leaver.fd, -1);
    EXPECT_TRUE(locked_for_others(100));
    EXPECT_FALSE(locked_for_others(200)); // what the handle still held went with it
    const int failed_open = open(path_.c_str(), O_RDONLY);
    registry_discard(failed_open);
    char peeked[8];
    ssize_t got = -1;
    EXPECT_TRUE(registry_peek(path_.c_str(), peeked, sizeof peeked, &got));
    EXPECT_EQ(got, 0);
    EXPECT_TRUE(locked_for_others(100));
    EXPECT_EQ(registry_take_descriptor(path_.c_str(), O_RDWR | O_CREAT | O_EXCL), -1);
    bool taken = false;
    EXPECT_EQ(registry_open(path_.c_str(), O_RDWR, 0666, &taken), parked);
    EXPECT_TRUE(taken);
    EXPECT_EQ(registry_take_descriptor(path_.c_str(), O_RDWR), -1); // only one was parked
    registry_discard(parked);
    EXPECT_EQ(registry_release(&keeper, nullptr), 0);
    EXPECT_EQ(fcntl(parked, F_GETFD), -1);
    EXPECT_EQ(fcntl(failed_open, F_GETFD), -1);
    EXPECT_FALSE(registry_peek(path_.c_str(), peeked, sizeof peeked, &got));
    testing::internal::GetCapturedStderr();
}

TEST_F(Registry, ReplacedFileUnderTheSamePathIsAnotherFile)
{
    file_state old = opened(path_);
    ASSERT_EQ(registry_add(&old, nullptr), 0);
    ASSERT_EQ(unlink(path_.c_str()), 0);
    close(open(path_.c_str(), O_RDWR | O_CREAT, 0666));
    file_state anew = opened(path_);
    ASSERT_EQ(registry_add(&anew, nullptr), 0);
    EXPECT_NE(old.shared, anew.shared);
    EXPECT_EQ(registry_release(&old, nullptr), 0);
    EXPECT_EQ(registry_release(&anew, nullptr), 0);
}

} // namespace
