// kill_test.cc: a process that shares a file dies at one system call of an operation, for every call there is, and for
// every page at which the kill can cut a write. Another one, which has had the file open all the time, goes on at once:
// it finds what was there before and the operation whole or not at all, under every key; it changes the file itself
// and closes it sound. Then the same for the process that completes what the dead one began.
#include "checker.h"
#include "killer.h"
#include "storm.h"

#include <algorithm>
#include <cerrno>
#include <iostream>

namespace {

using namespace host;

constexpr int64_t at_once = 5'000'000'000; // nanoseconds: what waits for a dead process waits for ever

// ---- What the operations work on ---------------------------------------------------------------------------------

struct scene {
    const char *name;
    shape what;
    uint32_t records;        // at the start, numbered 0, 2, 4 ...
    void (*change)(file &f); // the operation
    uint32_t gaps = 0;       // delete every n-th of them at the start
    uint32_t lock_mode = VFS_LOCK_RECORD;
    bool synced = false; // every operation is on the disk when it returns
};

void PrintTo(const scene &which, std::ostream *out)
{
    *out << which.name;
}

constexpr uint64_t first_version = 1, spare_version = 900, changed_version = 500;

place place_of(shape what, uint32_t id)
{
    switch (what) {
    case shape::indexed: return by_record();
    case shape::relative: return by_rrn(id);
    default: return end();
    }
}

std::string bytes_of(shape what, uint32_t id, uint64_t version)
{
    return storm_bytes(what, {id, version});
}

// A version whose record is longer than that of another one, so that it has to move; or no longer, so that it stays.
uint64_t version_with(shape what, uint32_t id, bool longer)
{
    const size_t now = bytes_of(what, id, first_version).size();
    for (uint64_t version = changed_version;; ++version) {
        const size_t size = bytes_of(what, id, version).size();
        if (longer ? size > now + 64 : size <= now) return version;
    }
}

template <shape what, uint32_t id> void insert(file &f)
{
    (void)f.write(bytes_of(what, id, changed_version), place_of(what, id));
}

template <shape what, uint32_t id, bool longer> void replace(file &f)
{
    const std::string bytes = bytes_of(what, id, version_with(what, id, longer));
    (void)f.rewrite(bytes, what == shape::sequential ? by_rrn(id / 2) : place_of(what, id));
}

template <shape what, uint32_t id> void remove(file &f)
{
    const std::string bytes = bytes_of(what, id, first_version);
    (void)f.erase(what == shape::sequential ? by_rrn(id / 2) : place_of(what, id), bytes);
}

constexpr shape keyed = shape::indexed, numbered_file = shape::relative, flat_file = shape::sequential;

// Keys of 600 and 400 bytes: 51 and 75 entries fill a leaf of the first two trees.
const scene scenes[] = {
    {"IndexedInsertThatSplits", keyed, 51, insert<keyed, 51>},
    {"IndexedInsertIntoAFreeSlot", keyed, 40, insert<keyed, 13>, 5},
    {"IndexedFirstRecord", keyed, 0, insert<keyed, 13>},
    {"IndexedRewriteInOnePage", keyed, 20, replace<keyed, 14, false>},
    {"IndexedRewriteAcrossPages", keyed, 20, replace<keyed, 12, false>},
    {"IndexedRewriteThatMoves", keyed, 20, replace<keyed, 12, true>},
    {"IndexedDeleteWithListedSlots", keyed, 90, remove<keyed, 12>, 7},
    {"IndexedInsertInBlockMode", keyed, 51, insert<keyed, 51>, 0, VFS_LOCK_AUTO},
    {"IndexedInsertThatIsSynced", keyed, 51, insert<keyed, 51>, 0, VFS_LOCK_RECORD, true},
    {"RelativeWrite", numbered_file, 20, insert<numbered_file, 13>},
    {"RelativeRewriteThatMoves", numbered_file, 20, replace<numbered_file, 12, true>},
    {"RelativeDelete", numbered_file, 20, remove<numbered_file, 12>},
    {"FlatAppend", flat_file, 20, insert<flat_file, 41>},
    {"FlatAppendInBlockMode", flat_file, 20, insert<flat_file, 41>, 0, VFS_LOCK_AUTO},
    {"FlatRewriteInOnePage", flat_file, 20, replace<flat_file, 12, false>},
    {"FlatRewriteAcrossPages", flat_file, 60, replace<flat_file, 64, false>},
    {"FlatRewriteThatMoves", flat_file, 20, replace<flat_file, 12, true>},
    {"FlatDeleteOfTheLast", flat_file, 20, remove<flat_file, 38>},
};

const scene completed_scenes[] = {
    {"IndexedRewriteThatMoves", keyed, 20, replace<keyed, 12, true>},
    {"RelativeWrite", numbered_file, 20, insert<numbered_file, 13>},
    {"FlatRewriteThatMoves", flat_file, 20, replace<flat_file, 12, true>},
};

// ---- What a file holds -------------------------------------------------------------------------------------------

using records = std::vector<std::string>;

records walk(file &f, int64_t k, std::string *wrong)
{
    records found;
    for (outcome got = f.read(first(k)); !got.ended(); got = f.read(next())) {
        if (got.value < 0) {
            *wrong += "a walk by key " + std::to_string(k) + " failed: errno " + std::to_string(got.error) + "; ";
            break;
        }
        found.push_back(std::move(got.bytes));
    }
    return found;
}

// The records in the order of the first key; complaints when another key leads to others.
records contents(file &f, const file_spec &spec, std::string *wrong)
{
    const records in_order = walk(f, 0, wrong);
    records wanted = in_order;
    std::sort(wanted.begin(), wanted.end());
    for (size_t k = 1; k < spec.keys.size(); ++k) {
        records found = walk(f, static_cast<int64_t>(k), wrong);
        std::sort(found.begin(), found.end());
        if (found != wanted)
            *wrong += "key " + std::to_string(k) + " leads to " + std::to_string(found.size()) + " records, key 0 to " +
                      std::to_string(wanted.size()) + "; ";
    }
    return in_order;
}

// ---- A round -----------------------------------------------------------------------------------------------------

// What the processes of a round tell each other.
struct board {
    kill_order order, replay;
    uint32_t answered;  // the operation came back before the process died
    uint32_t failed;    // ... and said that it had failed
    uint32_t as_before; // the survivor found the file as it was before the operation, else as after it
    int64_t waited;     // by the survivor for its first operation
    char complaint[1500];
};

class Kill : public testing::TestWithParam<scene> {
protected:
    Kill()
    {
        if (GetParam().synced) setenv("VFS_SYNC", "1", 1);
        spec_ = storm_spec(GetParam().what, ground_.path(), GetParam().lock_mode);
        obey(nullptr); // the library is loaded here, the children have it
    }

    std::string errors() const { return ground_.path("errors"); }

    // The file that every round starts from, and what it holds before and after the operation.
    void prepare()
    {
        const auto make = [&]() -> std::string {
            const scene &which = GetParam();
            file f{spec_};
            std::string wrong;
            for (uint32_t i = 0; i < which.records; ++i)
                if (f.write(bytes_of(which.what, 2 * i, first_version), place_of(which.what, 2 * i)).value < 0)
                    wrong += "setting up failed; ";
            for (uint32_t i = 0; which.gaps != 0 && i < which.records; i += which.gaps)
                if (f.erase(place_of(which.what, 2 * i), bytes_of(which.what, 2 * i, first_version)).value < 0)
                    wrong += "setting up failed; ";
            return f.close() == 0 ? wrong : "the first close failed";
        };
        ASSERT_EQ(in_child(make), "");
        ASSERT_EQ(check_file(spec_.path), "");
        original_ = slurp(spec_.path);
        before_ = told_by_child([&](file &) {});
        after_ = told_by_child([&](file &f) { GetParam().change(f); });
        ASSERT_NE(before_, after_);
        ASSERT_EQ(check_file(spec_.path), "");
    }

    records told_by_child(const std::function<void(file &)> &change)
    {
        spill(spec_.path, original_);
        const std::string text = in_child([&] {
            file f{spec_.with_flags(O_RDWR)};
            change(f);
            std::string wrong;
            std::string all;
            for (const std::string &bytes : contents(f, spec_, &wrong)) all += bytes + "\n";
            return wrong + all;
        });
        records lines;
        for (size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
            lines.push_back(text.substr(at, end - at));
        return lines;
    }

    // The operation, up to the call at which its process dies.
    void victim()
    {
        file f{spec_.with_flags(O_RDWR)};
        if (!f.ok()) _exit(7);
        obey(&board_->order);
        errno = 0;
        GetParam().change(f);
        board_->answered = 1;
        f.close();
        obey(nullptr);
    }

    // Has the file open, waits, and goes on. `way` says what it does first.
    void survivor(uint32_t way, gate &ready, gate &go)
    {
        // Two handles of one thread keep each other's block.
        if (GetParam().lock_mode == VFS_LOCK_AUTO) way %= 2;
        std::string wrong;
        file f{spec_.with_flags(O_RDWR)}, reader;
        if (way % 3 == 2) reader.open(spec_.with_flags(O_RDONLY));
        if (f.read(first()).value < 0) wrong += "the first read failed; ";
        ready.open();
        if (!go.wait()) _exit(8);
        const int64_t begin = now_ns();
        const std::string spare = bytes_of(GetParam().what, 9001, spare_version);
        if (way % 3 == 1) write_spare(f, spare, &wrong);
        if (way % 3 == 2 && reader.read(first()).value < 0) wrong += "the reader's first read failed; ";
        if (way % 3 == 0 && f.read(first()).value < 0) wrong += "the survivor's first read failed; ";
        board_->waited = now_ns() - begin;
        if (way % 3 == 2) judge(contents(reader, spec_, &wrong), &wrong);
        if (way % 3 == 0) judge(contents(f, spec_, &wrong), &wrong);
        if (way % 3 != 1) write_spare(f, spare, &wrong);
        records now = contents(f, spec_, &wrong);
        const auto at = std::find(now.begin(), now.end(), spare);
        if (at == now.end())
            wrong += "what the survivor wrote is not there; ";
        else
            now.erase(at);
        judge(now, &wrong);
        if (reader.ok() && reader.close() != 0) wrong += "the reader's close failed; ";
        if (f.close() != 0) wrong += "the survivor's close failed; ";
        snprintf(board_->complaint, sizeof board_->complaint, "%s", wrong.c_str());
    }

    void write_spare(file &f, const std::string &spare, std::string *wrong)
    {
        const outcome got = f.write(spare, place_of(GetParam().what, 9001));
        if (got.value < 0) *wrong += "the survivor cannot write: errno " + std::to_string(got.error) + "; ";
    }

    void judge(const records &found, std::string *wrong)
    {
        if (found != before_ && found != after_)
            *wrong += "neither before nor after the operation: " + std::to_string(found.size()) + " records; ";
        if (board_->answered != 0 && found != after_) *wrong += "an acknowledged operation is not there; ";
        board_->as_before = found == before_;
    }

    // What comes between the victim and the survivor in a part of the rounds: a process that dies at a call of its first operation.
    void replayer(bool has_it_open, gate &ready, gate &go)
    {
        file f;
        if (has_it_open) {
            if (!f.open(spec_.with_flags(O_RDWR)) || f.read(first()).value < 0) _exit(7);
        }
        ready.open();
        if (!go.wait()) _exit(8);
        obey(&board_->replay);
        if (!has_it_open) f.open(spec_.with_flags(O_RDWR));
        (void)f.read(first());
        obey(nullptr);
    }

    void order_deaths(uint32_t at, uint32_t cut, uint32_t replay_at = 0, uint32_t replay_cut = 0)
    {
        *board_ = {};
        board_->order.at = at;
        board_->order.cut = cut;
        board_->replay.at = replay_at;
        board_->replay.cut = replay_cut;
        spill(spec_.path, original_);
    }

    void run_victim()
    {
        const int ended = child{[&] { victim(); }, errors()}.finish();
        ASSERT_EQ(ended, board_->order.died != 0 ? 1009 : 0);
        pending_ = peek(spec_.path, state_at) > 1;
    }

    // Nobody comes after it.
    void kill_victim(uint32_t at, uint32_t cut)
    {
        order_deaths(at, cut);
        run_victim();
    }

    // One round: `order` ends the victim, `replay` (when there is one) the process that comes first after it.
    void round(uint32_t at, uint32_t cut, uint32_t way, uint32_t replay_at = 0, uint32_t replay_cut = 0)
    {
        order_deaths(at, cut, replay_at, replay_cut);
        gate survivor_ready, survivor_go, replayer_ready, replayer_go;
        child goes_on{[&] { survivor(way, survivor_ready, survivor_go); }, errors()};
        child replays;
        ASSERT_TRUE(survivor_ready.wait()) << "round " << at;
        if (replay_at != 0) {
            replays = child{[&] { replayer(way % 2 == 0, replayer_ready, replayer_go); }, errors()};
            ASSERT_TRUE(replayer_ready.wait()) << "round " << at;
        }
        ASSERT_NO_FATAL_FAILURE(run_victim());
        if (replay_at != 0) {
            replayer_go.open();
            const int replayed = replays.finish();
            ASSERT_EQ(replayed, board_->replay.died != 0 ? 1009 : 0);
        }
        survivor_go.open();
        EXPECT_EQ(goes_on.finish(), 0);
        const std::string where = "killed at " + describe(board_->order, at) + " cut " + std::to_string(cut) +
                                  (replay_at != 0 ? ", the next at " + describe(board_->replay, replay_at) + " cut " +
                                                        std::to_string(replay_cut)
                                                  : "");
        EXPECT_STREQ(board_->complaint, "") << where;
        EXPECT_LT(board_->waited, at_once) << where;
        EXPECT_FALSE(file_is_unclean(spec_.path)) << where;
        EXPECT_EQ(check_file(spec_.path), "") << where;
        ++rounds_;
    }

    // The places at which a kill can cut a write, but for those that are like their neighbours.
    static std::vector<uint32_t> cuts_of(const killer_call &call)
    {
        std::vector<uint32_t> cuts;
        for (const uint32_t cut : {1u, call.borders / 2 + 1, call.borders})
            if (cut >= 1 && cut <= call.borders && (cuts.empty() || cuts.back() < cut)) cuts.push_back(cut);
        return cuts;
    }

    storm_ground ground_;
    std::string original_;
    file_spec spec_;
    records before_, after_;
    shared_memory<board> board_;
    bool pending_ = false; // the last victim left a commit to be completed
    unsigned rounds_ = 0;
};

TEST_P(Kill, OfAProcessLeavesItsOperationWholeOrNotAtAll)
{
    ASSERT_NO_FATAL_FAILURE(prepare());
    ASSERT_NO_FATAL_FAILURE(round(0, 0, 0));
    ASSERT_EQ(board_->as_before, 0u);
    const kill_order calls = board_->order; // every round makes these
    ASSERT_LT(calls.seen, std::size(calls.calls));
    ASSERT_GT(calls.seen, 5u);
    unsigned before = 0, after = 0;
    for (uint32_t at = 1; at <= calls.seen; ++at) {
        std::vector<uint32_t> cuts = cuts_of(calls.calls[at - 1]);
        cuts.insert(cuts.begin(), 0);
        for (const uint32_t cut : cuts) {
            ASSERT_NO_FATAL_FAILURE(round(at, cut, at + cut));
            EXPECT_EQ(board_->order.died, 1u) << at; // else the seam caught nothing
            ++(board_->as_before != 0 ? before : after);
            if (HasFailure()) return;
        }
    }
    EXPECT_GT(before, 0u);
    EXPECT_GT(after, 0u);
    std::cout << GetParam().name << ": " << calls.seen << " calls, " << rounds_ << " rounds, " << before
              << " found it before the operation, " << after << " after it" << std::endl;
}

class KillOfTheNext : public Kill {};

TEST_P(KillOfTheNext, LeavesAnUnfinishedOperationToTheOneAfter)
{
    ASSERT_NO_FATAL_FAILURE(prepare());
    ASSERT_NO_FATAL_FAILURE(round(0, 0, 0));
    const kill_order calls = board_->order;
    // The points at which the victim leaves a commit to be completed: right behind the point of no return with a page
    // of the next write done, and at the very end.
    std::vector<std::pair<uint32_t, uint32_t>> points;
    for (uint32_t at = 1; at <= calls.seen; ++at) {
        ASSERT_NO_FATAL_FAILURE(kill_victim(at, 0));
        if (pending_) points.push_back({at, calls.calls[at - 1].borders != 0 ? 1 : 0});
    }
    ASSERT_GT(points.size(), 1u);
    for (const bool has_it_open : {true, false}) {
        const auto [at, cut] = has_it_open ? points.front() : points.back();
        for (uint32_t replay_at = 1;; ++replay_at) {
            ASSERT_NO_FATAL_FAILURE(round(at, cut, has_it_open ? 0 : 1, replay_at));
            if (HasFailure()) return;
            if (board_->replay.died == 0) break;
            EXPECT_EQ(board_->as_before, 0u);
            const uint32_t borders = board_->replay.calls[replay_at - 1].borders;
            if (borders != 0) {
                ASSERT_NO_FATAL_FAILURE(round(at, cut, 0, replay_at, borders / 2 + 1));
            }
            ASSERT_LT(replay_at, 200u);
        }
    }
    std::cout << GetParam().name << ": " << points.size() << " unfinished commits, " << rounds_ << " rounds"
              << std::endl;
}

std::string name_of_case(const testing::TestParamInfo<scene> &which)
{
    return which.param.name;
}

INSTANTIATE_TEST_SUITE_P(AtEveryCall, Kill, testing::ValuesIn(scenes), name_of_case);
INSTANTIATE_TEST_SUITE_P(AtEveryCall, KillOfTheNext, testing::ValuesIn(completed_scenes), name_of_case);

} // namespace
