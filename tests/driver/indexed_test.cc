// indexed_test.cc: files with keys from the record.
#include "checker.h"
#include "host.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

using namespace host;

class Indexed : public DriverTest {
protected:
    // Primary key: four bytes; then a unique and a duplicate alternate key.
    const std::vector<key> keys{{.parts = {{0, 4}}}, {.parts = {{4, 2}}}, {.parts = {{6, 3}}, .duplicates = true}};
    file_spec spec() { return indexed(path(), keys, 60); }
    void TearDown() override
    {
        EXPECT_EQ(check_file(path()), "");
        DriverTest::TearDown();
    }
};

TEST_F(Indexed, ARefusedWriteLeavesNoTrace)
{
    file f{spec()};
    EXPECT_EQ(f.write("AAAA01red", by_record()).rrn, 0u);
    for (int attempt = 0; attempt < 3; ++attempt) {
        EXPECT_TRUE(f.write("BBBB01red", by_record()).failed(EADDRINUSE));
        EXPECT_TRUE(f.write("AAAA02red", by_record()).failed(EADDRINUSE));
    }
    EXPECT_EQ(f.info().record_count, 1);
    EXPECT_TRUE(f.read(by_key("BBBB")).ended());
    EXPECT_EQ(f.write("BBBB02red", by_record()).rrn, 1u);
    EXPECT_EQ(f.start(first(2)).value, 9);
    EXPECT_EQ(f.rest(), (std::vector<std::string>{"AAAA01red", "BBBB02red"}));
}

// Trees are changed one after the other: what a damaged one refuses is taken back in those before it. Whether it has
// changed itself cannot be told, so that the handle is good for nothing more, and the file says that it was not closed.
TEST_F(Indexed, WhatADamagedTreeRefusesIsTakenBackInTheOthers)
{
    {
        file f{spec()};
        for (const char *bytes : {"AAAA01red", "BBBB02red", "CCCC03tan"})
            ASSERT_EQ(f.write(bytes, by_record()).value, 9);
    }
    const std::string sound = slurp(path());
    const uint64_t entries = peek(path(), peek(path(), table_at) + 2 * 192 + 128) + 64; // of the last tree's root
    variables.set("VFS_UNCLEAN", "read");
    for (const operation which : {operation::erase, operation::write, operation::rewrite}) {
        spill(path(), sound);
        poke(path(), entries, uint64_t{1} << 40);
        file f{spec().with_flags(O_RDWR)};
        EXPECT_TRUE(f.run(which, which == operation::erase ? by_key("BBBB") : by_record(),
                          which == operation::write ? "DDDD04red" : "BBBB05tan")
                        .failed(ENOEXEC));
        const bool over = which != operation::rewrite; // which looks at every tree before it changes one
        EXPECT_EQ(f.read(first()).failed(ENOEXEC), over);
        EXPECT_EQ(f.close(), over ? ENOEXEC : 0);
        EXPECT_EQ(file_is_unclean(path()), over);
        poke(path(), entries, uint64_t{3});
        ASSERT_TRUE(f.open(spec().with_flags(O_RDONLY)));
        for (const int64_t k : {0, 1, 2}) {
            EXPECT_TRUE(f.read(first(k)).found("AAAA01red")) << name_of(which) << k;
            EXPECT_EQ(f.rest(), (std::vector<std::string>{"BBBB02red", "CCCC03tan"})) << name_of(which) << k;
        }
    }
    printed();
    spill(path(), sound);
}

// The last tree's leaf is full, and the list of free index blocks leads nowhere.
TEST_F(Indexed, WithoutABlockForASplitNothingIsChanged)
{
    file_spec wide = indexed(path(), {{.parts = {{0, 4}}}, {.parts = {{4, 2}}}, {.parts = {{6, 1600}}}}, 1610);
    const auto record = [](int64_t n) {
        std::string bytes = numbered("%04ld", n) + numbered("%02ld", n) + numbered("%02ld", n);
        bytes.resize(1606, '.');
        return bytes;
    };
    {
        file f{wide};
        for (int64_t n = 0; n < 40; n += 2) ASSERT_EQ(f.write(record(n), by_record()).value, 1606);
    }
    const std::string sound = slurp(path());
    constexpr uint64_t free_blocks_at = 272; // their number, and the first one
    poke(path(), free_blocks_at, uint64_t{1});
    poke(path(), free_blocks_at + 8, peek(path(), peek(path(), table_at) + 136)); // the first tree's leaf
    {
        file f{wide.with_flags(O_RDWR)};
        EXPECT_TRUE(f.write(record(41), by_record()).failed(ENOEXEC));
        std::string changed = record(31);
        changed.replace(0, 4, record(2), 0, 4); // other values for the second and the third key
        EXPECT_TRUE(f.rewrite(changed, by_record()).failed(ENOEXEC));
        for (const int64_t k : {0, 1, 2}) {
            EXPECT_TRUE(f.read(first(k)).found(record(0)));
            EXPECT_EQ(f.rest().size(), 19u) << k;
            EXPECT_TRUE(f.read(by_key(wide.keys[static_cast<size_t>(k)].of(record(2)), k)).found(record(2))) << k;
        }
        EXPECT_EQ(f.info().record_count, 20);
        EXPECT_EQ(f.close(), 0);
    }
    printed();
    spill(path(), sound);
}

TEST_F(Indexed, SequentialAccessWantsAscendingPrimaryKeys)
{
    file f{spec().with_access(VFS_ACCESS_SEQUENTIAL)};
    EXPECT_EQ(f.write(std::string{"\0\0\0\0aaaaa", 9}, by_record()).value, 9);
    EXPECT_EQ(f.write("CCCC01red", by_record()).value, 9);
    EXPECT_TRUE(f.write("BBBB02red", by_record()).failed(EEXIST));
    EXPECT_TRUE(f.write("CCCC02red", by_record()).failed(EADDRINUSE));
    EXPECT_EQ(f.read(by_key("CCCC")).value, 9);
    EXPECT_TRUE(f.rewrite("CCCX01red").failed(EEXIST));
    EXPECT_EQ(f.read(by_key("CCCC")).value, 9);
    EXPECT_EQ(f.erase().value, 0);
    EXPECT_EQ(f.write("BBBB02red", by_record()).value, 9);
    EXPECT_EQ(f.info().record_count, 2);
}

TEST_F(Indexed, StartFindsByEveryRelationAndLeadingPart)
{
    file f{spec()};
    for (const char *each : {"ABAA01red", "ABCC02red", "ABCD03red", "ABDA04red"}) f.write(each, by_record());
    const struct {
        const char *key;
        int32_t relation;
        const char *found; // null: none
    } rows[] = {
        {"ABCC", VFS_EQUAL, "ABCC02red"},
        {"ABCB", VFS_EQUAL, nullptr},
        {"ABC", VFS_EQUAL, "ABCC02red"},
        {"ABX", VFS_EQUAL, nullptr},
        {"ABC", VFS_GREATER, "ABDA04red"},
        {"ABC", VFS_GREATER_EQUAL, "ABCC02red"},
        {"ABC", VFS_LESS, "ABAA01red"},
        {"ABC", VFS_LESS_EQUAL, "ABCD03red"},
        {"ABDA", VFS_GREATER, nullptr},
        {"ABAA", VFS_LESS, nullptr},
        {"ZZZZ", VFS_LESS, "ABDA04red"},
        {"AAAA", VFS_GREATER, "ABAA01red"},
        {"\0\0\0\0", VFS_GREATER_EQUAL, "ABAA01red"},
        {"\xff\xff\xff\xff", VFS_LESS_EQUAL, "ABDA04red"},
        {"", VFS_GREATER, "ABAA01red"},
        {"", VFS_LESS, "ABDA04red"},
        {"", VFS_EQUAL, "ABAA01red"},
        {"ABCCxxxx", VFS_EQUAL, "ABCC02red"},
        {"ABCC", 5, nullptr},
    };
    for (const auto &row : rows) {
        const size_t length = row.key[0] == '\0' && row.relation == VFS_GREATER_EQUAL ? 4 : strlen(row.key);
        const outcome got = f.start(by_key(std::string(row.key, length), 0, row.relation));
        if (row.found == nullptr) {
            EXPECT_TRUE(got.failed(ESPIPE)) << row.key << row.relation << got;
            continue;
        }
        EXPECT_EQ(got.value, 9) << row.key << row.relation;
        EXPECT_TRUE(f.read(next()).found(row.found)) << row.key << row.relation;
    }
    EXPECT_TRUE(f.start(by_key("AB", 3)).failed(EINVAL));
    EXPECT_TRUE(f.start(first(-1)).failed(EINVAL));
    // Without key bytes the key comes from the record.
    place from_record = by_record(1);
    from_record.length = 2;
    EXPECT_EQ(f.run(operation::start, from_record, "xxxx03").value, 9);
    EXPECT_TRUE(f.read(next()).found("ABCD03red"));
}

TEST_F(Indexed, StatusShowsKeyAndPlaceOfTheRecord)
{
    file f{spec()};
    f.write("AAAA01red", by_record());
    const outcome second = f.write("BBBB02red", by_record());
    EXPECT_TRUE(second.duplicate);
    const outcome got = f.read(by_key("01", 1));
    EXPECT_EQ(memcmp(got.key, "01", 2), 0);
    EXPECT_FALSE(got.duplicate);
    const outcome following = f.read(next());
    EXPECT_EQ(memcmp(following.key, "02", 2), 0);
    EXPECT_EQ(following.offset, second.offset);
    EXPECT_EQ(following.rrn, 1u);
    EXPECT_TRUE(f.read(by_key("red", 2)).duplicate);
    EXPECT_TRUE(f.read(first(2)).duplicate);
    EXPECT_FALSE(f.read(next()).duplicate);
}

TEST_F(Indexed, EachKeyKeepsReadingWhereItsLastReadStood)
{
    file f{spec()};
    for (const char *each : {"AAAA03red", "BBBB02red", "CCCC01red"}) f.write(each, by_record());
    EXPECT_TRUE(f.read(first(1)).found("CCCC01red"));
    EXPECT_TRUE(f.read(next()).found("BBBB02red"));
    EXPECT_TRUE(f.read(by_key("BBBB")).found("BBBB02red"));
    EXPECT_TRUE(f.read(next()).found("CCCC01red"));
    EXPECT_TRUE(f.read(by_key("02", 1)).found("BBBB02red"));
    EXPECT_TRUE(f.read(next()).found("AAAA03red"));
    EXPECT_TRUE(f.read(by_rrn(0)).failed(EINVAL));
}

// What another handle of the process does to the record that this one stands on.
TEST_F(DriverTest, PositionFollowsARecordThatAnotherHandleMoved)
{
    variables.set("VFS_LOCK", "4");
    const file_spec spec = indexed(path(), {{.parts = {{0, 4}}}, {.parts = {{4, 2}}, .duplicates = true}}, 500);
    file mine{spec}, other{spec};
    printed(); // the warning of a second writer in the process
    for (const char *key : {"0001aa", "0002aa", "0003aa", "0004ab"}) ASSERT_EQ(mine.write(key, by_record()).value, 6);
    const std::string grown = "0002aa" + std::string(300, 'x');
    ASSERT_EQ(mine.run(operation::start, by_key("0002")).value, 6);
    ASSERT_EQ(other.rewrite(grown, by_key("0002")).value, 306);
    EXPECT_TRUE(mine.read(next()).found(grown));
    EXPECT_TRUE(mine.read(next()).found("0003aa"));

    ASSERT_TRUE(mine.read(by_key("0001")).found("0001aa"));
    ASSERT_TRUE(mine.read(first(1)).found("0001aa"));
    ASSERT_EQ(other.rewrite("0001aa" + std::string(400, 'y'), by_key("0001")).value, 406);
    EXPECT_TRUE(mine.read(next()).found(grown));
    ASSERT_EQ(other.erase(by_key("0002")).value, 0);
    EXPECT_EQ(mine.read(next()).bytes, "0003aa");
    ASSERT_EQ(other.rewrite("0003aa" + std::string(450, 'z'), by_key("0003")).value, 456);
    EXPECT_EQ(mine.rewrite("0003ab", current()).value, 6);
    EXPECT_EQ(mine.close(), 0);
    EXPECT_EQ(other.close(), 0);
    EXPECT_EQ(check_file(path()), "");
}

} // namespace
