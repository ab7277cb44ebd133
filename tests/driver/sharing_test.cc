// sharing_test.cc: two and three processes on one shared file, step by step: what becomes of a handle's positions when
// another one changes the file between two of its operations, and of an operation whose record another one holds.
// Method: the other process does one operation at a time as the test asks it to; where it has to be seen waiting, the
// system's list of locks says so. Nothing sleeps for luck.
#include "checker.h"
#include "host.h"
#include "processes.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <sstream>

namespace {

using namespace host;

constexpr vfs_lock_request never = asking(VFS_WAIT_NEVER), kernel_waits = asking(VFS_WAIT_KERNEL),
                           passing = asking(VFS_WAIT_KERNEL, 0);

file_spec shared(file_spec spec, uint32_t lock_mode = VFS_LOCK_RECORD, uint32_t lock_flags = 0)
{
    spec.locks = locks_of(lock_mode, VFS_WAIT_KERNEL);
    spec.locks->lock_flags = lock_flags;
    return spec;
}

// ---- Another process ---------------------------------------------------------------------------------------------

class peer {
public:
    explicit peer(const file_spec &spec) : worker_([this, spec] { serve(spec); }) { answered(); }
    ~peer() { EXPECT_EQ(finish(), 0); }

    // Begins an operation; answer() waits for its end.
    void begin(operation which, const place &where, std::string_view record = {},
               const vfs_lock_request *lock = nullptr)
    {
        desk_->which = which;
        desk_->where = {where.mode, where.relation, where.number, where.length, where.key.has_value()};
        put(desk_->key, where.key.value_or(""));
        put(desk_->record, record);
        desk_->has_lock = lock != nullptr;
        if (lock != nullptr) desk_->lock = *lock;
        asked_.open();
    }
    outcome answer()
    {
        EXPECT_TRUE(answered());
        const report &told = desk_->told;
        outcome got;
        got.value = told.value;
        got.error = told.error;
        got.offset = told.offset;
        got.rrn = told.rrn;
        got.bytes = get(desk_->record);
        return got;
    }
    outcome run(operation which, const place &where, std::string_view record = {},
                const vfs_lock_request *lock = nullptr)
    {
        begin(which, where, record, lock);
        return answer();
    }
    pid_t id() const { return desk_->id; }
    // Until the process waits for a lock that another one holds.
    bool waits()
    {
        for (const int64_t until = now_ns() + 20'000'000'000; now_ns() < until; poll(nullptr, 0, 1))
            if (waits_for_a_lock(id())) return true;
        return false;
    }
    int finish()
    {
        if (!worker_.running()) return 0;
        desk_->end = true;
        asked_.open();
        return worker_.finish();
    }

private:
    struct text {
        size_t length;
        char bytes[8192];
    };
    struct report {
        int64_t value;
        int error;
        uint64_t offset, rrn;
    };
    struct plain_place {
        int32_t mode, relation;
        int64_t number, length;
        bool has_key;
    };
    struct desk {
        operation which;
        plain_place where;
        text key, record;
        bool has_lock, end;
        vfs_lock_request lock;
        report told;
        pid_t id;
    };

    static void put(text &to, std::string_view from)
    {
        to.length = std::min(from.size(), sizeof to.bytes);
        std::copy_n(from.begin(), to.length, to.bytes);
    }
    static std::string get(const text &from) { return {from.bytes, from.length}; }
    bool answered() { return answered_.wait(); }

    void serve(const file_spec &spec)
    {
        file f{spec};
        if (!f.ok()) _exit(9);
        desk_->id = getpid();
        answered_.open();
        while (asked_.wait(120) && !desk_->end) {
            place where{.mode = desk_->where.mode,
                        .relation = desk_->where.relation,
                        .number = desk_->where.number,
                        .length = desk_->where.length,
                        .key = {}};
            if (desk_->where.has_key) where.key = get(desk_->key);
            const vfs_lock_request lock = desk_->lock;
            const outcome got = f.run(desk_->which, where, get(desk_->record), desk_->has_lock ? &lock : nullptr);
            desk_->told = {got.value, got.error, got.offset, got.rrn};
            put(desk_->record, got.bytes);
            answered_.open();
        }
        _exit(f.close() == 0 ? 0 : 8);
    }

    shared_memory<desk> desk_;
    gate asked_, answered_;
    child worker_;
};

// ---- Files ---------------------------------------------------------------------------------------------------------

enum class form { flat, relative, indexed };
constexpr form forms[] = {form::flat, form::relative, form::indexed};

class Sharing : public DriverTest {
protected:
    Sharing() { variables.set("VFS_LOCK", "9"); } // the lock mode that the test asks for

    file_spec spec(form what)
    {
        switch (what) {
        case form::flat: return flat(path(), VFS_FORMAT_VARIABLE, 100);
        case form::relative: return relative(path(), VFS_FORMAT_VARIABLE, 100);
        default: return indexed(path(), keys_, 100);
        }
    }
    // Number, group, and as many bytes more.
    static std::string record(int64_t number, size_t more = 10, int64_t group = 0)
    {
        return numbered("%05ld", number) + numbered("%02ld", group) + std::string(more, 'x');
    }
    static place at(form what, int64_t number)
    {
        return what == form::indexed ? by_key(numbered("%05ld", number)) : by_rrn(number);
    }
    void make(form what, int64_t count)
    {
        unlink(path().c_str());
        file f{spec(what)};
        ASSERT_TRUE(f.ok()) << f.error();
        for (int64_t n = 0; n < count; ++n) ASSERT_GE(f.write(record(n), insertion(what)).value, 0);
        ASSERT_EQ(f.close(), 0);
    }
    static place insertion(form what) { return what == form::indexed ? by_record() : end(); }
    void sound() { EXPECT_EQ(check_file(path()), ""); }
    void TearDown() override
    {
        sound();
        DriverTest::TearDown();
    }

    const std::vector<key> keys_{{.parts = {{0, 5}}}, {.parts = {{5, 2}}, .duplicates = true}};
};

// ---- Locks ---------------------------------------------------------------------------------------------------------

std::string refusal(pid_t me, uint64_t offset, uint64_t length, const std::string &path, pid_t other)
{
    std::ostringstream out;
    out << "Lock request for me (pid " << me << "):\n " << length << " @ 0x" << std::hex << offset << std::dec
        << " for Write on file " << path << "\nLock request for one other (pid " << other << "):\n " << length
        << " @ 0x" << std::hex << offset << " for Write\n";
    return out.str();
}

TEST_F(Sharing, AHeldRecordIsRefusedAtOnceToWhoeverDoesNotWait)
{
    for (const form what : forms) {
        make(what, 3);
        {
            file f{shared(spec(what))};
            peer other{shared(spec(what))};
            const outcome held = f.read(at(what, 1), &never);
            EXPECT_TRUE(held.found(record(1)));
            const std::string told = refusal(other.id(), held.offset, 64, path(), getpid());
            for (const operation which : {operation::read, operation::rewrite, operation::erase, operation::lock}) {
                EXPECT_TRUE(other.run(which, at(what, 1), record(1), &never).failed(EAGAIN)) << name_of(which);
                EXPECT_EQ(printed(), told) << name_of(which);
            }
            EXPECT_EQ(other.run(operation::read, at(what, 2), {}, &never).bytes, record(2));
            EXPECT_EQ(f.run(operation::unlock, next()).value, 0);
            EXPECT_EQ(other.run(operation::rewrite, at(what, 1), record(1), &never).error, 0);
        }
        sound();
    }
}

// Whoever waits for a record lets the others work, its holder first; afterwards it sees what they have done.
TEST_F(Sharing, AWaitingReaderHoldsNobodyUpAndReadsWhatTheHolderLeft)
{
    for (const form what : forms) {
        make(what, 5);
        {
            file f{shared(spec(what))};
            peer other{shared(spec(what))};
            EXPECT_TRUE(f.read(at(what, 1), &never).found(record(1)));
            other.begin(operation::read, at(what, 1), {}, &passing);
            EXPECT_TRUE(other.waits());
            EXPECT_GE(f.rewrite(record(1, 900), at(what, 1)).value, 0); // it moves away
            EXPECT_GE(f.write(record(7), insertion(what)).value, 0);
            EXPECT_EQ(f.run(operation::unlock, next()).value, 0);
            EXPECT_EQ(other.answer().bytes, record(1, 900));

            EXPECT_TRUE(f.read(at(what, 2), &never).found(record(2)));
            other.begin(operation::read, next(), {}, &passing); // behind 1
            EXPECT_TRUE(other.waits());
            EXPECT_EQ(f.erase(at(what, 2)).value, 0); // gives the lock back
            EXPECT_EQ(other.answer().bytes, record(3));

            EXPECT_TRUE(f.read(at(what, 4), &never).found(record(4)));
            other.begin(operation::rewrite, at(what, 4), record(4, 5), &passing);
            EXPECT_TRUE(other.waits());
            EXPECT_EQ(f.erase(at(what, 4)).value, 0);
            EXPECT_TRUE(other.answer().failed(ESPIPE));
        }
        sound();
    }
}

TEST_F(Sharing, LockedRecordsAreSteppedOverInBothDirections)
{
    const vfs_lock_request skip = asking(VFS_WAIT_NEVER, 0, VFS_KIND_SKIP);
    vfs_lock_request patient = skip;
    patient.wait_mode = VFS_WAIT_RETRY; // one more attempt, then the next record
    for (const form what : forms) {
        make(what, 8);
        {
            file f{shared(spec(what), VFS_LOCK_RECORD, VFS_LOCK_SEVERAL)};
            peer other{shared(spec(what))};
            for (const int64_t n : {0, 3, 4, 7}) EXPECT_TRUE(f.read(at(what, n), &never).found(record(n)));
            for (const vfs_lock_request *how : {&skip, static_cast<const vfs_lock_request *>(&patient)}) {
                EXPECT_EQ(other.run(operation::start, first()).error, 0);
                for (const int64_t n : {1, 2, 5, 6})
                    EXPECT_EQ(other.run(operation::read, next(), {}, how).bytes, record(n));
                EXPECT_TRUE(other.run(operation::read, next(), {}, how).ended());
                EXPECT_EQ(other.run(operation::start, last()).error, 0);
                for (const int64_t n : {6, 5, 2, 1})
                    EXPECT_EQ(other.run(operation::read, prev(), {}, how).bytes, record(n));
                EXPECT_TRUE(other.run(operation::read, prev(), {}, how).ended());
            }
            EXPECT_TRUE(other.run(operation::read, at(what, 3), {}, &skip).failed(EAGAIN)); // not by number or key
            printed();
        }
        sound();
    }
}

TEST_F(Sharing, ADeadlockReachesExactlyOneOfTwo)
{
    for (const form what : forms) {
        make(what, 3);
        {
            peer a{shared(spec(what), VFS_LOCK_RECORD, VFS_LOCK_SEVERAL)},
                b{shared(spec(what), VFS_LOCK_RECORD, VFS_LOCK_SEVERAL)};
            EXPECT_EQ(a.run(operation::read, at(what, 0), {}, &kernel_waits).bytes, record(0));
            const outcome second = b.run(operation::read, at(what, 1), {}, &kernel_waits);
            EXPECT_EQ(second.bytes, record(1));
            const outcome first_one = a.run(operation::position, at(what, 0));
            EXPECT_EQ(first_one.error, 0);
            a.begin(operation::read, at(what, 1), {}, &kernel_waits);
            EXPECT_TRUE(a.waits());
            b.begin(operation::read, at(what, 0), {}, &kernel_waits); // closes the circle
            const outcome of_b = b.answer(), of_a = a.answer();
            EXPECT_TRUE(of_b.failed(EDEADLK)) << of_b; // and gave up its locks, so that the other goes on
            EXPECT_EQ(of_a.bytes, record(1));
            const std::string told = printed(), text = "Record Write Lock deadlock detected on file(" + path() + "): ";
            EXPECT_EQ(told.substr(0, text.size()), text);
            EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 1) << told;
            EXPECT_TRUE(b.run(operation::read, at(what, 1), {}, &never).failed(EAGAIN));
            EXPECT_NE(printed(), "");
            EXPECT_EQ(a.run(operation::unlock, next()).value, 0);
            EXPECT_EQ(b.run(operation::rewrite, at(what, 1), record(1), &kernel_waits).error, 0);
        }
        sound();
    }
}

// Whoever waited for a record that was deleted has its slot locked for a moment: here for longer.
TEST_F(Sharing, ANewRecordLeavesAFreeSlotAloneThatSomebodyHoldsLocked)
{
    for (const form what : {form::relative, form::indexed}) {
        make(what, 5);
        {
            file f{shared(spec(what))};
            const uint64_t slot = f.read(at(what, 2), &passing).offset;
            EXPECT_EQ(f.erase(current()).error, 0);
            gate locked, done;
            child holder{[&] {
                const int descriptor = ::open(path().c_str(), O_RDWR | O_CLOEXEC);
                struct flock range = {};
                range.l_type = F_WRLCK;
                range.l_start = static_cast<off_t>(slot);
                range.l_len = 64;
                if (fcntl(descriptor, F_SETLK, &range) == -1) _exit(1);
                locked.open();
                done.wait();
            }};
            ASSERT_TRUE(locked.wait());
            const outcome first_one = f.run(operation::write, insertion(what), record(8), &kernel_waits);
            EXPECT_EQ(first_one.error, 0);
            EXPECT_NE(first_one.offset, slot);
            done.open();
            EXPECT_EQ(holder.finish(), 0);
            EXPECT_EQ(f.run(operation::write, insertion(what), record(9), &kernel_waits).offset, slot);
            EXPECT_EQ(f.read(first(), &passing).bytes, record(0));
            EXPECT_EQ(f.rest().size(), 5u);
        }
        sound();
    }
}

// The lock of a record is given back as it was taken, though its slot has grown since.
TEST_F(Sharing, ALockGoesWithItsGrowingSlot)
{
    make(form::indexed, 1);
    {
        file f{shared(spec(form::indexed), VFS_LOCK_RECORD, VFS_LOCK_SEVERAL)};
        peer other{shared(spec(form::indexed))};
        // The last record of the file is held while another process makes the index grow behind it.
        EXPECT_TRUE(f.read(at(form::indexed, 0), &never).found(record(0)));
        for (int64_t n = 1; n < 3000; ++n) {
            const outcome written = f.run(operation::write, by_record(), record(n), &never);
            ASSERT_GE(written.value, 0) << written;
            ASSERT_EQ(f.erase(at(form::indexed, n)).value, 0);
            ASSERT_GE(other.run(operation::write, by_record(), record(n)).value, 0);
        }
        for (int64_t n = 0; n < 3000; n += 7) {
            ASSERT_TRUE(f.read(at(form::indexed, n), &never).found(record(n)));
            if (n % 2 != 0) continue;
            ASSERT_EQ(f.erase(at(form::indexed, n)).value, 0);
        }
        EXPECT_EQ(f.run(operation::unlock, next()).value, 0);
        EXPECT_EQ(ops().unlock_all(f.handle()), 0);
        EXPECT_EQ(printed(), ""); // no lock was missed
    }
}

// ---- Positions -----------------------------------------------------------------------------------------------------

TEST_F(Sharing, TheCurrentRecordIsFoundAgainOrGone)
{
    for (const form what : forms) {
        make(what, 6);
        {
            file f{shared(spec(what))};
            peer other{shared(spec(what))};
            const auto from_another = [&](operation which, int64_t n, const std::string &bytes = {}) {
                return other.run(which, at(what, n), bytes, &passing);
            };
            EXPECT_TRUE(f.read(at(what, 2), &passing).found(record(2)));
            EXPECT_GE(from_another(operation::rewrite, 2, record(2, 3000)).value, 0); // it moved
            EXPECT_TRUE(f.read(current(), &passing).found(record(2, 3000)));
            EXPECT_GE(from_another(operation::rewrite, 2, record(2, 6000)).value, 0);
            EXPECT_EQ(f.rewrite(record(2, 5)).error, 0);
            EXPECT_EQ(from_another(operation::read, 2).bytes, record(2, 5));

            EXPECT_TRUE(f.read(at(what, 3), &passing).found(record(3)));
            EXPECT_EQ(from_another(operation::erase, 3).error, 0);
            EXPECT_TRUE(f.rewrite(record(3)).failed(ESPIPE));
            EXPECT_TRUE(f.rewrite(record(3)).failed(EINVAL)); // after a failure there is no current record
            EXPECT_TRUE(f.read(at(what, 4), &passing).found(record(4)));
            EXPECT_EQ(from_another(operation::erase, 4).error, 0);
            const int64_t tenant = what == form::flat ? 3 : 9;
            const place free_slot = what == form::flat ? by_rrn(3) : insertion(what);
            EXPECT_GE(other.run(operation::write, free_slot, record(tenant)).value, 0);
            EXPECT_TRUE(f.erase(current()).failed(ESPIPE)); // its slot is free, or somebody else's
            EXPECT_TRUE(f.read(first(), &passing).found(record(0)));
            EXPECT_GE(f.rest().size(), 4u);
        }
        sound();
    }
}

// What start found is the next record of its key: another process gives it another key, in its place.
TEST_F(Sharing, AStartedRecordThatGotAnotherKeyIsNotReturned)
{
    file_spec by_two_keys = spec(form::indexed);
    by_two_keys.keys[1].duplicates = false;
    for (const bool duplicates : {false, true}) {
        by_two_keys.keys[1].duplicates = duplicates;
        unlink(path().c_str());
        file f{shared(by_two_keys)};
        for (const int64_t n : {1, 2, 3, 4, 5}) ASSERT_GE(f.write(record(n, 10, 2 * n), by_record()).value, 0);
        if (duplicates) {
            ASSERT_GE(f.write(record(6, 10, 8), by_record()).value, 0);
        }
        peer other{shared(by_two_keys)};
        ASSERT_EQ(f.start(by_key("06", 1)).error, 0);
        ASSERT_GE(other.run(operation::rewrite, at(form::indexed, 3), record(3, 10, 1), &passing).value, 0);
        const outcome stepped = f.read(next(), &passing);
        EXPECT_TRUE(stepped.found(record(4, 10, 8))) << stepped;
        ASSERT_EQ(f.start(by_key("01", 1)).error, 0);
        EXPECT_TRUE(f.read(next(), &passing).found(record(3, 10, 1)));
    }
}

// The record and all neighbours that its handle knows among equal keys are gone: the numbers say where it was.
TEST_F(Sharing, LostAmongEqualKeysAStepGoesOnWhereTheRecordWas)
{
    for (const bool forward : {true, false}) {
        make(form::indexed, 30); // all of one group
        {
            file f{shared(spec(form::indexed))};
            peer other{shared(spec(form::indexed))};
            ASSERT_TRUE(f.read(first(1), &passing).found(record(0)));
            for (int64_t n = 1; n <= 14; ++n) ASSERT_TRUE(f.read(next(), &passing).found(record(n)));
            for (int64_t n = 3; n <= 26; ++n)
                ASSERT_EQ(other.run(operation::erase, at(form::indexed, n), {}, &passing).error, 0);
            ASSERT_GE(other.run(operation::write, by_record(), record(50)).value, 0); // behind all, into a free slot
            const outcome got = f.read(forward ? next() : prev(), &passing);
            EXPECT_TRUE(got.found(record(forward ? 27 : 2))) << got;
        }
        sound();
    }
}

// One process browses, the other changes the file between any two steps, at the position and beside it. Every record
// that stayed comes once, none comes twice, and all come in order.
class browse_test {
public:
    browse_test(form what, const file_spec &spec, bool by_group, bool forward, uint64_t seed)
        : what_(what), by_group_(by_group), forward_(forward), file_(spec), other_(spec), random_(seed)
    {
    }

    std::string run(int64_t count, const std::function<std::string(int64_t, size_t, int64_t)> &record)
    {
        record_ = record;
        for (int64_t n = 0; n < count; ++n) present_.insert({group_of(n), n});
        stayed_ = present_;
        const place from = forward_ ? first(by_group_) : last(by_group_);
        if (file_.start(from).error != 0) return "start";
        for (;;) {
            const outcome got = file_.read(forward_ ? next() : prev(), &passing);
            if (got.ended()) break;
            if (got.value < 0) return "a step failed: errno " + std::to_string(got.error);
            if (std::string wrong = take(got); !wrong.empty()) return wrong + history();
            // Among equal keys the place of a record that was removed is found by its neighbours: they stay where they are.
            const uint64_t most = random_() % 4;
            for (uint64_t changes = 0; changes < most; ++changes) {
                const bool erase = random_() % 5 < 2;
                if (std::string wrong = change(erase); !wrong.empty()) return wrong + history();
                if (by_group_) break;
            }
        }
        for (const auto &[group, n] : stayed_)
            if (!seen_.count(n)) return "record " + std::to_string(n) + " was left out" + history();
        return "";
    }

private:
    using entry = std::pair<int64_t, int64_t>; // group (0 when it is not what is browsed by), number

    int64_t group_of(int64_t n) const { return by_group_ ? n / 40 : 0; }
    std::string history() const
    {
        std::string text = ":";
        for (const std::string &each : log_) text += " " + each + ",";
        return text;
    }

    std::string take(const outcome &got)
    {
        const int64_t n = std::stoll(got.bytes.substr(0, 5)), group = group_of(n);
        log_.push_back("got " + std::to_string(n));
        if (!present_.count({group, n})) return "a record that is not there: " + std::to_string(n);
        if (!seen_.insert(n).second) return "record " + std::to_string(n) + " came twice";
        const int64_t order = by_group_ ? group : n;
        if (order_ && (forward_ ? order < *order_ : order > *order_)) return "out of order: " + std::to_string(n);
        order_ = order;
        at_ = {group, n};
        return "";
    }

    // A record of the position, or near it.
    std::optional<int64_t> near()
    {
        if (present_.empty()) return {};
        auto found = present_.lower_bound(at_);
        for (uint64_t steps = random_() % 4; steps != 0 && found != present_.begin(); --steps) --found;
        for (uint64_t steps = random_() % 4; steps != 0 && found != present_.end(); --steps) ++found;
        if (found == present_.end()) --found;
        return found->second;
    }

    std::string change(bool erase)
    {
        const place none_yet = what_ == form::indexed ? by_record() : end();
        const std::optional<int64_t> n = near();
        const auto where = [&](int64_t number) {
            return what_ == form::indexed ? by_key(numbered("%05ld", number)) : by_rrn(number);
        };
        outcome got;
        switch (!n ? 4 : erase ? 0 : 2 + random_() % 3) {
        case 0:
            got = other_.run(operation::erase, where(*n), {}, &passing);
            present_.erase({group_of(*n), *n});
            stayed_.erase({group_of(*n), *n});
            gone_.push_back(*n);
            log_.push_back("erase " + std::to_string(*n));
            break;
        case 2:
        case 3:
            got = other_.run(operation::rewrite, where(*n), record_(*n, random_() % 400, group_of(*n)), &passing);
            log_.push_back("rewrite " + std::to_string(*n));
            break;
        default: {
            if (gone_.empty()) return "";
            const int64_t back = gone_.back();
            if (seen_.count(back)) return ""; // it might rightly come again
            gone_.pop_back();
            got = other_.run(operation::write, what_ == form::indexed ? none_yet : by_rrn(back),
                             record_(back, random_() % 60, group_of(back)), &passing);
            present_.insert({group_of(back), back});
            log_.push_back("write " + std::to_string(back));
        }
        }
        return got.value >= 0 ? "" : "a change failed: errno " + std::to_string(got.error);
    }

    form what_;
    bool by_group_, forward_;
    file file_;
    peer other_;
    std::mt19937_64 random_;
    std::function<std::string(int64_t, size_t, int64_t)> record_;
    std::set<entry> present_, stayed_; // stayed: from before the browse began, whatever was rewritten
    std::set<int64_t> seen_;
    std::vector<int64_t> gone_;
    std::optional<int64_t> order_;
    entry at_{0, 0};
    std::vector<std::string> log_;
};

TEST_F(Sharing, StepsReturnWhatStayedOnceWhateverAnotherProcessDoesBesideThem)
{
    const uint64_t rounds = number_from("VFS_SHARING_RUNS", 6);
    for (uint64_t round = 0; round < rounds; ++round) {
        for (const form what : forms) {
            for (const bool by_group : {false, true}) {
                if (by_group && what != form::indexed) continue;
                for (const bool forward : {true, false}) {
                    const int64_t count = 120;
                    unlink(path().c_str());
                    {
                        file f{spec(what)};
                        ASSERT_TRUE(f.ok());
                        for (int64_t n = 0; n < count; ++n) f.write(record(n, 10, n / 40), insertion(what));
                        ASSERT_EQ(f.close(), 0);
                    }
                    {
                        browse_test test{what, shared(spec(what)), by_group, forward, round};
                        ASSERT_EQ(test.run(count, record), "")
                            << "form " << static_cast<int>(what) << " by group " << by_group << " forward " << forward
                            << " round " << round;
                    }
                    ASSERT_EQ(check_file(path()), "");
                }
            }
        }
    }
    printed();
}

} // namespace
