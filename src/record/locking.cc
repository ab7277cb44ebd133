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
    lock_target target{.file = file, .counted = &file->data, .write = !is_read_only(file)};
    if (file->lock_defaults.lock_mode == VFS_LOCK_RECORD) {
        target.kind = lock_record;
        target.policy = call.lock;
        target.start = work.record_offset;
        target.length = work.stored_length;
    } else {
        target.kind = lock_block;
        target.start = work.record_offset & ~(file->data.block_size - 1);
        target.length = file->data.block_size;
    }
    return target;
}

// The handle has this lock already, from an earlier operation or from waiting.
bool already_held(const operation_call &call, const lock_target &target, uint64_t rrn, const operation_lock &lock)
{
    vfs_file *file = call.file;
    if (lock.taken && lock.target.start == target.start && lock.target.length == target.length && lock.rrn == rrn)
        return true;
    if (target.kind == lock_block) return file->block_lock == target.start;
    if (!several_allowed(file) && call.operation == VFS_OP_READ) return false;
    lock_target held = target;
    return lock_find_record(&held);
}

void release_previous(vfs_file *file, const lock_target &target)
{
    if (target.kind == lock_block) {
        (void)block_unlock(file); // what is not held cannot be given up
        return;
    }
    if (several_allowed(file) || file->single_record_lock.l_type == F_UNLCK) return;
    lock_clr(target);
}

void keep(const operation_call &call, const lock_target &target, uint64_t rrn, operation_lock *lock)
{
    if (target.kind == lock_block) {
        call.file->block_lock = target.start;
        return;
    }
    lock->target = target;
    lock->taken = true;
    lock->rrn = rrn;
}

// read next and previous may step over a record whose lock is refused; a deadlock too is over when the locks of the
// handle are given up, unless the host counts on several of them.
bool steps_over(const operation_call &call, const lock_target &target)
{
    return target.kind == lock_record && call.operation == VFS_OP_READ && call.mode <= VFS_POS_PREV &&
           call.lock->request_kind == VFS_KIND_SKIP &&
           (errno == EAGAIN || (errno == EDEADLK && !several_allowed(call.file)));
}

lock_outcome refused(const operation_call &call, const lock_target &target)
{
    return steps_over(call, target) ? lock_outcome::skipped : lock_outcome::failed;
}

// Leaves the bracket with nothing changed, waits as the host's policy says, and enters it again.
lock_outcome wait_outside(const operation_call &call, lock_target target, uint64_t rrn, operation_lock *lock)
{
    vfs_file *file = call.file;
    const bool change = file->acquired_for_change;
    lock->left_bracket = true;
    if (metadata_abandon(file) == -1) return lock_outcome::failed;
    target.try_only = false;
    const bool granted = lock_set(target) != -1;
    if (granted)
        keep(call, target, rrn, lock);
    else if (refused(call, target) == lock_outcome::failed)
        return lock_outcome::failed;
    if (bracket_begin(file, change) == -1) return lock_outcome::failed;
    return granted ? lock_outcome::again : lock_outcome::skipped;
}

// The lock that the record needs, with what stands in its place given back; 1: it is held, or none is wanted.
int prepare(const operation_call &call, const vfs_request &work, lock_target *target, operation_lock *lock)
{
    vfs_file *file = call.file;
    if (!is_shared(file)) return 1;
    *target = target_of(call, work);
    if (already_held(call, *target, work.rrn, *lock)) return 1;
    record_unlock(lock);
    release_previous(file, *target);
    const bool unwanted = call.operation == VFS_OP_READ && call.lock->request_kind == VFS_KIND_NO_LOCK;
    return target->kind == lock_record && unwanted ? 1 : 0;
}

} // namespace

int block_unlock(vfs_file *file)
{
    if (file->block_lock == none) return 0;
    const lock_target held{.file = file,
                           .counted = &file->data,
                           .kind = lock_block,
                           .write = !is_read_only(file),
                           .start = file->block_lock,
                           .length = file->data.block_size};
    file->block_lock = none;
    return lock_clr(held);
}

lock_outcome record_lock(const operation_call &call, const vfs_request &work, operation_lock *lock)
{
    lock_target target;
    if (prepare(call, work, &target, lock) == 1) return lock_outcome::held;
    // A host that never waits is told at once, by whom it was refused too.
    const bool waits = target.kind == lock_block || call.lock->wait_mode != VFS_WAIT_NEVER;
    target.try_only = waits;
    if (lock_set(target) != -1) {
        keep(call, target, work.rrn, lock);
        return lock_outcome::held;
    }
    if (!waits) return refused(call, target);
    const bool conflict = errno == EAGAIN || errno == EACCES || errno == ENOLCK;
    return conflict ? wait_outside(call, target, work.rrn, lock) : lock_outcome::failed;
}

int record_lock_try(const operation_call &call, const vfs_request &work, operation_lock *lock)
{
    lock_target target;
    if (prepare(call, work, &target, lock) == 1) return 0;
    target.try_only = true;
    if (lock_set(target) == -1) return -1;
    keep(call, target, work.rrn, lock);
    return 0;
}

void record_unlock(operation_lock *lock)
{
    if (lock->moving) { // the record stays where it was, and its lock too
        lock->moving = false;
        lock_clr(lock->reached);
        lock->reached.file->single_record_lock = lock->left_single;
        lock->target = lock->left;
    }
    if (!lock->taken) return;
    lock->taken = false;
    lock_clr(lock->target);
}

void record_lock_settle(const operation_call &call, operation_lock *lock)
{
    if (lock->moving) {
        vfs_file *file = call.file;
        lock->moving = false;
        const struct flock moved = file->single_record_lock;
        file->single_record_lock = lock->left_single; // what a release without several locks goes by
        lock_clr(lock->left);
        file->single_record_lock = moved;
        lock->target = lock->reached; // whoever took the old one gives the new one back
    }
    if (call.lock->hold == 0) record_unlock(lock);
}

void record_unlock_all_of(const operation_call &call, const vfs_request &work, operation_lock *lock)
{
    if (call.file->lock_defaults.lock_mode != VFS_LOCK_RECORD) return;
    if (lock->taken) return record_unlock(lock);
    lock_target held = target_of(call, work);
    if (lock_find_record(&held)) lock_clr(held);
}

int record_lock_move(const operation_call &call, const vfs_request &from, const vfs_request &to, operation_lock *lock)
{
    vfs_file *file = call.file;
    if (file->lock_defaults.lock_mode != VFS_LOCK_RECORD) return 0;
    lock_target fresh = target_of(call, to), stale = lock->taken ? lock->target : target_of(call, from);
    const struct flock single = file->single_record_lock;
    const bool held = lock->taken || (several_allowed(file) ? lock_find_record(&stale) : single.l_type != F_UNLCK);
    if (held && stale.start == fresh.start && stale.length == fresh.length) return 0;
    fresh.try_only = true; // the bracket is in hand
    if (lock_set(fresh) == -1) return -1;
    if (!held) return 0;
    lock->moving = true;
    lock->left = stale;
    lock->reached = fresh;
    lock->left_single = single;
    return 0;
}
