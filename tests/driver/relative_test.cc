// relative_test.cc: files whose tree is keyed by record number.
#include "checker.h"
#include "host.h"

#include <cerrno>

namespace {

using namespace host;

class Relative : public DriverTest {
protected:
    file_spec spec(uint32_t format = VFS_FORMAT_VARIABLE) { return relative(path(), format, 40); }
    void TearDown() override
    {
        EXPECT_EQ(check_file(path()), "");
        DriverTest::TearDown();
    }
};

TEST_F(Relative, NumbersNeedNoNeighbours)
{
    file f{spec()};
    for (const int64_t n : {int64_t{5}, int64_t{9}, int64_t{7}, int64_t{1} << 40})
        EXPECT_EQ(f.write(numbered("record %ld", n), by_rrn(n)).rrn, static_cast<uint64_t>(n));
    EXPECT_EQ(f.info().empty_count, 0);
    EXPECT_EQ(f.info().record_count, 4);
    EXPECT_EQ(f.write("appended").rrn, (uint64_t{1} << 40) + 1);
    EXPECT_TRUE(f.write("again", by_rrn(7)).failed(EADDRINUSE));
    EXPECT_EQ(f.rest(),
              (std::vector<std::string>{"record 5", "record 7", "record 9", "record 1099511627776", "appended"}));
    EXPECT_TRUE(f.start(by_rrn(4, VFS_GREATER_EQUAL)).failed(ESPIPE));
    EXPECT_TRUE(f.start(by_rrn(int64_t{1} << 41, VFS_LESS_EQUAL)).failed(ESPIPE));
    EXPECT_EQ(f.start(by_rrn(0, VFS_GREATER_EQUAL)).rrn, 5u);
    EXPECT_EQ(f.start(by_rrn(8, VFS_GREATER)).rrn, 9u);
    EXPECT_EQ(f.start(by_rrn(8, VFS_LESS)).rrn, 7u);
    EXPECT_EQ(f.start(by_rrn(-1)).rrn, (uint64_t{1} << 40) + 1);
    EXPECT_TRUE(f.read(by_rrn(8)).failed(ESPIPE));
    EXPECT_TRUE(f.position(by_rrn(8)).failed(ESPIPE));
    EXPECT_EQ(f.position(by_rrn(9)).value, 0);
}

TEST_F(Relative, TextKeysAreDecimalNumbers)
{
    file f{spec()};
    EXPECT_EQ(f.write("twelve", by_key("12")).rrn, 12u);
    EXPECT_EQ(f.write("forty-two", by_rrn(42)).rrn, 42u);
    const outcome got = f.read(by_key("0042"));
    EXPECT_TRUE(got.found("forty-two"));
    EXPECT_EQ(got.rrn, 42u);
    EXPECT_TRUE(f.read(by_key("  12")).found("twelve"));
    for (const char *bad : {"7a", "", "-1", "+1", "1 ", "99999999999999999999999"})
        EXPECT_EQ(f.read(by_key(bad)).value, -1) << bad;
    EXPECT_TRUE(f.read(by_key("13")).ended());
    EXPECT_EQ(f.rewrite("a dozen", by_key("12")).value, 7);
    EXPECT_EQ(f.start(by_key("13", 0, VFS_GREATER)).rrn, 42u);
    EXPECT_EQ(f.erase(by_key("42")).value, 0);
    EXPECT_TRUE(f.read(by_key("12", 1)).failed(EINVAL)); // there is one key, number 0
    EXPECT_TRUE(f.read(next()).ended());                 // the started record is gone, and it was the last
    EXPECT_EQ(f.rest(false), std::vector<std::string>{"a dozen"});
}

TEST_F(Relative, AfterADeleteTheNextReadReturnsTheFollower)
{
    file f{spec(VFS_FORMAT_FIXED)};
    for (int64_t n = 0; n < 5; ++n) f.write(numbered("record %033ld", n));
    EXPECT_EQ(f.read(by_rrn(2)).rrn, 2u);
    EXPECT_EQ(f.erase(by_rrn(2)).value, 0);
    EXPECT_EQ(f.read(next()).rrn, 3u);
    EXPECT_EQ(f.erase(current()).value, 0);
    EXPECT_EQ(f.read(prev()).rrn, 1u);
    EXPECT_TRUE(f.rewrite(numbered("record %033ld", 2), by_rrn(2)).failed(ESPIPE));
    EXPECT_TRUE(f.erase(by_rrn(2)).failed(ESPIPE));
    EXPECT_TRUE(f.erase(current()).failed(EINVAL));
    EXPECT_EQ(f.info().empty_count, 2);
    // Freed slots are used again, the last one first, and the number is the caller's.
    EXPECT_EQ(f.write(numbered("record %033ld", 2), by_rrn(2)).value, 40);
    EXPECT_EQ(f.info().empty_count, 1);
    EXPECT_EQ(f.write(numbered("record %033ld", 5)).rrn, 5u);
    EXPECT_EQ(f.info().empty_count, 0);
    EXPECT_EQ(f.start(first()).value, 40);
    EXPECT_EQ(f.rest().size(), 5u);
}

TEST_F(Relative, NumbersDoNotRunBackWhenTheHighestIsDeleted)
{
    file f{spec()};
    for (int64_t n = 0; n < 3; ++n) f.write("x");
    f.erase(by_rrn(2));
    EXPECT_EQ(f.write("y").rrn, 3u);
    f.close();
    ASSERT_TRUE(f.open(spec().with_flags(O_RDWR)));
    EXPECT_EQ(f.write("z").rrn, 4u);
    EXPECT_EQ(f.read(last()).rrn, 4u);
}

} // namespace
