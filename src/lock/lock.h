// Byte-range locks: what each kind locks, taking, releasing and testing them, waiting and giving up.
// May use buffer/ (a cache's counters) and util/; knows the file only as file_state.
//
// The traps of POSIX locks that this room hides: the process owns them, so two handles of one process never conflict
// in the kernel (the lock table keeps them apart); unlocking a range drops it for every handle of the process (a
// release is cut at the borders of the other entries); and closing any descriptor of the file drops them all (the
// registry parks descriptors until the last handle goes).
#ifndef VFS_LOCK_LOCK_H
#define VFS_LOCK_LOCK_H

#include "util/file_state.h"

#include <cstdint>

struct vfs_cache;

enum lock_kind : uint32_t {
    lock_exclusive = 2,
    lock_file = 3,
    lock_block = 4,
    lock_record = 5,
    lock_metadata = 6,
};

inline constexpr uint64_t exclusive_byte = 0x1900000000;
inline constexpr uint64_t metadata_byte = 0x3200000000;

// What is to be locked. For Exclusive and File the range follows from the kind; start and length are then ignored.
struct lock_target {
    file_state *file = nullptr;
    vfs_cache *counted = nullptr; // the cache whose lock counter and lock time move
    lock_kind kind = lock_file;
    bool write = false;                       // write lock, else read lock
    uint64_t start = 0, length = 0;           // Block, Record, Metadata
    const vfs_lock_request *policy = nullptr; // wait mode, retries, sleep; null: the file's own settings
    bool try_only = false;                    // never wait: a conflict is EAGAIN at once, and prints nothing
    bool opening = false; // Metadata of a shared open: a File lock in its way is met by the wait mode
};

// Takes the lock: the number of waits made, or -1 with errno (EAGAIN, EDEADLK, ENOLCK, ETXTBSY, EINVAL, ESPIPE).
[[nodiscard]] int lock_set(const lock_target &target);
// Releases it: 0, or -1 (ENOENT, with the diagnostic, when the handle does not hold it).
int lock_clr(const lock_target &target);
// Tests without taking: 0 with description->l_type F_UNLCK when it could be granted, else the conflicting lock, whose
// l_pid is -1 when another handle of this process holds it.
[[nodiscard]] int lock_test(file_state *file, struct flock *description, lock_kind kind);
// Releases every record lock of the handle; 0 or -1.
int lock_release_records(file_state *file);

enum lock_note_kind { note_delaying = 1, note_failing = 2, note_resuming = 3 };
void lock_note(lock_note_kind which, const file_state *file);

// Whether the handle holds a Record lock that begins where the target does, a write lock when the target is one; the
// target's range is then that of the lock (its slot may have grown since).
bool lock_find_record(lock_target *target);

// For the registry: how many locks the file's handles hold; gives up whatever the handle still holds, silently.
uint32_t lock_count(const shared_file_state *shared);
void lock_abandon(file_state *file);
void lock_table_free(vfs_lock_table *table);
// Registers what fork(2) does with this room's mutex. Whoever calls this room under a mutex of its own calls this before
// registering its own handlers, so that a fork takes the two in the same order.
void lock_watch_forks();

#endif
