// kill_open_test.cc: the moments at which a file is made, made anew, renumbered or left. A process dies at one system
// call of such an open, for every call there is: whoever comes next finds every acknowledged record, or is told that
// the file was not closed, and can always make it anew. And another process opens at each call of a close: it waits,
// is refused or goes on, and nobody's records are lost.
#include "checker.h"
#include "killer.h"
#include "processes.h"
#include "seam.h"

#include "host.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <iostream>
#include <set>

namespace {

using namespace host;

constexpr int64_t old_records = 60, new_records = 3;

std::string record_of(int64_t n)
{
    return numbered("%08ld", n) + numbered("%04ld", n % 7) + std::string(static_cast<size_t>(n % 50), 'x');
}

class Moments : public DriverTest {
protected:
    Moments()
    {
        variables.set("VFS_LOCK", "9");
        watch_calls(nullptr); // the library is loaded here, the children have it
    }

    // Lock mode 1 is no lock, 3 the whole file, 5 records.
    file_spec spec(uint32_t lock_mode, uint32_t flags) const
    {
        file_spec wanted = indexed(path(), {key{{{0, 8}}}, key{{{8, 4}}, true}}, 200).with_flags(flags);
        wanted.locks = locks_of(lock_mode, lock_mode == VFS_LOCK_RECORD ? VFS_WAIT_KERNEL : VFS_WAIT_NEVER);
        return wanted;
    }
    std::string errors() const { return path("errors"); }

    std::string made(int64_t count, bool then_emptied)
    {
        EXPECT_EQ(in_child([&]() -> std::string {
                      file f{spec(VFS_LOCK_FILE, O_RDWR | O_CREAT | O_TRUNC)};
                      bool good = f.ok();
                      for (int64_t n = 0; n < count; ++n) good = f.write(record_of(n)).value > 0 && good;
                      for (int64_t n = 0; then_emptied && n < count; ++n)
                          good = f.erase(by_key(numbered("%08ld", n))).value >= 0 && good;
                      return f.close() == 0 && good ? "" : "not made";
                  }),
                  "");
        return slurp(path());
    }

    // What is there under both keys; "refused" for a file that says that it was not closed.
    std::string contents(uint32_t lock_mode)
    {
        return in_child([&]() -> std::string {
            file f;
            if (!f.open(spec(lock_mode, O_RDWR))) {
                if (f.error() == ENOEXEC) return "refused";
                return f.error() == ENOENT ? "none" : "errno " + std::to_string(f.error());
            }
            std::string all;
            std::multiset<std::string> by_group;
            for (outcome got = f.read(first(1)); !got.ended() && got.value >= 0; got = f.read(next()))
                by_group.insert(got.bytes);
            std::multiset<std::string> by_number;
            for (outcome got = f.read(first()); !got.ended(); got = f.read(next())) {
                if (got.value < 0) return "errno " + std::to_string(got.error);
                by_number.insert(got.bytes);
                all += got.bytes.substr(0, 8) + " ";
            }
            if (by_group != by_number) return "the keys lead to different records";
            return f.close() == 0 ? all : "the close failed";
        });
    }

    static std::string numbers(int64_t from, int64_t to)
    {
        std::string all;
        for (int64_t n = from; n < to; ++n) all += numbered("%08ld ", n);
        return all;
    }
};

// ---- Killed at each call -----------------------------------------------------------------------------------------

struct making {
    const char *name;
    uint32_t lock_mode;
    uint32_t flags;
    int64_t before; // records in the file that it begins with; -1: there is no file
    bool emptied, renumbers;
};

void PrintTo(const making &which, std::ostream *out)
{
    *out << which.name;
}

class KillWhile : public Moments, public testing::WithParamInterface<making> {};

struct making_board {
    kill_order order;
    int64_t acknowledged;
    uint32_t opened;
};

TEST_P(KillWhile, MakingLosesNoAcknowledgedRecord)
{
    const making &way = GetParam();
    std::string original;
    if (way.before >= 0) original = made(way.before, way.emptied);
    const bool shares = way.lock_mode == VFS_LOCK_RECORD, kept = way.before > 0 && !way.emptied;
    const shared_memory<making_board> board;
    unsigned refused = 0, went_on = 0;
    for (uint32_t at = 0;; ++at) {
        *board = {};
        board->order.at = at;
        unlink(path().c_str());
        if (way.before >= 0) spill(path(), original);
        if (way.renumbers) poke(path(), tsn_at, static_cast<uint64_t>(INT64_MIN) + 5);
        child victim{[&] {
                         obey(&board->order);
                         file f{spec(way.lock_mode, way.flags)};
                         board->opened = f.ok();
                         for (int64_t n = 0; n < new_records; ++n)
                             if (f.write(record_of(1000 + n)).value > 0) ++board->acknowledged;
                         if (f.close() == 0) board->acknowledged = new_records;
                         obey(nullptr);
                     },
                     errors()};
        const int ended = victim.finish();
        ASSERT_EQ(ended, board->order.died != 0 ? 1009 : 0) << at;
        const std::string where = "killed at " + describe(board->order, at);
        const std::string found = contents(way.lock_mode);
        const std::string old = kept && (way.flags & O_TRUNC) == 0 ? numbers(0, way.before) : "";
        std::set<std::string> allowed;
        const int64_t sure = shares || board->order.died == 0 ? board->acknowledged : 0;
        for (int64_t n = sure; n <= new_records; ++n) allowed.insert(old + numbers(1000, 1000 + n));
        // A sharer's acknowledged records are there at once; a file in the middle of being made says so.
        if (!shares || board->opened == 0) allowed.insert("refused");
        if (kept && board->opened == 0) allowed.insert(numbers(0, way.before)); // O_TRUNC that has not begun
        if (board->opened == 0 && way.before < 0) allowed.insert("none");
        // An empty file is no file of ours yet.
        if (board->opened == 0 && !kept && slurp(path()).empty()) allowed.insert("errno " + std::to_string(EINVAL));
        if ((way.flags & O_TRUNC) != 0 && slurp(path()).empty()) allowed.insert("errno " + std::to_string(EINVAL));
        EXPECT_TRUE(allowed.count(found)) << where << ": " << found << ", acknowledged " << board->acknowledged;
        (found == "refused" ? refused : went_on) += 1;
        if (found.empty() || found[0] == '0') { // the next one changes and closes it: it is sound then
            EXPECT_EQ(in_child([&]() -> std::string {
                          file f{spec(way.lock_mode, O_RDWR)};
                          return f.write(record_of(2000)).value > 0 && f.close() == 0 ? "" : "cannot go on";
                      }),
                      "")
                << where;
            EXPECT_EQ(check_file(path()), "") << where;
        }
        (void)made(2, false); // whatever is left, it can be made anew
        EXPECT_EQ(check_file(path()), "") << where;
        if (HasFailure() || (at != 0 && board->order.died == 0)) break;
        ASSERT_LT(at, 400U);
    }
    EXPECT_GT(went_on, 1U);
    (void)printed();
    std::cout << way.name << ": " << refused << " refused, " << went_on << " went on" << std::endl;
}

constexpr uint32_t make = O_RDWR | O_CREAT, make_anew = O_RDWR | O_CREAT | O_TRUNC;
INSTANTIATE_TEST_SUITE_P(
    AtEveryCall, KillWhile,
    testing::Values(making{"CreatingShared", VFS_LOCK_RECORD, make, -1, false, false},
                    making{"CreatingAlone", VFS_LOCK_FILE, make, -1, false, false},
                    making{"CreatingUnlocked", VFS_LOCK_NONE, make, -1, false, false},
                    making{"TruncatingShared", VFS_LOCK_RECORD, make_anew, old_records, false, false},
                    making{"TruncatingAlone", VFS_LOCK_FILE, make_anew, old_records, false, false},
                    making{"StartingAfreshShared", VFS_LOCK_RECORD, O_RDWR, old_records, true, false},
                    making{"StartingAfreshAlone", VFS_LOCK_FILE, O_RDWR, old_records, true, false},
                    making{"RenumberingShared", VFS_LOCK_RECORD, O_RDWR, old_records, false, true},
                    making{"RenumberingAlone", VFS_LOCK_FILE, O_RDWR, old_records, false, true}),
    [](const auto &chosen) { return std::string{chosen.param.name}; });

// ---- Opened at each call of a close ------------------------------------------------------------------------------

// Stops the process at the chosen call of the driver until another one opens the gate.
struct halt {
    uint32_t at, seen;
    gate *reached, *go_on;
};
halt *halting = nullptr;

call_answer halt_meet(const driver_call &call)
{
    if (strcmp(call.family, "memory") == 0 || ++halting->seen != halting->at) return {};
    halting->reached->open();
    if (!halting->go_on->wait()) _exit(8);
    return {};
}
constexpr call_watcher halt_watcher{halt_meet, nullptr};

struct closing {
    const char *name;
    uint32_t closer_mode, opener_mode;
};

void PrintTo(const closing &which, std::ostream *out)
{
    *out << which.name;
}

struct closing_board {
    halt stop;
    int opener_id, refusals, odd_error;
    bool opener_done, close_failed, opener_failed;
};

class OpenWhile : public Moments, public testing::WithParamInterface<closing> {};

TEST_P(OpenWhile, ClosingLosesNobodysRecords)
{
    const closing &way = GetParam();
    const std::string original = made(old_records, false);
    const shared_memory<closing_board> board;
    for (uint32_t at = 1;; ++at) {
        *board = {};
        spill(path(), original);
        gate reached, go_on, opener_go;
        board->stop = {.at = at, .seen = 0, .reached = &reached, .go_on = &go_on};
        child closer{[&] {
                         file f{spec(way.closer_mode, O_RDWR)};
                         if (f.write(record_of(1000)).value <= 0) _exit(7);
                         halting = &board->stop;
                         watch_calls(&halt_watcher);
                         board->close_failed = f.close() != 0;
                         watch_calls(nullptr);
                         if (board->stop.seen < board->stop.at) reached.open(); // it was the last call
                     },
                     errors()};
        child opener{[&] {
                         board->opener_id = getpid();
                         if (!opener_go.wait()) _exit(8);
                         file f;
                         while (!f.open(spec(way.opener_mode, O_RDWR))) {
                             if (f.error() != EAGAIN && f.error() != ETXTBSY && f.error() != ENOEXEC) {
                                 board->odd_error = f.error();
                                 break;
                             }
                             ++board->refusals;
                             poll(nullptr, 0, 1);
                         }
                         board->opener_failed = f.ok() && (f.write(record_of(2000)).value <= 0 || f.close() != 0);
                         board->opener_done = true;
                     },
                     errors()};
        ASSERT_TRUE(reached.wait());
        const bool last = board->stop.seen < at;
        opener_go.open();
        // Until the opener is through, has been told no, or waits for what the closer holds: in the kernel, or by asking
        // again and again, which nobody sees.
        const volatile closing_board *const seen = &*board;
        for (const int64_t until = now_ns() + 50'000'000; now_ns() < until; poll(nullptr, 0, 1))
            if (seen->opener_done || seen->refusals > 0 || waits_for_a_lock(seen->opener_id)) break;
        if (!last) go_on.open();
        EXPECT_EQ(closer.finish(), 0);
        EXPECT_EQ(opener.finish(), 0);
        const std::string where = "at call " + std::to_string(at);
        EXPECT_FALSE(board->close_failed) << where;
        EXPECT_FALSE(board->opener_failed) << where;
        EXPECT_EQ(board->odd_error, 0) << where;
        EXPECT_EQ(check_file(path()), "") << where;
        EXPECT_FALSE(file_is_unclean(path())) << where;
        EXPECT_EQ(contents(VFS_LOCK_FILE), numbers(0, old_records) + numbers(1000, 1001) + numbers(2000, 2001))
            << where;
        if (HasFailure() || last) break;
        ASSERT_LT(at, 200U);
    }
    (void)printed(); // what was refused
    std::cout << way.name << ": " << board->stop.seen << " calls" << std::endl;
}

INSTANTIATE_TEST_SUITE_P(AtEveryCall, OpenWhile,
                         testing::Values(closing{"SharerThenSharer", VFS_LOCK_RECORD, VFS_LOCK_RECORD},
                                         closing{"SharerThenAlone", VFS_LOCK_RECORD, VFS_LOCK_FILE},
                                         closing{"AloneThenSharer", VFS_LOCK_FILE, VFS_LOCK_RECORD},
                                         closing{"AloneThenAlone", VFS_LOCK_FILE, VFS_LOCK_FILE},
                                         closing{"UnlockedThenSharer", VFS_LOCK_NONE, VFS_LOCK_RECORD}),
                         [](const auto &chosen) { return std::string{chosen.param.name}; });

} // namespace
