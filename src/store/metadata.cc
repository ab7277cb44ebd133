// The bracket around the operations of a file that others may change between them. See header.h.
#include "io/file_calls.h"
#include "lock/lock.h"
#include "store/header.h"
#include "store/movement.h"
#include "store/redo.h"
#include "store/tree.h"
#include "util/errors.h"

namespace {

lock_target bracket_lock(vfs_file *file, bool change)
{
    lock_target target{.file = file, .counted = &file->meta, .write = change && !is_read_only(file)};
    if (!is_shared(file)) {
        target.kind = lock_file;
        target.write = !is_read_only(file);
        return target;
    }
    target.kind = lock_metadata;
    target.start = file->trees() ? metadata_byte : 0;
    target.length = file->trees() ? 1 : key_entry_bytes;
    return target;
}

// Compares what no operation changes in the header with what was read: when it differs, the file was made anew.
bool same_file(const vfs_file *file)
{
    const std::span<const std::byte> image = header_image(file);
    const auto same = [&](uint64_t from, uint64_t to) {
        return std::memcmp(image.data() + from, file->meta.header_copy + from, to - from) == 0;
    };
    if (!same(0, 40) || !same(88, 136) || !same(160, 200) || !same(208, 240)) return false;
    if (header_get(file, header_key_description) == 0) return true;
    const uint64_t table = header_get(file, header_key_table);
    return same(header_variable_part, table == 0 ? image.size() : table);
}

void sequence_key_reload(vfs_file *file)
{
    file->sequence_key_known = file->indexed() && file->records != 0 && file->sequence_key != nullptr;
    if (!file->sequence_key_known) return;
    std::memcpy(file->sequence_key, high_key(file, file->primary_key),
                key_entry_get(file, file->primary_key, key_entry_leaf_width));
}

// Where record numbers were met may be anywhere now; the distance between the remembered ones stays.
void checkpoints_forget(vfs_file *file)
{
    if (file->checkpoints != nullptr) std::memset(file->checkpoints + 8, 0, checkpoint_bytes - 8);
}

// The handle is as the file is: nothing that was changed since the bracket began has been written.
void changes_take_back(vfs_file *file)
{
    contexts_discard_changes(file);
    if (file->data.count != 0) cache_discard_changes(&file->data);
    cache_discard_changes(&file->meta);
    checkpoints_forget(file);
    dirty_remove(file->meta.hdrb);
    std::memcpy(file->meta.hdrb->data, file->meta.header_copy, file->meta.hdrb->size);
    header_load(file);
    remember_seen(file);
    sequence_key_reload(file);
    file->position = file->acquired_position; // the trees are as they were when it was taken
}

int store_damaged(vfs_file *file)
{
    store_error(file, ENOEXEC);
    return damaged();
}

} // namespace

void changes_drop(vfs_file *file)
{
    contexts_discard(file);
    if (file->data.count != 0) cache_discard(&file->data);
    if (file->meta.count != 0) cache_discard(&file->meta);
    if (file->meta.hdrb != nullptr) dirty_remove(file->meta.hdrb);
}

int metadata_refresh(vfs_file *file)
{
    vfs_buffer *header = file->meta.hdrb;
    // Whoever gave the lock away had published or dropped its changes.
    if (is_dirty(header)) return store_damaged(file);
    const int64_t got = file_read_at(file, file->meta.header_copy, header->size, 0);
    if (got == -1) return -1;
    file->meta.stats.bytes_read += static_cast<uint64_t>(got);
    if (static_cast<uint64_t>(got) != header->size) return fail(EINVAL);
    const uint64_t state =
        image_get(std::span<const std::byte>(file->meta.header_copy, header->size), header_state_word);
    if (redo_pending(state)) return fail(EINPROGRESS);
    // The usual case of a file that nobody else has changed: what was checked once is good.
    if (std::memcmp(header->data, file->meta.header_copy, header->size) == 0) return 0;
    if (!same_file(file)) {
        store_error(file, ESTALE);
        return fail(ESTALE);
    }
    std::memcpy(header->data, file->meta.header_copy, header->size);
    const int64_t tsn = file->tsn;
    const uint64_t dsn = file->dsn, asn = file->asn, end = file->end_of_file;
    // An unlocked handle looks while another may be writing: to it a marked session is no damage.
    const bool locked = file->lock_defaults.lock_mode >= VFS_LOCK_FILE;
    if (header_check_fixed(header_image(file), header_image(file).size()) == -1 ||
        (locked && session_check(file) == -1))
        return store_damaged(file);
    header_load(file);
    if (!file->physically_sequential) leave_sequence(file);
    remember_seen(file);
    if (header_check_keys(file) == -1) return store_damaged(file);
    const bool trees_changed = tsn != file->tsn;
    const bool data_changed = dsn != file->dsn || asn != file->asn || end != file->end_of_file;
    if (trees_changed) contexts_discard(file);
    if (trees_changed || data_changed) {
        cache_discard(&file->meta);
        sequence_key_reload(file);
    }
    if (data_changed) {
        cache_discard(&file->data);
        checkpoints_forget(file);
    }
    return 0;
}

int lock_and_refresh(vfs_file *file, const lock_target &target)
{
    for (;;) {
        if (lock_set(target) == -1) return -1;
        if (metadata_refresh(file) == 0) return 0;
        const int cause = errno;
        lock_clr(target);
        if (cause != EINPROGRESS) return fail(cause);
        if (redo_replay_under(file, target) == -1) {
            // A reader that may not write can be served again once somebody else has completed the commit.
            if (errno == ENOEXEC && !is_read_only(file)) store_error(file, ENOEXEC);
            return -1;
        }
    }
}

int metadata_acquire(vfs_file *file, bool change)
{
    if (lock_and_refresh(file, bracket_lock(file, change)) == -1) return -1;
    file->acquired = true;
    file->acquired_for_change = change;
    file->acquired_end = file->end_of_file;
    file->acquired_position = file->position;
    return 0;
}

int metadata_publish(vfs_file *file)
{
    if (!file->acquired || !file->acquired_for_change || is_read_only(file)) return 0;
    bool in_doubt = true;
    const int result = is_shared(file) ? changes_commit(file, &in_doubt) : session_publish(file);
    if (result == 0) return 0;
    const int cause = errno; // none of it may reach the file once the lock is given away
    if (in_doubt)
        changes_drop(file);
    else
        changes_take_back(file);
    return fail(cause);
}

int metadata_release(vfs_file *file)
{
    if (!file->acquired) return 0;
    const int result = metadata_publish(file), cause = errno;
    file->acquired = false;
    if (lock_clr(bracket_lock(file, file->acquired_for_change)) == -1 && result == 0) return -1;
    return result == 0 ? 0 : fail(cause);
}

int metadata_abandon(vfs_file *file)
{
    if (!is_shared(file) || !file->acquired) return metadata_release(file);
    if (changes_pending(file)) changes_take_back(file);
    file->acquired = false;
    return lock_clr(bracket_lock(file, file->acquired_for_change));
}

int address_check(vfs_file *file, uint64_t address, uint64_t length)
{
    const auto inside = [&] {
        return address >= header_get(file, header_metadata_size) && address < file->end_of_file &&
               file->end_of_file - address >= length;
    };
    if (inside()) return 0;
    // Another handle may have appended since this one read the header.
    const bool may_have_grown = file->lock_defaults.lock_mode < VFS_LOCK_FILE && !file->modified;
    if (may_have_grown && metadata_refresh(file) == 0 && inside()) return 0;
    return damaged();
}
