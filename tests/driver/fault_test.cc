// fault_test.cc: the driver's system calls and allocations fail, one after the other. A workload of host calls runs
// once for every call that it makes, with that call failing. Whatever fails: the error is reported, by close at the
// latest; no descriptor or thread is left; and the file is either sound and holds exactly what was acknowledged, or it
// says that it was not closed. What a flush covered is in the file in both cases. A few dozen operations make a workload;
// VFS_FAULT_OPERATIONS asks for more, in sessions of 50: the time for all of their calls grows with the square of a
// session's operations.
#include "checker.h"
#include "fault.h"
#include "host.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

namespace {

using namespace host;

using contents = std::map<int64_t, std::string>; // in the order of the file: by primary key or number

struct report {
    int first_error = 0;
    contents acknowledged;
    contents flushed;  // of these, what the flush covered and nothing tried to change after it
    contents in_doubt; // what the last failed operation on a record was to make of it; empty: nothing
};

// What a workload is to make of a fault.
enum class verdict { silent, tolerated, given }; // no error; none or the fault's; the fault's

struct fault_row {
    const char *call;
    int error = 0;
    verdict expected = verdict::tolerated;
    bool lasting = false;
    int64_t bytes_done = -1;
    bool like_another = false; // goes the same ways as another row
};

size_t threads()
{
    const std::filesystem::directory_iterator tasks{"/proc/self/task"};
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

class FaultWork : public DriverTest {
protected:
    FaultWork(uint32_t organization, const char *lock) : organization_(organization)
    {
        variables.set("VFS_LOCK", lock);
        guard_.emplace(200);
        if (strcmp(lock, "4") == 0) changes_ = 10; // each of these writes whole blocks twice
        const uint64_t asked_for = number_from("VFS_FAULT_OPERATIONS", static_cast<uint64_t>(changes_));
        const int wanted = static_cast<int>(std::clamp<uint64_t>(asked_for, 2, 3000)); // as far as the keys go
        changes_ = std::min(wanted, 50);
        sessions_ = wanted / changes_;
        if (sessions_ > 1) key_length_ = 240;
        thorough_ = changes_ > 18 || strcmp(lock, "0") == 0;
    }

    bool is_indexed() const { return organization_ == VFS_ORG_INDEXED; }

    // Keys so long that the records of a workload make a tree of three levels.
    file_spec spec() const
    {
        const uint32_t most = key_length_ + 140;
        if (organization_ == VFS_ORG_RELATIVE) return relative(path(), VFS_FORMAT_VARIABLE, most);
        if (!is_indexed()) return flat(path(), VFS_FORMAT_VARIABLE, most);
        return indexed(path(), {{.parts = {{0, key_length_}}}, {.parts = {{key_length_, 4}}, .duplicates = true}},
                       most);
    }

    // The order of the keys is not that of the numbers.
    static int64_t key_number(int64_t n) { return n * 7919 % 10007; }
    std::string record(int64_t n, size_t behind_key = 60) const
    {
        std::string bytes = numbered("%06ld", key_number(n));
        bytes.resize(key_length_, 'k');
        bytes += n % 2 == 0 ? "even" : "odd ";
        bytes += numbered("record %ld ", n);
        bytes.resize(key_length_ + behind_key, static_cast<char>('a' + n % 26));
        return bytes;
    }
    // What it is rewritten to: longer, and half of them with another value of the second key.
    std::string rewritten(int64_t n) const
    {
        std::string bytes = record(n, 140);
        return n % 2 == 0 ? bytes.replace(key_length_, 4, "else") : bytes;
    }
    std::string key_of(int64_t n) const { return record(n).substr(0, key_length_); }
    int64_t id_of(int64_t n) const { return is_indexed() ? key_number(n) : n; }
    place place_of(int64_t n) const { return is_indexed() ? by_key(key_of(n)) : by_rrn(n); }
    place place_of_new(int64_t n) const { return is_indexed() ? by_record() : is_flat() ? end() : by_rrn(n); }
    bool is_flat() const { return organization_ == VFS_ORG_SEQUENTIAL; }

    // The file that every round starts from.
    void prepare()
    {
        ops().unlink(path().c_str());
        original_.clear();
        file f{spec()};
        for (int64_t n = 0; n < first_new(); ++n) {
            ASSERT_GE(f.write(record(n), place_of_new(n)).value, 0);
            original_[id_of(n)] = record(n);
        }
        ASSERT_EQ(f.close(), 0);
        bytes_ = slurp(path());
    }
    int64_t first_new() const { return std::max(40, sessions_ * changes_ + 10); }

    report work() const
    {
        report told{.first_error = 0, .acknowledged = original_, .flushed = {}, .in_doubt = {}};
        const auto note = [&](bool done, int error) {
            if (!done && told.first_error == 0) told.first_error = error;
            return done;
        };
        file f;
        if (!note(f.open(spec().with_flags(O_RDWR)), f.error())) return told;
        const auto run = [&](const outcome &got, int64_t id, const std::string &now) {
            told.flushed.erase(id);
            if (!note(got.value >= 0, got.error)) {
                told.in_doubt[id] = now;
                return;
            }
            told.in_doubt.erase(id);
            if (now.empty())
                told.acknowledged.erase(id);
            else
                told.acknowledged[id] = now;
        };
        const auto add = [&](int64_t n) {
            const outcome got = f.write(record(n), place_of_new(n));
            const auto behind = [](const contents &records) {
                return records.empty() ? 0 : records.rbegin()->first + 1;
            };
            const int64_t next_number = std::max(behind(told.acknowledged), behind(told.in_doubt));
            run(got, !is_flat() ? id_of(n) : got.value >= 0 ? static_cast<int64_t>(got.rrn) : next_number, record(n));
        };
        const int64_t half = changes_ / 2, from = session_ * half, from_new = first_new() + 2 * from;
        for (int64_t n = 0; n < half; ++n) add(from_new + n);
        const int flushed = f.flush();
        if (note(flushed == 0, errno)) told.flushed = told.acknowledged;
        for (int64_t n = from; n < from + half; ++n) {
            if (n % 3 == 0) run(f.erase(place_of(n)), id_of(n), "");
            if (n % 3 == 1) run(f.rewrite(rewritten(n), place_of(n)), id_of(n), rewritten(n));
            if (n % 3 == 2) add(from_new + half + n - from);
        }
        for (int i = 0; i < 5; ++i) {
            const outcome got = f.read(i == 0 ? first(is_indexed() ? 1 : 0) : next());
            note(got.value >= 0, got.error);
        }
        const int closed = f.close();
        note(closed == 0, closed);
        return told;
    }

    // What holds records: behind it room may have been made that nobody has taken back.
    std::string beginning() const
    {
        std::string bytes(2 * bytes_.size() + (1 << 20), '\0');
        std::ifstream{path(), std::ios::binary}.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return bytes;
    }

    // Records begin at a multiple of 8 with the number of their key.
    static bool are_all_in(const contents &wanted, std::string_view bytes)
    {
        std::map<std::string_view, std::string_view> by_number;
        for (const auto &[id, each] : wanted) by_number.emplace(std::string_view{each}.substr(0, 6), each);
        for (size_t at = 0; at + 6 <= bytes.size() && !by_number.empty(); at += 8) {
            if (bytes[at] < '0' || bytes[at] > '9') continue;
            const auto found = by_number.find(bytes.substr(at, 6));
            if (found != by_number.end() && bytes.substr(at, found->second.size()) == found->second)
                by_number.erase(found);
        }
        return by_number.empty();
    }

    // What is undone after a failure may leave a free slot that no list has: space, no record.
    static std::string without_lost_slots(const std::string &complaints)
    {
        std::string others;
        std::istringstream lines{complaints};
        for (std::string line; std::getline(lines, line);)
            if (line.find("free slots are on no list") == std::string::npos) others += line + "\n";
        return others;
    }

    // The file after a round: sound with exactly what was acknowledged, or refused; flushed records are there anyway.
    void judge(const report &told, const std::string &where, size_t most_done)
    {
        printed();
        EXPECT_TRUE(told.flushed.empty() || are_all_in(told.flushed, beginning()))
            << where << ": a flushed record is not in the file";
        if (file_is_unclean(path())) {
            EXPECT_NE(told.first_error, 0) << where << ": left unclean without an error";
            return;
        }
        const std::string wrong = told.first_error == 0 ? check_file(path()) : without_lost_slots(check_file(path()));
        EXPECT_EQ(wrong, "") << where;
        if (!wrong.empty()) return;
        file f;
        ASSERT_TRUE(f.open(spec().with_flags(O_RDONLY))) << where << " " << strerror(f.error()) << " " << printed();
        // One error for good, told at close at the latest, may have kept every change out of the file.
        const std::vector<std::string> found = f.rest();
        const report nothing_done{.first_error = 0, .acknowledged = original_, .flushed = {}, .in_doubt = {}};
        EXPECT_TRUE(holds(found, told, most_done) || (told.first_error != 0 && holds(found, nothing_done, 0)))
            << where << ": the file does not hold what was acknowledged, " << found.size() << " records of "
            << told.acknowledged.size();
    }

    // Each record is what was acknowledged, or what an operation that failed after its commit has made of it: one of
    // these, or many where the lock cannot be given up any more.
    static bool holds(const std::vector<std::string> &found, const report &told, size_t most_done)
    {
        contents either = told.acknowledged;
        either.insert(told.in_doubt.begin(), told.in_doubt.end());
        auto next_found = found.begin();
        const auto takes = [&](const std::string &bytes) {
            const bool is = next_found != found.end() && *next_found == bytes;
            if (is) ++next_found;
            return is;
        };
        size_t done = 0;
        for (const auto &[id, bytes] : either) {
            const bool known = told.acknowledged.contains(id);
            if (known && takes(bytes)) continue;
            const auto doubt = told.in_doubt.find(id);
            if (doubt == told.in_doubt.end()) return false;
            const bool changed = !doubt->second.empty() && takes(doubt->second);
            if (known && !changed && !doubt->second.empty()) return false;
            if (known || changed) ++done;
        }
        return next_found == found.end() && done <= most_done;
    }

    // A lock that cannot be given up for want of memory in the kernel is told as one that is refused.
    static bool is_of(const fault_row &row, int error)
    {
        return error == row.error || (row.error == ENOLCK && error == EAGAIN);
    }

    // In each session, fails the first call, the second, and so on, until the session gets through.
    void sweep(const fault_row &row)
    {
        prepare();
        for (session_ = 0; session_ < sessions_ && failing_rounds_ <= 4; ++session_) sweep_session(row);
    }

    void sweep_session(const fault_row &row)
    {
        fault_plan plan{.call = row.call, .error = row.error, .lasting = row.lasting, .bytes_done = row.bytes_done};
        bool fired = true;
        for (; fired; ++plan.nth) {
            if (HasFailure() && ++failing_rounds_ > 4) return;
            guard_.emplace(200);
            spill(path(), bytes_);
            const size_t descriptors = open_descriptors(), tasks = threads();
            report told;
            {
                fault armed{plan};
                told = work();
                fired = armed.disarm();
            }
            const std::string where = plan.call + " " + std::to_string(plan.nth) + " " + strerror(plan.error) +
                                      (plan.lasting ? " lasting" : "") + " session " + std::to_string(session_);
            EXPECT_EQ(open_descriptors(), descriptors) << where;
            EXPECT_EQ(threads(), tasks) << where;
            const bool may_be_silent = !fired || row.expected != verdict::given;
            const bool may_be_given = fired && row.expected != verdict::silent;
            EXPECT_TRUE((may_be_silent && told.first_error == 0) || (may_be_given && is_of(row, told.first_error)))
                << where << ": " << strerror(told.first_error);
            judge(told, where, strcmp(row.call, "lock") == 0 ? told.in_doubt.size() : 1);
            if (!fired) original_ = told.acknowledged;
        }
        bytes_ = slurp(path());
        rounds_ += plan.nth;
    }

    static bool is_direct() { return getenv("VFS_IO_DIO") != nullptr && strcmp(getenv("VFS_IO_DIO"), "1") == 0; }

    uint32_t organization_;
    int changes_ = 18, sessions_ = 1, session_ = 0; // changes of a session
    uint32_t key_length_ = 1960;
    bool thorough_; // errors that go the same ways as another one too
    unsigned rounds_ = 0;
    contents original_;
    std::string bytes_;
    int failing_rounds_ = 0;
    std::optional<watchdog> guard_;
};

struct workload {
    uint32_t organization;
    const char *lock, *call;
};

class EveryFault : public FaultWork, public testing::WithParamInterface<workload> {
protected:
    EveryFault() : FaultWork(GetParam().organization, GetParam().lock) {}
};

TEST_P(EveryFault, IsReportedAndLosesNothing)
{
    using enum verdict;
    const int64_t piece = is_direct() ? 512 : 100; // a device moves whole sectors
    const fault_row rows[] = {
        {"write", EIO}, // a write that is tried again at close may succeed then
        {"write", ENOSPC, given, true},
        {"write", ENOSPC, tolerated, false, -1, true},
        {"write", EDQUOT, given, true, -1, true},
        {"write", EIO, given, true, -1, true},
        {"write", EINTR, silent},
        {"write", 0, silent, false, piece},
        {"read", EIO},
        {"read", EIO, tolerated, true},
        {"read", EINTR, silent},
        {"read", 0, silent, false, piece},
        {"sync", EIO, given},
        {"sync", EINTR},
        {"sync", EINVAL, silent, true}, // a file system without sync is no error
        {"truncate", EIO},
        {"truncate", EINTR, silent},
        {"close", EIO, given},
        {"close", EINTR, silent},
        {"allocate", ENOSPC, tolerated, true},
        {"allocate", EOPNOTSUPP, silent, true},
        {"allocate", EIO, tolerated, true},
        {"map", ENODEV, silent, true},
        {"memory", ENOMEM},
        {"memory", ENOMEM, tolerated, true},
        {"open", EIO},
        {"open", EMFILE, tolerated, true},
        {"lock", EIO},
        {"lock", ENOLCK},
        {"lock", ENOLCK, tolerated, true},
    };
    for (const fault_row &row : rows)
        if (strcmp(row.call, GetParam().call) == 0 && (thorough_ || !row.like_another)) sweep(row);
    RecordProperty("rounds", static_cast<int>(rounds_));
}

std::vector<workload> workloads()
{
    std::vector<workload> all;
    for (const uint32_t organization : {VFS_ORG_INDEXED, VFS_ORG_RELATIVE, VFS_ORG_SEQUENTIAL})
        for (const char *lock : {"0", "2", "4"}) {
            for (const char *call : {"write", "read", "sync", "truncate", "close", "allocate", "memory", "open"})
                all.push_back({organization, lock, call});
            all.push_back({organization, lock, strcmp(lock, "0") == 0 ? "map" : "lock"});
        }
    return all;
}

INSTANTIATE_TEST_SUITE_P(Workloads, EveryFault, testing::ValuesIn(workloads()), [](const auto &each) {
    const workload &given = each.param;
    const char *kind = given.organization == VFS_ORG_INDEXED    ? "Indexed"
                       : given.organization == VFS_ORG_RELATIVE ? "Relative"
                                                                : "Sequential";
    return std::string{kind} + "Lock" + given.lock + given.call;
});

// What the engines of input and output call besides, and what they answer when a transfer of theirs fails.
struct engine {
    const char *name, *settings[2]; // variables that are set to 1
    std::vector<fault_row> rows;
};

void PrintTo(const engine &which, std::ostream *out)
{
    *out << which.name;
}

class EngineFault : public FaultWork, public testing::WithParamInterface<engine> {
protected:
    EngineFault() : FaultWork(VFS_ORG_SEQUENTIAL, "2")
    {
        for (const char *name : GetParam().settings) variables.set(name, "1");
        variables.set("VFS_DATA_COUNT", "3");
    }
};

TEST_P(EngineFault, HangsNothingAndIsReported)
{
    for (const fault_row &row : GetParam().rows) sweep(row);
    EXPECT_GT(rounds_, GetParam().rows.size()) << "some of these calls are made";
    if (std::string_view{GetParam().name}.starts_with("Debugging")) printed(); // of the last session
}

INSTANTIATE_TEST_SUITE_P(
    All, EngineFault,
    testing::Values(
        engine{"Threads",
               {"VFS_IO_THREAD", "VFS_IO_THREAD"},
               {{"pthread_create", EAGAIN, verdict::silent},
                {"pthread_create", ENOMEM, verdict::silent, true},
                {"sem_init", ENOSPC, verdict::silent, true},
                {"sem_wait", EINTR, verdict::silent},
                {"sem_trywait", EINTR, verdict::silent},
                {"sem_wait", EINVAL},
                {"sem_trywait", EINVAL},
                {"sem_post", EOVERFLOW},
                {"read", EIO},
                {"write", ENOSPC, verdict::given, true}}},
        engine{"Debugging", {"VFS_DEBUG", "VFS_DEBUG"}, {{"read", EIO}, {"write", ENOSPC, verdict::given, true}}},
        engine{"DebuggingKernel",
               {"VFS_DEBUG", "VFS_IO_AIO"},
               {{"io_submit", EIO}, {"io_getevents", EIO}, {"read", EIO}, {"write", ENOSPC, verdict::given, true}}},
        engine{"Kernel",
               {"VFS_IO_AIO", "VFS_IO_AIO"},
               {{"io_setup", EAGAIN, verdict::silent, true},
                {"io_submit", EAGAIN, verdict::silent},
                {"io_submit", EIO},
                {"io_getevents", EINTR, verdict::silent},
                {"io_cancel", EAGAIN, verdict::silent, true},
                {"read", EIO},
                {"write", ENOSPC, verdict::given, true}}},
        engine{"ThreadsWithKernel",
               {"VFS_IO_THREAD", "VFS_IO_AIO"},
               {{"io_setup", EAGAIN, verdict::silent, true},
                {"pthread_create", EAGAIN, verdict::silent, true},
                {"sem_wait", EINTR, verdict::silent},
                {"sem_trywait", EINTR, verdict::silent},
                {"read", EIO},
                {"write", ENOSPC, verdict::given, true}}}),
    [](const auto &each) { return std::string{each.param.name}; });

class Fault : public FaultWork, public testing::WithParamInterface<const char *> {
protected:
    Fault() : FaultWork(VFS_ORG_INDEXED, GetParam()) {}
};

// What a direct transfer did not move of a page is not zeros.
TEST_P(Fault, DirectTransfersThatEndInsideAPageAreContinuedOrFail)
{
    if (strcmp(GetParam(), "4") == 0) GTEST_SKIP() << "the same code as without locks";
    variables.set("VFS_IO_DIO", "1");
    for (const char *call : {"read", "write"}) {
        sweep({call, 0, verdict::silent, false, 512});
        sweep({call, EIO, verdict::tolerated, true, 512});
    }
}

TEST_P(Fault, CreatingAFileFailsCleanly)
{
    for (const char *call : {"write", "read", "memory", "sync", "truncate", "close"}) {
        bool fired = true;
        for (unsigned nth = 1; fired && nth < 500; ++nth) {
            ops().unlink(path().c_str());
            const size_t descriptors = open_descriptors();
            const int error = strcmp(call, "memory") == 0 ? ENOMEM : EIO;
            int first = 0;
            bool opened;
            {
                fault armed{{.call = call, .nth = nth, .error = error}};
                file f;
                opened = f.open(spec());
                first = f.error();
                if (opened) {
                    const outcome written = f.write(record(1), by_record());
                    const int closed = f.close();
                    first = written.value < 0 ? written.error : closed;
                }
                fired = armed.disarm();
            }
            EXPECT_TRUE(first == 0 || (fired && first == error)) << call << nth << strerror(first);
            EXPECT_EQ(open_descriptors(), descriptors) << call << nth;
            if (first == 0) {
                EXPECT_EQ(check_file(path()), "") << call << nth;
            }
            if (HasFailure()) return;
        }
    }
    printed();
}

TEST_P(Fault, FlushSyncsOnceAndAnUnchangedHandleNever)
{
    prepare();
    file f{spec().with_flags(O_RDWR)};
    const auto syncs = [] {
        const std::string calls = traced_calls();
        size_t count = 0;
        for (size_t at = 0; (at = calls.find("sync ", at)) != std::string::npos; ++at) ++count;
        return count;
    };
    trace_calls(true);
    EXPECT_EQ(f.flush(), 0);
    EXPECT_EQ(traced_calls().find("pwrite"), std::string::npos);
    EXPECT_EQ(f.write(record(500), by_record()).value, 2020);
    EXPECT_LE(syncs(), 1u); // the first change may have to say that the file is in use
    EXPECT_EQ(f.write(record(501), by_record()).value, 2020);
    EXPECT_EQ(syncs(), 0u);
    EXPECT_EQ(f.flush(), 0);
    const bool mapped = strcmp(GetParam(), "0") == 0, shared = strcmp(GetParam(), "4") == 0;
    EXPECT_LE(syncs(), mapped ? 2u : 1u); // the mapping, and what was appended behind it
    EXPECT_EQ(f.flush(), 0);
    EXPECT_LE(syncs(), shared ? 1u : 0u); // what others changed in a shared file counts as well
    EXPECT_EQ(f.close(), 0);
    trace_calls(false);
    EXPECT_EQ(check_file(path()), "");
}

TEST_P(Fault, LocksThatCannotBeGivenBackAreKeptAndTold)
{
    if (strcmp(GetParam(), "4") != 0) GTEST_SKIP() << "no record locks";
    prepare();
    file f{spec().with_flags(O_RDWR)};
    const vfs_lock_request hold = asking(VFS_WAIT_NEVER);
    ASSERT_TRUE(f.read(by_key(key_of(1)), &hold).found(record(1)));
    {
        const fault armed{{.call = "lock", .error = EIO}};
        EXPECT_EQ(ops().unlock_all(f.handle()), -1);
        EXPECT_EQ(errno, EIO);
    }
    EXPECT_EQ(ops().unlock_all(f.handle()), 0);
    EXPECT_EQ(f.close(), 0);
    EXPECT_EQ(printed(), "");
}

// With little memory a removal does not reach a leaf inside a run of equal keys, where putting the entry back needs no
// more than the last leaf.
TEST_P(Fault, WhatARemovalThatFailedPutsBackIsThereOnce)
{
    if (strcmp(GetParam(), "0") != 0)
        GTEST_SKIP() << "the same code without locks; what fails of shared files is dropped whole";
    key_length_ = 240;
    changes_ = 2; // one of them the removal
    sessions_ = 1000;
    prepare();
    session_ = 105;
    sweep_session({"memory", ENOMEM, verdict::tolerated, true});
}

// Once every cache has its buffers, no record operation asks for memory.
TEST_P(Fault, WarmHandleAllocatesNothing)
{
    prepare();
    file f{spec().with_flags(O_RDWR)};
    const auto work = [&](int from) {
        for (int n = from; n < from + 150; ++n) {
            ASSERT_EQ(f.write(record(n), by_record()).value, 2020) << n;
            ASSERT_EQ(f.read(by_key(key_of(n))).value, 2020) << n;
            ASSERT_EQ(f.rewrite(record(n, n % 3 == 0 ? 130 : 40)).error, 0) << n;
        }
        for (int n = from; n < from + 150; ++n) ASSERT_EQ(f.erase(by_key(key_of(n))).value, 0) << n;
        ASSERT_GE(f.run(operation::start, first()).value, 0);
        while (f.read(next()).value > 0) continue;
        while (f.read(prev()).value > 0) continue;
    };
    work(100);
    work(300);
    fault plan{{.call = "memory", .error = ENOMEM, .lasting = true}};
    work(500);
    EXPECT_FALSE(plan.disarm());
    EXPECT_EQ(f.close(), 0);
    EXPECT_EQ(check_file(path()), "");
}

// ---- Opens that the system refuses ----

struct refused_opens {
    std::string path;
    int error;
    unsigned times, seen;
} opens;

call_answer refuse_open(const driver_call &call)
{
    const bool ours = strcmp(call.family, "open") == 0 && call.path != nullptr && opens.path == call.path;
    return {.error = ours && ++opens.seen <= opens.times ? opens.error : 0};
}
constexpr call_watcher refusing{refuse_open, nullptr};

class RefusedOpen : public FaultWork {
protected:
    RefusedOpen() : FaultWork(VFS_ORG_SEQUENTIAL, "9") {}
    ~RefusedOpen() override { watch_calls(nullptr); }

    // How often the file was tried, and how it ended.
    std::pair<unsigned, int> open_with(int error, unsigned times, uint32_t wait_mode, uint32_t flags)
    {
        file_spec wanted = spec().with_flags(flags);
        wanted.locks = locks_of(VFS_LOCK_FILE, wait_mode);
        wanted.locks->retry_count = 3;
        opens = {path(), error, times, 0};
        watch_calls(&refusing);
        file f;
        f.open(wanted);
        watch_calls(nullptr);
        return {opens.seen, f.error()};
    }
};

TEST_F(RefusedOpen, IsTriedAgainWhereThatMayHelp)
{
    prepare();
    using tried = std::pair<unsigned, int>;
    for (const int error : {EINTR, EAGAIN, ETIMEDOUT, EACCES}) { // over in a moment, or after the retries asked for
        EXPECT_EQ(open_with(error, 1, VFS_WAIT_NEVER, O_RDWR), (tried{2, 0})) << strerror(error);
        EXPECT_EQ(open_with(error, 99, VFS_WAIT_NEVER, O_RDWR), (tried{4, error})) << strerror(error);
    }
    EXPECT_EQ(open_with(EACCES, 99, VFS_WAIT_KERNEL, O_RDWR), (tried{2, EACCES})); // is not waited for
    EXPECT_EQ(open_with(ETXTBSY, 99, VFS_WAIT_NEVER, O_RDWR), (tried{1, ETXTBSY}));
    EXPECT_EQ(open_with(ETXTBSY, 2, VFS_WAIT_KERNEL, O_RDWR), (tried{3, 0}));
    EXPECT_EQ(open_with(ETXTBSY, 99, VFS_WAIT_KERNEL, O_RDWR), (tried{4, ETXTBSY}));
    EXPECT_EQ(open_with(EPERM, 1, VFS_WAIT_NEVER, O_RDONLY), (tried{2, 0})); // another user's file: its time of access
    EXPECT_EQ(open_with(EPERM, 2, VFS_WAIT_NEVER, O_RDONLY), (tried{2, EPERM}));
    EXPECT_EQ(open_with(EIO, 1, VFS_WAIT_NEVER, O_RDWR), (tried{1, EIO}));
    variables.set("VFS_IO_DIO", "1");
    EXPECT_EQ(open_with(EINVAL, 1, VFS_WAIT_NEVER, O_RDWR), (tried{2, 0})); // no direct transfers there
    EXPECT_EQ(open_with(EINVAL, 2, VFS_WAIT_NEVER, O_RDWR), (tried{2, EINVAL}));
}

INSTANTIATE_TEST_SUITE_P(Locks, Fault, testing::Values("0", "2", "4"),
                         [](const auto &each) { return std::string{"Lock"} + each.param; });

} // namespace
