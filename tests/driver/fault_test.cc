// fault_test.cc: the driver's system calls and allocations fail, one after the other. A workload of host calls runs
// once for every call that it makes, with that call failing. Whatever fails: the error is reported, by close at the
// latest; no descriptor is lost; and the file is either sound and holds exactly what was acknowledged, or it says that
// it was not closed. What a flush covered is in the file in both cases.
#include "checker.h"
#include "fault.h"
#include "host.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>

namespace {

using namespace host;

struct report {
    int first_error = 0;
    std::map<std::string, std::string> acknowledged; // records by primary key
    std::map<std::string, std::string> flushed; // of these, what the flush covered and nothing tried to change after it
    std::map<std::string, std::string> in_doubt; // what was acknowledged, with the first failed operation as if done
};

class Fault : public DriverTest, public testing::WithParamInterface<const char *> {
protected:
    Fault() { variables.set("VFS_LOCK", GetParam()); }

    // Long keys, so that a few dozen records make a tree of three levels.
    file_spec spec()
    {
        return indexed(path(), {{.parts = {{0, 1960}}}, {.parts = {{1960, 4}}, .duplicates = true}}, 2100);
    }

    static std::string record(int n, size_t length = 2020)
    {
        std::string bytes = numbered("%06ld", n * 7919 % 1000);
        bytes.resize(1960, 'k');
        bytes += n % 2 == 0 ? "even" : "odd ";
        bytes += numbered("record %ld ", n);
        bytes.resize(length, static_cast<char>('a' + n % 26));
        return bytes;
    }

    static std::string key_of(int n) { return record(n).substr(0, 1960); }

    // The file that every round starts from.
    void prepare()
    {
        ops().unlink(path().c_str());
        original_.clear();
        file f{spec()};
        for (int n = 0; n < 40; ++n) {
            ASSERT_EQ(f.write(record(n), by_record()).value, 2020);
            original_[key_of(n)] = record(n);
        }
        ASSERT_EQ(f.close(), 0);
        bytes_ = slurp(path());
    }

    report work(size_t changes = 30)
    {
        report told{.first_error = 0, .acknowledged = original_, .flushed = {}, .in_doubt = {}};
        const auto note = [&](bool done, int error) {
            if (!done && told.first_error == 0) told.first_error = error;
            return done;
        };
        file f;
        if (!note(f.open(spec().with_flags(O_RDWR)), f.error())) return told;
        const auto apply = [](std::map<std::string, std::string> &records, int n, const std::string &now) {
            if (now.empty())
                records.erase(key_of(n));
            else
                records[key_of(n)] = now;
        };
        const auto run = [&](const outcome &got, int n, const std::string &now) {
            told.flushed.erase(key_of(n));
            if (note(got.value >= 0, got.error)) {
                apply(told.acknowledged, n, now);
                if (!told.in_doubt.empty()) apply(told.in_doubt, n, now);
            } else if (told.in_doubt.empty()) {
                told.in_doubt = told.acknowledged;
                apply(told.in_doubt, n, now);
            }
        };
        const int half = static_cast<int>(changes) / 2;
        for (int n = 0; n < half; ++n) run(f.write(record(100 + n), by_record()), 100 + n, record(100 + n));
        const int flushed = f.flush();
        if (note(flushed == 0, errno)) told.flushed = told.acknowledged;
        for (int n = 0; n < half; ++n) {
            if (n % 3 == 0) run(f.erase(by_key(key_of(n))), n, "");
            if (n % 3 == 1) run(f.rewrite(record(n, 2100), by_record()), n, record(n, 2100));
            if (n % 3 == 2) run(f.write(record(200 + n), by_record()), 200 + n, record(200 + n));
        }
        for (int i = 0; i < 5; ++i) {
            const outcome got = f.read(i == 0 ? first(1) : next());
            note(got.value >= 0, got.error);
        }
        const int closed = f.close();
        note(closed == 0, closed);
        return told;
    }

    // The file after a round: sound with exactly what was acknowledged, or refused; flushed records are there anyway.
    void judge(const report &told, const std::string &where)
    {
        printed();
        const std::string bytes = slurp(path());
        for (const auto &[key, wanted] : told.flushed)
            if (bytes.find(wanted) == std::string::npos) {
                ADD_FAILURE() << where << ": a flushed record is not in the file";
                break;
            }
        if (file_is_unclean(path())) {
            EXPECT_NE(told.first_error, 0) << where << ": left unclean without an error";
            return;
        }
        const std::string wrong = check_file(path());
        EXPECT_EQ(wrong, "") << where;
        if (!wrong.empty()) return;
        file f;
        ASSERT_TRUE(f.open(spec().with_flags(O_RDONLY))) << where << " " << strerror(f.error()) << " " << printed();
        // An operation that failed after its commit counts as done; one error for good, told at close at the latest, may
        // have kept every change out of the file.
        const std::vector<std::string> found = f.rest();
        const auto holds = [&](const std::map<std::string, std::string> &records) {
            std::vector<std::string> wanted;
            for (const auto &[key, bytes_of_record] : records) wanted.push_back(bytes_of_record);
            return found == wanted;
        };
        EXPECT_TRUE(holds(told.acknowledged) || (told.first_error != 0 && (holds(told.in_doubt) || holds(original_))))
            << where << ": the file does not hold what was acknowledged, " << found.size() << " records of "
            << told.acknowledged.size();
    }

    // Fails the first call, the second, and so on, until the workload gets through.
    void sweep(fault_plan plan, const std::function<void(const report &, const std::string &)> &reported)
    {
        prepare();
        plan.path.clear();
        bool fired = true;
        for (plan.nth = 1; fired && plan.nth < 2000; ++plan.nth) {
            if (HasFailure() && ++failing_rounds_ > 4) return;
            spill(path(), bytes_);
            const size_t descriptors = open_descriptors();
            report told;
            {
                fault armed{plan};
                told = work();
                fired = armed.disarm();
            }
            const std::string where = plan.call + " " + std::to_string(plan.nth) + " " + strerror(plan.error) +
                                      (plan.lasting ? " lasting" : "");
            EXPECT_EQ(open_descriptors(), descriptors) << where;
            if (!fired) {
                EXPECT_EQ(told.first_error, 0) << where;
            } else {
                reported(told, where);
            }
            judge(told, where);
        }
        // A file that has its length already is not cut.
        if (plan.call != "truncate") {
            EXPECT_GT(plan.nth, 2u) << plan.call << " was never called";
        }
    }

    static bool is_direct() { return getenv("VFS_IO_DIO") != nullptr && strcmp(getenv("VFS_IO_DIO"), "1") == 0; }
    static void as_given(const report &told, const std::string &where, int error)
    {
        EXPECT_EQ(told.first_error, error) << where;
    }
    static void tolerated(const report &told, const std::string &where, int error)
    {
        EXPECT_TRUE(told.first_error == 0 || told.first_error == error) << where << ": " << strerror(told.first_error);
    }

    watchdog guard{200};
    std::map<std::string, std::string> original_;
    std::string bytes_;
    int failing_rounds_ = 0;
};

TEST_P(Fault, FailedWriteIsReportedAndNothingLeaks)
{
    // A write that is tried again at close may succeed then.
    sweep({.call = "write", .error = EIO},
          [](const report &told, const std::string &where) { tolerated(told, where, EIO); });
    sweep({.call = "write", .error = ENOSPC, .lasting = true},
          [](const report &told, const std::string &where) { as_given(told, where, ENOSPC); });
}

TEST_P(Fault, InterruptedAndShortTransfersAreContinued)
{
    const auto no_error = [](const report &told, const std::string &where) { as_given(told, where, 0); };
    sweep({.call = "write", .error = EINTR}, no_error);
    sweep({.call = "read", .error = EINTR}, no_error);
    const int64_t bytes = is_direct() ? 512 : 100; // a device moves whole sectors
    sweep({.call = "write", .error = 0, .bytes_done = bytes}, no_error);
    sweep({.call = "read", .error = 0, .bytes_done = bytes}, no_error);
    sweep({.call = "sync", .error = EINTR},
          [](const report &told, const std::string &where) { tolerated(told, where, EINTR); });
    sweep({.call = "truncate", .error = EINTR}, no_error);
    sweep({.call = "close", .error = EINTR}, no_error);
}

// What a direct transfer did not move of a page is not zeros.
TEST_P(Fault, DirectTransfersThatEndInsideAPageAreContinuedOrFail)
{
    if (strcmp(GetParam(), "4") == 0) GTEST_SKIP() << "the same code as without locks";
    variables.set("VFS_IO_DIO", "1");
    for (const char *call : {"read", "write"}) {
        sweep({.call = call, .error = 0, .bytes_done = 512},
              [](const report &told, const std::string &where) { as_given(told, where, 0); });
        sweep({.call = call, .error = 0, .lasting = true, .bytes_done = 512},
              [](const report &told, const std::string &where) { tolerated(told, where, EIO); });
    }
}

TEST_P(Fault, FailedReadIsReportedOrWasNotNeeded)
{
    for (const bool lasting : {false, true})
        sweep({.call = "read", .error = EIO, .lasting = lasting},
              [](const report &told, const std::string &where) { tolerated(told, where, EIO); });
}

TEST_P(Fault, FailedSyncIsReported)
{
    sweep({.call = "sync", .error = EIO},
          [](const report &told, const std::string &where) { as_given(told, where, EIO); });
    // A file system without sync is no error.
    sweep({.call = "sync", .error = EINVAL, .lasting = true},
          [](const report &told, const std::string &where) { as_given(told, where, 0); });
}

TEST_P(Fault, FailedTruncateCloseAndPreallocation)
{
    sweep({.call = "truncate", .error = EIO},
          [](const report &told, const std::string &where) { tolerated(told, where, EIO); });
    sweep({.call = "close", .error = EIO},
          [](const report &told, const std::string &where) { as_given(told, where, EIO); });
    prepare();
    for (const int error : {ENOSPC, EOPNOTSUPP, EIO}) {
        spill(path(), bytes_);
        report told;
        {
            const fault armed{{.call = "fallocate", .nth = 1, .error = error, .lasting = true}};
            told = work();
        }
        EXPECT_TRUE(told.first_error == 0 || told.first_error == error);
        judge(told, "fallocate");
    }
}

TEST_P(Fault, FailedAllocationIsReportedAndNothingLeaks)
{
    for (const bool lasting : {false, true})
        sweep({.call = "memory", .error = ENOMEM, .lasting = lasting},
              [](const report &told, const std::string &where) { tolerated(told, where, ENOMEM); });
}

TEST_P(Fault, FailedOpenLeavesTheFileAlone)
{
    sweep({.call = "open", .error = EIO},
          [](const report &told, const std::string &where) { tolerated(told, where, EIO); });
    if (strcmp(GetParam(), "0") != 0)
        sweep({.call = "lock", .error = EIO},
              [](const report &told, const std::string &where) { tolerated(told, where, EIO); });
    if (strcmp(GetParam(), "0") == 0 && !is_direct()) {
        prepare();
        spill(path(), bytes_);
        report told;
        {
            fault armed{{.call = "mmap", .nth = 1, .error = ENODEV, .lasting = true}};
            told = work();
            EXPECT_TRUE(armed.fired());
        }
        as_given(told, "mmap", 0);
        judge(told, "mmap");
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

// Once every cache has its buffers, no record operation asks for memory.
TEST_P(Fault, WarmHandleAllocatesNothing)
{
    prepare();
    file f{spec().with_flags(O_RDWR)};
    const auto work = [&](int from) {
        for (int n = from; n < from + 150; ++n) {
            ASSERT_EQ(f.write(record(n), by_record()).value, 2020) << n;
            ASSERT_EQ(f.read(by_key(key_of(n))).value, 2020) << n;
            ASSERT_EQ(f.rewrite(record(n, n % 3 == 0 ? 2090 : 2000)).error, 0) << n;
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

INSTANTIATE_TEST_SUITE_P(Locks, Fault, testing::Values("0", "2", "4"),
                         [](const auto &each) { return std::string{"Lock"} + each.param; });

} // namespace
