// The lock that a record operation takes on its record: a record lock (lock mode 5), or the lock of the block in
// which the record begins (lock mode 4). Inside the bracket a lock is only tried; one that has to be waited for is
// waited for outside, and the operation begins again from its saved start.
#ifndef VFS_RECORD_LOCKING_H
#define VFS_RECORD_LOCKING_H

#include "lock/lock.h"
#include "record/request.h"

enum class lock_outcome {
    held,   // or none was asked for
    again,  // it was waited for outside the bracket: position again
    failed, // errno
};

// What an operation has locked so far.
struct operation_lock {
    lock_target target;
    bool taken = false; // by this operation
    uint64_t rrn = none;
};

[[nodiscard]] lock_outcome record_lock(const operation_call &call, const vfs_request &work, operation_lock *lock);
// Gives back what this operation took; after a success only when the host does not hold it.
void record_unlock(const operation_call &call, operation_lock *lock);
// delete gives the lock of its record back in any case, also one that an earlier operation took.
void record_unlock_all_of(const operation_call &call, const vfs_request &work, operation_lock *lock);
// The record moved: its lock moves to the new slot (the new one is taken before the old one goes).
[[nodiscard]] int record_lock_move(const operation_call &call, const vfs_request &from, const vfs_request &to,
                                   operation_lock *lock);

#endif
