// start_test.cc: start where it is not given a key: from where the last operation stood, at the ends, at an offset. What
// start finds, the first read after it returns.
#include "checker.h"
#include "host.h"

#include <cerrno>

namespace {

using namespace host;

enum class form { flat, relative, indexed };

class Start : public DriverTest, public testing::WithParamInterface<form> {
protected:
    // By the alternate key of an indexed file the order is the other way round.
    static std::string record(int64_t n) { return numbered("%04ld", n) + numbered("%04ld", 9 - n); }
    file_spec spec() const
    {
        switch (GetParam()) {
        case form::flat: return flat(path(), VFS_FORMAT_VARIABLE, 20);
        case form::relative: return relative(path(), VFS_FORMAT_VARIABLE, 20);
        default: return indexed(path(), {{.parts = {{0, 4}}}, {.parts = {{4, 4}}, .duplicates = true}}, 20);
        }
    }
    void SetUp() override
    {
        file made{spec()};
        for (int64_t n = 0; n < 5; ++n)
            ASSERT_EQ(made.write(record(n), GetParam() == form::indexed ? by_record() : end()).value, 8);
        ASSERT_EQ(made.close(), 0);
        ASSERT_TRUE(f.open(spec().with_flags(O_RDWR)));
    }
    void TearDown() override
    {
        f.close();
        EXPECT_EQ(check_file(path()), "");
        DriverTest::TearDown();
    }
    static place at(int64_t n) { return GetParam() == form::indexed ? by_key(numbered("%04ld", n)) : by_rrn(n); }
    static place mode(int32_t which) { return {.mode = which, .key = {}}; }

    file f;
};

TEST_P(Start, AsTheFirstOperationMeansTheEnds)
{
    EXPECT_EQ(f.start(next()).value, 8);
    EXPECT_TRUE(f.read(next()).found(record(0)));
    f.close();
    ASSERT_TRUE(f.open(spec().with_flags(O_RDWR)));
    EXPECT_EQ(f.start(prev()).value, 8);
    EXPECT_TRUE(f.read(prev()).found(record(4)));
}

TEST_P(Start, StepsFromWhereTheFileStandsAndTurnsBackAtTheEnds)
{
    ASSERT_TRUE(f.read(at(2)).found(record(2)));
    EXPECT_EQ(f.start(next()).value, 8);
    EXPECT_TRUE(f.read(next()).found(record(3)));
    EXPECT_EQ(f.start(prev()).value, 8);
    EXPECT_TRUE(f.read(next()).found(record(2)));
    ASSERT_TRUE(f.read(last()).found(record(4)));
    EXPECT_TRUE(f.start(next()).ended());
    EXPECT_TRUE(f.read(next()).ended());
    EXPECT_TRUE(f.read(prev()).found(record(4)));
    ASSERT_TRUE(f.read(first()).found(record(0)));
    EXPECT_TRUE(f.start(prev()).ended());
    EXPECT_TRUE(f.read(next()).found(record(0)));
    EXPECT_EQ(f.start(mode(VFS_POS_AFTER_LAST)).value, 8); // the last record, for all its name
    EXPECT_TRUE(f.read(prev()).found(record(4)));
    EXPECT_EQ(f.start(mode(VFS_POS_BEFORE_FIRST)).value, 8);
    EXPECT_TRUE(f.read(next()).found(record(0)));
}

TEST_P(Start, AtTheCurrentRecordReadsItAgain)
{
    EXPECT_TRUE(f.start(current()).failed(EINVAL)); // there is none yet
    ASSERT_TRUE(f.read(at(2)).found(record(2)));
    EXPECT_EQ(f.start(current()).value, 8);
    EXPECT_TRUE(f.read(next()).found(record(2)));
    EXPECT_TRUE(f.read(next()).found(record(3)));
    EXPECT_TRUE(f.start(at(7)).failed(ESPIPE));
    EXPECT_TRUE(f.start(current()).failed(EINVAL));
    ASSERT_TRUE(f.read(at(1)).found(record(1)));
    ASSERT_EQ(f.erase().value, 0);
    EXPECT_TRUE(f.start(current()).failed(ESPIPE));
}

TEST_P(Start, AtAnOffsetGoesOnInTheOrderOfTheKey)
{
    const uint64_t offset = f.read(at(3)).offset;
    ASSERT_TRUE(f.read(at(1)).found(record(1)));
    EXPECT_EQ(f.start(at_offset(static_cast<int64_t>(offset))).value, 8);
    EXPECT_TRUE(f.read(next()).found(record(3)));
    EXPECT_TRUE(f.read(next()).found(record(4)));
    for (const uint64_t nothing : {offset + 8, uint64_t{0}, uint64_t{1} << 60})
        EXPECT_TRUE(f.start(at_offset(static_cast<int64_t>(nothing))).failed(ESPIPE)) << nothing;
    ASSERT_EQ(f.erase(at(3)).value, 0);
    EXPECT_TRUE(f.start(at_offset(static_cast<int64_t>(offset))).failed(ESPIPE));
    if (GetParam() != form::indexed) return;
    ASSERT_TRUE(f.read(first(1)).found(record(4)));
    EXPECT_EQ(f.start(at_offset(static_cast<int64_t>(f.read(at(1)).offset))).value, 8);
    ASSERT_TRUE(f.read(first(1)).found(record(4)));
    EXPECT_EQ(f.start(next()).value, 8);
    EXPECT_TRUE(f.read(next()).found(record(2)));
}

std::string name_of_form(const testing::TestParamInfo<form> &chosen)
{
    static const char *const names[] = {"Flat", "Relative", "Indexed"};
    return names[static_cast<size_t>(chosen.param)];
}

INSTANTIATE_TEST_SUITE_P(OfEveryOrganization, Start, testing::Values(form::flat, form::relative, form::indexed),
                         name_of_form);

} // namespace
