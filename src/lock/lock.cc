// Taking, testing and releasing locks by kind: from what is to be locked to a range of bytes, and what the handle
// remembers of it. May use buffer/ (a cache's counters) and util/.
#include "lock/lock.h"

#include "buffer/buffer.h"
#include "lock/internal.h"
#include "util/errors.h"

#include <cstdio>
#include <cstring>

namespace {

bool several_allowed(const file_state *file)
{
    return (file->lock_defaults.lock_flags & VFS_LOCK_SEVERAL) != 0;
}

// Records and blocks leave out the bytes that stand for exclusive use and for the metadata: they may lie there.
lock_range leave_out(lock_range range, uint64_t byte)
{
    if (range.start == byte && range.last != byte) return {byte + 1, range.last};
    if (range.start < byte && byte <= range.last) return {range.start, byte - 1};
    return range;
}

lock_range range_by_kind(uint32_t kind, uint64_t start, uint64_t length)
{
    switch (kind) {
    case lock_exclusive: return range_of(exclusive_byte, 1);
    case lock_file: return range_of(0, 0);
    case lock_metadata: return range_of(start, length);
    default: return leave_out(leave_out(range_of(start, length), exclusive_byte), metadata_byte);
    }
}

lock_wanted wanted_of(const lock_target &target)
{
    return {target.file, pthread_self(), range_by_kind(target.kind, target.start, target.length),
            target.write ? uint32_t{F_WRLCK} : uint32_t{F_RDLCK}, target.kind};
}

struct flock remembered(const lock_wanted &wanted)
{
    struct flock description = {};
    description.l_type = static_cast<short>(wanted.type);
    description.l_whence = SEEK_SET;
    description.l_start = static_cast<off_t>(wanted.range.start);
    description.l_len = static_cast<off_t>(length_of(wanted.range));
    return description;
}

void note_granted(const lock_wanted &wanted)
{
    file_state *file = wanted.file;
    if (wanted.kind == lock_exclusive) file->exclusive_held = true;
    if (wanted.kind == lock_file) file->file_lock_state = wanted.type == F_WRLCK ? file_lock_write : file_lock_read;
    if (wanted.kind == lock_record && !several_allowed(file)) file->single_record_lock = remembered(wanted);
}

void note_released(file_state *file, uint32_t kind)
{
    if (kind == lock_exclusive) file->exclusive_held = false;
    if (kind == lock_file) file->file_lock_state = file_lock_none;
    if (kind == lock_record) file->single_record_lock.l_type = F_UNLCK;
}

// In debug mode, adds the time of a lock operation to the cache's sum when it goes.
class lock_timing {
public:
    explicit lock_timing(const lock_target &target) : total_(nullptr), ticks_(0), usage_{}
    {
        if (!target.file->debug || target.counted == nullptr) return;
        total_ = &target.counted->lock_wait;
        tms unused;
        ticks_ = times(&unused);
        (void)getrusage(RUSAGE_THREAD, &usage_);
    }
    lock_timing(const lock_timing &) = delete;
    lock_timing &operator=(const lock_timing &) = delete;
    ~lock_timing()
    {
        if (total_ == nullptr) return;
        const int cause = errno;
        tms unused;
        rusage now{};
        (void)getrusage(RUSAGE_THREAD, &now);
        total_->ticks += static_cast<uint64_t>(times(&unused) - ticks_);
        total_->user_seconds += now.ru_utime.tv_sec - usage_.ru_utime.tv_sec;
        total_->user_microseconds += now.ru_utime.tv_usec - usage_.ru_utime.tv_usec;
        total_->system_seconds += now.ru_stime.tv_sec - usage_.ru_stime.tv_sec;
        total_->system_microseconds += now.ru_stime.tv_usec - usage_.ru_stime.tv_usec;
        errno = cause;
    }

private:
    wait_times *total_;
    clock_t ticks_;
    rusage usage_;
};

int debug_failure(const file_state *file, const char *what)
{
    const int cause = errno;
    if (file->debug) std::fprintf(stderr, "%s rc %d  errno %d: %s\n", what, -1, cause, std::strerror(cause));
    return fail(cause);
}

int check_target(const lock_target &target)
{
    if (target.kind < lock_exclusive || target.kind > lock_metadata) return fail(EINVAL);
    if (target.kind == lock_record && target.length == 0) return fail(ESPIPE); // no record there
    if ((target.kind == lock_block || target.kind == lock_metadata) && target.length == 0) return fail(EINVAL);
    return 0;
}

int report_missing(const vfs_lock_table *table, const lock_wanted &wanted)
{
    std::fputs("Missing lock entry!\n", stderr);
    std::fprintf(stderr, "Lock Request @%p\n", static_cast<const void *>(&wanted));
    std::fprintf(stderr, " %ld @ 0x%lx for %s on file %s\n", static_cast<long>(length_of(wanted.range)),
                 wanted.range.start, type_word(F_UNLCK), wanted.file->path);
    table_print(table);
    if (table->in_use != 0 && table->entries[table->high_water].owner != nullptr) {
        const vfs_lock_entry &entry = table->entries[table->high_water];
        std::fprintf(stderr, "Lock Entry @%p\n", static_cast<const void *>(&entry));
        std::fprintf(stderr, " %ld @ 0x%lx for %s %s on file %s\n", static_cast<long>(length_of(entry.range)),
                     entry.range.start, kind_word(entry.kind), type_word(entry.type), entry.owner->path);
    }
    return fail(ENOENT);
}

int release_one(const lock_wanted &wanted)
{
    lock_held held;
    if (held.error() != 0) return fail(held.error());
    trace_request("<< Unlocking", wanted, F_UNLCK, held);
    vfs_lock_table *table = lock_table_of(wanted.file, held);
    if (table == nullptr) return fail(ENOMEM);
    const uint32_t index = find_held(table, wanted);
    if (index == no_entry) return report_missing(table, wanted);
    if (release_entry(table, index, &held) == 0) return 0;
    return fail(errno == EACCES || errno == ENOLCK ? EAGAIN : errno);
}

// Gives up the handle's entries, of one kind or (0) of all; counts them. -1: an entry could not be given up.
int release_entries(file_state *file, uint32_t kind, bool traced)
{
    if (file->shared == nullptr) return 0;
    lock_held held;
    if (held.error() != 0) return fail(held.error());
    vfs_lock_table *table = file->shared->lock_table;
    if (table == nullptr) return 0;
    int count = 0;
    for (uint32_t i = 0; i < table->capacity && table->in_use != 0; ++i) {
        const vfs_lock_entry &entry = table->entries[i];
        if (entry.owner != file || (kind != 0 && entry.kind != kind)) continue;
        const lock_wanted wanted{file, entry.thread, entry.range, entry.type, entry.kind};
        if (traced) trace_request("<< Unlock", wanted, entry.type, held);
        if (release_entry(table, i, &held) == 0)
            ++count;
        else if (kind != 0)
            return -1;
        else
            entry_free(table, i); // the handle goes: its entry must not outlive it
    }
    return count;
}

} // namespace

int lock_set(const lock_target &target)
{
    file_state *file = target.file;
    if (check_target(target) == -1) return -1;
    if (target.kind == lock_exclusive && file->lock_defaults.share_mode != VFS_SHARE_NONE) return 0;
    if (file->shared == nullptr) return 0;
    if (target.counted != nullptr) ++target.counted->stats.lock;
    const lock_timing timing(target);
    const lock_wanted wanted = wanted_of(target);
    const int waits = wait_for_lock(target, wanted);
    if (waits == -1) return target.try_only ? -1 : debug_failure(file, "lock_set");
    note_granted(wanted);
    return waits;
}

int lock_clr(const lock_target &target)
{
    file_state *file = target.file;
    if (target.kind < lock_exclusive || target.kind > lock_metadata) return fail(EINVAL);
    if (target.kind == lock_exclusive && file->lock_defaults.share_mode != VFS_SHARE_NONE) return 0;
    const bool single = target.kind == lock_record && !several_allowed(file);
    if (single && file->single_record_lock.l_type == F_UNLCK) return 0;
    if (file->shared == nullptr) return 0;
    const lock_timing timing(target);
    lock_wanted wanted = wanted_of(target);
    if (single) {
        const struct flock &record = file->single_record_lock;
        wanted.range = range_of(static_cast<uint64_t>(record.l_start), static_cast<uint64_t>(record.l_len));
    }
    const int result = release_one(wanted);
    if (result == 0 || single) note_released(file, target.kind);
    return result == 0 ? 0 : debug_failure(file, "lock_clr");
}

int lock_test(file_state *file, struct flock *description, lock_kind kind)
{
    const lock_wanted wanted{
        file, pthread_self(),
        range_by_kind(kind, static_cast<uint64_t>(description->l_start), static_cast<uint64_t>(description->l_len)),
        static_cast<uint32_t>(description->l_type), kind};
    const lock_held held;
    if (held.error() != 0) return fail(held.error());
    trace_request("== Testing", wanted, wanted.type, held);
    const vfs_lock_table *table = file->shared != nullptr ? file->shared->lock_table : nullptr;
    const uint32_t conflict = table != nullptr ? find_conflict(table, wanted) : no_entry;
    if (conflict != no_entry) {
        const vfs_lock_entry &entry = table->entries[conflict];
        description->l_type = static_cast<short>(entry.type);
        description->l_start = static_cast<off_t>(entry.range.start);
        description->l_len = static_cast<off_t>(length_of(entry.range));
        description->l_pid = -1;
        description->l_whence = static_cast<short>(conflict);
        return 0;
    }
    if (table != nullptr && is_covered(table, wanted.range, wanted.type)) {
        description->l_type = F_UNLCK;
        return 0;
    }
    return kernel_test(wanted, description, held);
}

int lock_release_records(file_state *file)
{
    if (release_entries(file, lock_record, true) == -1) return -1;
    file->single_record_lock.l_type = F_UNLCK;
    return 0;
}

bool lock_find_record(lock_target *target)
{
    const file_state *file = target->file;
    if (file->shared == nullptr) return false;
    const lock_held held;
    const vfs_lock_table *table = file->shared->lock_table;
    if (held.error() != 0 || table == nullptr) return false;
    const uint64_t first = range_by_kind(lock_record, target->start, 2).start;
    bool found = false;
    for_each_entry(table, [&](const vfs_lock_entry &entry, uint32_t) {
        found = entry.owner == file && entry.kind == lock_record && entry.range.start == first &&
                (!target->write || entry.type == F_WRLCK);
        if (!found) return true;
        target->start = first;
        target->length = length_of(entry.range);
        return false;
    });
    return found;
}

uint32_t lock_count(const shared_file_state *shared)
{
    const lock_held held;
    return shared->lock_table != nullptr ? shared->lock_table->in_use : 0;
}

void lock_abandon(file_state *file)
{
    (void)release_entries(file, 0, false);
    for (const uint32_t kind : {lock_exclusive, lock_file, lock_record}) note_released(file, kind);
}
