// write: place the record, store it, index it. On any failure after it is stored everything is undone but the slot,
// which is left free.
#include "io/file_calls.h"
#include "record/locking.h"
#include "record/operations.h"
#include "record/positioning.h"
#include "util/errors.h"
#include "util/scope_guard.h"

#include <cstdio>
#include <sys/resource.h>

namespace {

constexpr uint8_t kept_flags = VFS_FLAG_AT_END | VFS_FLAG_SEQUENTIAL | 0x08 | 0x01;

vfs_request write_request(const operation_call &call)
{
    vfs_request work = working_request(call);
    work.flags = static_cast<uint8_t>(work.flags & (kept_flags | VFS_FLAG_STATUS));
    work.flags |= call.file->current.flags & VFS_FLAG_BROWSE;
    return work;
}

int open_check(const operation_call &call)
{
    const vfs_file *file = call.file;
    if (is_read_only(file)) return fail(EROFS);
    if (file->error != 0) return fail(static_cast<int>(file->error));
    if (call.record == nullptr || (call.record->bytes == nullptr && call.record->length != 0)) return fail(EINVAL);
    if (file->fixed_length() && call.record->length != file->maximum_record) return fail(ERANGE);
    if (call.record->length > static_cast<uint64_t>(INT64_MAX) / 4) return fail(EFBIG);
    return 0;
}

int mode_check(const operation_call &call)
{
    if (mode_known(call) == -1) return -1;
    if (call.mode >= VFS_POS_BEFORE_FIRST) return fail(EINVAL);
    return call.mode == VFS_POS_CURRENT && call.file->last.mode == VFS_POS_UNDEFINED ? fail(EINVAL) : 0;
}

// Where the operation stood before it changed anything.
struct write_undo {
    uint64_t highest_rrn, end_of_file, deleted, records;
    uint64_t keys_inserted = 0;
    bool slot_taken = false; // a free slot or hole, or the record is stored
    bool counted = false;
};

// ---- Tree files: always a free slot, a hole or the end ----

int sequence_check(vfs_file *file, vfs_request *work)
{
    vfs_request key = *work;
    key.key_number = file->primary_key;
    key.key = file->scratch_key;
    if (key_extract(file, &key, work->record, work->record_length) == -1) return -1;
    if (!file->sequence_key_known || key_compare(file, file->primary_key, key.key, file->sequence_key) >= 0) return 0;
    if (file->access_mode == VFS_ACCESS_SEQUENTIAL) return fail(EEXIST);
    leave_sequence(file);
    return 0;
}

int relative_number_check(vfs_file *file, vfs_request *work)
{
    if (file->highest_rrn == none || work->rrn > file->highest_rrn) return 0;
    if (file->access_mode == VFS_ACCESS_SEQUENTIAL && work->rrn < file->highest_rrn) return fail(EEXIST);
    vfs_request probe = *work;
    probe.mode = VFS_POS_RRN;
    if (record_locate_rrn(file, &probe) == -1) return -1;
    if ((probe.flags & VFS_FLAG_AT_END) == 0) return fail(EADDRINUSE);
    leave_sequence(file);
    return 0;
}

int place_in_trees(vfs_file *file, vfs_request *work)
{
    const bool numbered = !file->indexed() && work->mode == VFS_POS_RRN;
    if (work->rrn == none && numbered) return fail(EINVAL);
    if (file->indexed() && sequence_check(file, work) == -1) return -1;
    if (numbered && relative_number_check(file, work) == -1) return -1;
    if (!numbered && file->highest_rrn == none - 1) return fail(EFBIG); // every record number is used up
    if (!numbered) work->rrn = file->highest_rrn + 1;
    work->mode = VFS_POS_END;
    if (change_begin(file) == -1) return -1;
    return slot_choose(file, work);
}

// ---- Flat files ----

// Whether the slots up to `rrn` have room below the largest offset and the file size limit.
int gap_check(const vfs_file *file, uint64_t rrn)
{
    const uint64_t count = rrn - (file->highest_rrn + 1);
    const uint64_t slot = file->maximum_slot, room = static_cast<uint64_t>(INT64_MAX) - file->end_of_file;
    rlimit limit{};
    const bool limited = getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY;
    if (count >= room / slot - 1) return fail(EFBIG);
    if (limited && file->end_of_file + (count + 1) * slot > limit.rlim_cur) return fail(EFBIG);
    return 0;
}

// Free slots for the numbers between the last one and the one asked for.
int fill_gap(vfs_file *file, const vfs_request *work)
{
    const uint64_t first = file->highest_rrn + 1;
    vfs_request filler = *work;
    filler.stored_length = file->maximum_slot;
    filler.data_length = file->maximum_record;
    filler.record_state = item_deleted;
    for (filler.rrn = first; filler.rrn < work->rrn; ++filler.rrn) {
        filler.record_offset = file->end_of_file;
        if (record_write_frame(file, &filler) == -1) return -1;
        checkpoint_add(file, filler.rrn, filler.record_offset);
        ++file->deleted;
        file->highest_rrn = filler.rrn;
    }
    return 0;
}

int append(vfs_file *file, vfs_request *work, uint64_t rrn)
{
    work->mode = VFS_POS_END;
    work->rrn = rrn;
    work->record_state = state_unread;
    if (change_begin(file) == -1) return -1;
    return slot_choose(file, work);
}

int place_by_number(vfs_file *file, vfs_request *work)
{
    const uint64_t rrn = work->rrn;
    if (rrn == none) return fail(EFBIG);
    if (file->highest_rrn != none && rrn <= file->highest_rrn) {
        if (file->access_mode == VFS_ACCESS_SEQUENTIAL && rrn < file->highest_rrn) return fail(EEXIST);
        if (record_locate_rrn(file, work) == -1) return -1;
        if ((work->flags & VFS_FLAG_AT_END) == 0) return fail(EADDRINUSE);
        leave_sequence(file);
        work->flags = static_cast<uint8_t>(work->flags & ~VFS_FLAG_AT_END);
        if (work->record_state == item_deleted) return change_begin(file);
        return damaged(); // every number up to the highest has a slot
    }
    if (gap_check(file, rrn) == -1 || change_begin(file) == -1) return -1;
    if (rrn != file->highest_rrn + 1 && fill_gap(file, work) == -1) return -1;
    return append(file, work, rrn);
}

// Mode 5: the slot of the last request, live or free; at an end the record is appended.
int place_at_current(vfs_file *file, vfs_request *work)
{
    const uint8_t state = work->previous_mode;
    if (work->record_offset == none || state == VFS_POS_BEFORE_FIRST) return fail(EINVAL);
    if (state == VFS_POS_AFTER_LAST || (work->flags & VFS_FLAG_AT_END) != 0 || work->record_offset >= file->end_of_file)
        return append(file, work, file->highest_rrn + 1);
    const uint64_t rrn = work->rrn;
    if (record_head(file, work) == -1) return -1;
    const uint8_t type = work->record_state;
    if (work->rrn != rrn || (type != item_deleted && type != item_live && type != item_moved)) return fail(ESPIPE);
    return change_begin(file);
}

int place_in_flat_file(vfs_file *file, vfs_request *work)
{
    switch (work->mode) {
    case VFS_POS_CURRENT: return place_at_current(file, work);
    case VFS_POS_RRN: return place_by_number(file, work);
    case VFS_POS_END: return append(file, work, file->highest_rrn + 1);
    default:
        if (position_request(file, work) == -1) return -1;
        if ((work->flags & VFS_FLAG_AT_END) == 0) return fail(EADDRINUSE);
        work->flags = static_cast<uint8_t>(work->flags & ~VFS_FLAG_AT_END);
        return append(file, work, file->highest_rrn + 1);
    }
}

// Into the slot that is there already, which keeps its length; the record moves away when it does not fit.
int64_t store_in_slot(vfs_file *file, vfs_request *work, bool *was_live)
{
    *was_live = work->record_state == item_live || work->record_state == item_moved;
    if (!*was_live) work->record_state = item_live;
    return record_rewrite(file, work);
}

// ---- Keys ----

int insert_keys(vfs_file *file, vfs_request *work, write_undo *undo)
{
    const uint64_t reference = work->key_number;
    for (uint64_t k = 0; k < file->key_count; ++k) {
        vfs_request key = *work;
        key.key_number = k;
        key.key = k == reference ? work->key : file->scratch_key;
        key.flags = static_cast<uint8_t>(key.flags & ~(VFS_FLAG_DUPLICATE | VFS_FLAG_BROWSE));
        if (k == file->current.key_number) key.flags |= work->flags & VFS_FLAG_BROWSE;
        if (key_extract(file, &key, work->record, work->record_length) == -1) return -1;
        if (key_insert(file, &key) == -1) {
            if (errno != EADDRINUSE) undo->keys_inserted = k + 1; // it may have got in before the failure
            work->flags |= key.flags & VFS_FLAG_DUPLICATE;
            return -1;
        }
        undo->keys_inserted = k + 1;
        work->flags |= key.flags & VFS_FLAG_DUPLICATE;
        if (k != reference) continue;
        work->key_length = key.key_length;
        work->node = key.node;
        work->item = key.item;
        work->stamp = key.stamp;
    }
    return 0;
}

void remove_keys(vfs_file *file, const vfs_request &work, uint64_t count)
{
    for (uint64_t k = 0; k < count; ++k) {
        vfs_request key = work;
        key.key_number = k;
        key.key = file->scratch_key;
        const bool known = !file->indexed() || key_extract(file, &key, work.record, work.record_length) == 0;
        step_taken_back(file, known ? key_delete(file, &key) : -1, ESPIPE);
    }
}

// Leaves the place of a record that could not be kept as a free slot, and every counter as it was. (In a shared file
// what failed is dropped as a whole.)
void undo_write(vfs_file *file, const vfs_request &work, const write_undo &undo)
{
    const int cause = errno;
    if (file->trees()) {
        remove_keys(file, work, undo.keys_inserted);
        if (undo.slot_taken && work.record_offset < file->end_of_file) slot_taken_back(file, work.record_offset);
    } else {
        end_cut(file, undo.end_of_file, undo.highest_rrn);
        file->deleted = undo.deleted;
    }
    file->records = undo.records;
    file->highest_rrn = undo.highest_rrn;
    errno = cause;
}

// ---- The operation ----

int64_t store(const operation_call &call, vfs_request *work, write_undo *undo)
{
    vfs_file *file = call.file;
    bool was_live = false;
    const bool into_slot = !file->trees() && work->record_offset < file->end_of_file;
    const bool was_deleted = into_slot && work->record_state == item_deleted;
    int64_t length;
    if (into_slot) {
        length = store_in_slot(file, work, &was_live);
    } else {
        work->record_state = item_live;
        length = record_write_new(file, work);
    }
    if (length == -1) return -1;
    undo->slot_taken = true;
    work->flags = static_cast<uint8_t>(work->flags & ~VFS_FLAG_AT_END); // the request stands on a record now
    count_change(file, work->record_offset);
    if (was_deleted && file->deleted != 0) --file->deleted;
    if (!was_live) ++file->records;
    if (file->highest_rrn == none || work->rrn > file->highest_rrn) file->highest_rrn = work->rrn;
    if (!file->trees()) checkpoint_add(file, work->rrn, work->record_offset);
    return length;
}

int index(vfs_file *file, vfs_request *work, write_undo *undo)
{
    if (!file->trees()) return 0;
    if (file->indexed()) return insert_keys(file, work, undo);
    work->key_number = 0;
    if (key_insert(file, work) == -1) return -1;
    undo->keys_inserted = 1;
    return 0;
}

void remember_sequence(vfs_file *file, const vfs_request &work, bool appended)
{
    if (!file->indexed() || !appended) return;
    vfs_request key = work;
    key.key_number = file->primary_key;
    key.key = file->sequence_key;
    file->sequence_key_known = key_extract(file, &key, work.record, work.record_length) == 0;
}

int64_t write_failed(const operation_call &call, const vfs_request &work)
{
    if (call.file->debug) {
        const int cause = errno;
        std::fprintf(stderr, "Write failed %d roffset 0x%lx rrn %ld key %s\n", cause, work.record_offset,
                     static_cast<long>(work.rrn), static_cast<const char *>(work.key));
        errno = cause;
    }
    return operation_failed(call.file, work, false);
}

// A place of the record's own. The new record is nobody else's yet: a free slot that somebody holds locked, for the
// sake of a record that was there, is left alone.
lock_outcome lock_place(const operation_call &call, vfs_request *work, write_undo *undo, operation_lock *lock)
{
    vfs_file *file = call.file;
    if (file->lock_defaults.lock_mode != VFS_LOCK_RECORD) return lock_outcome::held;
    if (undo->slot_taken && record_lock_try(call, *work, lock) == -1) {
        if (errno != EAGAIN || slot_free(file, work->record_offset) == -1) return lock_outcome::failed;
        undo->slot_taken = false;
        work->record_offset = file->end_of_file;
        work->stored_length = slot_bytes(work->record_length);
    }
    return record_lock(call, *work, lock);
}

lock_outcome choose_place(const operation_call &call, vfs_request *work, write_undo *undo, operation_lock *lock)
{
    vfs_file *file = call.file;
    *work = write_request(call);
    *undo = {file->highest_rrn, file->end_of_file, file->deleted, file->records};
    if (key_from_arguments(call, work, work->record, work->record_length) == -1) return lock_outcome::failed;
    if ((file->trees() ? place_in_trees(file, work) : place_in_flat_file(file, work)) == -1)
        return lock_outcome::failed;
    undo->slot_taken = file->trees() && work->record_offset < file->end_of_file;
    return lock_place(call, work, undo, lock);
}

// Making room for index blocks may have grown the last slot of the file, after it was locked.
int follow_growth(const operation_call &call, vfs_request *work, operation_lock *lock)
{
    slot_head head;
    if (slot_head_read(call.file, work->record_offset, &head) == -1) return -1;
    const vfs_request before = *work;
    work->stored_length = head.stored_length;
    return record_lock_move(call, before, *work, lock);
}

int64_t write_placed(const operation_call &call, vfs_request *work, write_undo *undo, operation_lock *lock)
{
    vfs_file *file = call.file;
    const bool appended = work->record_offset >= file->end_of_file;
    const int64_t length = store(call, work, undo);
    const uint64_t end = file->end_of_file;
    if (length == -1 || index(file, work, undo) == -1) return -1;
    if (file->end_of_file != end && follow_growth(call, work, lock) == -1) return -1;
    remember_sequence(file, *work, appended);
    return length;
}

int64_t write_record(const operation_call &call)
{
    vfs_file *file = call.file;
    vfs_request work = write_request(call);
    if (open_check(call) == -1 || mode_check(call) == -1) return write_failed(call, work);
    if (bracket_begin(file, true) == -1) return write_failed(call, work);

    write_undo undo{};
    operation_lock lock;
    lock_outcome outcome;
    do {
        outcome = choose_place(call, &work, &undo, &lock);
    } while (outcome == lock_outcome::again);
    const int64_t length = outcome == lock_outcome::held ? write_placed(call, &work, &undo, &lock) : -1;
    if (length == -1) {
        if (!is_shared(file)) undo_write(file, work, undo);
        record_unlock(&lock);
        return write_failed(call, work);
    }
    if (bracket_publish(file) == -1) {
        record_unlock(&lock);
        return write_failed(call, work);
    }
    save_last(file, work);
    record_lock_settle(call, &lock);
    if (bracket_end(file) == -1 || change_end(file) == -1) return write_failed(call, work);
    if (status_fill(call, &work, true) == -1) return write_failed(call, work);
    return length;
}

} // namespace

int64_t operation_write(vfs_file *file, vfs_record *record, void *, vfs_status *status, const vfs_lock_request *lock,
                        int32_t mode, ...)
{
    va_list arguments;
    va_start(arguments, mode);
    const int64_t result =
        operate({VFS_OP_WRITE, argument_form::plain, write_record}, file, record, status, lock, mode, &arguments);
    va_end(arguments);
    return result;
}
