// The lock that a record operation takes on its record: a record lock (lock mode 5), or the lock of the block in
// which the record begins (lock mode 4). Nobody waits for a lock with the bracket in hand: one that is refused is
// waited for outside, and the operation begins again from its saved start.
#ifndef VFS_RECORD_LOCKING_H
#define VFS_RECORD_LOCKING_H

#include "lock/lock.h"
#include "record/request.h"

enum class lock_outcome {
    held,    // or none was asked for
    again,   // the bracket was left meanwhile: make the request and position again
    skipped, // somebody else holds it, and the host wants to step over such records; the bracket is in hand
    failed,  // errno
};

// What an operation has locked so far.
struct operation_lock {
    lock_target target;
    bool taken = false; // by this operation
    uint64_t rrn = none;
    bool left_bracket = false; // cursors found before it are stale
    bool moving = false;       // the record's new place is locked beside the old one until the operation is in the file
    lock_target left, reached;
    struct flock left_single;
};

[[nodiscard]] lock_outcome record_lock(const operation_call &call, const vfs_request &work, operation_lock *lock);
// The same, but where it is refused nothing happens at all: EAGAIN.
[[nodiscard]] int record_lock_try(const operation_call &call, const vfs_request &work, operation_lock *lock);
// After a failure: gives back what this operation took.
void record_unlock(operation_lock *lock);
// The operation is in the file: the place that its record left is given up, and, unless the host holds it, the record.
void record_lock_settle(const operation_call &call, operation_lock *lock);
// delete gives the lock of its record back in any case, also one that an earlier operation took.
void record_unlock_all_of(const operation_call &call, const vfs_request &work, operation_lock *lock);
// The record moves, or its slot has grown: its lock goes with it. The new one is taken now, the old one goes when the
// operation is settled.
[[nodiscard]] int record_lock_move(const operation_call &call, const vfs_request &from, const vfs_request &to,
                                   operation_lock *lock);

// Lock mode 4: gives up the block of the handle's current record.
int block_unlock(vfs_file *file);

#endif
