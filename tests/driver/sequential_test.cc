// sequential_test.cc: files without a tree. What the model does not reach: the bytes on disk, short areas, the caller's
// mistakes, sequential access, gaps, relocation, and the end that moves back.
#include "checker.h"
#include "host.h"

#include <sys/stat.h>

#include <cerrno>

namespace {

using namespace host;

constexpr uint64_t data_block_size_at = 160; // in the header

constexpr uint64_t data_start = 4096;

class Sequential : public DriverTest {
protected:
    file_spec variable(uint32_t flags = O_RDWR | O_CREAT)
    {
        return flat(path(), VFS_FORMAT_VARIABLE, 100).with_flags(flags);
    }
    file_spec fixed(uint32_t flags = O_RDWR | O_CREAT) { return flat(path(), VFS_FORMAT_FIXED, 16).with_flags(flags); }
    void TearDown() override
    {
        EXPECT_EQ(check_file(path()), "");
        DriverTest::TearDown();
    }
};

TEST_F(Sequential, SlotsHaveTheLengthsOfTheFormat)
{
    file f{variable()};
    EXPECT_EQ(f.write("x").offset, data_start);
    EXPECT_EQ(f.write(std::string(100, 'y')).offset, data_start + 48);
    EXPECT_EQ(f.write("").offset, data_start + 48 + 144);
    EXPECT_EQ(f.close(), 0);
    EXPECT_EQ(slurp(path()).size(), data_start + 48 + 144 + 40);
    EXPECT_EQ(peek(path(), data_start), 48u);
    EXPECT_EQ(peek(path(), data_start + 8), 1u);
}

TEST_F(Sequential, AShortAreaReceivesWhatFits)
{
    file f{variable()};
    f.write("0123456789");
    f.write("next");
    f.area = 4;
    const outcome got = f.read(first());
    EXPECT_EQ(got.value, 10);
    EXPECT_EQ(got.bytes, "0123");
    EXPECT_EQ(f.read(next()).bytes, "next");
    f.area = 0;
    EXPECT_EQ(f.read(first()).value, 10);
}

TEST_F(Sequential, AnEmptyRecordIsNotTheEnd)
{
    file f{variable()};
    f.write("");
    const outcome got = f.read(next());
    EXPECT_EQ(got.value, 0);
    EXPECT_EQ(got.error, 0);
    EXPECT_FALSE(f.at_end());
    EXPECT_TRUE(f.read(next()).ended());
}

TEST_F(Sequential, BadModesAndLengthsAreRefused)
{
    file f{fixed()};
    EXPECT_TRUE(f.write("one byte short.").failed(ERANGE));
    EXPECT_EQ(f.write("sixteen bytes...").value, 16);
    for (const int32_t mode : {9, 10, 11, 12, 13})
        for (const operation which : {operation::write, operation::rewrite, operation::erase})
            EXPECT_TRUE(f.run(which, {.mode = mode, .key = {}}, "sixteen bytes...").failed(EINVAL))
                << name_of(which) << mode;
    EXPECT_TRUE(f.read(current()).failed(EINVAL));
    EXPECT_TRUE(f.rewrite("short", by_rrn(0)).failed(ERANGE));
    EXPECT_TRUE(f.rewrite("sixteen bytes...", end()).failed(EINVAL));
    EXPECT_TRUE(f.erase(end()).failed(EINVAL));
    EXPECT_TRUE(f.start({.mode = 11, .key = {}}).failed(EINVAL));
    for (const int32_t mode : {4, 9, 10, 11, 13})
        EXPECT_TRUE(f.position({.mode = mode, .key = {}}).failed(EINVAL)) << mode;
    EXPECT_TRUE(f.read(first()).found("sixteen bytes..."));
    for (const operation which : {operation::read, operation::rewrite, operation::erase}) {
        EXPECT_TRUE(f.run(which, {.mode = 14, .key = {}}, "sixteen bytes...").failed(EINVAL)) << name_of(which);
        printed(); // "pos=14"
    }
    EXPECT_TRUE(f.read(next()).ended());
}

TEST_F(Sequential, GapsBecomeDeletedSlots)
{
    file f{fixed()};
    const auto record = [](int64_t n) { return numbered("record %09ld", n); };
    for (int64_t n = 0; n < 4; ++n) f.write(record(n));
    EXPECT_EQ(f.write(record(7), by_rrn(7)).rrn, 7u);
    EXPECT_EQ(f.info().empty_count, 3);
    EXPECT_TRUE(f.write(record(3), by_rrn(3)).failed(EADDRINUSE));
    EXPECT_TRUE(f.write(record(7), by_rrn(7)).failed(EADDRINUSE));
    EXPECT_TRUE(f.read(by_rrn(5)).failed(ESPIPE));
    EXPECT_EQ(f.write(record(5), by_rrn(5)).value, 16);
    EXPECT_EQ(f.info().empty_count, 2);
    EXPECT_TRUE(f.read(by_rrn(5)).found(record(5)));
    EXPECT_TRUE(f.read(next()).found(record(7)));
    EXPECT_TRUE(f.write(record(0), by_rrn(INT64_MAX)).failed(EFBIG));
    EXPECT_TRUE(f.write(record(0), by_rrn(INT64_MAX / 50)).failed(EFBIG));
    EXPECT_EQ(f.info().record_count, 6);
    EXPECT_EQ(f.start(by_rrn(4, VFS_GREATER)).rrn, 5u);
    EXPECT_EQ(f.start(by_rrn(4, VFS_LESS_EQUAL)).rrn, 3u);
    EXPECT_TRUE(f.start(by_rrn(0, VFS_LESS)).failed(ESPIPE));
    EXPECT_TRUE(f.start(by_rrn(7, VFS_GREATER)).failed(ESPIPE));
    EXPECT_EQ(f.start(by_rrn(70, VFS_LESS_EQUAL)).rrn, 7u);
    EXPECT_EQ(f.start(by_rrn(0, VFS_GREATER_EQUAL)).rrn, 0u);
}

// How long a free slot in a gap is, the header says. A lie costs neither time nor space.
TEST_F(Sequential, GapsOfADamagedHeaderTakeNoSpace)
{
    constexpr uint64_t maximum_slot_at = 200, maximum_record_at = 216;
    ASSERT_EQ(file{variable()}.write("first").value, 5);
    const std::string sound = slurp(path());
    for (const bool record_too : {false, true}) {
        const uint64_t lie = record_too ? uint64_t{1} << 36 : uint64_t{1} << 59;
        spill(path(), sound);
        poke(path(), maximum_slot_at, lie);
        if (record_too) poke(path(), maximum_record_at, lie - 40);
        file f{variable().with_flags(O_RDWR)};
        ASSERT_TRUE(f.ok()) << f.error();
        EXPECT_EQ(f.write("fifth", by_rrn(4)).value, 5);
        EXPECT_TRUE(f.read(by_rrn(4)).found("fifth"));
        EXPECT_TRUE(f.read(prev()).found("first"));
        EXPECT_EQ(f.close(), 0);
        struct stat facts {};
        ASSERT_EQ(stat(path().c_str(), &facts), 0);
        EXPECT_LT(facts.st_blocks * 512, 1 << 20) << record_too;
        EXPECT_FALSE(file_is_unclean(path()));
        ASSERT_TRUE(f.open(variable().with_flags(O_RDONLY)));
        EXPECT_EQ(f.rest(), (std::vector<std::string>{"first", "fifth"}));
        EXPECT_EQ(f.close(), 0);
    }
    spill(path(), sound);
    poke(path(), data_block_size_at, uint64_t{1} << 27); // to which a file would be padded
    file f;
    EXPECT_FALSE(f.open(variable()));
    EXPECT_EQ(f.error(), EINVAL);
    spill(path(), sound);
}

TEST_F(Sequential, SequentialAccessRefusesLowerNumbers)
{
    file f{fixed().with_access(VFS_ACCESS_SEQUENTIAL)};
    f.write("record.........0", by_rrn(0));
    EXPECT_EQ(f.write("record.........3", by_rrn(3)).rrn, 3u);
    EXPECT_TRUE(f.write("record.........1", by_rrn(1)).failed(EEXIST));
    EXPECT_EQ(f.write("record.........4").rrn, 4u);
    EXPECT_EQ(f.rest().size(), 3u);
}

TEST_F(Sequential, DeletingTheLastRecordMovesTheEndBack)
{
    for (const file_spec &spec : {variable(), fixed()}) {
        ops().unlink(path().c_str());
        file f{spec};
        for (const char *each : {"record.........0", "record.........1", "record.........2"}) f.write(each);
        const outcome third = f.read(last());
        EXPECT_EQ(f.erase(current()).value, 0);
        EXPECT_TRUE(f.erase(current()).failed(ESPIPE));
        EXPECT_EQ(f.info().empty_count, 0);
        const outcome again = f.write("record.........x");
        EXPECT_EQ(again.offset, third.offset);
        EXPECT_EQ(again.rrn, 2u);
        for (int64_t n = 2; n >= 0; --n) EXPECT_EQ(f.erase(by_rrn(n)).value, 0);
        EXPECT_TRUE(f.read(first()).ended());
        EXPECT_EQ(f.write("record.........y").rrn, 0u);
        EXPECT_EQ(f.close(), 0);
        EXPECT_EQ(check_file(path()), "");
    }
}

TEST_F(Sequential, WritesAtTheCurrentPlace)
{
    file f{variable()};
    EXPECT_TRUE(f.write("x", current()).failed(EINVAL)); // there is none
    for (const char *bytes : {"first", "second", "third"}) ASSERT_GT(f.write(bytes).value, 0);
    EXPECT_TRUE(f.read(by_rrn(1)).found("second"));
    const outcome replaced = f.write("SECOND, and longer than its slot has room for", current());
    EXPECT_EQ(replaced.rrn, 1u);
    EXPECT_EQ(f.info().record_count, 3);
    ASSERT_EQ(f.erase(by_rrn(0)).value, 0);
    EXPECT_EQ(f.write("FIRST", current()).rrn, 0u); // into the slot that has become free
    EXPECT_TRUE(f.read(last()).found("third"));
    EXPECT_TRUE(f.read(next()).ended());
    EXPECT_EQ(f.write("fourth", current()).rrn, 3u); // at the end it is appended
    EXPECT_TRUE(f.read(last()).found("fourth"));
    EXPECT_EQ(f.write("fifth", next()).rrn, 4u); // so it is where a step finds nothing
    EXPECT_TRUE(f.read(by_rrn(9)).failed(ESPIPE));
    EXPECT_TRUE(f.write("x", current()).failed(EINVAL));
    EXPECT_TRUE(f.write("x", first()).failed(EADDRINUSE));
    EXPECT_TRUE(f.read(first()).found("FIRST"));
    EXPECT_EQ(f.rest(),
              (std::vector<std::string>{"SECOND, and longer than its slot has room for", "third", "fourth", "fifth"}));
}

TEST_F(Sequential, StartByOffsetBelievesNothing)
{
    file f{variable()};
    f.write("one");
    const outcome two = f.write("two");
    EXPECT_EQ(f.start(at_offset(static_cast<int64_t>(two.offset))).value, 3);
    EXPECT_TRUE(f.read(next()).found("two"));
    for (const int64_t bad :
         {int64_t{0}, int64_t{data_start + 8}, int64_t{4097}, int64_t{-1}, int64_t{1} << 40, INT64_MIN})
        EXPECT_TRUE(f.start(at_offset(bad)).failed(ESPIPE)) << bad;
    EXPECT_TRUE(f.read(at_offset(4096)).failed(EINVAL));
    EXPECT_EQ(printed(), "pos=8\n");
}

TEST_F(Sequential, RecordsOfSeveralBlocksComeBackWhole)
{
    const file_spec spec = variable();
    std::vector<std::string> all;
    file f{spec};
    for (const size_t length :
         {size_t{131072}, size_t{5} << 20, size_t{1}, size_t{131032}, size_t{3000000}, size_t{0}}) {
        std::string record(length, '\0');
        for (size_t i = 0; i < length; ++i) record[i] = static_cast<char>(i * 2654435761u >> 13);
        ASSERT_EQ(f.write(record).value, static_cast<int64_t>(length));
        all.push_back(std::move(record));
    }
    f.close();
    for (const char *lock : {"2", "0", "4"}) {
        const environment how{"VFS_LOCK", lock};
        poke(path(), data_block_size_at, uint64_t{lock[0] == '0' ? 1U << 20 : 1U << 17});
        for (const uint32_t access : {VFS_ACCESS_SEQUENTIAL, VFS_ACCESS_DYNAMIC}) {
            f.area = 6 << 20;
            ASSERT_TRUE(f.open(variable(O_RDWR).with_access(access)));
            EXPECT_EQ(f.rest(), all) << lock << access;
            EXPECT_EQ(f.close(), 0);
        }
    }
}

TEST_F(Sequential, StepsGoOnByNumberWhereAnotherHandleCutTheFileAndAppendedOtherSlots)
{
    variables.set("VFS_LOCK", "9"); // as the host says
    file_spec spec = variable();
    spec.locks = locks_of(VFS_LOCK_FILE);
    spec.locks->share_mode = VFS_SHARE_ALL;
    const auto give = [](file &from) { EXPECT_EQ(from.run(operation::unlock, next()).value, 0); };
    const auto last_three_replaced = [&](size_t length) {
        file other{spec};
        ASSERT_TRUE(other.ok()) << other.error();
        for (const int64_t rrn : {5, 4, 3}) EXPECT_EQ(other.erase(by_rrn(rrn)).value, 0);
        for (const char tint : {'x', 'y', 'z', '!'}) EXPECT_GE(other.write(std::string(length, tint)).value, 0);
        EXPECT_EQ(other.close(), 0);
    };
    for (const size_t length : {size_t{3}, size_t{60}, size_t{700}, size_t{8}, size_t{50}}) {
        const bool forward = length != 8 && length != 700;
        unlink(path().c_str());
        file f{spec};
        ASSERT_TRUE(f.ok()) << f.error();
        for (const char tint : {'a', 'b', 'c', 'd', 'e', 'f'}) f.write(std::string(50, tint));
        EXPECT_TRUE(f.read(by_rrn(4)).found(std::string(50, 'e')));
        give(f);
        last_three_replaced(length);
        EXPECT_TRUE(f.read(forward ? next() : prev()).found(std::string(length, forward ? 'z' : 'x'))) << length;
        EXPECT_EQ(f.rest(forward), forward ? std::vector<std::string>(1, std::string(length, '!'))
                                           : (std::vector<std::string>{std::string(50, 'c'), std::string(50, 'b'),
                                                                       std::string(50, 'a')}));
        EXPECT_EQ(f.close(), 0);
        EXPECT_EQ(check_file(path()), "");
    }
    printed(); // the warning of several writers
}

TEST_F(Sequential, UnknownModesAreReportedAsGiven)
{
    file f{variable()};
    f.write("one");
    for (const int32_t mode : {-1, 14, 255, 256 + VFS_POS_NEXT, INT32_MIN}) {
        const place where{.mode = mode, .key = {}};
        EXPECT_TRUE(f.read(where).failed(EINVAL));
        EXPECT_TRUE(f.write("two", where).failed(EINVAL));
        EXPECT_TRUE(f.rewrite("two", where).failed(EINVAL));
        EXPECT_TRUE(f.erase(where).failed(EINVAL));
        EXPECT_TRUE(f.start(where).failed(EINVAL));
        EXPECT_TRUE(f.position(where).failed(EINVAL));
        std::string lines;
        for (int i = 0; i < 6; ++i) lines += "pos=" + std::to_string(mode) + "\n";
        EXPECT_EQ(printed(), lines);
    }
    EXPECT_TRUE(f.read(first()).found("one"));
}

} // namespace
