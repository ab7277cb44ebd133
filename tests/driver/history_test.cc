// history_test.cc: the judge of histories on histories whose verdict is known, and then on what processes and threads
// were told about a handful of records that all of them read and write.
#include "history.h"
#include "storm.h"

#include <cerrno>
#include <filesystem>
#include <random>
#include <thread>

namespace {

using namespace host;

// ---- Histories made by hand --------------------------------------------------------------------------------------

event heard(act what, reply answer, uint64_t value, int64_t from, int64_t to, uint64_t expected = 0)
{
    return {.what = what, .answer = answer, .value = value, .expected = expected, .from = from, .to = to};
}

event saw(uint64_t value, int64_t from, int64_t to)
{
    return heard(act::read, value == 0 ? reply::absent : reply::done, value, from, to);
}

event wrote(uint64_t value, int64_t from, int64_t to)
{
    return heard(act::replace, reply::done, value, from, to);
}

event inserted(uint64_t value, int64_t from, int64_t to)
{
    return heard(act::insert, reply::done, value, from, to);
}

event removed(int64_t from, int64_t to)
{
    return heard(act::remove, reply::done, 0, from, to);
}

bool explained(const std::vector<event> &events, uint64_t initial = 0)
{
    return check_history(events, initial).empty();
}

TEST(History, NothingAndOneAfterTheOtherAreExplained)
{
    EXPECT_TRUE(explained({}));
    EXPECT_TRUE(
        explained({saw(0, 1, 2), inserted(7, 3, 4), saw(7, 5, 6), wrote(8, 7, 8), removed(9, 10), saw(0, 11, 12)}));
    EXPECT_TRUE(explained({saw(5, 1, 2)}, 5));
}

TEST(History, AReadOfAnOldValueIsNot)
{
    EXPECT_FALSE(explained({inserted(7, 1, 2), wrote(8, 3, 4), saw(7, 5, 6)}));
    EXPECT_FALSE(explained({inserted(7, 1, 2), saw(0, 3, 4)}));
    EXPECT_FALSE(explained({saw(7, 1, 2), inserted(7, 3, 4)})); // read before it was written
    EXPECT_FALSE(explained({removed(1, 2)}));
}

TEST(History, OverlappingCallsMayTakeEitherOrder)
{
    EXPECT_TRUE(explained({wrote(8, 1, 10), saw(7, 2, 3), saw(8, 4, 5)}, 7));
    EXPECT_TRUE(explained({wrote(8, 1, 10), saw(7, 2, 9)}, 7));
    EXPECT_TRUE(explained({wrote(8, 1, 10), wrote(9, 2, 9), saw(8, 11, 12)}, 7));
    EXPECT_TRUE(explained({wrote(8, 1, 10), wrote(9, 2, 9), saw(9, 11, 12)}, 7));
}

TEST(History, ButOneOrderForAll)
{
    EXPECT_FALSE(explained({wrote(8, 1, 10), saw(8, 2, 3), saw(7, 4, 5)}, 7)); // new, then old
    EXPECT_FALSE(explained({wrote(8, 1, 10), wrote(9, 2, 9), saw(8, 11, 12), saw(9, 13, 14)}, 7));
    EXPECT_FALSE(explained({wrote(8, 1, 10), wrote(9, 1, 10), saw(7, 11, 12)}, 7));
}

TEST(History, ARefusalSaysThatTheRecordWasThereOrNot)
{
    EXPECT_TRUE(explained({heard(act::insert, reply::exists, 9, 1, 2), saw(7, 3, 4)}, 7));
    EXPECT_FALSE(explained({heard(act::insert, reply::exists, 9, 1, 2)}));
    EXPECT_FALSE(explained({inserted(8, 1, 2)}, 7));
    EXPECT_TRUE(explained({heard(act::remove, reply::absent, 0, 1, 2)}));
    EXPECT_FALSE(explained({heard(act::replace, reply::absent, 9, 1, 2)}, 7));
}

TEST(History, AValueKeptByALockDoesNotChange)
{
    EXPECT_TRUE(explained({saw(7, 1, 2), heard(act::replace, reply::done, 8, 3, 4, 7)}, 7));
    EXPECT_FALSE(explained({saw(7, 1, 2), wrote(9, 2, 3), heard(act::replace, reply::done, 8, 4, 5, 7)}, 7)); // lost
}

TEST(History, AnAnswerThatNobodyHeardHappenedInTimeOrNever)
{
    const event cut = heard(act::replace, reply::unknown, 8, 1, 5);
    EXPECT_TRUE(explained({cut, saw(7, 6, 7), saw(7, 8, 9)}, 7));
    EXPECT_TRUE(explained({cut, saw(8, 6, 7), saw(8, 8, 9)}, 7));
    EXPECT_FALSE(explained({cut, saw(7, 6, 7), saw(8, 8, 9)}, 7)); // it came late
    EXPECT_FALSE(explained({cut, saw(8, 6, 7), saw(7, 8, 9)}, 7)); // it was taken back
    event open_end = cut;
    open_end.to = without_end;
    EXPECT_TRUE(explained({open_end, saw(7, 6, 7), saw(8, 8, 9)}, 7));
}

TEST(History, LongOnesAreJudgedToo)
{
    std::vector<event> events{inserted(1, 0, 1)};
    for (int64_t i = 1; i < 20000; ++i) {
        events.push_back(wrote(static_cast<uint64_t>(i) + 1, 10 * i, 10 * i + 12)); // overlaps the next one
        events.push_back(saw(static_cast<uint64_t>(i), 10 * i - 3, 10 * i + 1));
    }
    EXPECT_TRUE(explained(events));
    events.push_back(saw(17, 300000, 300001));
    EXPECT_FALSE(explained(events));
}

// ---- Histories of handles ----------------------------------------------------------------------------------------

constexpr uint32_t records = 4;
constexpr unsigned calls_of_each = 250;

struct told_event {
    uint32_t id;
    event what;
};

struct teller {
    told_event told[calls_of_each + 1];
    unsigned count;
    int unexpected; // errno of an answer that none of the operations may give
};

reply reply_of(const outcome &got)
{
    if (got.ended() || got.failed(ESPIPE)) return reply::absent;
    return got.failed(EADDRINUSE) ? reply::exists : reply::done;
}

// A handle that works on the few records at random and tells what it heard.
void tell(const std::string &path, uint32_t lock_mode, unsigned number, uint64_t seed, teller *into)
{
    std::mt19937_64 random{seed};
    file f;
    if (!f.open(storm_spec(shape::indexed, path, lock_mode).with_flags(O_RDWR))) {
        into->unexpected = f.error();
        return;
    }
    const file_spec spec = storm_spec(shape::indexed, path, lock_mode);
    for (unsigned i = 0; i < calls_of_each; ++i) {
        const auto id = static_cast<uint32_t>(random() % records);
        const storm_record record{.id = id, .version = version_of(number, i + 1)};
        const std::string bytes = storm_bytes(shape::indexed, record);
        const std::string key = spec.keys[0].of(bytes);
        const uint64_t choice = random() % 8;
        const act what = choice < 4 ? act::read : choice < 5 ? act::insert : choice < 7 ? act::replace : act::remove;
        event each{.what = what, .value = record.version, .from = now_ns()};
        outcome got;
        switch (what) {
        case act::read: got = f.read(by_key(key)); break;
        case act::insert: got = f.write(bytes, by_record()); break;
        case act::replace: got = f.rewrite(bytes, by_record()); break;
        case act::remove: got = f.erase(by_key(key)); break;
        }
        each.to = now_ns();
        each.answer = reply_of(got);
        if (got.failed(EAGAIN) || got.failed(EDEADLK)) continue; // refused: nothing has happened
        if (got.value < 0 && each.answer == reply::done) {
            into->unexpected = got.error;
            continue;
        }
        storm_record arrived;
        if (what == act::read && each.answer == reply::done) {
            if (!storm_parse(shape::indexed, got.bytes, &arrived) || arrived.id != id) into->unexpected = EBADMSG;
            each.value = arrived.version;
        }
        into->told[into->count++] = {id, each};
    }
    if (f.close() != 0) into->unexpected = EIO;
}

class Handles : public testing::TestWithParam<uint32_t> {
protected:
    Handles()
    {
        for (const char *name : {"VFS_DEBUG", "VFS_SYNC", "VFS_CACHE_SIZE"}) unsetenv(name);
        setenv("VFS_LOCK", "9", 1); // the lock modes that the test asks for
        std::string pattern = std::filesystem::temp_directory_path() / "vfs_history_XXXXXX";
        directory_ = mkdtemp(pattern.data());
    }
    ~Handles() override { std::filesystem::remove_all(directory_); }

    std::string path() const { return directory_ + "/file"; }

    void make()
    {
        const auto create = [&]() -> std::string {
            file f{storm_spec(shape::indexed, path(), GetParam())};
            return f.ok() && f.close() == 0 ? "" : "the file cannot be made";
        };
        ASSERT_EQ(in_child(create), "");
    }

    static void judge(const shared_memory<teller> &tellers, unsigned count)
    {
        std::vector<event> by_id[records];
        for (unsigned t = 0; t < count; ++t) {
            EXPECT_EQ(tellers[t].unexpected, 0) << t;
            EXPECT_GT(tellers[t].count, calls_of_each / 4) << t;
            for (unsigned i = 0; i < tellers[t].count; ++i)
                by_id[tellers[t].told[i].id].push_back(tellers[t].told[i].what);
        }
        for (const std::vector<event> &events : by_id) EXPECT_EQ(check_history(events), "");
    }

private:
    std::string directory_;
};

TEST_P(Handles, OfProcessesAgreeOnOneOrder)
{
    make();
    constexpr unsigned count = 6;
    shared_memory<teller> tellers{count};
    gate start;
    std::vector<child> children;
    for (unsigned t = 0; t < count; ++t)
        children.emplace_back([&, t] {
            if (start.wait()) tell(path(), GetParam(), t, t + 1, &tellers[t]);
        });
    start.open(count);
    for (child &each : children) EXPECT_EQ(each.finish(), 0);
    judge(tellers, count);
}

TEST_P(Handles, OfThreadsAndProcessesAgreeOnOneOrder)
{
    make();
    constexpr unsigned count = 6; // three processes with two threads each, a handle for each thread
    shared_memory<teller> tellers{count};
    gate start;
    std::vector<child> children;
    for (unsigned t = 0; t < count; t += 2)
        children.emplace_back([&, t] {
            driver();
            if (!start.wait()) return;
            std::thread other{[&] { tell(path(), GetParam(), t + 1, t + 101, &tellers[t + 1]); }};
            tell(path(), GetParam(), t, t + 100, &tellers[t]);
            other.join();
        });
    start.open(count / 2);
    for (child &each : children) EXPECT_EQ(each.finish(), 0);
    judge(tellers, count);
}

INSTANTIATE_TEST_SUITE_P(Shared, Handles, testing::Values(VFS_LOCK_AUTO, VFS_LOCK_RECORD),
                         [](const testing::TestParamInfo<uint32_t> &mode) {
                             return mode.param == VFS_LOCK_RECORD ? "Records" : "Blocks";
                         });

} // namespace
