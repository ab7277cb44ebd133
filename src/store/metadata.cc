// The bracket around the operations of a file that others may change between them. See header.h.
#include "io/file_calls.h"
#include "lock/lock.h"
#include "store/header.h"
#include "store/movement.h"
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

// Everything in the header that no operation changes: when it differs, the file was made anew.
uint64_t identity_of(const vfs_file *file)
{
    const std::span<const std::byte> image = header_image(file);
    uint64_t hash = 0xcbf29ce484222325; // FNV-1a
    const auto add = [&](uint64_t from, uint64_t to) {
        for (uint64_t i = from; i < to && i < image.size(); ++i) hash = (hash ^ uint64_t(image[i])) * 0x100000001b3;
    };
    add(0, 40);
    add(88, 136);
    add(160, 200);
    add(208, 240);
    const uint64_t table = header_get(file, header_key_table);
    if (header_get(file, header_key_description) != 0) add(header_variable_part, table == 0 ? image.size() : table);
    return hash;
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

void remember_seen(vfs_file *file)
{
    file->seen_tsn = file->tsn;
    file->seen_dsn = file->dsn;
    file->seen_asn = file->asn;
    file->seen_end = file->end_of_file;
}

// The handle is as the file is: nothing that was changed since the bracket began has been written.
int changes_take_back(vfs_file *file)
{
    changes_drop(file);
    checkpoints_forget(file);
    if (cache_header_refresh(&file->meta) == -1) {
        store_error(file, errno);
        return -1;
    }
    header_load(file);
    remember_seen(file);
    sequence_key_reload(file);
    file->position = file->acquired_position; // the trees are as they were when it was taken
    return 0;
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
    // Whoever gave the lock away had published or dropped its changes.
    if (is_dirty(file->meta.hdrb)) return store_damaged(file);
    const uint64_t before = identity_of(file);
    const int64_t tsn = file->tsn;
    const uint64_t dsn = file->dsn, asn = file->asn, end = file->end_of_file;
    if (cache_header_refresh(&file->meta) == -1) return -1;
    if (identity_of(file) != before) {
        store_error(file, ESTALE);
        return fail(ESTALE);
    }
    // An unlocked handle looks while another may be writing: to it a marked session is no damage.
    const bool locked = file->lock_defaults.lock_mode >= VFS_LOCK_FILE;
    if (header_check_fixed(header_image(file), header_image(file).size()) == -1 ||
        (locked && session_check(file) == -1))
        return store_damaged(file);
    header_load(file);
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

int metadata_acquire(vfs_file *file, bool change)
{
    const lock_target target = bracket_lock(file, change);
    if (lock_set(target) == -1) return -1;
    file->acquired = true;
    file->acquired_for_change = change;
    if (metadata_refresh(file) == -1) {
        const int cause = errno;
        file->acquired = false;
        lock_clr(target);
        return fail(cause);
    }
    file->acquired_end = file->end_of_file;
    file->acquired_position = file->position;
    return 0;
}

int metadata_release(vfs_file *file)
{
    if (!file->acquired) return 0;
    file->acquired = false;
    int result = 0;
    if (file->acquired_for_change && !is_read_only(file))
        result = is_shared(file) ? changes_write_out(file) : session_publish(file);
    const int cause = errno;
    if (result == -1) changes_drop(file); // none of it may reach the file once the lock is given away
    if (lock_clr(bracket_lock(file, file->acquired_for_change)) == -1 && result == 0) return -1;
    return result == 0 ? 0 : fail(cause);
}

int metadata_abandon(vfs_file *file)
{
    if (!is_shared(file) || !file->acquired || !changes_pending(file)) return metadata_release(file);
    const int result = changes_take_back(file), cause = errno;
    file->acquired = false;
    if (lock_clr(bracket_lock(file, file->acquired_for_change)) == -1 && result == 0) return -1;
    return result == 0 ? 0 : fail(cause);
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
