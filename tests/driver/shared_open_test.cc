// Opening a file that others share: a commit that a killed program left unfinished is completed first, whoever opens;
// making a file anew, or starting an emptied one afresh, waits, is refused or is left out, and loses nobody's records.
// The redo areas are made here from their description, with nothing of the driver's.
#include "checker.h"
#include "host.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <functional>

namespace {

using namespace host;

std::string word(uint64_t value)
{
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

uint64_t word_at(const std::string &bytes, size_t offset)
{
    uint64_t value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

uint64_t boot_word()
{
    std::string digits;
    for (const char c : slurp("/proc/sys/kernel/random/boot_id"))
        if (c != '-') digits += c;
    std::string bytes;
    for (size_t i = 0; i < 16; i += 2) bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return word_at(bytes, 0);
}

struct range {
    uint64_t offset;
    std::string bytes;
};

std::string redo_area(const std::vector<range> &ranges)
{
    std::string list, bytes;
    for (const range &one : ranges) {
        list += word(one.offset) + word(one.bytes.size());
        for (const char each : one.bytes) bytes += static_cast<char>(~each);
    }
    const uint64_t length = 32 + list.size() + bytes.size();
    std::string area = "VFSREDO1" + word(ranges.size()) + word(length) + word(0) + list + bytes;
    constexpr uint64_t basis = 0xcbf29ce484222325, prime = 0x100000001b3;
    std::array<uint64_t, 4> lanes{basis, basis, basis, basis};
    for (size_t i = 0; i < area.size() / 8; ++i) lanes[i % 4] = (lanes[i % 4] ^ word_at(area, 8 * i)) * prime;
    uint64_t sum = basis;
    for (const uint64_t lane : lanes) sum = (sum ^ lane) * prime;
    area.replace(24, 8, word(sum ^ sum >> 32));
    return area;
}

// Runs the work in another process; its exit status.
int elsewhere(const std::function<bool()> &work)
{
    const pid_t child = fork();
    if (child == 0) _exit(work() ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class SharedOpen : public DriverTest {
protected:
    SharedOpen() { variables.set("VFS_LOCK", "9"); } // as the program asks

    file_spec spec(uint32_t lock_mode, uint32_t flags = O_RDWR) const
    {
        file_spec wanted = indexed(path(), {key{{{0, 8}}}, key{{{8, 4}}, true}}, 200).with_flags(flags);
        wanted.locks = locks_of(lock_mode);
        return wanted;
    }
    static std::string record(int64_t number, const std::string &rest = "text")
    {
        return numbered("%08ld", number) + numbered("%04ld", number % 7) + rest;
    }
    void make(int64_t count) const
    {
        file made(spec(VFS_LOCK_RECORD, O_RDWR | O_CREAT));
        ASSERT_TRUE(made.ok());
        for (int64_t i = 0; i < count; ++i) ASSERT_GE(made.write(record(i)).value, 0);
        ASSERT_EQ(made.close(), 0);
    }
    // The file as it was before a change, with the change in a redo area and the state word that leads to it.
    void leave_unfinished(const std::string &before, const std::string &after) const
    {
        ASSERT_EQ(before.size(), after.size());
        const uint64_t area = (word_at(after, end_of_file_at) + 4095) / 4096 * 4096;
        std::vector<range> ranges;
        for (size_t page = 0; page < after.size(); page += 4096)
            if (before.compare(page, 4096, after, page, 4096) != 0) ranges.push_back({page, after.substr(page, 4096)});
        ranges.push_back({0, after.substr(0, 4096)}); // the header, last
        ranges.back().bytes.replace(state_at, 8, word(area));
        ranges.back().bytes.replace(boot_at, 8, word(boot_word()));
        std::string bytes = before;
        bytes.replace(state_at, 8, word(area));
        bytes.replace(boot_at, 8, word(boot_word()));
        bytes.resize(area, '\0');
        spill(path(), bytes + redo_area(ranges));
    }
};

class UnfinishedCommit : public SharedOpen, public ::testing::WithParamInterface<std::pair<uint32_t, uint32_t>> {};

TEST_P(UnfinishedCommit, IsCompletedByWhoeverOpens)
{
    make(300);
    const std::string before = slurp(path());
    {
        file changed(spec(VFS_LOCK_RECORD));
        ASSERT_GE(changed.read(by_key("00000077")).value, 0);
        ASSERT_GE(changed.rewrite(record(77, "mend")).value, 0); // in its slot
        ASSERT_EQ(changed.close(), 0);
    }
    const std::string after = slurp(path());
    leave_unfinished(before, after);
    file opened(spec(GetParam().first, GetParam().second));
    ASSERT_TRUE(opened.ok()) << opened.error() << printed();
    EXPECT_EQ(peek(path(), state_at), 0U);
    EXPECT_TRUE(opened.read(by_key("00000077")).found(record(77, "mend")));
    EXPECT_EQ(opened.close(), 0);
}

INSTANTIATE_TEST_SUITE_P(Opens, UnfinishedCommit,
                         ::testing::Values(std::pair{VFS_LOCK_RECORD, O_RDWR}, std::pair{VFS_LOCK_RECORD, O_RDONLY},
                                           std::pair{VFS_LOCK_AUTO, O_RDWR}, std::pair{VFS_LOCK_FILE, O_RDWR},
                                           std::pair{VFS_LOCK_FILE, O_RDONLY}, std::pair{VFS_LOCK_NONE, O_RDWR},
                                           std::pair{VFS_LOCK_NONE, O_RDONLY}),
                         [](const auto &chosen) {
                             return "Mode" + std::to_string(chosen.param.first) +
                                    (chosen.param.second == O_RDWR ? "Update" : "Read");
                         });

TEST_F(SharedOpen, HandlesThatAreOpenCompleteACommitToo)
{
    make(300);
    const std::string before = slurp(path());
    for (const uint32_t flags : {O_RDWR, O_RDONLY}) {
        file open_before(spec(VFS_LOCK_RECORD, flags));
        ASSERT_TRUE(open_before.ok());
        ASSERT_TRUE(open_before.read(by_key("00000077")).found(record(77)));
        ASSERT_EQ(elsewhere([&] {
                      file changed(spec(VFS_LOCK_RECORD));
                      return changed.read(by_key("00000077")).value > 0 &&
                             changed.rewrite(record(77, "mend")).value > 0 && changed.close() == 0;
                  }),
                  0);
        leave_unfinished(before, slurp(path())); // in place: the handle has the same file open
        EXPECT_TRUE(open_before.read(by_key("00000077")).found(record(77, "mend"))) << printed();
        EXPECT_EQ(peek(path(), state_at), 0U);
        EXPECT_EQ(open_before.close(), 0);
        spill(path(), before);
    }
}

TEST_F(SharedOpen, AnAreaThatIsNotWholeIsLeftAlone)
{
    make(100);
    const std::string before = slurp(path());
    std::string after = before;
    after.replace(dsn_at, 8, word(word_at(before, dsn_at) + 1));
    leave_unfinished(before, after);
    const std::string whole = slurp(path());
    const uint64_t area = word_at(whole, state_at);
    const auto refused = [&](const std::string &bytes) {
        spill(path(), bytes);
        for (const uint32_t mode : {VFS_LOCK_RECORD, VFS_LOCK_FILE, VFS_LOCK_NONE}) {
            file opened;
            EXPECT_FALSE(opened.open(spec(mode)));
            EXPECT_EQ(opened.error(), ENOEXEC);
            EXPECT_EQ(printed(), "File " + path() + " was not closed, use vfsctl check\n");
            EXPECT_EQ(slurp(path()), bytes);
        }
    };
    for (const size_t spoiled :
         {size_t{0}, size_t{8}, size_t{14}, size_t{16}, size_t{24}, size_t{33}, whole.size() - area - 1}) {
        std::string bytes = whole;
        bytes[area + spoiled] = static_cast<char>(bytes[area + spoiled] ^ 1);
        refused(bytes);
    }
    refused(whole.substr(0, whole.size() - 8));
    std::string older = whole; // whole, but of a change that the header has behind it
    older.replace(dsn_at, 8, word(word_at(before, dsn_at) + 2));
    refused(older);
    std::string elsewhere_word = whole;
    elsewhere_word.replace(state_at, 8, word(area + 8));
    refused(elsewhere_word);
    // Whole, but with a range that would lie in the area itself.
    std::string outside = before;
    outside.replace(state_at, 8, word(area));
    outside.resize(area, '\0');
    refused(outside + redo_area({{area + 4096, std::string(8, 'x')}}));
}

TEST_F(SharedOpen, TruncationUnderSharersIsRefusedWhileTheyHoldLocksAndSeenByThem)
{
    make(50);
    const std::string before = slurp(path()); // not later: reading it would drop the locks of the process
    file sharer(spec(VFS_LOCK_RECORD));
    vfs_lock_request held = locks_of(VFS_LOCK_RECORD);
    held.hold = 1;
    ASSERT_TRUE(sharer.read(by_key("00000007"), &held).found(record(7)));
    EXPECT_EQ(elsewhere([&] {
                  file maker;
                  return !maker.open(spec(VFS_LOCK_RECORD, O_RDWR | O_CREAT | O_TRUNC)) && maker.error() == EAGAIN;
              }),
              0);
    sharer.run(operation::unlock, current());
    EXPECT_EQ(slurp(path()), before);
    (void)printed();
    ASSERT_EQ(elsewhere([&] {
                  file maker(spec(VFS_LOCK_RECORD, O_RDWR | O_CREAT | O_TRUNC));
                  return maker.ok() && maker.write(record(1000)).value > 0 && maker.close() == 0;
              }),
              0);
    EXPECT_TRUE(sharer.read(by_key("00000007")).ended());
    EXPECT_TRUE(sharer.read(by_key("00001000")).found(record(1000)));
    EXPECT_GE(sharer.write(record(1001)).value, 0);
    EXPECT_EQ(sharer.close(), 0);
    EXPECT_EQ(check_file(path()), "");
}

TEST_F(SharedOpen, ARememberedRecordIsNotMetAgainInAFileMadeAnew)
{
    make(3);
    file sharer(spec(VFS_LOCK_RECORD));
    const outcome remembered = sharer.read(by_key("00000000"));
    ASSERT_TRUE(remembered.found(record(0)));
    ASSERT_EQ(elsewhere([&] {
                  file maker(spec(VFS_LOCK_RECORD, O_RDWR | O_CREAT | O_TRUNC));
                  const bool written = maker.write(record(500)).value > 0;
                  const outcome made = maker.read(by_key("00000500"));
                  return written && made.offset == remembered.offset && made.rrn != remembered.rrn &&
                         maker.close() == 0;
              }),
              0);
    EXPECT_TRUE(sharer.rewrite(record(0, "lost")).failed(ESPIPE));
    EXPECT_TRUE(sharer.read(by_key("00000500")).found(record(500)));
    EXPECT_EQ(sharer.close(), 0);
    EXPECT_EQ(check_file(path()), "");
}

TEST_F(SharedOpen, AFileMadeAnewWithAnotherDescriptionStopsSharers)
{
    make(50);
    file sharer(spec(VFS_LOCK_RECORD));
    ASSERT_TRUE(sharer.read(by_key("00000007")).found(record(7)));
    ASSERT_EQ(elsewhere([&] {
                  file_spec other = spec(VFS_LOCK_RECORD, O_RDWR | O_CREAT | O_TRUNC);
                  other.keys = {key{{{0, 10}}}};
                  file maker(other);
                  return maker.ok() && maker.write(record(1000)).value > 0 && maker.close() == 0;
              }),
              0);
    const std::string made = slurp(path());
    EXPECT_TRUE(sharer.write(record(8000)).failed(ESTALE));
    EXPECT_TRUE(sharer.read(by_key("00000007")).failed(ESTALE));
    EXPECT_EQ(sharer.close(), ESTALE);
    EXPECT_EQ(slurp(path()), made);
    EXPECT_EQ(check_file(path()), "");
}

TEST_F(SharedOpen, AnEmptiedFileStartsAfreshUnlessSomebodyHoldsALock)
{
    make(2000);
    file sharer(spec(VFS_LOCK_RECORD));
    for (int64_t i = 0; i < 2000; ++i) ASSERT_EQ(sharer.erase(by_key(numbered("%08ld", i))).value, 0);
    const uint64_t long_end = peek(path(), end_of_file_at);
    const auto open_and_close = [&] {
        return elsewhere([&] {
            file other(spec(VFS_LOCK_RECORD));
            return other.ok() && other.close() == 0;
        });
    };
    ASSERT_EQ(elsewhere([&] { // any lock, on any byte
                  struct flock lock {};
                  lock.l_type = F_RDLCK;
                  lock.l_start = 5000;
                  lock.l_len = 1;
                  const int fd = ::open(path().c_str(), O_RDONLY | O_CLOEXEC);
                  return fcntl(fd, F_SETLK, &lock) == 0 && open_and_close() == 0;
              }),
              0);
    EXPECT_EQ(peek(path(), end_of_file_at), long_end);
    ASSERT_EQ(open_and_close(), 0);
    EXPECT_LT(peek(path(), end_of_file_at), long_end);
    EXPECT_NE(printed().find("Re-initializing file(" + path() + ") for faster access!"), std::string::npos);
    // Numbers of records go on: what the sharer remembers cannot come to mean another record.
    EXPECT_GE(sharer.write(record(5)).value, 0);
    EXPECT_GE(sharer.read(by_key("00000005")).rrn, 2000U);
    EXPECT_EQ(sharer.close(), 0);
    EXPECT_EQ(check_file(path()), "");
}

TEST_F(SharedOpen, RenumberingUnderSharersKeepsEveryRecord)
{
    make(500);
    file sharer(spec(VFS_LOCK_RECORD));
    ASSERT_TRUE(sharer.read(by_key("00000100")).found(record(100)));
    poke(path(), tsn_at, static_cast<uint64_t>(INT64_MIN) + 5);
    ASSERT_EQ(elsewhere([&] {
                  file other(spec(VFS_LOCK_RECORD));
                  return other.ok() && other.write(record(900)).value > 0 && other.close() == 0;
              }),
              0);
    EXPECT_GT(static_cast<int64_t>(peek(path(), tsn_at)), 0);
    EXPECT_TRUE(sharer.read(next()).found(record(101)));
    EXPECT_TRUE(sharer.read(by_key("00000900")).found(record(900)));
    EXPECT_EQ(sharer.close(), 0);
    (void)printed();
    EXPECT_EQ(check_file(path()), "");
}

// Two programs make a file at the same time: the one that waited for the other finds it made, filled and emptied.
TEST_F(SharedOpen, WhoWaitedToMakeAFileThatIsThereByThenSharesIt)
{
    make(100);
    {
        file emptied{spec(VFS_LOCK_RECORD)};
        for (int64_t i = 0; i < 100; ++i) ASSERT_EQ(emptied.erase(by_record(), record(i)).value, 0);
    }
    const std::string made = slurp(path()); // where who opens it would start afresh
    spill(path(), "");
    const int descriptor = open(path().c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(descriptor, F_SETLK, &lock), 0);
    const pid_t child = fork();
    if (child == 0) {
        file_spec wanted = spec(VFS_LOCK_RECORD, O_RDWR | O_CREAT);
        wanted.locks->wait_mode = VFS_WAIT_KERNEL;
        file f{wanted};
        _exit(f.ok() && f.write(record(1)).value > 0 && f.close() == 0 ? 0 : 1);
    }
    usleep(300'000);
    ASSERT_EQ(pwrite(descriptor, made.data(), made.size(), 0), static_cast<ssize_t>(made.size()));
    lock.l_type = F_UNLCK;
    ASSERT_EQ(fcntl(descriptor, F_SETLK, &lock), 0);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    close(descriptor);
    EXPECT_EQ(status, 0) << printed();
    EXPECT_EQ(printed().find("Missing"), std::string::npos);
    EXPECT_EQ(check_file(path()), "");
}

} // namespace
