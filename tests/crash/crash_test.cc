// crash_test.cc: the machine stops. Every change that the driver makes during a long random workload is recorded; the
// file is put together as it can stand on the disk after a stop at any moment, and then three are asked. The driver
// opens it or says that it was not closed, and what it opens is right. The check calls sound only what is. And from what
// the rebuild takes its records nothing is missing that a completed flush or close had covered: each record once, as
// it was then, unless it was changed afterwards.
#include "checker.h"
#include "format/check.h"
#include "format/clear.h"
#include "format/salvage.h"
#include "recorder.h"
#include "storm.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <random>

namespace {

using namespace host;

constexpr uint32_t own_ids = 12;
constexpr uint64_t never = UINT64_MAX;

// ---- What was done, and when: moments are numbers of recorded changes ------------------------------------------------

struct done_operation {
    uint32_t id;
    uint64_t version; // after it; 0: gone
    uint64_t begin, end;
};

struct done_flush {
    uint64_t begin, end;
};

struct journal {
    change_log changes;
    std::atomic<uint64_t> operation_count, flush_count, failures;
    done_operation operations[100'000];
    done_flush flushes[20'000];
};

struct workload {
    const char *name;
    shape what;
    uint32_t lock_mode;
    unsigned processes;
    const char *variable = nullptr, *value = "1";
};

void PrintTo(const workload &which, std::ostream *out)
{
    *out << which.name;
}

// One process: changes its own records, flushes now and then, closes and opens again.
class worker {
public:
    worker(const workload &load, const file_spec &spec, journal &book, std::string boot_id, unsigned number,
           uint64_t seed)
        : load_(load), spec_(spec), book_(book), boot_id_(std::move(boot_id)), number_(number),
          random_(seed + 1000 * number)
    {
    }

    void run(uint64_t operations)
    {
        record_changes(&book_.changes, boot_id_.c_str());
        file f{spec_};
        if (!f.ok()) return failed("open", f.error());
        for (uint64_t i = 0; i < operations && book_.failures == 0; ++i) {
            const uint64_t dice = random_() % 100;
            if (dice < 4) {
                flushed([&] { return f.flush(); });
            } else if (dice < 6) {
                closed(f);
                if (!f.open(spec_.with_flags(O_RDWR))) return failed("open again", f.error());
            } else {
                change_one(f);
            }
        }
        closed(f);
        record_changes(nullptr, nullptr);
    }

private:
    uint64_t now() const { return book_.changes.changes.load(); }

    void failed(const char *what, int error)
    {
        ++book_.failures;
        std::cerr << load_.name << ": " << what << " failed: errno " << error << std::endl;
    }

    template <typename call> void flushed(const call &flush)
    {
        const uint64_t begin = now();
        if (flush() != 0) return failed("flush or close", errno);
        book_.flushes[book_.flush_count++] = {begin, now()};
    }

    // The close of a handle that changed nothing covers nothing.
    void closed(file &f)
    {
        if (!changed_)
            (void)f.close();
        else
            flushed([&] { return f.close(); });
        changed_ = false;
    }

    place at(uint32_t id) const
    {
        if (load_.what == shape::indexed) return by_record();
        return by_rrn(load_.what == shape::relative ? id : static_cast<int64_t>(places_.at(id)));
    }

    void change_one(file &f)
    {
        const uint32_t id = number_ * own_ids + static_cast<uint32_t>(random_() % own_ids);
        const uint64_t before = versions_[id], version = version_of(number_, ++count_);
        const bool erases = before != 0 && random_() % 4 == 0;
        const std::string bytes = storm_bytes(load_.what, {id, erases ? before : version});
        const uint64_t number = book_.operation_count++;
        book_.operations[number] = {id, erases ? 0 : version, now(), never};
        outcome got;
        if (erases)
            got = f.erase(at(id), bytes);
        else if (before != 0)
            got = f.rewrite(bytes, at(id));
        else
            got = f.write(bytes, load_.what == shape::sequential ? end() : at(id));
        if (got.value < 0) return failed(erases ? "delete" : before != 0 ? "rewrite" : "write", got.error);
        changed_ = true;
        if (before == 0) places_[id] = got.rrn;
        versions_[id] = erases ? 0 : version;
        book_.operations[number].end = now();
    }

    const workload &load_;
    file_spec spec_;
    journal &book_;
    std::string boot_id_;
    unsigned number_;
    std::mt19937_64 random_;
    uint64_t count_ = 0;
    bool changed_ = false; // since the last open
    std::map<uint32_t, uint64_t> versions_, places_;
};

// ---- What has to be there ----------------------------------------------------------------------------------------

// Records whose bytes a flush covered and nobody touched since: version, 0 for one that has to be gone.
using sure_records = std::map<uint32_t, uint64_t>;

// The moment up to which flushes had covered everything.
uint64_t covered_until(const journal &book, uint64_t moment)
{
    uint64_t covered = 0;
    for (uint64_t i = 0; i < book.flush_count; ++i)
        if (book.flushes[i].end <= moment) covered = std::max(covered, book.flushes[i].begin);
    return covered;
}

sure_records covered_at(const journal &book, uint64_t covered, uint64_t moment)
{
    sure_records sure;
    std::map<uint32_t, bool> touched;
    for (uint64_t i = 0; i < book.operation_count; ++i) {
        const done_operation &one = book.operations[i];
        if (one.end <= covered)
            sure[one.id] = one.version;
        else if (one.begin < moment)
            touched[one.id] = true;
    }
    for (const auto &[id, yes] : touched) sure.erase(id);
    return sure;
}

// The records found against those that have to be there. Bytes that are no record belong to a torn one.
class found_records {
public:
    explicit found_records(shape what) : what_(what) {}

    void add(const std::string &bytes)
    {
        storm_record record;
        if (storm_parse(what_, bytes, &record)) versions_[record.id].push_back(record.version);
    }
    std::string against(const sure_records &sure) const
    {
        for (const auto &[id, version] : sure) {
            const auto at = versions_.find(id);
            const size_t count = at == versions_.end() ? 0 : at->second.size();
            const std::string name = "record " + std::to_string(id);
            if (version == 0 && count != 0) return name + " is back";
            if (version != 0 && count == 0) return name + " is missing";
            if (count > 1) return name + " is there " + std::to_string(count) + " times";
            if (version != 0 && at->second[0] != version) return name + " is not as it was";
        }
        return "";
    }

private:
    shape what_;
    std::map<uint32_t, std::vector<uint64_t>> versions_;
};

// ---- The test ----------------------------------------------------------------------------------------------------

// The driver says on standard error what it refuses.
class muted_errors {
public:
    muted_errors() : kept_(dup(STDERR_FILENO))
    {
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, STDERR_FILENO);
        close(null);
    }
    ~muted_errors()
    {
        dup2(kept_, STDERR_FILENO);
        close(kept_);
    }
    muted_errors(const muted_errors &) = delete;
    muted_errors &operator=(const muted_errors &) = delete;

private:
    int kept_;
};

class Stop : public testing::TestWithParam<workload> {
protected:
    Stop()
    {
        if (GetParam().variable != nullptr) setenv(GetParam().variable, GetParam().value, 1);
        spec_ = storm_spec(GetParam().what, path("file"), GetParam().lock_mode);
        record_changes(nullptr, nullptr); // the library is loaded here, the children have it
    }
    ~Stop() override
    {
        if (GetParam().variable != nullptr) unsetenv(GetParam().variable);
    }

    std::string path(const std::string &name) const { return ground_.path(name); }

    void work(uint64_t seed, uint64_t operations)
    {
        spill(path("boot_id"), "12345678-9abc-4def-8123-456789abcdef\n");
        std::vector<child> workers;
        for (unsigned number = 0; number < GetParam().processes; ++number)
            workers.emplace_back(
                [&, number] { worker{GetParam(), spec_, *book_, path("boot_id"), number, seed}.run(operations); },
                path("errors"));
        for (child &each : workers) ASSERT_EQ(each.finish(300), 0) << slurp(path("errors"));
        ASSERT_EQ(book_->failures, 0U) << slurp(path("errors"));
        ASSERT_EQ(check_file(spec_.path), "");
    }

    // Torn records are served only where the check has let a stopped file through.
    std::string served(file &f, bool torn) const
    {
        found_records found{GetParam().what};
        for (outcome got = f.read(first()); !got.ended(); got = f.read(next())) {
            if (got.value < 0) return "a read failed: errno " + std::to_string(got.error);
            storm_record record;
            if (!torn && !storm_parse(GetParam().what, got.bytes, &record)) return "served bytes that are no record";
            found.add(got.bytes);
        }
        return found.against(sure_);
    }

    std::string opened(bool called_sound) const
    {
        file_spec spec = spec_.with_flags(O_RDONLY);
        spec.path = stopped_;
        const muted_errors muted;
        file f;
        if (!f.open(spec)) {
            const bool empty = std::filesystem::file_size(stopped_) < 4096;
            const bool unmade = f.error() == EINVAL && covered_ == 0; // its first header never reached the disk
            const bool rightly = f.error() == ENOEXEC || empty || unmade;
            return rightly && !called_sound ? "" : "refused with errno " + std::to_string(f.error());
        }
        std::string wrong = served(f, called_sound);
        if (f.close() != 0) wrong += " close failed";
        return wrong;
    }

    // What the rebuild would take out of it.
    std::string salvaged(file_image &image, const check_result &checked) const
    {
        found_records found{GetParam().what};
        std::vector<std::byte> bytes;
        const auto take = [&](uint64_t slot, uint64_t length) {
            bytes.resize(length);
            if (image.read(slot + slot_head_bytes, bytes))
                found.add({reinterpret_cast<const char *>(bytes.data()), bytes.size()});
        };
        for (const found_record &one : salvage_records(image, checked.facts, checked.words, {}))
            take(one.slot, one.length);
        return found.against(sure_);
    }

    // One stop: what is wrong.
    std::string judge(uint64_t moment, std::mt19937_64 &random)
    {
        covered_ = covered_until(*book_, moment);
        sure_ = covered_at(*book_, covered_, moment);
        stopped_ = path("stopped");
        file_after_stop(book_->changes, moment, random, stopped_);
        if (std::string wrong = opened(false); !wrong.empty()) return "the driver: " + wrong;
        const int descriptor = open(stopped_.c_str(), O_RDWR | O_CLOEXEC);
        file_image image{descriptor};
        const check_result checked = check_image(image);
        std::string wrong = salvaged(image, checked);
        if (!wrong.empty()) wrong = "the rebuild: " + wrong;
        if (wrong.empty() && checked.sound() && reason_not_to_clear(checked).empty()) {
            ++sound_;
            if (clear_words(descriptor, checked) != 0) wrong = "the words cannot be cleared";
            if (wrong.empty()) wrong = opened(true);
            if (!wrong.empty()) wrong = "called sound: " + wrong;
        }
        close(descriptor);
        return wrong;
    }

    std::string judge_states(uint64_t seed, uint64_t states, uint64_t moments)
    {
        std::mt19937_64 random{seed};
        for (uint64_t i = 0; i < states; ++i) {
            // Any moment, and in one case of four one around a sync, where most depends on the order.
            uint64_t moment = random() % (moments + 1);
            if (i % 4 == 0) {
                while (moment < moments && book_->changes.entries[moment].what != change::sync) ++moment;
                moment = std::min(moments, moment + random() % 3);
            }
            const std::string wrong = judge(moment, random);
            if (!wrong.empty())
                return wrong + "; state " + std::to_string(i) + " of seed " + std::to_string(seed) + ", after " +
                       std::to_string(moment) + " of " + std::to_string(moments) + " changes; " +
                       std::to_string(sure_.size()) + " records are covered";
        }
        std::cout << GetParam().name << ": " << states << " states of " << moments << " changes, " << book_->flush_count
                  << " flushes; " << sound_ << " were sound" << std::endl;
        return "";
    }

    storm_ground ground_;
    std::string stopped_;
    file_spec spec_;
    sure_records sure_;
    shared_memory<journal> book_;
    uint64_t covered_ = 0, sound_ = 0;
};

TEST_P(Stop, AtAnyMomentLosesNothingThatAFlushCovered)
{
    const uint64_t seed = number_from("VFS_CRASH_SEED", 1), states = number_from("VFS_CRASH_STATES", 60);
    ASSERT_NO_FATAL_FAILURE(work(seed, number_from("VFS_CRASH_OPERATIONS", 150)));
    const uint64_t moments = book_->changes.changes;
    ASSERT_GT(moments, 50U);
    ASSERT_GT(book_->flush_count, 3U);
    // In a process of its own: the driver asks once for the boot it runs in, and this one has to stay without answer.
    const std::string wrong = in_child([&] { return judge_states(seed, states, moments); }, 3600);
    ASSERT_EQ(wrong, "");
}

INSTANTIATE_TEST_SUITE_P(OfTheMachine, Stop,
                         testing::Values(workload{"IndexedSharedByThree", shape::indexed, VFS_LOCK_RECORD, 3},
                                         workload{"IndexedSharedInBlockMode", shape::indexed, VFS_LOCK_AUTO, 3},
                                         workload{"IndexedSynced", shape::indexed, VFS_LOCK_RECORD, 1, "VFS_SYNC"},
                                         workload{"IndexedAlone", shape::indexed, VFS_LOCK_FILE, 1},
                                         workload{"IndexedUnlocked", shape::indexed, VFS_LOCK_NONE, 1, "VFS_IO_MMAP",
                                                  "0"}, // what is written through a mapping nobody can record
                                         workload{"IndexedThroughTheQueue", shape::indexed, VFS_LOCK_FILE, 1,
                                                  "VFS_IO_AIO"},
                                         workload{"RelativeSharedByThree", shape::relative, VFS_LOCK_RECORD, 3},
                                         workload{"RelativeAlone", shape::relative, VFS_LOCK_FILE, 1},
                                         workload{"SequentialSharedByThree", shape::sequential, VFS_LOCK_RECORD, 3},
                                         workload{"SequentialAlone", shape::sequential, VFS_LOCK_FILE, 1}),
                         [](const auto &which) { return std::string{which.param.name}; });

} // namespace
