// The metadata region: creating, reading, checking and writing back the header, the bracket around every operation,
// index blocks and their free list. See format.h for the bytes.
#ifndef VFS_STORE_HEADER_H
#define VFS_STORE_HEADER_H

#include "store/vfs_file.h"

[[nodiscard]] int header_open(vfs_file *file);   // reads, creates or re-initializes; sizes the caches
[[nodiscard]] int header_create(vfs_file *file); // a header and one empty tree per key, written to the file
[[nodiscard]] int header_read(vfs_file *file);
[[nodiscard]] int header_sync(vfs_file *file);   // the handle's counters into the image (and debug statistics)

// Bytes of metadata region and key areas that a description needs: 0, or -1 with EFBIG and the message.
[[nodiscard]] int header_fits(const vfs_file *file);

// The bracket around every record operation. Outside lock modes 4 and 5 it costs a test. `change`: the operation may
// write. Acquire: lock, refresh the header, drop what another process made stale. Release: publish, unlock.
[[nodiscard]] int metadata_acquire(vfs_file *file, vfs_request *request, bool change);
[[nodiscard]] int metadata_release(vfs_file *file, vfs_request *request);

// Before the first change of an operation: marks the session in the file's state and boot words when that is due.
[[nodiscard]] int change_begin_slow(vfs_file *file);
[[nodiscard]] inline int change_begin(vfs_file *file)
{
    if (file->session_marked) [[likely]] return 0;
    return change_begin_slow(file);
}

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
