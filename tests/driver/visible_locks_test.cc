// Locks as the kernel has them: the byte range and type of every kind, and its release, observed from another process
// with F_GETLK while this one works through the driver; what it waits for is read from the system's list of locks. The
// test itself never opens the file: closing it would drop every lock of the process.
#include "../other_process.h"
#include "checker.h"
#include "host.h"
#include "processes.h"

#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace {

using namespace host;

constexpr uint64_t exclusive_byte = 0x1900000000, metadata_byte = 0x3200000000, end_of_offsets = INT64_MAX;

struct seen_lock {
    short type = F_UNLCK;
    uint64_t start = 0, length = 0;
    pid_t holder = 0;
    bool operator==(const seen_lock &) const = default;
};

std::ostream &operator<<(std::ostream &out, const seen_lock &lock)
{
    const char *type = lock.type == F_UNLCK ? "none" : lock.type == F_RDLCK ? "read" : "write";
    return out << type << " at " << lock.start << " for " << lock.length << " of " << lock.holder;
}

class observer : public other_process {
public:
    using other_process::other_process;

    // The first lock that would keep a write lock on the range out.
    seen_lock first(uint64_t start = 0, uint64_t length = 0)
    {
        const struct flock found = in_the_way(F_WRLCK, start, length);
        if (found.l_type == F_UNLCK) return {};
        return {found.l_type, static_cast<uint64_t>(found.l_start), static_cast<uint64_t>(found.l_len), found.l_pid};
    }
    // Every lock of the file, by walking over what was found.
    std::vector<seen_lock> all()
    {
        std::vector<seen_lock> found;
        for (uint64_t at = 0; at < end_of_offsets;) {
            const seen_lock next = lowest(at);
            if (next.type == F_UNLCK) break;
            found.push_back(next);
            if (next.length == 0) break;
            at = next.start + next.length;
        }
        return found;
    }
    bool take(short type, uint64_t start, uint64_t length) { return ask(F_SETLK, type, start, length) == 0; }

private:
    // The kernel tells some conflicting lock: the range is narrowed until there is none below it.
    seen_lock lowest(uint64_t from)
    {
        seen_lock found = first(from, 0);
        while (found.type != F_UNLCK && found.start > from) {
            const seen_lock below = first(from, found.start - from);
            if (below.type == F_UNLCK) break;
            found = below;
        }
        return found;
    }
};

class VisibleLocks : public DriverTest {
protected:
    VisibleLocks() { variables.set("VFS_LOCK", "9"); } // as the program asks

    file_spec spec(uint32_t lock_mode, uint32_t flags = O_RDWR, uint32_t lock_flags = 0,
                   uint32_t organization = 3) const
    {
        file_spec wanted =
            organization == 3 ? indexed(path(), {key{{{0, 8}}}}, 600) : flat(path(), VFS_FORMAT_VARIABLE, 600);
        wanted.flags = flags;
        wanted.locks = locks_of(lock_mode);
        wanted.locks->lock_flags = lock_flags;
        return wanted;
    }
    void make(uint32_t organization = 3)
    {
        ASSERT_EQ(in_child([&]() -> std::string {
                      file made(spec(VFS_LOCK_RECORD, O_RDWR | O_CREAT, 0, organization));
                      for (int64_t i = 0; i < 40; ++i)
                          if (made.write(numbered("%08ld", i) + std::string(500, 'r')).value == -1) return "write";
                      return made.close() == 0 ? "" : "close";
                  }),
                  "");
    }
    static place at(int64_t number) { return by_key(numbered("%08ld", number)); }
    static constexpr uint64_t slot_bytes = 512 + 40; // 508 bytes of record in whole words, frame and trailer
    static seen_lock mine(short type, uint64_t start, uint64_t length) { return {type, start, length, getpid()}; }
};

TEST_F(VisibleLocks, ExclusiveUseAndTheWholeFile)
{
    make();
    observer kernel(path());
    file update(spec(VFS_LOCK_FILE));
    ASSERT_TRUE(update.ok());
    EXPECT_EQ(kernel.first(exclusive_byte, 1), mine(F_WRLCK, 0, 0)); // the kernel joins what lies side by side
    EXPECT_EQ(kernel.all(), (std::vector{mine(F_WRLCK, 0, 0)}));
    EXPECT_EQ(update.run(operation::unlock, first()).value, 0);
    EXPECT_EQ(kernel.all(), (std::vector{mine(F_WRLCK, exclusive_byte, 1)}));
    EXPECT_EQ(update.run(operation::lock, first()).value, 0);
    EXPECT_EQ(kernel.all(), (std::vector{mine(F_WRLCK, 0, 0)}));
    EXPECT_EQ(update.close(), 0);
    EXPECT_TRUE(kernel.all().empty());

    file reader(spec(VFS_LOCK_FILE, O_RDONLY));
    ASSERT_TRUE(reader.ok());
    EXPECT_EQ(kernel.all(), (std::vector{mine(F_RDLCK, 0, 0)}));
    EXPECT_EQ(reader.close(), 0);
    EXPECT_TRUE(kernel.all().empty());
}

TEST_F(VisibleLocks, OneRecordOrSeveral)
{
    make();
    observer kernel(path());
    const vfs_lock_request held = asking(VFS_WAIT_NEVER);
    file one(spec(VFS_LOCK_RECORD));
    const outcome first_read = one.read(at(3), &held);
    ASSERT_EQ(first_read.value, 508);
    EXPECT_EQ(kernel.all(), (std::vector{mine(F_WRLCK, first_read.offset, slot_bytes)}));
    const outcome second_read = one.read(at(30), &held); // the one lock moves
    EXPECT_EQ(kernel.all(), (std::vector{mine(F_WRLCK, second_read.offset, slot_bytes)}));
    EXPECT_EQ(one.run(operation::unlock, current()).value, 0);
    EXPECT_TRUE(kernel.all().empty());
    ASSERT_EQ(one.read(at(4)).value, 508); // not held
    EXPECT_TRUE(kernel.all().empty());
    EXPECT_EQ(one.close(), 0);

    file several(spec(VFS_LOCK_RECORD, O_RDWR, VFS_LOCK_SEVERAL));
    std::vector<seen_lock> expected;
    for (const int64_t number : {3, 10, 20})
        expected.push_back(mine(F_WRLCK, several.read(at(number), &held).offset, slot_bytes));
    EXPECT_EQ(kernel.all(), expected);
    // Side by side the kernel has one lock of both.
    const outcome beside = several.read(at(11), &held);
    expected[1].length += slot_bytes;
    ASSERT_EQ(beside.offset, expected[1].start + slot_bytes);
    EXPECT_EQ(kernel.all(), expected);
    EXPECT_EQ(several.run(operation::unlock, current()).value, 0);
    EXPECT_TRUE(kernel.all().empty());
    EXPECT_EQ(several.close(), 0);
}

TEST_F(VisibleLocks, HandlesOfOneProcessKeepTheirOwn)
{
    make();
    observer kernel(path());
    const vfs_lock_request held = asking(VFS_WAIT_NEVER);
    file first_reader(spec(VFS_LOCK_RECORD, O_RDONLY)), second_reader(spec(VFS_LOCK_RECORD, O_RDONLY));
    const uint64_t offset = first_reader.read(at(5), &held).offset;
    ASSERT_EQ(second_reader.read(at(5), &held).offset, offset);
    const std::vector both{mine(F_RDLCK, offset, slot_bytes)};
    EXPECT_EQ(kernel.all(), both);
    {
        file writer(spec(VFS_LOCK_RECORD));
        (void)printed(); // the warnings of several opens
        EXPECT_TRUE(writer.read(at(5), &held).failed(EAGAIN));
        EXPECT_NE(printed().find("Lock request for one other (pid -1)"), std::string::npos);
        const uint64_t other = writer.read(at(25), &held).offset;
        EXPECT_EQ(kernel.all(), (std::vector{both[0], mine(F_WRLCK, other, slot_bytes)}));
        EXPECT_EQ(writer.close(), 0); // the others' descriptors stay open, and with them their locks
    }
    EXPECT_EQ(kernel.all(), both);
    EXPECT_EQ(first_reader.run(operation::unlock, current()).value, 0);
    EXPECT_EQ(kernel.all(), both);
    EXPECT_EQ(first_reader.close(), 0);
    EXPECT_EQ(kernel.all(), both);
    EXPECT_EQ(second_reader.close(), 0);
    EXPECT_TRUE(kernel.all().empty());
    // When a reader's lock is gone the same process can have a stronger one there.
    file alone(spec(VFS_LOCK_RECORD));
    EXPECT_EQ(alone.read(at(5), &held).offset, offset);
    EXPECT_EQ(kernel.all(), (std::vector{mine(F_WRLCK, offset, slot_bytes)}));
    EXPECT_EQ(alone.close(), 0);
}

TEST_F(VisibleLocks, TheBlockOfTheCurrentRecord)
{
    make();
    observer kernel(path());
    file update(spec(VFS_LOCK_AUTO));
    std::optional<uint64_t> before;
    for (const int64_t number : {0, 1, 20, 39}) {
        const uint64_t block = update.read(at(number)).offset / 4096 * 4096;
        EXPECT_EQ(kernel.all(), (std::vector{mine(F_WRLCK, block, 4096)})) << number;
        before = block;
    }
    ASSERT_GE(update.rewrite(numbered("%08ld", 2) + std::string(500, 'n'), at(2)).value, 0);
    EXPECT_EQ(kernel.all().size(), 1U);
    EXPECT_NE(kernel.all()[0].start, *before);
    EXPECT_EQ(update.run(operation::unlock, first()).value, 0);
    EXPECT_TRUE(kernel.all().empty());
    ASSERT_GE(update.read(at(7)).value, 0);
    EXPECT_EQ(kernel.all().size(), 1U);
    EXPECT_EQ(update.close(), 0);
    EXPECT_TRUE(kernel.all().empty());
}

// The new place is locked before the operation is in the file, the old one given up after that: where it fails, the
// host has the lock that it had.
TEST_F(VisibleLocks, AFailedMoveLeavesTheLockWhereTheRecordIs)
{
    make();
    observer kernel(path());
    const vfs_lock_request held = asking(VFS_WAIT_NEVER);
    for (const uint32_t flags : {0U, uint32_t{VFS_LOCK_SEVERAL}}) {
        file one(spec(VFS_LOCK_RECORD, O_RDWR, flags));
        const uint64_t offset = one.read(at(3), &held).offset;
        const std::vector before{mine(F_WRLCK, offset, slot_bytes)};
        ASSERT_EQ(kernel.all(), before);
        const std::string longer = numbered("%08ld", 3) + std::string(560, 'm');
        rlimit limit{}, none_left{};
        getrlimit(RLIMIT_FSIZE, &limit);
        none_left = limit;
        none_left.rlim_cur = 4096;
        setrlimit(RLIMIT_FSIZE, &none_left);
        const outcome failed = one.run(operation::rewrite, at(3), longer, &held);
        setrlimit(RLIMIT_FSIZE, &limit);
        EXPECT_TRUE(failed.failed(EFBIG)) << failed;
        EXPECT_EQ(kernel.all(), before);
        EXPECT_GE(one.run(operation::rewrite, at(3), longer, &held).value, 0);
        const std::vector<seen_lock> moved = kernel.all();
        ASSERT_EQ(moved.size(), 1U);
        EXPECT_NE(moved[0].start, offset);
        EXPECT_EQ(one.run(operation::unlock, first()).value, 0);
        EXPECT_TRUE(kernel.all().empty());
        EXPECT_GE(one.rewrite(numbered("%08ld", 3) + std::string(500, 'r'), at(3)).value, 0);
        ASSERT_GE(one.erase(at(3)).value, 0);
        ASSERT_GE(one.write(numbered("%08ld", 3) + std::string(500, 'r')).value, 0);
        EXPECT_EQ(one.close(), 0);
    }
}

// What a process waits for, from the system's list: the line of a waiter begins with "->" behind its number.
seen_lock awaited_by(pid_t process)
{
    for (const int64_t until = now_ns() + 20'000'000'000; now_ns() < until; poll(nullptr, 0, 1)) {
        std::ifstream locks{"/proc/locks"};
        for (std::string line; std::getline(locks, line);) {
            std::istringstream words(line);
            std::string number, arrow, family, kind, type, id, device, start, end;
            words >> number >> arrow >> family >> kind >> type >> id >> device >> start >> end;
            if (arrow != "->" || id != std::to_string(process)) continue;
            const uint64_t from = std::stoull(start);
            return {static_cast<short>(type == "READ" ? F_RDLCK : F_WRLCK), from,
                    end == "EOF" ? 0 : std::stoull(end) - from + 1, process};
        }
    }
    return {};
}

struct bracket_case {
    const char *name;
    uint32_t organization;
    bool writes;
    seen_lock expected;
};

class MetadataLock : public VisibleLocks, public ::testing::WithParamInterface<bracket_case> {};

TEST_P(MetadataLock, BracketsEveryOperation)
{
    const bracket_case &one = GetParam();
    make(one.organization);
    observer holder(path());
    shared_memory<pid_t> id;
    gate opened, go;
    child worker([&] {
        file handle(spec(VFS_LOCK_RECORD, O_RDWR, 0, one.organization));
        *id = getpid();
        opened.open();
        if (!go.wait()) _exit(2);
        const bool done = one.writes ? handle.write(numbered("%08ld", 99) + std::string(500, 'w')).value >= 0
                                     : handle.read(first()).value >= 0;
        _exit(done && handle.close() == 0 ? 0 : 1);
    });
    ASSERT_TRUE(opened.wait());
    ASSERT_TRUE(holder.take(F_WRLCK, one.expected.start, one.expected.length));
    go.open();
    seen_lock awaited = awaited_by(*id);
    awaited.holder = 0;
    EXPECT_EQ(awaited, one.expected);
    ASSERT_TRUE(holder.take(F_UNLCK, 0, 0));
    EXPECT_EQ(worker.finish(), 0);
    EXPECT_EQ(check_file(path()), "");
}

INSTANTIATE_TEST_SUITE_P(Operations, MetadataLock,
                         ::testing::Values(bracket_case{"TreeRead", 3, false, {F_RDLCK, metadata_byte, 1, 0}},
                                           bracket_case{"TreeWrite", 3, true, {F_WRLCK, metadata_byte, 1, 0}},
                                           bracket_case{"FlatRead", 1, false, {F_RDLCK, 0, 192, 0}},
                                           bracket_case{"FlatWrite", 1, true, {F_WRLCK, 0, 192, 0}}),
                         [](const auto &chosen) { return std::string(chosen.param.name); });

} // namespace
