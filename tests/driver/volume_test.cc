// volume_test.cc: what only shows in numbers: long runs of equal keys, deep trees, space that is used again, files that
// grow past four gigabytes, and loads that must not become quadratic.
#include "checker.h"
#include "host.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>

namespace {

using namespace host;

class Volume : public DriverTest {
protected:
    std::string record(size_t n, const char *alternate = "same")
    {
        return numbered("%08ld", static_cast<int64_t>(n)) + alternate + "....";
    }
    file_spec spec() { return indexed(path(), {{.parts = {{0, 8}}}, {.parts = {{8, 4}}, .duplicates = true}}, 16); }

    // A scan of one key returns `count` records, whose numbers come in the order of `expected`.
    void expect_scan(file &f, bool forward, const std::vector<size_t> &expected)
    {
        ASSERT_EQ(f.start(forward ? first(1) : last(1)).value, 16);
        for (size_t i = 0; i < expected.size(); ++i) {
            const outcome got = f.read(forward ? next() : prev());
            ASSERT_TRUE(got.found(record(forward ? expected[i] : expected[expected.size() - 1 - i])))
                << i << " " << got;
        }
        ASSERT_TRUE(f.read(forward ? next() : prev()).ended());
    }

    watchdog guard{220};
};

TEST_F(Volume, AHundredThousandEqualKeysStepSearchAndDelete)
{
    constexpr size_t count = 100'000;
    file f{spec()};
    f.area = 16;
    std::vector<size_t> present;
    for (size_t n = 0; n < count; ++n) {
        ASSERT_EQ(f.write(record(n), by_record()).value, 16) << n;
        present.push_back(n);
    }
    expect_scan(f, true, present);
    expect_scan(f, false, present);
    // Out of the middle, from both edges, and in no order.
    std::vector<size_t> victims = present;
    std::shuffle(victims.begin(), victims.end(), std::mt19937{7});
    victims.resize(count / 2);
    for (const size_t n : victims) ASSERT_EQ(f.erase(by_key(record(n).substr(0, 8))).value, 0) << n;
    std::sort(victims.begin(), victims.end());
    std::vector<size_t> kept;
    std::set_difference(present.begin(), present.end(), victims.begin(), victims.end(), std::back_inserter(kept));
    expect_scan(f, true, kept);
    ASSERT_EQ(f.close(), 0);
    ASSERT_EQ(check_file(path()), "");

    ASSERT_TRUE(f.open(spec().with_flags(O_RDWR)));
    // Another value on each side, so that the run lies in the middle, then some keys move out of it and back.
    ASSERT_EQ(f.write(record(count, "aaaa"), by_record()).value, 16);
    ASSERT_EQ(f.write(record(count + 1, "zzzz"), by_record()).value, 16);
    for (size_t i = 0; i < kept.size(); i += 50) ASSERT_EQ(f.rewrite(record(kept[i], "zzzz"), by_record()).value, 16);
    ASSERT_EQ(f.start(by_key("same", 1, VFS_GREATER)).value, 16);
    ASSERT_EQ(f.rest().size(), kept.size() / 50 + 1);
    ASSERT_EQ(f.start(by_key("same", 1, VFS_LESS)).value, 16);
    ASSERT_EQ(f.read(next()).rrn, count);
    ASSERT_EQ(f.close(), 0);
    ASSERT_EQ(check_file(path()), "");
}

TEST_F(Volume, FreedSpaceIsUsedBeforeTheFileGrows)
{
    const file_spec sizes = indexed(path(), {{.parts = {{0, 8}}}}, 4000);
    const auto sized = [](size_t n, size_t length) {
        std::string bytes = numbered("%08ld", static_cast<int64_t>(n));
        bytes.resize(length, 'x');
        return bytes;
    };
    constexpr size_t count = 5000; // more than one list of free slots
    file f{sizes};
    for (size_t n = 0; n < count; ++n) ASSERT_GE(f.write(sized(n, 8 + n % 37 * 8), by_record()).value, 8);
    for (size_t n = 0; n < count; n += 2) ASSERT_EQ(f.erase(by_key(sized(n, 8))).value, 0);
    ASSERT_EQ(f.close(), 0);
    ASSERT_EQ(check_file(path()), "");
    const size_t full = slurp(path()).size();
    ASSERT_EQ(f.closed().empty_count, static_cast<int64_t>(count / 2));
    ASSERT_TRUE(f.open(sizes.with_flags(O_RDWR)));
    for (size_t n = count; n-- > 0;)
        if (n % 2 == 0) {
            ASSERT_EQ(f.write(sized(n, 8), by_record()).value, 8);
        }
    ASSERT_EQ(f.info().empty_count, 0);
    ASSERT_EQ(f.close(), 0);
    ASSERT_EQ(check_file(path()), "");
    ASSERT_EQ(slurp(path()).size(), full);
}

constexpr uint64_t data_start_at = 128, holes_at = 256, first_hole_at = 304, last_hole_at = 312;

TEST_F(Volume, IndexBlocksAreAppendedBehindPaddingAndHoles)
{
    // Records larger than half a data block leave holes that later records split, take whole or drop.
    const file_spec sizes = indexed(path(), {{.parts = {{0, 2000}}}}, 60000);
    std::mt19937 random{11};
    file f{sizes};
    f.area = 60000;
    std::vector<std::string> all;
    for (size_t n = 0; n < 400; ++n) {
        std::string bytes(2000, 'k');
        bytes.replace(0, 8, numbered("%08ld", static_cast<int64_t>(random() % 100000)));
        bytes.resize(2000 + random() % 5 * 9000 + random() % 3000, 'x');
        if (f.write(bytes, by_record()).value > 0) all.push_back(bytes);
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(f.rest(), all);
    ASSERT_EQ(f.close(), 0);
    ASSERT_EQ(check_file(path()), "");

    // A hole that is none.
    poke(path(), holes_at, uint64_t{1});
    poke(path(), first_hole_at, peek(path(), data_start_at));
    ASSERT_TRUE(f.open(sizes.with_flags(O_RDWR)));
    EXPECT_TRUE(f.write(std::string(50000, 'z'), by_record()).failed(ENOEXEC));
    EXPECT_EQ(f.rest(), all);
    EXPECT_EQ(f.close(), 0);
}

// Sixteen entries in an index block.
class IndexBlocks : public Volume {
protected:
    static std::string wide(size_t n)
    {
        std::string bytes = numbered("%08ld", static_cast<int64_t>(n));
        bytes.resize(2000, 'k');
        return bytes;
    }
    outcome write_many(file &f)
    {
        outcome got;
        for (int n = 0; n < 1000 && got.value >= 0; ++n) {
            got = f.write(wide(all.size()), by_record());
            if (got.value >= 0) all.push_back(wide(all.size()));
        }
        return got;
    }

    const file_spec small = indexed(path(), {{.parts = {{0, 2000}}}}, 2000);
    std::vector<std::string> all;
};

TEST_F(IndexBlocks, ALastHoleThatIsNoneIsMetByWhoAddsAnother)
{
    file f{small};
    ASSERT_EQ(write_many(f).value, 2000);
    ASSERT_EQ(f.close(), 0);
    poke(path(), first_hole_at, uint64_t{0}); // else it would be taken, and the last one forgotten
    poke(path(), last_hole_at, peek(path(), data_start_at));
    ASSERT_TRUE(f.open(small.with_flags(O_RDWR)));
    EXPECT_TRUE(write_many(f).failed(ENOEXEC));
    printed(); // the trees
    EXPECT_EQ(f.rest(), all);
    EXPECT_EQ(f.close(), 0);
}

TEST_F(IndexBlocks, BlocksOfTwoListsThatLieAcrossEachOtherAreNotBothUsed)
{
    constexpr uint64_t free_blocks_at = 272, free_block_at = 280, free_slots_at = 296;
    file f{small};
    ASSERT_EQ(write_many(f).value, 2000);
    ASSERT_EQ(f.erase(by_key(all.back())).value, 0);
    all.pop_back();
    ASSERT_EQ(f.close(), 0);
    const auto is_unused = [&](uint64_t block) {
        return (peek(path(), block) | peek(path(), block + 16) | peek(path(), block + 32760)) == 0;
    };
    uint64_t across = peek(path(), free_slots_at) - 4096;
    while (!is_unused(across)) across -= 4096;
    ASSERT_GT(across, peek(path(), free_slots_at) - 32768);
    poke(path(), free_blocks_at, uint64_t{1});
    poke(path(), free_block_at, across);
    for (const bool framed : {false, true}) { // nothing, then a free block
        if (framed) {
            poke(path(), across, uint64_t{32768});
            poke(path(), across + 16, uint64_t{2});
            poke(path(), across + 32760, uint64_t{32768});
        }
        ASSERT_TRUE(f.open(small.with_flags(O_RDWR)));
        ASSERT_EQ(f.erase(by_key(all.back())).value, 0); // with the list of free slots
        all.pop_back();
        EXPECT_TRUE(write_many(f).failed(ENOEXEC));
        printed(); // the trees
        EXPECT_EQ(f.rest(), all);
        EXPECT_EQ(f.close(), 0);
        EXPECT_EQ(peek(path(), across + 16), framed ? 2U : 0U) << "not taken";
    }
}

// Marks that offsets pass, two of them those of lock bytes that lie in the middle of the data then. A flat file of fixed
// length is made to look like one that grew: its end moves up over a gap of the file system, and one live slot is placed
// where the arithmetic expects it, beginning at the mark or lying across it.
class Marks : public Volume, public testing::WithParamInterface<std::tuple<uint64_t, int, bool>> {};

TEST_P(Marks, RecordsAreReachedAndLocked)
{
    const auto [mark, length, shared] = GetParam();
    variables.set("VFS_LOCK", shared ? "4" : "2");
    const file_spec fixed = flat(path(), VFS_FORMAT_FIXED, length);
    file f{fixed};
    const auto bytes = [&](char each) { return std::string(static_cast<size_t>(length), each); };
    const outcome one = f.write(bytes('a'));
    ASSERT_EQ(f.close(), 0);
    const auto slot_bytes = static_cast<uint64_t>(length) + 40;
    const uint64_t far = (mark - one.offset) / slot_bytes, offset = one.offset + far * slot_bytes;
    ASSERT_EQ(slot_bytes == 1024, offset == mark) << "the slot begins there, or lies across";
    const std::string slot = slurp(path()).substr(one.offset, slot_bytes);
    poke(path(), offset, slot);
    poke(path(), offset + 24, far);
    poke(path(), 72, far);
    poke(path(), end_of_file_at, offset + slot_bytes);

    ASSERT_TRUE(f.open(fixed.with_flags(O_RDWR)));
    EXPECT_EQ(f.read(last()).rrn, far);
    EXPECT_EQ(f.read(by_rrn(static_cast<int64_t>(far))).offset, offset);
    EXPECT_EQ(f.write(bytes('b')).rrn, far + 1);
    EXPECT_EQ(f.rewrite(bytes('c'), by_rrn(static_cast<int64_t>(far))).value, length);
    EXPECT_TRUE(f.read(by_rrn(static_cast<int64_t>(far) + 1)).found(bytes('b')));
    EXPECT_TRUE(f.read(prev()).found(bytes('c')));
    if (shared) {
        vfs_lock_request holding{};
        holding.hold = 1;
        file other{fixed.with_flags(O_RDWR)};
        ASSERT_TRUE(other.ok()); // a lock on the record is none on the file
        EXPECT_TRUE(f.read(by_rrn(static_cast<int64_t>(far)), &holding).found(bytes('c')));
        EXPECT_TRUE(other.read(by_rrn(static_cast<int64_t>(far)), &holding).failed(EAGAIN));
        EXPECT_TRUE(other.read(by_rrn(static_cast<int64_t>(far) + 1), &holding).found(bytes('b')));
        file third{fixed.with_flags(O_RDWR)};
        EXPECT_TRUE(third.ok());
        EXPECT_NE(printed().find("for Write on file"), std::string::npos) << "who asked for what is told";
    }
    EXPECT_EQ(f.close(), 0);
    struct stat facts {};
    stat(path().c_str(), &facts);
    EXPECT_EQ(static_cast<uint64_t>(facts.st_size), offset + 2 * slot_bytes);
    EXPECT_LT(facts.st_blocks * 512, 8 << 20);
}

INSTANTIATE_TEST_SUITE_P(FourGigabytes, Marks,
                         testing::Values(std::tuple{uint64_t{6'000'000} * 1024, 984, false},
                                         std::tuple{uint64_t{1} << 32, 1000, true}));
INSTANTIATE_TEST_SUITE_P(LockBytes, Marks,
                         testing::Combine(testing::Values(0x1900000000, 0x3200000000), testing::Values(984, 1000),
                                          testing::Bool()));

// One handle, many operations of all kinds on a file that stays as large as it is: nothing adds up. 100 million by hand:
// VFS_LONG_OPERATIONS.
TEST_F(Volume, MemoryAndDescriptorsStayAsTheyAre)
{
    const uint64_t operations = number_from("VFS_LONG_OPERATIONS", 150'000);
    if (operations > 150'000) alarm(0);
    constexpr size_t numbers = 50'000;
    const auto resident = [] {
        std::ifstream in{"/proc/self/statm"};
        uint64_t all = 0, pages = 0;
        in >> all >> pages;
        return pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    };
    std::vector<uint8_t> present(numbers);
    const auto at = [&](size_t n, uint8_t version) { return record(n, version % 2 == 1 ? "same" : "else"); };
    std::mt19937_64 random{13};
    file f{spec()};
    f.area = 16;
    [[maybe_unused]] uint64_t settled = 0;
    uint64_t descriptors = 0, bytes = 0;
    for (uint64_t i = 0; i < operations; ++i) {
        if (i == operations / 4) {
            settled = resident();
            descriptors = open_descriptors();
            bytes = std::filesystem::file_size(path());
        }
        const size_t n = random() % numbers;
        const uint8_t had = present[n];
        const std::string key = record(n).substr(0, 8);
        switch (random() % 4) {
        case 0: {
            const outcome got = f.write(at(n, 1), by_record());
            ASSERT_TRUE(had == 0 ? got.value == 16 : got.failed(EADDRINUSE)) << i << " " << got;
            if (had == 0) present[n] = 1;
            break;
        }
        case 1:
            ASSERT_EQ(f.erase(by_key(key)).value, had == 0 ? -1 : 0) << i;
            present[n] = 0;
            break;
        case 2:
            ASSERT_EQ(f.rewrite(at(n, static_cast<uint8_t>(had + 1)), by_record()).value, had == 0 ? -1 : 16) << i;
            if (had != 0) present[n] = static_cast<uint8_t>(3 - had);
            break;
        default: {
            const outcome got = f.read(by_key(key));
            ASSERT_TRUE(had == 0 ? got.value <= 0 : got.found(at(n, had))) << i << " " << got;
        }
        }
        if (random() % 100'000 == 0) {
            ASSERT_EQ(f.flush(), 0);
        }
    }
#ifndef __SANITIZE_ADDRESS__ // which keeps what was freed
    EXPECT_LE(resident(), settled + (8 << 20));
#endif
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_LE(std::filesystem::file_size(path()), bytes + bytes / 4);
    EXPECT_EQ(f.info().record_count, std::count_if(present.begin(), present.end(), [](auto v) { return v != 0; }));
    ASSERT_EQ(f.close(), 0);
    ASSERT_EQ(check_file(path()), "");
}

TEST_F(Volume, FlatFilesOfVariableLengthAreReadByNumberInReasonableTime)
{
    constexpr size_t count = 20'000;
    const file_spec variable = flat(path(), VFS_FORMAT_VARIABLE, 40);
    file f{variable};
    for (size_t n = 0; n < count; ++n) ASSERT_GE(f.write(record(n).substr(0, 8 + n % 8)).value, 8);
    const auto begin = std::chrono::steady_clock::now();
    std::mt19937 random{5};
    for (size_t i = 0; i < 3000; ++i) {
        const size_t n = random() % count;
        ASSERT_TRUE(f.read(by_rrn(static_cast<int64_t>(n))).found(record(n).substr(0, 8 + n % 8)));
    }
    // A walk from the start each time would step thirty million slots.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds{20});
    ASSERT_EQ(f.close(), 0);
    ASSERT_EQ(check_file(path()), "");
}

} // namespace
