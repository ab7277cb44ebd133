// Locks: the table says what the kernel holds, conflicts between handles and between processes, waiting, giving up,
// deadlocks, and the texts. Method: handles are bare file_states that share one table; another process, driven through
// pipes, takes locks and asks the kernel what ours are. Traces are on; untraced() leaves the texts that are always told.
#include "../other_process.h"
#include "lock/lock_table.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

const int traces_on = setenv("VFS_DEBUG_LOCK", "1", 1); // before the first lock operation

class Lock : public testing::Test {
protected:
    Lock()
    {
        char name[] = "/tmp/lock_XXXXXX";
        close(mkstemp(name));
        path_ = name;
        fd_ = open(name, O_RDWR | O_CLOEXEC);
        a_ = b_ = c_ = handle();
        std::fflush(stderr);
        stderr_ = dup(2);
        told_ = open((path_ + ".told").c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
        dup2(told_, 2);
    }
    ~Lock() override
    {
        dup2(stderr_, 2);
        close(stderr_);
        close(told_);
        unlink((path_ + ".told").c_str());
        lock_table_free(shared_.lock_table);
        close(fd_);
        unlink(path_.c_str());
    }

    file_state handle()
    {
        file_state file{};
        file.path = path_.c_str();
        file.fd = fd_;
        file.file_lock_state = file_lock_none;
        file.single_record_lock.l_type = F_UNLCK;
        file.lock_defaults = {VFS_SHARE_ALL, VFS_LOCK_RECORD, VFS_LOCK_SEVERAL, 0, 0, VFS_WAIT_NEVER, 0, 0};
        file.shared = &shared_;
        return file;
    }
    static lock_target record(file_state &file, uint64_t start, bool write = true, uint64_t length = 10)
    {
        return {.file = &file, .kind = lock_record, .write = write, .start = start, .length = length};
    }
    static bool holds_record(file_state *file, uint64_t start, bool write)
    {
        lock_target held = record(*file, start, write);
        return lock_find_record(&held);
    }
    // 0 or more: waits; below 0: minus the error number.
    static int set(const lock_target &target)
    {
        const int waits = lock_set(target);
        return waits == -1 ? -errno : waits;
    }
    static int clear(const lock_target &target) { return lock_clr(target) == -1 ? -errno : 0; }

    std::string texts() // what was told since the last call, by whatever thread
    {
        std::string text(1 << 20, '\0');
        const ssize_t got = pread(told_, text.data(), text.size(), told_until_);
        text.resize(got > 0 ? size_t(got) : 0);
        told_until_ += off_t(text.size());
        return text;
    }
    std::string untraced() { return untraced(texts()); }
    static std::string untraced(const std::string &text)
    {
        std::istringstream lines(text);
        std::string kept, line;
        while (std::getline(lines, line)) {
            const bool trace = line.rfind(">> ", 0) == 0 || line.rfind("<< ", 0) == 0 || line.rfind("== ", 0) == 0 ||
                               line.rfind("fcntl(", 0) == 0 || line.find("due to lock conflict") != line.npos;
            if (!trace) kept += line + "\n";
        }
        return kept;
    }
    std::string refusal(uint64_t start, int64_t length, const char *type, pid_t other, uint64_t held_start,
                        int64_t held_length, const char *held_type) const
    {
        std::ostringstream text;
        text << "Lock request for me (pid " << getpid() << "):\n " << length << " @ 0x" << std::hex << start << std::dec
             << " for " << type << " on file " << path_ << "\nLock request for one other (pid " << other << "):\n "
             << held_length << " @ 0x" << std::hex << held_start << " for " << held_type << "\n";
        return text.str();
    }
    static size_t count(const std::string &text, const std::string &part)
    {
        size_t found = 0;
        for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++found;
        return found;
    }

    std::string path_;
    int fd_, stderr_, told_;
    off_t told_until_ = 0;
    shared_file_state shared_{};
    file_state a_, b_, c_;
};

TEST_F(Lock, TableAndKernelAgreeAfterEveryStep)
{
    other_process other(path_);
    std::mt19937 random(7101);
    file_state *const handles[] = {&a_, &b_, &c_};
    int granted = 0, released = 0;
    for (int step = 0; step < 1500; ++step) {
        lock_target target =
            record(*handles[random() % 3], random() % 6 * 10, random() % 3 == 0, (1 + random() % 3) * 10);
        if (random() % 4 == 0) target.kind = lock_block;
        if (random() % 12 == 0) target.kind = lock_file;
        target.try_only = true;
        const auto action = random() % 20;
        if (action < 10) {
            granted += set(target) == 0;
        } else if (action < 19) {
            released += clear(target) == 0;
        } else {
            ASSERT_EQ(lock_release_records(target.file), 0);
        }
        for (uint64_t cell = 0; cell < 9; ++cell) {
            const uint64_t at = cell * 10 + random() % 10;
            const uint32_t said =
                shared_.lock_table == nullptr ? F_UNLCK : first_piece(shared_.lock_table, {at, at}, false).type;
            ASSERT_EQ(other.type_at(at), said) << "step " << step << " byte " << at;
        }
    }
    EXPECT_GT(granted, 300);
    EXPECT_GT(released, 150);
    for (file_state *file : handles) lock_abandon(file);
    EXPECT_EQ(lock_count(&shared_), 0u);
    EXPECT_EQ(other.type_at(15), uint32_t{F_UNLCK});
}

TEST_F(Lock, OverlapIsNotContainmentAndConvertingCallsTheKernel)
{
    other_process other(path_);
    ASSERT_EQ(set(record(a_, 100, false)), 0);
    ASSERT_EQ(set(record(a_, 105, false)), 0);
    EXPECT_EQ(other.type_at(112), uint32_t{F_RDLCK});
    ASSERT_EQ(set(record(a_, 100, true)), 0);
    EXPECT_EQ(other.type_at(104), uint32_t{F_WRLCK});
    EXPECT_TRUE(holds_record(&a_, 100, true));
    EXPECT_FALSE(holds_record(&a_, 105, true));
    (void)texts();
    ASSERT_EQ(set(record(a_, 100, true)), 0); // held already
    EXPECT_EQ(count(texts(), "fcntl("), 0u);
    ASSERT_EQ(other.ask(F_SETLK, F_RDLCK, 112, 3), 0);
    EXPECT_EQ(set(record(a_, 105, true)), -EAGAIN);
    EXPECT_EQ(other.type_at(108), uint32_t{F_WRLCK}); // the refused conversion took nothing away
    EXPECT_EQ(other.type_at(111), uint32_t{F_RDLCK});
}

TEST_F(Lock, HandlesOfOneThreadGiveUpWhateverTheWaitMode)
{
    b_.lock_defaults.wait_mode = VFS_WAIT_KERNEL;
    ASSERT_EQ(set(record(a_, 0x100)), 0);
    EXPECT_EQ(set(record(b_, 0x104, false)), -EAGAIN);
    EXPECT_EQ(untraced(), refusal(0x104, 10, "Read", -1, 0x100, 10, "Write"));
    ASSERT_EQ(set(record(c_, 0x300, false)), 0); // File from 0 meets it all the same
    EXPECT_EQ(set({.file = &b_, .kind = lock_file, .write = true}), -EAGAIN);
    EXPECT_EQ(b_.file_lock_state, file_lock_none);
}

TEST_F(Lock, RefusalByAnotherProcessIsToldInFourLines)
{
    other_process other(path_);
    ASSERT_EQ(other.ask(F_SETLK, F_RDLCK, 0x200, 40), 0);
    EXPECT_EQ(set(record(a_, 0x200)), -EAGAIN);
    const std::string text = texts();
    EXPECT_EQ(untraced(text), refusal(0x200, 10, "Write", other.pid(), 0x200, 40, "Read"));
    EXPECT_NE(text.find(" Delaying due to lock conflict on file " + path_), text.npos);
    EXPECT_NE(text.find(" Failing due to lock conflict on file " + path_), text.npos);
    lock_target silent = record(a_, 0x200);
    silent.try_only = true;
    EXPECT_EQ(set(silent), -EAGAIN);
    EXPECT_EQ(untraced(), "");
    EXPECT_EQ(lock_count(&shared_), 0u);
    EXPECT_EQ(set(record(a_, 0x200, false)), 0);
}

TEST_F(Lock, RetriesAreCountedByThePolicyOfTheCall)
{
    other_process other(path_);
    ASSERT_EQ(other.ask(F_SETLK, F_WRLCK, 100, 10), 0);
    const struct {
        uint64_t retries;
        size_t attempts;
    } rows[] = {{0, 2}, {1, 2}, {3, 4}};
    for (const auto &row : rows) {
        const vfs_lock_request policy{0, 0, 0, 0, 0, VFS_WAIT_RETRY, row.retries, 0};
        lock_target target = record(a_, 100);
        target.policy = &policy;
        EXPECT_EQ(set(target), -EAGAIN);
        EXPECT_EQ(count(texts(), ">> Locking"), row.attempts);
    }
}

TEST_F(Lock, OnlyRecordsAndBlocksFillTheTable)
{
    for (uint64_t i = 0; i < lock_entries_at_most; ++i) ASSERT_EQ(set(record(a_, i * 10)), 0);
    a_.lock_defaults.wait_mode = VFS_WAIT_KERNEL; // never a wait: nobody would end it
    EXPECT_EQ(set(record(a_, 99990)), -ENOLCK);
    EXPECT_EQ(set({.file = &a_, .kind = lock_metadata, .write = true, .start = metadata_byte, .length = 1}), 0);
    EXPECT_EQ(set({.file = &a_, .kind = lock_file, .write = true}), 0);
    EXPECT_EQ(a_.file_lock_state, file_lock_write);
    EXPECT_EQ(clear(record(a_, 0)), 0);
    EXPECT_EQ(set(record(a_, 99990)), 0);
}

TEST_F(Lock, MissingEntryIsDumped)
{
    ASSERT_EQ(set(record(a_, 0x40, false)), 0);
    EXPECT_EQ(clear(record(a_, 0x80)), -ENOENT);
    const std::string text = untraced();
    EXPECT_EQ(text.rfind("Missing lock entry!\nLock Request @0x", 0), 0u) << text;
    EXPECT_NE(text.find("\n 10 @ 0x80 for Unlock on file " + path_ + "\nLock Table @0x"), text.npos) << text;
    EXPECT_NE(text.find(" entries=1/0 max=256 low 0x40 high 0x49\n [0]: 10 @ 0x40 for Record Read on file " + path_ +
                        "\nLock Entry @0x"),
              text.npos)
        << text;
    EXPECT_EQ(clear(record(b_, 0x40)), -ENOENT); // another handle's is none of ours
}

TEST_F(Lock, KernelWaitHoldsUpNobodyAndCountsAsHeld)
{
    other_process other(path_);
    ASSERT_EQ(other.ask(F_SETLK, F_WRLCK, 300, 10), 0);
    b_.lock_defaults.wait_mode = VFS_WAIT_KERNEL;
    std::atomic<int> result = -1;
    std::thread waiter([&] { result = set(record(b_, 300)); });
    for (bool pending = false; !pending; std::this_thread::yield()) {
        const lock_held held;
        const vfs_lock_table *table = shared_.lock_table;
        pending = table != nullptr && table->in_use == 1 && table->entries[0].pending;
    }
    EXPECT_EQ(set(record(a_, 500)), 0); // would hang if the mutex were held
    EXPECT_EQ(clear(record(a_, 500)), 0);
    lock_target same = record(a_, 300);
    same.try_only = true;
    EXPECT_EQ(set(same), -EAGAIN);
    EXPECT_EQ(other.ask(F_SETLK, F_UNLCK, 300, 10), 0);
    waiter.join();
    EXPECT_GE(result, 0);
    EXPECT_EQ(other.type_at(305), uint32_t{F_WRLCK});
    EXPECT_NE(texts().find(" Resuming access to file " + path_), std::string::npos);
}

TEST_F(Lock, CircleOfHandlesIsADeadlockForOneOfThem)
{
    file_state *const handles[] = {&a_, &b_, &c_};
    for (const size_t count : {size_t{2}, size_t{3}}) {
        std::atomic<size_t> ready = 0;
        std::vector<int> results(count, -1);
        std::vector<std::thread> threads;
        for (size_t i = 0; i < count; ++i)
            threads.emplace_back([&, i] {
                handles[i]->lock_defaults.wait_mode = VFS_WAIT_KERNEL;
                EXPECT_EQ(set(record(*handles[i], 100 * i)), 0);
                ++ready;
                while (ready < count) std::this_thread::yield();
                results[i] = set(record(*handles[i], 100 * ((i + 1) % count)));
                // The loser has given up its record; the others have two, one after the other.
                EXPECT_EQ(holds_record(handles[i], 100 * i, true), results[i] >= 0);
                EXPECT_EQ(lock_release_records(handles[i]), 0);
            });
        for (std::thread &thread : threads) thread.join();
        EXPECT_EQ(std::count(results.begin(), results.end(), -EDEADLK), 1) << count;
        EXPECT_EQ(std::count_if(results.begin(), results.end(), [](int result) { return result >= 0; }),
                  static_cast<long>(count) - 1);
        EXPECT_EQ(lock_count(&shared_), 0u);
    }
}

TEST_F(Lock, WhoDoesNotWaitIsInNoCircle)
{
    a_.lock_defaults.wait_mode = VFS_WAIT_KERNEL;
    EXPECT_EQ(set(record(b_, 200)), 0);
    std::atomic<int> result = -1;
    std::thread waiter([&] {
        EXPECT_EQ(set(record(a_, 100)), 0);
        result = set(record(a_, 200));
    });
    while (count(texts(), " Delaying due to") == 0) std::this_thread::yield();
    EXPECT_EQ(set(record(b_, 100)), -EAGAIN); // and keeps what it has
    EXPECT_TRUE(holds_record(&b_, 200, true));
    EXPECT_EQ(clear(record(b_, 200)), 0);
    waiter.join();
    EXPECT_GE(result, 1);
}

bool is_blocked(pid_t pid) // as the kernel tells: a waiter has an arrow
{
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);)
        if (line.find("->") != line.npos && line.find(" " + std::to_string(pid) + " ") != line.npos) return true;
    return false;
}

TEST_F(Lock, DeadlockBetweenProcessesReleasesTheRecords)
{
    other_process other(path_);
    a_.lock_defaults.wait_mode = VFS_WAIT_KERNEL;
    ASSERT_EQ(set(record(a_, 100)), 0);
    ASSERT_EQ(other.ask(F_SETLK, F_WRLCK, 200, 10), 0);
    other.send(F_SETLKW, F_WRLCK, 100, 10);
    while (!is_blocked(other.pid())) std::this_thread::yield();
    EXPECT_EQ(set(record(a_, 200)), -EDEADLK);
    EXPECT_EQ(other.answer(), 0); // it goes on
    EXPECT_EQ(untraced(), "Record Write Lock deadlock detected on file(" + path_ + "): size 10 @0xc8\n");
    EXPECT_EQ(lock_count(&shared_), 0u);
}

// To the kernel all threads of a process are one: it sees a circle where only another thread has what is waited for.
TEST_F(Lock, AThreadThatHoldsNothingIsInNoDeadlock)
{
    other_process other(path_);
    b_.lock_defaults.wait_mode = VFS_WAIT_KERNEL;
    ASSERT_EQ(set(record(a_, 100)), 0);
    ASSERT_EQ(other.ask(F_SETLK, F_WRLCK, 200, 10), 0);
    other.send(F_SETLKW, F_WRLCK, 100, 10);
    while (!is_blocked(other.pid())) std::this_thread::yield();
    (void)texts();
    std::atomic<int> result = -1;
    std::thread waiter([&] { result = set(record(b_, 200)); });
    std::string told;
    while (count(told, "=-1 " + std::to_string(EDEADLK)) == 0) told += texts();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(clear(record(a_, 100)), 0);
    EXPECT_EQ(other.answer(), 0);
    EXPECT_EQ(other.ask(F_SETLK, F_UNLCK, 0, 0), 0);
    waiter.join();
    EXPECT_GE(result, 1);
    EXPECT_EQ((told + texts()).find("deadlock"), std::string::npos);
}

} // namespace
