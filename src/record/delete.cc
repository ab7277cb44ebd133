// delete: remove every index entry of a record, then the record. What has been removed is put back on failure.
#include "record/locking.h"
#include "record/operations.h"
#include "record/positioning.h"
#include "util/errors.h"

#include <cstdio>

namespace {

vfs_request delete_request(const operation_call &call)
{
    vfs_request work = working_request(call);
    work.flags = static_cast<uint8_t>(work.flags & ~(VFS_FLAG_CURRENT | VFS_FLAG_DUPLICATE | VFS_FLAG_BROWSE));
    work.flags |= call.file->current.flags & VFS_FLAG_BROWSE;
    return work;
}

int position_for_delete(const operation_call &call, vfs_request *work)
{
    if (one_record_named(call) == -1) return -1;
    const uint64_t length = call.arguments.key_length != 0 ? call.arguments.key_length : work->record_length;
    if (key_from_arguments(call, work, work->record, length) == -1) return -1;
    return record_wanted(call, work);
}

// ---- Tree files ----

int load_entry(vfs_file *file, const vfs_request &work, uint64_t k, vfs_request *entry)
{
    *entry = work;
    entry->key_number = k;
    entry->key = file->old_key;
    return file->indexed() ? key_load(file, entry) : 0;
}

int remove_entries(vfs_file *file, const vfs_request &work, uint64_t *removed)
{
    for (uint64_t k = 0; k < file->tree_count; ++k, *removed = k) {
        vfs_request entry;
        if (load_entry(file, work, k, &entry) == -1) return -1;
        // A missing entry does not keep a half-indexed record alive.
        if (key_delete(file, &entry) == -1 && errno != ESPIPE) {
            *removed = k + 1; // it may have gone before the failure
            return -1;
        }
    }
    return 0;
}

void put_entries_back(vfs_file *file, const vfs_request &work, uint64_t removed)
{
    const int cause = errno;
    for (uint64_t k = 0; k < removed; ++k) {
        vfs_request entry;
        const int loaded = load_entry(file, work, k, &entry);
        step_taken_back(file, loaded == 0 ? key_put_back(file, &entry) : -1, EADDRINUSE);
    }
    errno = cause;
}

int delete_in_trees(vfs_file *file, vfs_request *work)
{
    if (slot_list_prepare(file) == -1) return -1;
    const bool sequence_lost = is_sequence_key(file, *work);
    uint64_t removed = 0;
    if (remove_entries(file, *work, &removed) == -1 ||
        slot_free(file, work->record_offset, unlisted_slot::refused) == -1) {
        if (!is_shared(file)) put_entries_back(file, *work, removed);
        return -1;
    }
    if (sequence_lost) file->sequence_key_known = false;
    work->node = work->item = none;
    return 0;
}

// ---- Flat files ----

int mark_deleted(vfs_file *file, uint64_t offset, uint64_t rrn)
{
    slot_head head;
    if (slot_head_read(file, offset, &head) == -1) return -1;
    return slot_head_write(file, offset, {head.stored_length, 0, rrn, item_deleted});
}

int delete_in_flat_file(vfs_file *file, vfs_request *work)
{
    const bool moved = work->record_state == item_moved;
    const bool last = work->record_offset + work->stored_length == file->end_of_file;
    if (last && !moved && !is_shared(file)) { // in a shared file another handle may stand on it
        // Behind the end it would be a record again to whoever has to go by the items alone.
        if (mark_deleted(file, work->record_offset, work->rrn) == -1) return -1;
        // Every number below the last one has a slot, so the one before it is the highest now (none before 0).
        end_cut(file, work->record_offset, work->rrn - 1);
        return 0;
    }
    if (mark_deleted(file, work->record_offset, work->rrn) == -1) return -1;
    ++file->deleted;
    // Nothing leads to the moved copy any more: whether its slot can be marked changes nothing for the record.
    if (moved) (void)mark_deleted(file, work->data_offset - slot_head_bytes, work->rrn);
    if (moved && file->moved != 0) --file->moved;
    return 0;
}

// ---- The operation ----

int64_t delete_failed(const operation_call &call, const vfs_request &work)
{
    if (call.file->debug) {
        const int cause = errno;
        std::fprintf(stderr, "Delete failed %d pos %d  rrn %ld key %s\n", cause, work.mode, static_cast<long>(work.rrn),
                     static_cast<const char *>(work.key));
        errno = cause;
    }
    return operation_failed(call.file, work, false);
}

int remove_record(vfs_file *file, vfs_request *work)
{
    if (change_begin(file) == -1) return -1;
    if ((file->trees() ? delete_in_trees(file, work) : delete_in_flat_file(file, work)) == -1) return -1;
    work->record_state = item_deleted;
    count_change(file, work->record_offset);
    if (file->records != 0) --file->records;
    return 0;
}

int64_t delete_record(const operation_call &call)
{
    vfs_file *file = call.file;
    vfs_request work = delete_request(call);
    if (file->error != 0) {
        errno = static_cast<int>(file->error);
        return delete_failed(call, work);
    }
    if (is_read_only(file)) {
        errno = EROFS;
        return delete_failed(call, work);
    }
    if (bracket_begin(file, true) == -1) return delete_failed(call, work);
    operation_lock lock;
    lock_outcome outcome;
    do {
        work = delete_request(call);
        outcome = position_for_delete(call, &work) == -1 ? lock_outcome::failed : record_lock(call, work, &lock);
    } while (outcome == lock_outcome::again);
    const bool deleted = outcome != lock_outcome::failed && remove_record(file, &work) == 0;
    if (!deleted) {
        record_unlock(&lock);
        return delete_failed(call, work);
    }
    if (bracket_publish(file) == -1) {
        record_unlock(&lock);
        return delete_failed(call, work);
    }
    save_last(file, work);
    record_unlock_all_of(call, work, &lock);
    if (bracket_end(file) == -1 || change_end(file) == -1) return delete_failed(call, work);
    if (status_fill(call, &work, true) == -1) return -1;
    return 0;
}

} // namespace

int64_t operation_delete(vfs_file *file, vfs_record *record, void *, vfs_status *status, const vfs_lock_request *lock,
                         int32_t mode, ...)
{
    va_list arguments;
    va_start(arguments, mode);
    const int64_t result =
        operate({VFS_OP_DELETE, argument_form::plain, delete_record}, file, record, status, lock, mode, &arguments);
    va_end(arguments);
    return result;
}
