// volume_test.cc: what only shows in numbers: long runs of equal keys, deep trees, space that is used again, files that
// grow past four gigabytes, and loads that must not become quadratic.
#include "checker.h"
#include "host.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
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

TEST_F(Volume, OneRunAsTheWholeTreeCanBeDeletedThroughACursor)
{
    constexpr size_t count = 20'000;
    file f{spec()};
    for (size_t n = 0; n < count; ++n) ASSERT_EQ(f.write(record(n), by_record()).value, 16);
    ASSERT_EQ(f.start(first(1)).value, 16);
    for (size_t n = 0; n < count; ++n) {
        ASSERT_TRUE(f.read(next()).found(record(n))) << n;
        if (n % 3 != 0) {
            ASSERT_EQ(f.erase(current()).value, 0) << n;
        }
    }
    ASSERT_TRUE(f.read(next()).ended());
    for (size_t n = 0; n < count; n += 3) ASSERT_EQ(f.erase(by_key(record(n).substr(0, 8))).value, 0);
    ASSERT_EQ(f.info().record_count, 0);
    ASSERT_EQ(f.close(), 0);
    ASSERT_EQ(check_file(path()), "");
}

TEST_F(Volume, TreesOfEveryLoadOrderHoldTogether)
{
    // 2000 bytes of key: sixteen entries in a leaf and in a branch, so a few hundred records make three levels.
    const file_spec deep = indexed(path(), {{.parts = {{0, 2000}}}}, 2000);
    const auto wide = [](size_t n) {
        std::string bytes(2000, '.');
        return bytes.replace(1992, 8, numbered("%08ld", static_cast<int64_t>(n)));
    };
    constexpr size_t count = 600;
    for (const int order : {0, 1, 2}) {
        SCOPED_TRACE(order);
        ops().unlink(path().c_str());
        std::vector<size_t> numbers(count);
        for (size_t n = 0; n < count; ++n) numbers[n] = order == 1 ? count - 1 - n : n;
        if (order == 2) std::shuffle(numbers.begin(), numbers.end(), std::mt19937{3});
        file f{deep};
        for (const size_t n : numbers) ASSERT_EQ(f.write(wide(n), by_record()).value, 2000);
        ASSERT_TRUE(f.write(wide(300), by_record()).failed(EADDRINUSE));
        ASSERT_EQ(f.close(), 0);
        ASSERT_EQ(check_file(path()), "");
        ASSERT_GE(peek(path(), peek(path(), 96) + 160), 3u); // depth
        if (order < 2) {
            ASSERT_EQ(peek(path(), peek(path(), 96) + 168), (count + 15) / 16); // leaves fill completely
        }
        ASSERT_TRUE(f.open(deep.with_flags(O_RDWR)));
        for (const size_t n : numbers) {
            ASSERT_TRUE(f.read(by_key(wide(n))).found(wide(n)));
            if (n % 4 != 0) {
                ASSERT_EQ(f.erase(current()).value, 0);
            }
        }
        ASSERT_EQ(f.start(first()).value, 2000);
        ASSERT_EQ(f.rest().size(), count / 4);
        ASSERT_EQ(f.close(), 0);
        ASSERT_EQ(check_file(path()), "");
        ASSERT_TRUE(f.open(deep.with_flags(O_RDWR)));
        for (size_t n = 0; n < count; n += 4) ASSERT_EQ(f.erase(by_key(wide(n))).value, 0);
        ASSERT_EQ(f.write(wide(5), by_record()).value, 2000);
        ASSERT_TRUE(f.read(first()).found(wide(5)));
        ASSERT_EQ(f.close(), 0);
        ASSERT_EQ(check_file(path()), "");
    }
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
}

TEST_F(Volume, OffsetsBeyondFourGigabytesAreReached)
{
    // A flat file of fixed length is made to look like one that grew: its end moves up over a gap of the file system,
    // in which one live slot is placed where the arithmetic expects it.
    const file_spec fixed = flat(path(), VFS_FORMAT_FIXED, 984);
    file f{fixed};
    const outcome one = f.write(std::string(984, 'a'));
    ASSERT_EQ(f.close(), 0);
    constexpr uint64_t far = 6'000'000;
    const uint64_t offset = one.offset + far * 1024;
    const std::string slot = slurp(path()).substr(one.offset, 1024);
    poke(path(), offset, slot);
    poke(path(), offset + 24, far);
    poke(path(), 72, far);
    poke(path(), 136, offset + 1024);
    ASSERT_TRUE(f.open(fixed.with_flags(O_RDWR)));
    EXPECT_EQ(f.read(last()).rrn, far);
    EXPECT_EQ(f.read(by_rrn(far)).offset, offset);
    EXPECT_EQ(f.write(std::string(984, 'b')).rrn, far + 1);
    EXPECT_EQ(f.rewrite(std::string(984, 'c'), by_rrn(far)).value, 984);
    EXPECT_TRUE(f.read(by_rrn(far + 1)).found(std::string(984, 'b')));
    EXPECT_TRUE(f.read(prev()).found(std::string(984, 'c')));
    EXPECT_EQ(f.close(), 0);
    struct stat facts {};
    stat(path().c_str(), &facts);
    EXPECT_EQ(static_cast<uint64_t>(facts.st_size), offset + 2048);
    EXPECT_LT(facts.st_blocks * 512, 8 << 20);
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
