// Shared by the files of this room only: system calls that keep table and kernel in agreement, one attempt at a lock,
// and what is printed. May use util/.
#ifndef VFS_LOCK_INTERNAL_H
#define VFS_LOCK_INTERNAL_H

#include "lock/lock_table.h"

// One lock request on its way.
struct lock_attempt {
    lock_wanted wanted;
    bool inside = false;      // last refusal: by another handle of this process
    bool same_thread = false; // ... whose lock this very thread took
    bool by_file = false;     // ... which is a File lock
};

bool lock_tracing(const lock_held &); // VFS_DEBUG_LOCK
void trace_request(const char *verb, const lock_wanted &wanted, uint32_t type, const lock_held &);

// Tries once. 0: granted and in the table. -1 with errno: EAGAIN (refused; the attempt says by whom), EDEADLK, or any
// other error. `blocking`: waits in the kernel without the mutex, or a moment for another handle's release.
[[nodiscard]] int attempt_lock(lock_attempt *attempt, bool blocking);

// Gives up the entry and, in the kernel, what no other entry of the process needs. -1: the entry stays.
[[nodiscard]] int release_entry(vfs_lock_table *table, uint32_t index, lock_held *held);

// The kernel's view: the lock of another process in the way of this one, l_type F_UNLCK when there is none.
[[nodiscard]] int kernel_test(const lock_wanted &wanted, struct flock *description, const lock_held &held);

// Waiting, retrying and giving up as the policy says: the number of waits, or -1.
[[nodiscard]] int wait_for_lock(const lock_target &target, const lock_wanted &wanted);

#endif
