// read: position, lock, copy out, and make the record the file position.
#include "record/locking.h"
#include "record/operations.h"
#include "record/positioning.h"
#include "record/read_beside.h"
#include "util/errors.h"

namespace {

// Next and previous start from the current record block; every other mode from the last request block.
vfs_request read_request(const operation_call &call)
{
    vfs_file *file = call.file;
    vfs_request work = call.mode <= VFS_POS_PREV ? file->current : file->last;
    work.key = file->last.key;
    work.previous_operation = work.operation;
    work.operation = VFS_OP_READ;
    work.previous_mode = work.mode;
    work.mode = mode_byte(call.mode);
    work.record = call.record != nullptr ? call.record->bytes : nullptr;
    work.record_length = call.record != nullptr && call.record->bytes != nullptr ? call.record->length : 0;
    work.flags = static_cast<uint8_t>(work.flags & ~(VFS_FLAG_CURRENT | VFS_FLAG_STATUS));
    if (call.status != nullptr) work.flags |= VFS_FLAG_STATUS;
    return work;
}

int open_check(const vfs_file *file)
{
    if (file->error != 0) return fail(static_cast<int>(file->error));
    return (file->mode_flags & mode_write_only) != 0 ? fail(EROFS) : 0;
}

int apply_mode(const operation_call &call, vfs_request *work)
{
    vfs_file *file = call.file;
    if (mode_known(call) == -1) return -1;
    if (call.mode <= VFS_POS_LAST) {
        work->mode = file->direction[2 * call.mode];
        work->relation = file->direction[2 * call.mode + 1];
        if (call.mode < VFS_POS_FIRST) return 0;
        if (key_number_check(file, call.arguments.key_number) == -1) return -1;
        work->key_number = call.arguments.key_number;
        return 0;
    }
    if (call.mode >= VFS_POS_BEFORE_FIRST && call.mode <= VFS_POS_UNDEFINED) return fail(EINVAL);
    work->relation = VFS_EQUAL;
    if (call.mode == VFS_POS_RRN || call.mode == VFS_POS_KEY) {
        work->flags = static_cast<uint8_t>(work->flags & ~VFS_FLAG_AT_END);
        const uint64_t length = call.arguments.key != nullptr || call.record == nullptr ? 0
                                : call.arguments.key_length != 0                        ? call.arguments.key_length
                                                                                        : call.record->length;
        return key_from_arguments(call, work, call.record != nullptr ? call.record->bytes : nullptr, length);
    }
    return 0;
}

// The first step after start returns the record that start found, if it is still there.
int started_record(vfs_file *file, vfs_request *work, bool *there)
{
    *there = false;
    const file_position &position = file->position;
    if (!position.started || position.side != position_side::entry) return 0;
    if (file->trees() && position_follow(file, work) == -1) return -1;
    if (position.side != position_side::entry) return 0; // removed, or given another key
    vfs_request found = *work;
    found.record_offset = position.record_offset;
    const int still = record_still_there(file, &found, position.rrn);
    if (still != 1) return still;
    found.key_number = position.key_number;
    found.node = position.node;
    found.item = position.item;
    found.stamp = position.stamp;
    if (file->indexed()) std::memcpy(work->key, position.key, round_up(key_length_of(file, position.key_number), 8));
    *work = found;
    *there = true;
    return 0;
}

int position_for_read(const operation_call &call, vfs_request *work)
{
    vfs_file *file = call.file;
    if (apply_mode(call, work) == -1) return -1;
    if (work->mode <= VFS_POS_PREV) {
        bool there;
        if (started_record(file, work, &there) == -1) return -1;
        if (there) return 0;
    }
    if (work->mode == VFS_POS_CURRENT) return current_with_cursor(file, work);
    work->flags = static_cast<uint8_t>(work->flags & ~VFS_FLAG_DUPLICATE);
    if (work->mode >= VFS_POS_FIRST) skip_clear(work);
    return position_request(file, work);
}

bool at_end(const vfs_request &work)
{
    return (work.flags & VFS_FLAG_AT_END) != 0;
}

// Records that others hold locked are stepped over: the file position goes along. When nothing is delivered in the end
// it is again where it was, so that the next read tries again from the same place.
class stepping_over {
public:
    explicit stepping_over(vfs_file *file) : file_(file), begin_{} {}

    void record(vfs_request *work, const operation_lock &lock)
    {
        if (!stepped_) {
            begin_ = file_->position;
            std::memcpy(file_->old_key, begin_.key, file_->key_buffer_bytes);
        }
        stepped_ = true;
        if (lock.left_bracket) work->node = work->item = begin_.node = begin_.item = none;
        position_save(file_, work);
    }
    void take_back()
    {
        if (!stepped_) return;
        file_->position = begin_;
        std::memcpy(begin_.key, file_->old_key, file_->key_buffer_bytes);
    }

private:
    vfs_file *file_;
    file_position begin_;
    bool stepped_ = false;
};

int duplicates_of_reference(vfs_file *file, vfs_request *work)
{
    const bool asked = work->mode <= VFS_POS_LAST || work->mode == VFS_POS_RRN || work->mode == VFS_POS_KEY;
    if (!asked || !key_allows_duplicates(file, work->key_number)) return 0;
    vfs_request copy = *work;
    if (copy.node == none && tree_seek_record(file, &copy) != 0) return 0;
    copy.stamp = work->stamp; // a browse does not see what came in since it began
    if (key_duplicate(file, &copy) == -1) return -1;
    work->flags = static_cast<uint8_t>((work->flags & ~VFS_FLAG_DUPLICATE) | (copy.flags & VFS_FLAG_DUPLICATE));
    return 0;
}

// The saved blocks and the file position after a read that found a record.
void save_record(vfs_file *file, vfs_request *work)
{
    if ((work->flags & VFS_FLAG_BROWSE) != 0) work->stamp = file->position.stamp;
    save_last(file, *work);
    save_current(file, *work);
    position_save(file, work);
}

void save_end(const operation_call &call, const vfs_request &work)
{
    vfs_file *file = call.file;
    save_last(file, work);
    save_current(file, work);
    switch (work.mode) {
    case VFS_POS_AFTER_LAST: position_at_end(file, position_end::last); return;
    case VFS_POS_BEFORE_FIRST: position_at_end(file, position_end::first); return;
    case VFS_POS_FIRST:
    case VFS_POS_LAST:
    case VFS_POS_END:
        position_to_end(file, work.mode == VFS_POS_FIRST ? position_end::first : position_end::last, work.key_number);
        return;
    default: break;
    }
    // A key that is not there: the position is the gap where it would stand, and the key is kept.
    file->current.mode = file->last.mode = VFS_POS_UNDEFINED;
    file->current.record_offset = file->last.record_offset = none;
    if (file->trees()) position_to_gap(file, &work);
}

int64_t end_of_read(const operation_call &call, vfs_request *work)
{
    work->flags2 = static_cast<uint8_t>(work->flags2 & ~VFS_FLAG2_REREAD);
    skip_clear(work);
    if (call.mode == VFS_POS_RRN) {
        errno = ESPIPE;
        return operation_failed(call.file, *work, true);
    }
    save_end(call, *work);
    if (bracket_end(call.file) == -1) return operation_failed(call.file, *work, true);
    if (status_fill(call, work, false) == -1) return -1;
    errno = ESPIPE;
    return 0;
}

// The record is found and locked: -1 or its length.
int64_t deliver(const operation_call &call, vfs_request *work, operation_lock *lock)
{
    vfs_file *file = call.file;
    if (file->indexed() && duplicates_of_reference(file, work) == -1) return -1;
    work->flags2 = static_cast<uint8_t>(work->flags2 & ~VFS_FLAG2_REREAD);
    const int64_t length = record_read(file, work);
    if (length == -1) return -1;
    if (call.lock->hold == 0) record_unlock(lock);
    save_record(file, work);
    return length;
}

int64_t read_record(const operation_call &call)
{
    vfs_file *file = call.file;
    vfs_request work = read_request(call);
    if (open_check(file) == -1 || bracket_begin(file, false) == -1) return operation_failed(file, work, true);

    operation_lock lock;
    stepping_over locked_ones(file);
    for (;;) {
        work = read_request(call);
        if (position_for_read(call, &work) == -1) break;
        if (at_end(work)) {
            record_unlock(&lock);
            return end_of_read(call, &work);
        }
        const lock_outcome outcome = is_shared(file) ? record_lock(call, work, &lock) : lock_outcome::held;
        if (outcome == lock_outcome::skipped) locked_ones.record(&work, lock);
        if (outcome == lock_outcome::failed) break;
        if (outcome != lock_outcome::held) continue;
        const int64_t length = deliver(call, &work, &lock);
        if (length == -1) break;
        if (file->acquired && bracket_end(file) == -1) break;
        if (status_fill(call, &work, true) == -1) return -1;
        if (length == 0) errno = 0;
        return length;
    }
    record_unlock(&lock);
    locked_ones.take_back();
    return operation_failed(file, work, true);
}

} // namespace

int64_t operation_read(vfs_file *file, vfs_record *record, void *, vfs_status *status, const vfs_lock_request *lock,
                       int32_t mode, ...)
{
    if (handle_check(file) == -1) return -1;
    const int64_t length = read_beside(file, record, status, mode);
    if (length >= 0) return length;
    va_list arguments;
    va_start(arguments, mode);
    const int64_t result =
        operate({VFS_OP_READ, argument_form::read, read_record}, file, record, status, lock, mode, &arguments);
    va_end(arguments);
    return result;
}
