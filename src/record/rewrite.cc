// rewrite: replace a record; where key values change, its index entries; where it outgrows its slot, its place.
//
// Order in tree files, so that a failure can be taken back and a record is never without an entry: the new copy (when
// the record moves), the entries of new key values, the addresses of entries that stay, the removal of old entries,
// the record in place (when it stays), and last the old slot.
#include "record/locking.h"
#include "record/operations.h"
#include "record/positioning.h"
#include "util/errors.h"

#include <cstdio>

namespace {

vfs_request rewrite_request(const operation_call &call)
{
    vfs_request work = working_request(call);
    work.flags = static_cast<uint8_t>(work.flags & ~(VFS_FLAG_CURRENT | VFS_FLAG_DUPLICATE | VFS_FLAG_BROWSE));
    work.flags |= call.file->current.flags & VFS_FLAG_BROWSE;
    return work;
}

int open_check(const operation_call &call)
{
    const vfs_file *file = call.file;
    if (file->error != 0) return fail(static_cast<int>(file->error));
    if (is_read_only(file)) return fail(EROFS);
    if (call.record == nullptr || (call.record->bytes == nullptr && call.record->length != 0)) return fail(EINVAL);
    if (file->fixed_length() && call.record->length != file->maximum_record) return fail(ERANGE);
    return 0;
}

int position_for_rewrite(const operation_call &call, vfs_request *work)
{
    if (one_record_named(call) == -1) return -1;
    if (call.mode == VFS_POS_KEY) {
        const uint64_t length = call.arguments.key_length != 0 ? call.arguments.key_length : work->record_length;
        if (key_from_arguments(call, work, work->record, length) == -1) return -1;
    } else if (key_from_arguments(call, work, nullptr, 0) == -1) {
        return -1;
    }
    return record_wanted(call, work);
}

// ---- Tree files ----

// One index entry: a key request for key k, its value in `key`.
vfs_request entry_request(const vfs_request &work, uint64_t k, void *key)
{
    vfs_request entry = work;
    entry.key_number = k;
    entry.key = key;
    entry.flags = static_cast<uint8_t>(entry.flags & ~VFS_FLAG_DUPLICATE);
    return entry;
}

struct key_values {
    vfs_request fresh, stored; // value in the new record, value in the stored one
};

int load_values(vfs_file *file, const vfs_request &work, uint64_t k, key_values *values)
{
    values->fresh = entry_request(work, k, file->scratch_key);
    values->stored = entry_request(work, k, file->old_key);
    if (key_extract(file, &values->fresh, work.record, work.record_length) == -1) return -1;
    return key_load(file, &values->stored);
}

// Which keys change, and whether they may.
int check_keys(vfs_file *file, vfs_request *work)
{
    work->flags2 |= VFS_FLAG2_NO_KEY_CHANGE;
    for (uint64_t k = 0; k < file->key_count; ++k) {
        key_values values;
        if (load_values(file, *work, k, &values) == -1) return -1;
        const bool changed = key_compare(file, k, values.fresh.key, values.stored.key) != 0;
        const bool duplicates = key_allows_duplicates(file, k);
        file->changed_keys[k] = changed;
        if (!changed && !duplicates) continue;
        if (changed) {
            if (k == file->primary_key && file->access_mode == VFS_ACCESS_SEQUENTIAL) return fail(EEXIST);
            work->flags2 = static_cast<uint8_t>(work->flags2 & ~VFS_FLAG2_NO_KEY_CHANGE);
        }
        values.fresh.relation = VFS_EQUAL;
        const int found = key_find(file, &values.fresh);
        if (found == -1 && errno != ESPIPE) return -1;
        if (found == -1) continue;
        if (changed && !duplicates) return fail(EADDRINUSE);
        if (changed) {
            work->flags |= VFS_FLAG_DUPLICATE;
            continue;
        }
        if (key_duplicate(file, &values.fresh) == -1) return -1;
        work->flags |= values.fresh.flags & VFS_FLAG_DUPLICATE;
    }
    return 0;
}

// What has been done to the index so far, to be taken back on failure.
struct index_change {
    uint64_t home, place;                              // the record's slot before and after
    uint64_t inserted = 0, repointed = 0, removed = 0; // keys below these numbers are done
};

int insert_fresh(vfs_file *file, vfs_request *work, index_change *change)
{
    for (uint64_t k = 0; k < file->key_count; ++k, change->inserted = k) {
        if (file->changed_keys[k] == 0) continue;
        vfs_request entry = entry_request(*work, k, file->scratch_key);
        entry.record_offset = change->place;
        if (key_extract(file, &entry, work->record, work->record_length) == -1) return -1;
        if (key_insert(file, &entry) == -1) {
            if (errno != EADDRINUSE) change->inserted = k + 1; // it may have got in before the failure
            return -1;
        }
        if (k != work->key_number) continue;
        work->node = entry.node;
        work->item = entry.item;
        work->stamp = entry.stamp;
    }
    return 0;
}

// An entry that should have been there. Where another record has the value by now, it stays missing.
int put_entry_back(vfs_file *file, vfs_request *entry, uint64_t place)
{
    entry->record_offset = place;
    entry->flags = static_cast<uint8_t>(entry->flags & ~VFS_FLAG_BROWSE);
    return key_insert(file, entry) == 0 || errno == EADDRINUSE ? 0 : -1;
}

int repoint_kept(vfs_file *file, const vfs_request &stored, index_change *change)
{
    if (change->place == change->home) return 0;
    for (uint64_t k = 0; k < file->tree_count; ++k, change->repointed = k) {
        if (file->indexed() && file->changed_keys[k] != 0) continue;
        vfs_request entry = entry_request(stored, k, file->old_key);
        if (file->indexed() && key_load(file, &entry) == -1) return -1;
        if (key_repoint(file, &entry, change->place) == 0) continue;
        if (errno != ESPIPE) return -1;
        if (put_entry_back(file, &entry, change->place) == -1) {
            change->repointed = k + 1; // it may have got in before the failure
            return -1;
        }
    }
    return 0;
}

int remove_stored(vfs_file *file, const vfs_request &stored, index_change *change)
{
    for (uint64_t k = 0; k < file->key_count; ++k, change->removed = k) {
        if (file->changed_keys[k] == 0) continue;
        vfs_request entry = entry_request(stored, k, file->old_key);
        if (key_load(file, &entry) == -1) return -1;
        if (key_delete(file, &entry) == -1 && errno != ESPIPE) {
            change->removed = k + 1; // it may have gone before the failure
            return -1;
        }
    }
    return 0;
}

// The error that led here is the one that is reported. (In a shared file what failed is dropped as a
// whole.)
void take_back(vfs_file *file, const vfs_request &work, const vfs_request &stored, const index_change &change)
{
    const int cause = errno;
    for (uint64_t k = 0; k < change.removed; ++k) {
        vfs_request entry = entry_request(stored, k, file->old_key);
        if (file->changed_keys[k] == 0) continue;
        const int loaded = key_load(file, &entry);
        step_taken_back(file, loaded == 0 ? key_put_back(file, &entry) : -1, EADDRINUSE);
    }
    for (uint64_t k = 0; k < change.repointed; ++k) {
        if (file->indexed() && file->changed_keys[k] != 0) continue;
        vfs_request entry = entry_request(stored, k, file->old_key);
        const bool known = !file->indexed() || key_load(file, &entry) == 0;
        entry.record_offset = change.place;
        step_taken_back(file, known ? key_repoint(file, &entry, change.home) : -1, ESPIPE);
    }
    for (uint64_t k = 0; k < change.inserted; ++k) {
        if (file->changed_keys[k] == 0) continue;
        vfs_request entry = entry_request(work, k, file->scratch_key);
        entry.record_offset = change.place;
        const bool known = key_extract(file, &entry, work.record, work.record_length) == 0;
        step_taken_back(file, known ? key_delete(file, &entry) : -1, ESPIPE);
    }
    if (change.place != change.home) slot_taken_back(file, change.place);
    errno = cause;
}

// The new copy of a record that outgrew its slot, in the file before anything leads to it.
int write_copy(vfs_file *file, const vfs_request &work, vfs_request *copy)
{
    *copy = work;
    if (slot_list_prepare(file) == -1 || slot_choose(file, copy) == -1) return -1;
    copy->record_state = item_relocated;
    if (record_write_new(file, copy) != -1 && copy_reaches_file(file, copy->record_offset, copy->stored_length) == 0)
        return 0;
    const int cause = errno;
    if (copy->record_offset < file->end_of_file) slot_taken_back(file, copy->record_offset);
    return fail(cause);
}

// The file position went along with its index entry.
void current_moved(vfs_file *file, uint64_t home, const vfs_request &copy)
{
    if (file->current.record_offset != home) return;
    file->current.record_offset = copy.record_offset;
    file->current.stored_length = copy.stored_length;
    file->current.data_offset = copy.data_offset;
}

// The index leads to the copy, and the old slot goes. In a shared file an operation that fails here is dropped as a
// whole; elsewhere the space of a slot that cannot be listed is lost, and nothing else.
int leave_home(const operation_call &call, vfs_request *work, vfs_request *copy)
{
    vfs_file *file = call.file;
    ++file->dsn;
    if (!is_shared(file))
        slot_taken_back(file, work->record_offset);
    else if (slot_free(file, work->record_offset) == -1)
        return -1;
    current_moved(file, work->record_offset, *copy);
    copy->node = work->node;
    copy->item = work->item;
    copy->stamp = work->stamp;
    copy->flags = work->flags;
    *work = *copy;
    return 0;
}

int64_t rewrite_in_trees(const operation_call &call, vfs_request *work, operation_lock *lock)
{
    vfs_file *file = call.file;
    if (change_begin(file) == -1) return -1;
    const bool sequence_lost =
        file->indexed() && file->changed_keys[file->primary_key] != 0 && is_sequence_key(file, *work);
    const vfs_request stored = *work;
    const uint64_t end = file->end_of_file;
    const bool moves = slot_bytes(work->record_length) > work->stored_length;
    vfs_request copy = *work;
    if (moves && write_copy(file, *work, &copy) == -1) return -1;

    index_change change{stored.record_offset, copy.record_offset};
    int64_t length = static_cast<int64_t>(work->record_length);
    bool done = !file->indexed() || insert_fresh(file, work, &change) == 0;
    done = done && repoint_kept(file, stored, &change) == 0;
    done = done && (!file->indexed() || remove_stored(file, stored, &change) == 0);
    if (done && !moves) done = (length = record_rewrite_in_place(file, work)) != -1;
    if (!done) {
        if (!is_shared(file)) take_back(file, *work, stored, change);
        return -1;
    }
    if (sequence_lost) file->sequence_key_known = false;
    count_change(file, copy.record_offset);
    if (moves && leave_home(call, work, &copy) == -1) return -1;
    if (!moves && file->end_of_file == end) return length;
    // Making room for index blocks may have grown the slot.
    slot_head head;
    if (slot_head_read(file, work->record_offset, &head) == 0) work->stored_length = head.stored_length;
    return record_lock_move(call, stored, *work, lock) == 0 ? length : -1;
}

int64_t rewrite_in_flat_file(vfs_file *file, vfs_request *work)
{
    if (change_begin(file) == -1) return -1;
    const int64_t length = record_rewrite(file, work);
    if (length != -1) count_change(file, work->record_offset);
    return length;
}

int64_t rewrite_failed(const operation_call &call, const vfs_request &work)
{
    if (call.file->debug) {
        const int cause = errno;
        std::fprintf(stderr, "Rewrite failed %d rrn %ld key %s\n", cause, static_cast<long>(work.rrn),
                     static_cast<const char *>(work.key));
        errno = cause;
    }
    return operation_failed(call.file, work, false);
}

int64_t replace(const operation_call &call, vfs_request *work, operation_lock *lock)
{
    vfs_file *file = call.file;
    if (!file->trees()) return rewrite_in_flat_file(file, work);
    const int64_t length = rewrite_in_trees(call, work, lock);
    if (length == -1 || !file->indexed()) return length;
    return key_extract(file, work, work->record, work->record_length) == -1 ? -1 : length;
}

int64_t rewrite_record(const operation_call &call)
{
    vfs_file *file = call.file;
    vfs_request work = rewrite_request(call);
    if (open_check(call) == -1) return rewrite_failed(call, work);
    if (bracket_begin(file, true) == -1) return rewrite_failed(call, work);
    operation_lock lock;
    lock_outcome outcome;
    do {
        work = rewrite_request(call);
        const bool ready = position_for_rewrite(call, &work) == 0 && (!file->indexed() || check_keys(file, &work) == 0);
        outcome = ready ? record_lock(call, work, &lock) : lock_outcome::failed;
    } while (outcome == lock_outcome::again);
    const int64_t length = outcome == lock_outcome::failed ? -1 : replace(call, &work, &lock);
    if (length == -1) {
        record_unlock(&lock);
        return rewrite_failed(call, work);
    }
    if (bracket_publish(file) == -1) {
        record_unlock(&lock);
        return rewrite_failed(call, work);
    }
    save_last(file, work);
    record_lock_settle(call, &lock);
    if (bracket_end(file) == -1 || change_end(file) == -1) return rewrite_failed(call, work);
    if (status_fill(call, &work, true) == -1) return -1;
    return length;
}

} // namespace

int64_t operation_rewrite(vfs_file *file, vfs_record *record, void *, vfs_status *status, const vfs_lock_request *lock,
                          int32_t mode, ...)
{
    va_list arguments;
    va_start(arguments, mode);
    const int64_t result =
        operate({VFS_OP_REWRITE, argument_form::plain, rewrite_record}, file, record, status, lock, mode, &arguments);
    va_end(arguments);
    return result;
}
