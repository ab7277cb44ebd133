// storm.cc: see storm.h. Parts in the order of the work: the records, the log, a worker, the judgement, the parent.
#include "storm.h"

#include "checker.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <ostream>
#include <random>
#include <set>
#include <sstream>
#include <unordered_map>

namespace host {

const char *name_of(shape which)
{
    static const char *const names[] = {"indexed", "relative", "sequential"};
    return names[static_cast<size_t>(which)];
}

storm_ground::storm_ground()
{
    for (const char *name : {"VFS_DEBUG", "VFS_SYNC", "VFS_CACHE_SIZE"}) unsetenv(name);
    setenv("VFS_LOCK", "9", 1);
    std::string pattern = std::filesystem::temp_directory_path() / "vfs_storm_XXXXXX";
    directory_ = mkdtemp(pattern.data());
}

storm_ground::~storm_ground()
{
    if (testing::Test::HasFailure() && number_from("VFS_STORM_KEEP", 0) != 0)
        std::cout << "kept " << directory_ << std::endl;
    else
        std::filesystem::remove_all(directory_);
}

// ---- Records -----------------------------------------------------------------------------------------------------

namespace {

constexpr unsigned worker_count = 8;
// Numbers of the records in a file with a tree: anchors first (never deleted, their keys never change), then those
// that all workers want, then each worker's own.
constexpr uint32_t anchor_count = 40, contested_count = 12, own_count = 24;
constexpr uint32_t record_numbers = anchor_count + contested_count + worker_count * own_count;
constexpr uint32_t spare_number = 9'000'000; // written and deleted by the judge
constexpr unsigned setup_worker = 60, judge_worker = 61;

// Where the parts of an indexed record lie. Long keys make trees of many leaves from few records.
constexpr size_t id_length = 600, group_length = 400, tag_at = 1000, version_at = 1004, tag_end = 1020,
                 fixed_part = 1024;
constexpr size_t short_fixed_part = 24; // records without keys: number and version

uint64_t mix(uint64_t x)
{
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccd;
    x ^= x >> 29;
    return x;
}

std::string padded(std::string text, size_t length)
{
    text.resize(length, '.');
    return text;
}

std::string hexadecimal(uint64_t value)
{
    char text[17];
    snprintf(text, sizeof text, "%016lx", value);
    return text;
}

// Values of the alternate keys: few, so that all are duplicates. An anchor keeps its own, and anchors share theirs with
// anchors only: where a record and its neighbours in a run have gone, a step through the run is as good as it can be.
uint64_t key_choice(const storm_record &record)
{
    return mix(record.id < anchor_count ? record.id : record.version ^ uint64_t{record.id} << 20);
}

} // namespace

file_spec storm_spec(shape what, const std::string &path, uint32_t lock_mode)
{
    constexpr int64_t longest = fixed_part + 400;
    file_spec spec = what == shape::relative ? relative(path, VFS_FORMAT_VARIABLE, longest)
                                             : flat(path, VFS_FORMAT_VARIABLE, longest);
    if (what == shape::indexed) {
        const key by_id{.parts = {{0, id_length}}};
        const key by_group{.parts = {{id_length, group_length}}, .duplicates = true};
        const key by_tag{.parts = {{tag_at, 4}, {tag_end, 4}}, .duplicates = true};
        spec = indexed(path, {by_id, by_group, by_tag}, longest);
    }
    spec.locks = locks_of(lock_mode, VFS_WAIT_KERNEL);
    return spec;
}

std::string storm_bytes(shape what, const storm_record &record)
{
    const std::string number = numbered("%08ld", record.id), version = hexadecimal(record.version);
    const uint64_t choice = key_choice(record), size = mix(record.version + record.id) % 390;
    std::string bytes = number + version;
    if (what == shape::indexed) {
        bytes = padded(number, id_length);
        const int64_t apart = record.id < anchor_count ? 0 : 1;
        bytes += padded(numbered("group%ld", static_cast<int64_t>(choice % 5) * 2 + apart), group_length);
        bytes += numbered("%04ld", static_cast<int64_t>(choice / 8 % 3) * 2 + apart) + version;
        bytes += numbered("%04ld", static_cast<int64_t>(choice / 64 % 4));
    }
    for (uint64_t i = 0; i < size; ++i) bytes += static_cast<char>('a' + (record.version + i) % 26);
    return bytes;
}

bool storm_parse(shape what, const std::string &bytes, storm_record *out)
{
    const size_t fixed = what == shape::indexed ? fixed_part : short_fixed_part;
    if (bytes.size() < fixed) return false;
    const size_t at = what == shape::indexed ? version_at : 8;
    out->id = static_cast<uint32_t>(std::strtoul(bytes.substr(0, 8).c_str(), nullptr, 10));
    out->version = std::strtoull(bytes.substr(at, 16).c_str(), nullptr, 16);
    return storm_bytes(what, *out) == bytes;
}

// ---- The log -----------------------------------------------------------------------------------------------------

namespace {

enum class entry_state : uint32_t { empty, called, answered, cut };
enum class told : uint8_t { done, absent, exists, refused, deadlock, failed };

struct log_entry {
    std::atomic<entry_state> state; // written last, so that a killed process leaves whole entries
    act what;
    told answer;
    uint32_t id;
    uint64_t value, expected;
    int64_t from, to;
};

struct worker_log {
    std::atomic<uint64_t> count, versions, killed;
    std::atomic<uint64_t> complaints;
    char complaint[4000]; // the first ones, as text
};

struct storm_state {
    std::atomic<bool> stop;
    worker_log logs[worker_count];
};

constexpr uint64_t log_capacity = 1 << 20;

// What parent, workers and judge share.
struct storm_memory {
    shared_memory<storm_state> state;
    shared_memory<log_entry> entries{worker_count * log_capacity};
    shared_memory<storm_record> found{worker_count * log_capacity}; // by the judge, in the order of the file
    shared_memory<uint64_t> found_count;

    log_entry &entry(unsigned worker, uint64_t number) { return entries[worker * log_capacity + number]; }
};

told answer_of(operation which, const outcome &got)
{
    if (got.value >= 0) return which == operation::read && got.ended() ? told::absent : told::done;
    switch (got.error) {
    case ESPIPE: return told::absent;
    case EADDRINUSE: return told::exists;
    case EAGAIN: return told::refused;
    case EDEADLK: return told::deadlock;
    default: return told::failed;
    }
}

// ---- A worker ----------------------------------------------------------------------------------------------------

class worker {
public:
    worker(const storm_plan &plan, storm_memory &memory, unsigned number, uint64_t seed)
        : plan_(plan), memory_(memory), number_(number), log_(memory.state->logs[number]), random_(seed)
    {
        spec_ = storm_spec(plan.what, plan.directory + "/file", plan.lock_mode);
        spec_.flags = reads_only() ? O_RDONLY : O_RDWR;
        // Those who wait, one who never does, one who tries again, and those who hold several locks at once.
        spec_.locks->wait_mode = number == 1 ? VFS_WAIT_NEVER : number == 2 ? VFS_WAIT_RETRY : VFS_WAIT_KERNEL;
        spec_.locks->retry_count = 3;
        if (holds_several()) spec_.locks->lock_flags = VFS_LOCK_SEVERAL;
        holding_ = *spec_.locks;
        holding_.hold = 1;
        unlocking_ = *spec_.locks;
        unlocking_.request_kind = VFS_KIND_NO_LOCK;
    }

    void run()
    {
        if (!file_.open(spec_)) return complain("open: errno %d", file_.error());
        while (!memory_.state->stop && log_.count + 2000 < log_capacity) {
            if (may_reopen() && !reopen()) return;
            plan_.what == shape::sequential ? sequential_step() : tree_step();
        }
        const int error = file_.close();
        if (error != 0) complain("close: errno %d", error);
    }

private:
    // A reader keeps its block until it goes elsewhere: where there is but one, that is for ever.
    bool may_reopen() { return below(200) < (reads_only() && plan_.lock_mode == VFS_LOCK_AUTO ? 20 : 1); }

    bool reopen()
    {
        const int error = file_.close();
        if (error != 0) complain("close: errno %d", error);
        last_seen_.clear();
        if (file_.open(spec_)) return true;
        complain("open again: errno %d", file_.error());
        return false;
    }

    bool reads_only() const { return number_ == worker_count - 1; }
    bool holds_several() const { return number_ >= 3 && number_ < 6; }
    uint64_t below(uint64_t limit) { return random_() % limit; }
    bool chance(unsigned percent) { return below(100) < percent; }

    __attribute__((format(printf, 2, 3))) void complain(const char *format, ...)
    {
        if (log_.complaints.fetch_add(1) > 5) return;
        char line[600];
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(line, sizeof line, format, arguments);
        va_end(arguments);
        const size_t used = strlen(log_.complaint);
        snprintf(log_.complaint + used, sizeof log_.complaint - used, "worker %u: %s\n", number_, line);
    }

    // ---- One operation, logged ----

    log_entry &call(act what, uint32_t id, uint64_t value, uint64_t expected)
    {
        log_entry &entry = memory_.entry(number_, log_.count);
        entry.what = what;
        entry.id = id;
        entry.value = value;
        entry.expected = expected;
        entry.to = without_end;
        entry.from = now_ns();
        entry.state.store(entry_state::called, std::memory_order_release);
        log_.count.fetch_add(1);
        return entry;
    }

    void answered(log_entry &entry, operation which, const outcome &got)
    {
        entry.answer = answer_of(which, got);
        entry.to = now_ns();
        if (entry.answer == told::failed)
            complain("%s of record %u: value %ld errno %d", host::name_of(which), entry.id,
                     static_cast<long>(got.value), got.error);
        entry.state.store(entry_state::answered, std::memory_order_release);
    }

    told change(act what, operation which, const place &where, const storm_record &record, uint64_t expected = 0,
                const vfs_lock_request *lock = nullptr)
    {
        const bool erases = what == act::remove;
        log_entry &entry = call(what, record.id, erases ? 0 : record.version, expected);
        answered(entry, which, file_.run(which, where, erases ? "" : storm_bytes(plan_.what, record), lock));
        return entry.answer;
    }

    // A read of whatever comes, or of record `wanted`. What arrived is whole, and it is what was asked for.
    struct seen {
        told answer;
        storm_record record;
        std::string bytes;
        uint64_t rrn;
    };
    static constexpr uint32_t any = UINT32_MAX;

    seen look(const place &where, uint32_t wanted = any, const vfs_lock_request *lock = nullptr)
    {
        log_entry &entry = call(act::read, wanted, 0, 0);
        outcome got = file_.read(where, lock);
        seen result{
            .answer = answer_of(operation::read, got), .record = {}, .bytes = std::move(got.bytes), .rrn = got.rrn};
        if (result.answer == told::done) {
            if (!storm_parse(plan_.what, result.bytes, &result.record))
                complain("a read with mode %d returned %zu bytes that are no record: %.60s", where.mode,
                         result.bytes.size(), result.bytes.c_str());
            if (wanted != any && result.record.id != wanted)
                complain("a read of record %u returned record %u", wanted, result.record.id);
            entry.id = result.record.id;
            entry.value = result.record.version;
        }
        answered(entry, operation::read, got);
        return result;
    }

    storm_record fresh(uint32_t id) { return {.id = id, .version = version_of(number_, ++log_.versions)}; }

    // ---- Files with trees ----

    std::string key_text(uint32_t id) const { return padded(numbered("%08ld", id), id_length); }

    place at(uint32_t id) const { return plan_.what == shape::indexed ? by_key(key_text(id)) : by_rrn(id); }

    place target(uint32_t id) const { return plan_.what == shape::indexed ? by_record() : by_rrn(id); }

    uint32_t pick()
    {
        if (chance(35)) return anchor_count + static_cast<uint32_t>(below(contested_count));
        if (chance(10)) return static_cast<uint32_t>(below(anchor_count));
        const uint64_t whose = reads_only() || chance(15) ? below(worker_count) : number_;
        return static_cast<uint32_t>(anchor_count + contested_count + whose * own_count + below(own_count));
    }

    bool may_change(uint32_t id) const
    {
        if (reads_only()) return false;
        if (id < anchor_count) return id % worker_count == number_;
        if (id < anchor_count + contested_count) return true;
        return (id - anchor_count - contested_count) / own_count == number_;
    }

    void tree_step()
    {
        const uint64_t what = below(100);
        const uint32_t id = pick();
        if (what < 4) return scan_anchors();
        if (what < 16) return browse(id);
        if (what < 32 || !may_change(id)) {
            look(at(id), id);
        } else if (what < 50 && !reads_only()) {
            read_and_change(id, 1);
        } else if (what < 57) {
            read_and_change(id, 4);
        } else if (what < 75) {
            change(act::insert, operation::write, target(id), fresh(id));
        } else if (what < 90 || id < anchor_count) {
            change(act::replace, operation::rewrite, target(id), fresh(id));
        } else {
            change(act::remove, operation::erase, at(id), {.id = id});
        }
    }

    // The value that was read under a lock is the value that is replaced. In lock mode 4 the lock is that of the block
    // in which the current record lies.
    void read_and_change(uint32_t id, unsigned count)
    {
        const bool records = plan_.lock_mode == VFS_LOCK_RECORD;
        if (!records || !holds_several()) count = 1;
        std::vector<storm_record> held;
        for (unsigned i = 0; i < count;
             ++i, id = anchor_count + static_cast<uint32_t>(below(4))) { // few: they meet each other
            if (!may_change(id)) continue;
            const seen got = look(at(id), id, records ? &holding_ : nullptr);
            if (got.answer == told::deadlock) held.clear(); // the locks are gone
            if (got.answer == told::deadlock) break;
            const auto same = [&](const storm_record &other) { return other.id == got.record.id; };
            if (got.answer == told::done && std::none_of(held.begin(), held.end(), same)) held.push_back(got.record);
            for (uint64_t others = count == 1 ? 0 : below(12); others != 0; --others) {
                const uint32_t other = pick();
                look(at(other), other, &unlocking_);
            }
        }
        for (const storm_record &was : held) {
            const bool erases = was.id >= anchor_count && chance(30);
            const place where = count == 1 && chance(50) ? current() : (erases ? at(was.id) : target(was.id));
            const told answer = erases ? change(act::remove, operation::erase, where, was, was.version)
                                       : change(act::replace, operation::rewrite, where, fresh(was.id), was.version);
            if (answer == told::absent) complain("record %u was locked and is gone", was.id);
            if (answer == told::deadlock) break;
        }
        if (records && !held.empty()) unlock();
    }

    void unlock()
    {
        const outcome got = file_.run(operation::unlock, next());
        if (got.value != 0) complain("unlock: errno %d", got.error);
    }

    std::string key_of(uint64_t k, const seen &what) const
    {
        return plan_.what == shape::indexed ? spec_.keys[k].of(what.bytes) : numbered("%08ld", what.record.id);
    }

    // A few steps both ways from a record, with changes of the worker's own between them. The current record is known by
    // its key of reference: one whose key and place others may change at the same time need not be found again.
    void browse(uint32_t id)
    {
        const uint64_t k = plan_.what == shape::indexed ? below(3) : 0;
        seen got = look(at(id), id);
        if (got.answer != told::done) return;
        if (k != 0) {
            const std::string value = key_of(k, got);
            got = look(by_key(value, static_cast<int64_t>(k)));
            if (got.answer != told::done) return; // the last one with this value has been changed meanwhile
            if (key_of(k, got) != value)
                complain("key %zu: a read of %.12s gave another value", size_t{k}, value.c_str());
        }
        std::string from = key_of(k, got);
        const bool first_way = chance(50);
        for (uint64_t steps = 2 + below(12); steps != 0; --steps) {
            const bool forward = chance(90) ? first_way : !first_way;
            got = look(forward ? next() : prev());
            if (got.answer != told::done) return;
            const std::string now = key_of(k, got);
            if (forward ? now < from : now > from)
                complain("key %zu: a step %s went from %.12s to %.12s", static_cast<size_t>(k),
                         forward ? "forward" : "back", from.c_str(), now.c_str());
            from = now;
            if (reads_only() || !chance(15)) continue;
            const uint32_t mine =
                anchor_count + contested_count + number_ * own_count + static_cast<uint32_t>(below(own_count));
            if (got.record.id >= (k == 0 ? anchor_count : anchor_count + contested_count) &&
                may_change(got.record.id) && chance(50))
                change(act::remove, operation::erase, current(), got.record);
            else
                change(act::insert, operation::write, target(mine), fresh(mine));
        }
    }

    // A walk through the whole file passes every anchor once, in order, whatever happens around it.
    void scan_anchors()
    {
        const uint64_t k = plan_.what == shape::indexed ? below(3) : 0;
        const bool forward = chance(50);
        std::vector<uint32_t> passed;
        std::string from;
        for (bool begin = true;; begin = false) {
            const auto key_number = static_cast<int64_t>(k);
            const place edge = forward ? first(key_number) : last(key_number);
            const seen got = look(begin ? edge : (forward ? next() : prev()), any, &unlocking_);
            if (got.answer == told::absent) break;
            if (got.answer != told::done) return; // refused
            const std::string now = key_of(k, got);
            if (!begin && (forward ? now < from : now > from))
                complain("key %zu: a scan %s went from %.12s to %.12s", static_cast<size_t>(k),
                         forward ? "forward" : "back", from.c_str(), now.c_str());
            from = now;
            if (got.record.id < anchor_count) passed.push_back(got.record.id);
        }
        std::string ids;
        for (const uint32_t id : passed) ids += std::to_string(id) + " ";
        std::sort(passed.begin(), passed.end());
        bool once = passed.size() == anchor_count;
        for (uint32_t i = 0; once && i < anchor_count; ++i) once = passed[i] == i;
        if (!once)
            complain("key %zu: a scan %s passed these lasting records: %s", static_cast<size_t>(k),
                     forward ? "forward" : "back", ids.c_str());
    }

    // ---- Sequential files ----

    void sequential_step()
    {
        if (!reads_only() && chance(40)) return append();
        if (own_.size() > 4 && chance(15)) {
            const auto &[id, rrn] = own_[below(own_.size())];
            look(by_rrn(static_cast<int64_t>(rrn)), id);
            last_seen_.clear(); // the walk went elsewhere
            return;
        }
        if (chance(2)) {
            last_seen_.clear();
            return note_order(look(first()));
        }
        const seen got = look(next());
        note_order(got);
        if (got.answer != told::done || got.record.id >> 20 != number_ + 1 || !chance(40)) return;
        if (chance(70))
            change(act::replace, operation::rewrite, current(), fresh(got.record.id),
                   plan_.lock_mode == VFS_LOCK_AUTO ? got.record.version : 0);
        else
            change(act::remove, operation::erase, current(), got.record);
    }

    void append()
    {
        const uint64_t count = ++log_.versions;
        const storm_record record{.id = static_cast<uint32_t>((number_ + 1) << 20 | count),
                                  .version = version_of(number_, count)};
        log_entry &entry = call(act::insert, record.id, record.version, 0);
        const outcome got = file_.write(storm_bytes(plan_.what, record));
        answered(entry, operation::write, got);
        if (entry.answer == told::done) own_.push_back({record.id, got.rrn});
    }

    // The records of one worker lie in the order in which it appended them.
    void note_order(const seen &got)
    {
        if (got.answer != told::done) return;
        uint32_t &before = last_seen_[got.record.id >> 20];
        if (got.record.id <= before) complain("record %x came after %x", got.record.id, before);
        before = got.record.id;
    }

    const storm_plan &plan_;
    storm_memory &memory_;
    unsigned number_;
    worker_log &log_;
    std::mt19937_64 random_;
    file_spec spec_;
    vfs_lock_request holding_{}, unlocking_{};
    file file_;
    std::vector<std::pair<uint32_t, uint64_t>> own_; // number and rrn of what was appended
    std::map<uint32_t, uint32_t> last_seen_;
};

// ---- Before and after --------------------------------------------------------------------------------------------

std::string set_up(const storm_plan &plan)
{
    file f{storm_spec(plan.what, plan.directory + "/file", plan.lock_mode)};
    if (!f.ok()) return "the file cannot be made: errno " + std::to_string(f.error());
    if (plan.what != shape::sequential)
        for (uint32_t id = 0; id < anchor_count; ++id) {
            const std::string bytes = storm_bytes(plan.what, {id, version_of(setup_worker, id)});
            const outcome got = f.write(bytes, plan.what == shape::indexed ? by_record() : by_rrn(id));
            if (got.value < 0) return "an anchor cannot be written: errno " + std::to_string(got.error);
        }
    return f.close() == 0 ? "" : "the first close failed";
}

// The bytes are sound: every record is there once under every key, in order, and the counter agrees. A walk both ways
// gives whole records, of which no two have one number.
std::string judge_file(const storm_plan &plan, storm_memory &memory)
{
    const std::string path = plan.directory + "/file";
    std::string wrong;
    file f;
    if (!f.open(storm_spec(plan.what, path, plan.lock_mode).with_flags(O_RDWR)))
        return "the judge cannot open: errno " + std::to_string(f.error());
    const std::vector<std::string> records = f.rest();
    std::vector<std::string> back = f.rest(false);
    std::reverse(back.begin(), back.end());
    if (records != back) wrong += "the walks forward and back differ\n";
    if (f.info().record_count != static_cast<int64_t>(records.size())) wrong += "the counter says another number\n";
    std::set<uint32_t> ids;
    for (const std::string &bytes : records) {
        storm_record &record = memory.found[(*memory.found_count)++];
        if (!storm_parse(plan.what, bytes, &record)) wrong += "bytes that are no record: " + bytes.substr(0, 40) + "\n";
        if (!ids.insert(record.id).second) wrong += "record " + std::to_string(record.id) + " is there twice\n";
    }
    const place spare = plan.what == shape::indexed    ? by_record()
                        : plan.what == shape::relative ? by_rrn(spare_number)
                                                       : end();
    const outcome got = f.write(storm_bytes(plan.what, {spare_number, version_of(judge_worker, 0)}), spare);
    if (got.value < 0) wrong += "the judge cannot write: errno " + std::to_string(got.error) + "\n";
    if (f.close() != 0) wrong += "the judge cannot close\n";
    return wrong + check_file(path);
}

bool is_ordinary(const std::string &line)
{
    static const char *const beginnings[] = {"Lock request for me (pid ",
                                             "Lock request for one other (pid ",
                                             "seq update ",
                                             "re-reading current item ",
                                             "loosing hole @",
                                             "record moved from ",
                                             "new len @"};
    for (const char *beginning : beginnings)
        if (line.rfind(beginning, 0) == 0) return true;
    return (line.rfind(" ", 0) == 0 && line.find(" @ 0x") != std::string::npos) ||
           line.find(" Lock deadlock detected on file(") != std::string::npos;
}

std::string unexpected_lines(const std::string &path)
{
    std::istringstream in{slurp(path)};
    std::string kept;
    for (std::string line; std::getline(in, line) && kept.size() < 6000;)
        if (!is_ordinary(line)) kept += line + "\n";
    return kept;
}

// ---- Judging the log ---------------------------------------------------------------------------------------------

event event_of(const log_entry &entry)
{
    event result{
        .what = entry.what, .value = entry.value, .expected = entry.expected, .from = entry.from, .to = entry.to};
    if (entry.state != entry_state::answered)
        result.answer = reply::unknown;
    else if (entry.answer == told::absent)
        result.answer = reply::absent;
    else if (entry.answer == told::exists)
        result.answer = reply::exists;
    return result;
}

void count_entry(const log_entry &entry, unsigned worker, storm_report *report)
{
    ++report->operations;
    if (entry.state != entry_state::answered) return;
    report->conflicts += entry.answer == told::refused;
    report->deadlocks += entry.answer == told::deadlock;
    if (entry.to - entry.from <= report->longest_ns) return;
    report->longest_ns = entry.to - entry.from;
    report->slowest = worker;
}

using histories = std::unordered_map<uint32_t, std::vector<event>>;

int64_t longest_silence(std::vector<int64_t> answers)
{
    std::sort(answers.begin(), answers.end());
    int64_t longest = 0;
    for (size_t i = 1; i < answers.size(); ++i) longest = std::max(longest, answers[i] - answers[i - 1]);
    return longest;
}

histories collect(storm_memory &memory, storm_report *report)
{
    histories by_id;
    std::vector<int64_t> answers;
    for (unsigned w = 0; w < worker_count; ++w)
        for (uint64_t i = 0; i < memory.state->logs[w].count + 1; ++i) {
            const log_entry &entry = memory.entry(w, i);
            if (entry.state == entry_state::empty) continue;
            count_entry(entry, w, report);
            const bool answered = entry.state == entry_state::answered;
            if (answered) answers.push_back(entry.to);
            // What was refused has done nothing; a walk that came to the end names no record.
            if (answered && entry.answer >= told::refused) continue;
            if (entry.id == UINT32_MAX) continue;
            by_id[entry.id].push_back(event_of(entry));
        }
    report->silence_ns = longest_silence(std::move(answers));
    return by_id;
}

// Of two appends, the one that was over before the other began lies before it.
std::string check_append_order(const storm_memory &memory, const histories &by_id)
{
    int64_t latest_call = 0;
    std::map<uint32_t, uint32_t> last_of_worker;
    for (uint64_t i = 0; i < *memory.found_count; ++i) {
        const uint32_t id = memory.found[i].id;
        const auto history = by_id.find(id);
        if (history == by_id.end()) continue; // the history check says it
        for (const event &each : history->second) {
            if (each.what != act::insert) continue;
            if (each.to < latest_call) return "record " + std::to_string(id) + " lies behind one appended after it\n";
            latest_call = std::max(latest_call, each.from);
        }
        uint32_t &before = last_of_worker[id >> 20];
        if (id <= before) return "the appends of a worker changed places\n";
        before = id;
    }
    return "";
}

std::string judge_histories(const storm_plan &plan, storm_memory &memory, storm_report *report)
{
    histories by_id = collect(memory, report);
    std::string wrong = plan.what == shape::sequential ? check_append_order(memory, by_id) : "";
    if (plan.what != shape::sequential)
        for (uint32_t id = 0; id < record_numbers; ++id) by_id[id];
    // What the judge found is what everybody would have read in the end.
    const int64_t now = now_ns();
    std::unordered_map<uint32_t, uint64_t> found;
    for (uint64_t i = 0; i < *memory.found_count; ++i) {
        found[memory.found[i].id] = memory.found[i].version;
        by_id[memory.found[i].id];
    }
    unsigned wrong_records = 0;
    for (auto &[id, events] : by_id) {
        const auto last = found.find(id);
        const bool there = last != found.end();
        events.push_back({.what = act::read,
                          .answer = there ? reply::done : reply::absent,
                          .value = there ? last->second : 0,
                          .from = now,
                          .to = now + 1});
        const bool anchor = plan.what != shape::sequential && id < anchor_count;
        const std::string error = check_history(events, anchor ? version_of(setup_worker, id) : 0);
        if (!error.empty() && ++wrong_records <= 3) wrong += "record " + std::to_string(id) + ": " + error;
    }
    if (wrong_records > 3) wrong += std::to_string(wrong_records) + " records in all\n";
    report->records = found.size();
    return wrong;
}

// ---- The parent --------------------------------------------------------------------------------------------------

class storm {
public:
    explicit storm(const storm_plan &plan) : plan_(plan), random_(plan.seed) {}

    storm_report run()
    {
        report_.anomalies = in_child([&] { return set_up(plan_); });
        if (!report_.anomalies.empty()) return report_;
        for (unsigned w = 0; w < worker_count; ++w) spawn(w);
        const int64_t until = now_ns() + plan_.milliseconds * 1'000'000;
        while (now_ns() < until) {
            pause();
            if (plan_.kills) replace(static_cast<unsigned>(random_() % worker_count));
        }
        memory_.state->stop = true;
        for (unsigned w = 0; w < worker_count; ++w) end(w);
        report_.anomalies += in_child([&] { return judge_file(plan_, memory_); });
        report_.anomalies += judge_histories(plan_, memory_, &report_);
        report_.anomalies += unexpected_lines(errors());
        return report_;
    }

private:
    std::string errors() const { return plan_.directory + "/errors"; }

    void pause()
    {
        const timespec moment{.tv_sec = 0, .tv_nsec = static_cast<long>(2'000'000 + random_() % 23'000'000)};
        nanosleep(&moment, nullptr);
    }

    void spawn(unsigned w)
    {
        const uint64_t seed = random_();
        ++report_.processes;
        children_[w] = child{[&] { worker{plan_, memory_, w, seed}.run(); }, errors()};
    }

    // Kills a worker at whatever it is doing. What it had not been told by then happened by then, or never.
    void replace(unsigned w)
    {
        children_[w].kill();
        ++report_.kills;
        worker_log &log = memory_.state->logs[w];
        log_entry &begun = memory_.entry(w, log.count);
        if (begun.state != entry_state::empty) log.count.fetch_add(1); // it died between the two stores
        if (log.count != 0) {
            log_entry &last = memory_.entry(w, log.count - 1);
            if (last.state == entry_state::called) {
                last.to = now_ns();
                last.state = entry_state::cut;
            }
        }
        spawn(w);
    }

    void end(unsigned w)
    {
        const int code = children_[w].finish(30);
        if (code == -1)
            report_.anomalies += "worker " + std::to_string(w) + " did not come back\n";
        else if (code != 0)
            report_.anomalies += "worker " + std::to_string(w) + " ended with " + std::to_string(code) + "\n";
        report_.anomalies += memory_.state->logs[w].complaint;
    }

    storm_plan plan_;
    std::mt19937_64 random_;
    storm_memory memory_;
    storm_report report_;
    child children_[worker_count];
};

} // namespace

storm_report run_storm(const storm_plan &plan)
{
    return storm{plan}.run();
}

std::ostream &operator<<(std::ostream &out, const storm_report &report)
{
    return out << report.operations << " operations, " << report.processes << " processes, " << report.kills
               << " kills, " << report.conflicts << " conflicts, " << report.deadlocks << " deadlocks, "
               << report.records << " records left, longest operation " << report.longest_ns / 1'000'000
               << " ms (worker " << report.slowest << "), longest silence " << report.silence_ns / 1'000'000 << " ms";
}

} // namespace host
