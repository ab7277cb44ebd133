// One attempt at a lock and one release: the table first, then fcntl, so that both agree. See lock_table.h for the
// invariant. May use util/.
#include "lock/internal.h"
#include "util/errors.h"

#include <cstdio>
#include <cstdlib>
#include <limits>

namespace {

constexpr int longest_wait_inside = 50; // milliseconds

struct flock description_of(uint32_t type, const lock_range &range)
{
    constexpr auto end_of_offsets = static_cast<uint64_t>(std::numeric_limits<off_t>::max());
    struct flock description = {};
    description.l_type = static_cast<short>(type);
    description.l_whence = SEEK_SET;
    description.l_start = static_cast<off_t>(range.start);
    description.l_len = range.last >= end_of_offsets ? 0 : static_cast<off_t>(length_of(range));
    return description;
}

// The one place where locks are set, tested and released in the kernel. The mutex may be dropped: `tracing` is asked
// before.
int call_kernel(const file_state *file, int command, struct flock *description, bool tracing)
{
    int result;
    do {
        result = fcntl(file->fd, command, description);
        if (!tracing) continue;
        const int cause = errno;
        std::fprintf(stderr, "fcntl(%d, %d, %d 0x%lx for %ld)=%d %d\n", file->fd, command, description->l_type,
                     static_cast<unsigned long>(description->l_start), static_cast<long>(description->l_len), result,
                     cause);
        errno = cause;
    } while (result == -1 && (errno == EINTR || errno == ETIMEDOUT));
    return result;
}

int set_in_kernel(const file_state *file, uint32_t type, const lock_range &range, bool blocking, lock_held *held)
{
    struct flock description = description_of(type, range);
    const bool tracing = lock_tracing(*held);
    if (!blocking) return call_kernel(file, F_SETLK, &description, tracing);
    held->drop();
    const int result = call_kernel(file, F_SETLKW, &description, tracing);
    const int cause = errno;
    held->take();
    errno = cause;
    return result;
}

// The range from its start on, as far as `belongs` holds for the type of every piece: one system call's worth.
template <typename Belongs>
lock_range leading_run(const vfs_lock_table *table, const lock_range &range, bool pending_too, Belongs &&belongs)
{
    lock_range run = range;
    for (lock_piece piece = first_piece(table, range, pending_too); belongs(piece.type);
         piece = first_piece(table, {run.last + 1, range.last}, pending_too)) {
        run.last = piece.range.last;
        if (run.last == range.last) break;
    }
    return run;
}

// Brings the kernel down, over a range where a lock of the type was given up, to what the remaining entries need.
int settle_release(vfs_lock_table *table, const file_state *file, lock_range range, uint32_t released, lock_held *held)
{
    for (;;) {
        const uint32_t needed = first_piece(table, range, true).type;
        const lock_range run = leading_run(table, range, true, [&](uint32_t type) { return type == needed; });
        if (stronger(released, needed) && set_in_kernel(file, needed, run, false, held) == -1) return -1;
        if (run.last == range.last) return 0;
        range.start = run.last + 1;
    }
}

// Brings the kernel up to the wanted type, leaving out pieces that the process holds more strongly.
int raise_in_kernel(vfs_lock_table *table, const lock_wanted &wanted, bool blocking, lock_held *held)
{
    lock_range range = wanted.range;
    for (;;) {
        const bool skip = stronger(first_piece(table, range, false).type, wanted.type);
        const lock_range run =
            leading_run(table, range, false, [&](uint32_t type) { return stronger(type, wanted.type) == skip; });
        if (!skip && set_in_kernel(wanted.file, wanted.type, run, blocking, held) == -1) return -1;
        if (run.last == range.last) return 0;
        range.start = run.last + 1;
    }
}

// Somebody else's lock on the exclusive byte, of whatever type, keeps an exclusive open out.
int probe_exclusive(const lock_wanted &wanted, const lock_held &held)
{
    struct flock holder = {};
    lock_wanted probe = wanted;
    probe.type = F_WRLCK;
    trace_request("== Testing", probe, probe.type, held);
    if (kernel_test(probe, &holder, held) == -1) return -1;
    return holder.l_type == F_UNLCK ? 0 : fail(EAGAIN);
}

// Fails with EAGAIN or EDEADLK when another handle's entry keeps the lock out.
int check_inside(vfs_lock_table *table, lock_attempt *attempt, bool blocking, const lock_held &held)
{
    lock_wanted wanted = attempt->wanted;
    if (wanted.kind == lock_exclusive) wanted.type = F_WRLCK;
    const uint32_t conflict = find_conflict(table, wanted);
    attempt->inside = conflict != no_entry;
    if (!attempt->inside) return 0;
    const vfs_lock_entry &entry = table->entries[conflict];
    attempt->same_thread = pthread_equal(entry.thread, wanted.thread) != 0;
    attempt->by_file = entry.kind == lock_file;
    if (attempt->same_thread) return fail(EAGAIN);
    if (!blocking) return fail(EAGAIN); // who does not wait is in no circle
    if (closes_a_circle(table, wanted, held)) return fail(EDEADLK);
    const lock_waiting waiting(table, wanted, held);
    held.wait_for_release(longest_wait_inside);
    return fail(EAGAIN);
}

// Enters the lock as pending, makes the system calls, and settles the entry.
int obtain(vfs_lock_table *table, const lock_wanted &wanted, uint32_t held_already, bool blocking, lock_held *held)
{
    const bool converting = held_already != no_entry;
    const uint32_t index = converting ? held_already : entry_add(table, wanted);
    if (index == no_entry) return -1;
    const uint32_t before = converting ? table->entries[index].type : uint32_t{F_UNLCK};
    table->entries[index].type = wanted.type;
    table->entries[index].thread = wanted.thread;
    int result;
    if (stronger(before, wanted.type)) {
        result = settle_release(table, wanted.file, wanted.range, before, held);
        held->announce_release();
    } else {
        table->entries[index].pending = true;
        result = raise_in_kernel(table, wanted, blocking && wanted.kind != lock_exclusive, held);
        if (result == 0 && wanted.kind == lock_exclusive && wanted.type == F_RDLCK)
            result = probe_exclusive(wanted, *held); // two readers may have come in at the same time
    }
    vfs_lock_entry &entry = table->entries[index]; // the table may have grown meanwhile
    entry.pending = false;
    if (result == 0) return 0;
    const int cause = errno;
    if (stronger(before, wanted.type)) {
        entry.type = before; // what could not be lowered counts as held
        return fail(cause);
    }
    entry.type = before;
    if (!converting) entry_free(table, index);
    (void)settle_release(table, wanted.file, wanted.range, wanted.type, held);
    held->announce_release();
    return fail(cause);
}

} // namespace

bool lock_tracing(const lock_held &)
{
    static int choice; // 0: not yet read, then 1 (on) or 2
    if (choice == 0) {
        const char *value = std::getenv("VFS_DEBUG_LOCK");
        choice = value != nullptr && *value != '\0' ? 1 : 2;
    }
    return choice == 1;
}

void trace_request(const char *verb, const lock_wanted &wanted, uint32_t type, const lock_held &held)
{
    if (!lock_tracing(held)) return;
    std::fprintf(stderr, "%s %s for %s at 0x%lx for %ld in file %s\n", verb, kind_word(wanted.kind), type_word(type),
                 wanted.range.start, static_cast<long>(length_of(wanted.range)), wanted.file->path);
}

int kernel_test(const lock_wanted &wanted, struct flock *description, const lock_held &held)
{
    *description = description_of(wanted.type, wanted.range);
    return call_kernel(wanted.file, F_GETLK, description, lock_tracing(held));
}

int attempt_lock(lock_attempt *attempt, bool blocking)
{
    const lock_wanted &wanted = attempt->wanted;
    lock_held held;
    if (held.error() != 0) return fail(held.error());
    attempt->inside = attempt->same_thread = attempt->by_file = false;
    vfs_lock_table *table = lock_table_of(wanted.file, held);
    if (table == nullptr) return fail(ENOMEM);
    const bool exclusive = wanted.kind == lock_exclusive;
    if (exclusive && find_conflict(table, wanted) == no_entry && probe_exclusive(wanted, held) == -1) return -1;
    trace_request(">> Locking", wanted, wanted.type, held);
    if (check_inside(table, attempt, blocking, held) == -1) return -1;
    const uint32_t same = find_same(table, wanted);
    if (same != no_entry && table->entries[same].type == wanted.type) return 0;
    if (same == no_entry && is_covered(table, wanted.range, wanted.type))
        return entry_add(table, wanted) == no_entry ? -1 : 0;
    return obtain(table, wanted, same, blocking, &held);
}

int release_entry(vfs_lock_table *table, uint32_t index, lock_held *held)
{
    vfs_lock_entry &entry = table->entries[index];
    const uint32_t released = entry.type;
    entry.type = F_UNLCK;
    if (settle_release(table, entry.owner, entry.range, released, held) == -1) {
        entry.type = released;
        return -1;
    }
    entry_free(table, index);
    held->announce_release();
    return 0;
}
