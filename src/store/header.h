// The metadata region: creating, reading, checking and writing back the header, the bracket around every operation,
// index blocks and their free list. See format.h for the bytes.
#ifndef VFS_STORE_HEADER_H
#define VFS_STORE_HEADER_H

#include "lock/lock.h"
#include "store/vfs_file.h"

[[nodiscard]] int header_open(vfs_file *file);   // reads, creates or re-initializes; sizes the caches
[[nodiscard]] int header_create(vfs_file *file); // a header and one empty tree per key, written to the file
[[nodiscard]] int header_read(vfs_file *file);
[[nodiscard]] int header_sync(vfs_file *file); // the handle's counters into the image (and debug statistics)
void header_load(vfs_file *file);              // the handle's counters and geometry from the image

// Checks of what the header image claims, against a file of `size` bytes; EINVAL. The first looks at the fixed
// part alone (tag, marks, sizes), the second at the key table, with file->keys known.
[[nodiscard]] int header_check_fixed(std::span<const std::byte> image, uint64_t size);
[[nodiscard]] int header_check_keys(const vfs_file *file);
// A key description of `bytes` bytes: entries and part lists inside, lengths consistent. EINVAL.
[[nodiscard]] int key_description_check(const vfs_key_desc *keys, uint64_t bytes);
// What stands for the description when neither host nor file has one: one key, of 8 bytes.
[[nodiscard]] const vfs_key_desc *default_key_description();
// The handle's description becomes a copy of one in the header image; its length has been checked.
[[nodiscard]] int key_description_take(vfs_file *file, const vfs_key_desc *stored);
// Takes the file's stored description, or compares the host's with it. EINVAL when they differ.
[[nodiscard]] int key_description_settle(vfs_file *file);

// Bytes of metadata region and key areas that a description needs: 0, or -1 with EFBIG and the message.
[[nodiscard]] int header_fits(const vfs_file *file);

// The bracket around every record operation: needed in lock modes 4 and 5, and in lock mode 3 while the File lock is
// given away. `change`: the operation may write. Acquire: lock, refresh the header, drop what another handle made
// stale. Release: write out what changed, unlock; it is called only after a successful acquire and always unlocks.
inline bool metadata_bracket(const vfs_file *file)
{
    return is_shared(file) ||
           (file->lock_defaults.lock_mode == VFS_LOCK_FILE && file->file_lock_state == file_lock_none);
}
[[nodiscard]] int metadata_acquire(vfs_file *file, bool change);
[[nodiscard]] int metadata_release(vfs_file *file);
// The first half of the release: what changed is in the file, the lock still held. Nothing outside a bracket.
[[nodiscard]] int metadata_publish(vfs_file *file);
// The end of the bracket of an operation that failed. In a shared file nothing that it changed is written: the file is
// as it was before. Elsewhere what the operation undid by hand stands, as after metadata_release.
[[nodiscard]] int metadata_abandon(vfs_file *file);
// Reads the header again and drops from the caches what its counters say is stale. EINPROGRESS: a process that died has
// left a commit to be completed first (store/redo.h).
[[nodiscard]] int metadata_refresh(vfs_file *file);
// Takes the lock and refreshes, completing such a commit; -1: the lock is not held.
[[nodiscard]] int lock_and_refresh(vfs_file *file, const lock_target &target);
// Writes everything that is dirty into the file, the header last; no sync.
[[nodiscard]] int changes_write_out(vfs_file *file);
// Something is changed in memory that is not in the file.
[[nodiscard]] bool changes_pending(const vfs_file *file);
// Drops everything that is cached without writing it. The header image is as it was changed, but no longer dirty:
// refresh it before it is used.
void changes_drop(vfs_file *file);

// ---- The session's mark in the file (state word and boot word) ----

// Is the file as some session left it without closing? 0 clean; -1 with ENOEXEC after the line that says so.
[[nodiscard]] int session_check(vfs_file *file);
// No other handle of the file in this process, and its words say that nothing is under way.
[[nodiscard]] bool session_alone(const vfs_file *file);
// Another process, or another handle of this one, holds a lock on the file.
[[nodiscard]] bool another_holds_locks(vfs_file *file);
// What stands for this boot of the system in the header; never 0.
[[nodiscard]] uint64_t boot_word();
// Before the first change of an operation: marks the session in the file when that is due.
[[nodiscard]] int change_begin_slow(vfs_file *file);
[[nodiscard]] inline int change_begin(vfs_file *file)
{
    if (file->session_marked) [[likely]]
        return 0;
    return change_begin_slow(file);
}
// After an operation that changed the file has ended, its bracket released: with VFS_SYNC its changes are on the disk
// then. The session may stay marked. Nothing without that setting.
[[nodiscard]] int change_end_slow(vfs_file *file);
[[nodiscard]] inline int change_end(vfs_file *file)
{
    return file->settings.sync_each_change ? change_end_slow(file) : 0;
}
// Renumbers all trees under the session's mark and writes them out. For open, under the locks of open.
[[nodiscard]] int session_renumber(vfs_file *file);
// The handle goes without having been closed: it no longer counts among those that marked the file.
void session_abandon(vfs_file *file);
// Everything changed so far into the file and onto the disk; the state word is cleared.
[[nodiscard]] int session_flush(vfs_file *file);
// Everything changed so far into the file without a sync, the file cut to its end, the state word cleared: what has
// to be true before the File lock is given away.
[[nodiscard]] int session_publish(vfs_file *file);
// The end of a handle that changed the file: counters and blocks out, file cut to its end, synced, words cleared.
[[nodiscard]] int session_close(vfs_file *file);

// A new index block, framed (type 2, own address, zero head), dirty and current in `target`; its address. -1 with errno.
[[nodiscard]] int index_block_alloc(vfs_file *file, vfs_cache *target, uint64_t *address);
// Puts the block on the free list; it leaves `source` for the Meta cache. Resets every cursor that names it.
[[nodiscard]] int index_block_free(vfs_file *file, vfs_cache *source, uint64_t address);

// 0 when [address, address + length) lies in the data area below the end of file (an unmodified unlocked handle looks
// whether the file has grown), else -1 with ENOEXEC. Called for every address that comes from the file.
[[nodiscard]] int address_check(vfs_file *file, uint64_t address, uint64_t length);

// Reports a damaged file: sets ENOEXEC and returns -1. One place, so that one breakpoint sees them all.
[[nodiscard]] int damaged();

#endif
