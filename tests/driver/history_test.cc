// history_test.cc: the judge of histories on histories whose verdict is known, and then on what processes and threads
// were told about a handful of records that all of them read and write.
#include "history.h"
#include "storm.h"

#include <cerrno>
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

event wrote(uint64_t value, int64_t from, int64_t to, uint64_t expected = 0)
{
    return heard(act::replace, reply::done, value, from, to, expected);
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

TEST(History, IsExplainedByOneOrderOrByNone)
{
    const event cut = heard(act::replace, reply::unknown, 8, 1, 5),
                refused = heard(act::insert, reply::exists, 9, 1, 2);
    event open_end = cut;
    open_end.to = without_end;
    const struct {
        bool explained;
        uint64_t initial;
        std::vector<event> events;
    } rows[] = {
        {true, 0, {}},
        {true, 0, {saw(0, 1, 2), inserted(7, 3, 4), saw(7, 5, 6), wrote(8, 7, 8), removed(9, 10), saw(0, 11, 12)}},
        // Old values, and those that were not there yet.
        {false, 0, {inserted(7, 1, 2), wrote(8, 3, 4), saw(7, 5, 6)}},
        {false, 0, {inserted(7, 1, 2), saw(0, 3, 4)}},
        {false, 0, {saw(7, 1, 2), inserted(7, 3, 4)}},
        {false, 0, {removed(1, 2)}},
        // Calls that overlap may take either order, but one for all.
        {true, 7, {wrote(8, 1, 10), saw(7, 2, 3), saw(8, 4, 5)}},
        {true, 7, {wrote(8, 1, 10), wrote(9, 2, 9), saw(8, 11, 12)}},
        {true, 7, {wrote(8, 1, 10), wrote(9, 2, 9), saw(9, 11, 12)}},
        {false, 7, {wrote(8, 1, 10), saw(8, 2, 3), saw(7, 4, 5)}},
        {false, 7, {wrote(8, 1, 10), wrote(9, 2, 9), saw(8, 11, 12), saw(9, 13, 14)}},
        // A refusal says that the record was there, or not.
        {true, 7, {refused, saw(7, 3, 4)}},
        {false, 0, {refused}},
        {false, 7, {inserted(8, 1, 2)}},
        {false, 7, {heard(act::replace, reply::absent, 9, 1, 2)}},
        // What a lock keeps does not change.
        {true, 7, {saw(7, 1, 2), wrote(8, 3, 4, 7)}},
        {false, 7, {saw(7, 1, 2), wrote(9, 2, 3), wrote(8, 4, 5, 7)}},
        // What nobody was told happened in time or never.
        {true, 7, {cut, saw(7, 6, 7), saw(7, 8, 9)}},
        {true, 7, {cut, saw(8, 6, 7), saw(8, 8, 9)}},
        {false, 7, {cut, saw(7, 6, 7), saw(8, 8, 9)}},
        {false, 7, {cut, saw(8, 6, 7), saw(7, 8, 9)}},
        {true, 7, {open_end, saw(7, 6, 7), saw(8, 8, 9)}},
    };
    for (size_t i = 0; i < std::size(rows); ++i)
        EXPECT_EQ(explained(rows[i].events, rows[i].initial), rows[i].explained) << "row " << i;
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
    std::string path() const { return ground_.path(); }

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
    storm_ground ground_;
};

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
