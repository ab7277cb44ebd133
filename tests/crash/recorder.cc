// recorder.cc: see recorder.h.
#include "recorder.h"

#include "seam.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <unordered_map>
#include <vector>

namespace host {
namespace {

constexpr uint64_t page = 4096;

change_log *recording = nullptr;
const char *boot_id_file = nullptr;
thread_local uint64_t covered = 0; // by the sync under way

bool is(const driver_call &call, const char *family)
{
    return strcmp(call.family, family) == 0;
}

recorded_change &next_entry()
{
    const uint64_t number = recording->changes.fetch_add(1);
    if (number >= change_log::most_changes) abort();
    return recording->entries[number];
}

call_answer meet(const driver_call &call)
{
    if (is(call, "sync")) covered = recording->changes.load();
    const bool boot = is(call, "open") && strcmp(call.path, "/proc/sys/kernel/random/boot_id") == 0;
    return {.path = boot ? boot_id_file : nullptr};
}

void record_write(const driver_call &call, uint64_t length)
{
    const uint64_t kept = recording->bytes.fetch_add(length);
    if (kept + length > change_log::most_bytes) abort();
    uint64_t at = kept;
    for (const iovec &piece : call.pieces) {
        const uint64_t some = std::min<uint64_t>(piece.iov_len, kept + length - at);
        memcpy(recording->kept + at, piece.iov_base, some);
        at += some;
    }
    next_entry() = {.what = change::write, .offset = call.offset, .length = length, .bytes = kept};
}

void done(const driver_call &call, int64_t result)
{
    if (result < 0) return;
    if (is(call, "write")) record_write(call, static_cast<uint64_t>(result));
    if (is(call, "sync")) next_entry() = {.what = change::sync, .offset = covered, .length = 0, .bytes = 0};
    if (!is(call, "truncate") && !is(call, "allocate")) return;
    struct stat facts;
    if (fstat(call.descriptor, &facts) != 0) abort();
    next_entry() = {.what = change::resize, .offset = 0, .length = static_cast<uint64_t>(facts.st_size), .bytes = 0};
}

constexpr call_watcher watcher{meet, done};

// The file while changes come in. Sparse: the driver extends files far ahead. Behind what is sure the changes come
// twice: first they are counted for each page, then each page takes as many as it is allowed.
class disk {
public:
    enum class pass { all, counting, limited };

    void begin(pass which)
    {
        pass_ = which;
        if (which == pass::counting) sure_size_ = size_, sure_ever_ = ever_;
        if (which == pass::limited) size_ = sure_size_, ever_ = sure_ever_;
    }
    void apply(const change_log &log, const recorded_change &entry)
    {
        if (entry.what == change::sync) return;
        if (entry.what == change::resize) return resize(entry.length);
        const uint64_t end = entry.offset + entry.length;
        for (uint64_t at = entry.offset; at < end;) {
            const uint64_t some = std::min(end, (at / page + 1) * page) - at;
            if (takes(at / page))
                memcpy(bytes_of(at / page) + at % page, log.kept + entry.bytes + (at - entry.offset), some);
            at += some;
        }
        size_ = std::max(size_, end);
    }
    void choose(std::mt19937_64 &random)
    {
        const uint64_t spread = random() % 4 == 0 ? 2 : 6; // of some stops nearly all pages show the latest
        for (auto &[number, count] : changes_) {
            const uint64_t choice = random() % spread;
            if (choice == 0) count = 0;
            if (choice == 1) count = static_cast<uint32_t>(random() % (count + 1));
        }
    }
    uint64_t size() const { return size_; }
    void store(const std::string &path, uint64_t size) const
    {
        const int descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (descriptor < 0) abort();
        for (const auto &[number, bytes] : pages_)
            if (number * page < size &&
                pwrite(descriptor, bytes.data(), page, static_cast<off_t>(number * page)) != ssize_t{page})
                abort();
        if (ftruncate(descriptor, static_cast<off_t>(size)) != 0) abort();
        close(descriptor);
    }

private:
    char *bytes_of(uint64_t number) { return pages_[number].data(); }
    void resize(uint64_t size)
    {
        // What lies behind the new end is zeros when the file grows again.
        for (auto at = ever_.lower_bound(size / page); at != ever_.end(); ++at) {
            const uint64_t from = *at == size / page ? size % page : 0;
            if (takes(*at)) memset(bytes_of(*at) + from, 0, page - from);
        }
        size_ = size;
    }
    bool takes(uint64_t number)
    {
        ever_.insert(number);
        if (pass_ == pass::all) return true;
        if (pass_ == pass::counting) return ++changes_[number], false;
        uint32_t &left = changes_[number];
        if (left == 0) return false;
        --left;
        return true;
    }

    pass pass_ = pass::all;
    uint64_t size_ = 0, sure_size_ = 0;
    std::map<uint64_t, std::array<char, page>> pages_;
    std::set<uint64_t> ever_, sure_ever_; // pages touched so far, taken or not
    std::unordered_map<uint64_t, uint32_t> changes_;
};

} // namespace

void record_changes(change_log *log, const char *boot_id)
{
    recording = log;
    boot_id_file = boot_id;
    watch_calls(log != nullptr ? &watcher : nullptr);
}

void file_after_stop(const change_log &log, uint64_t moment, std::mt19937_64 &random, const std::string &path)
{
    uint64_t sure = 0;
    for (uint64_t i = 0; i < moment; ++i)
        if (log.entries[i].what == change::sync) sure = std::max(sure, log.entries[i].offset);
    disk file;
    for (uint64_t i = 0; i < sure; ++i) file.apply(log, log.entries[i]);
    std::vector<uint64_t> sizes{file.size()};
    file.begin(disk::pass::counting);
    for (uint64_t i = sure; i < moment; ++i) {
        file.apply(log, log.entries[i]);
        sizes.push_back(file.size());
    }
    file.choose(random);
    file.begin(disk::pass::limited);
    for (uint64_t i = sure; i < moment; ++i) file.apply(log, log.entries[i]);
    file.store(path, random() % 3 == 0 ? sizes[random() % sizes.size()] : sizes.back());
}

} // namespace host
