// Which lock an operation takes on its record, and when it is given back. See locking.h.
#include "record/locking.h"

#include "util/errors.h"

namespace {

bool several_allowed(const vfs_file *file)
{
    return (file->lock_defaults.lock_flags & VFS_LOCK_SEVERAL) != 0;
}

lock_target target_of(const operation_call &call, const vfs_request &work)
{
    vfs_file *file = call.file;
    lock_target target{.file = file, .counted = &file->data, .write = !is_read_only(file), .policy = call.lock};
    if (file->lock_defaults.lock_mode == VFS_LOCK_RECORD) {
        target.kind = lock_record;
        target.start = work.record_offset;
        target.length = work.stored_length;
    } else {
        target.kind = lock_block;
        target.start = work.record_offset & ~(file->data.block_size - 1);
        target.length = file->data.block_size;
    }
    return target;
}

void block_unlock(vfs_file *file)
{
    if (file->block_lock == none) return;
    lock_clr({.file = file,
              .counted = &file->data,
              .kind = lock_block,
              .write = !is_read_only(file),
              .start = file->block_lock,
              .length = file->data.block_size});
    file->block_lock = none;
}

// The handle has this lock already, from an earlier operation or from waiting.
bool already_held(const operation_call &call, const lock_target &target, const operation_lock &lock)
{
    vfs_file *file = call.file;
    if (lock.taken && lock.target.start == target.start && lock.target.length == target.length) return true;
    if (target.kind == lock_block) return file->block_lock == target.start;
    return (several_allowed(file) || call.operation != VFS_OP_READ) &&
           lock_holds_record(file, target.start, target.write);
}

void release_previous(vfs_file *file, const lock_target &target)
{
    if (target.kind == lock_block) return block_unlock(file);
    if (several_allowed(file) || file->single_record_lock.l_type == F_UNLCK) return;
    lock_clr(target);
}

} // namespace

lock_outcome record_lock(const operation_call &call, const vfs_request &work, operation_lock *lock)
{
    vfs_file *file = call.file;
    if (!is_shared(file)) return lock_outcome::held;
    lock_target target = target_of(call, work);
    const bool record_kind = target.kind == lock_record;
    if (already_held(call, target, *lock)) return lock_outcome::held;
    if (lock->taken) record_unlock(call, lock);
    release_previous(file, target);
    if (record_kind && call.operation == VFS_OP_READ && call.lock->request_kind == VFS_KIND_NO_LOCK)
        return lock_outcome::held;

    const bool waits = call.lock->wait_mode != VFS_WAIT_NEVER;
    const bool skips = call.lock->request_kind == VFS_KIND_SKIP && call.operation == VFS_OP_READ;
    target.try_only = waits || skips;
    bool again = false;
    if (lock_set(target) == -1) {
        if (!target.try_only || (errno != EAGAIN && errno != EACCES)) return lock_outcome::failed;
        if (skips && call.mode <= VFS_POS_PREV) return lock_outcome::failed;
        target.try_only = false;
        if (bracket_end(file) == -1 || lock_set(target) == -1) return lock_outcome::failed;
        again = true;
    }
    if (record_kind) {
        lock->target = target;
        lock->taken = true;
        lock->rrn = work.rrn;
    } else {
        file->block_lock = target.start;
    }
    if (!again) return lock_outcome::held;
    const bool change = call.operation >= VFS_OP_WRITE && call.operation <= VFS_OP_DELETE;
    return bracket_begin(file, change) == -1 ? lock_outcome::failed : lock_outcome::again;
}

void record_unlock(const operation_call &, operation_lock *lock)
{
    if (!lock->taken) return;
    lock->taken = false;
    lock_clr(lock->target);
}

void record_unlock_all_of(const operation_call &call, const vfs_request &work, operation_lock *lock)
{
    vfs_file *file = call.file;
    if (file->lock_defaults.lock_mode != VFS_LOCK_RECORD) return;
    if (lock->taken) return record_unlock(call, lock);
    if (lock_holds_record(file, work.record_offset, true)) lock_clr(target_of(call, work));
}

int record_lock_move(const operation_call &call, const vfs_request &from, const vfs_request &to, operation_lock *lock)
{
    vfs_file *file = call.file;
    if (file->lock_defaults.lock_mode != VFS_LOCK_RECORD) return 0;
    lock_target fresh = target_of(call, to);
    fresh.try_only = true; // the bracket is in hand
    const struct flock old = file->single_record_lock;
    if (lock_set(fresh) == -1) return -1;
    const struct flock moved = file->single_record_lock;
    lock_target stale = lock->taken ? lock->target : target_of(call, from);
    if (several_allowed(file)) {
        if (lock_holds_record(file, stale.start, stale.write)) lock_clr(stale);
    } else if (old.l_type != F_UNLCK) {
        file->single_record_lock = old; // what a release without several locks goes by
        lock_clr(stale);
        file->single_record_lock = moved;
    }
    if (lock->taken) lock->target = fresh; // whoever took the old one gives the new one back
    return 0;
}
