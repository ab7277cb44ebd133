// The few facts of an open file that the lower floors read or set. `vfs_file` (store/vfs_file.h) begins with this
// structure; cache, io and lock know the file only through it. Data only: it calls nothing.
#ifndef VFS_UTIL_FILE_STATE_H
#define VFS_UTIL_FILE_STATE_H

#include "util/settings.h"
#include "vfs.h"

#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>

inline constexpr uint64_t none = VFS_NONE;

struct vfs_lock_table; // lock/lock_table.h
struct vfs_cache;      // buffer/buffer.h

// What all handles of one file in this process share; the registry entry (file/registry.h) begins with it.
struct shared_file_state {
    vfs_lock_table *lock_table; // owned: created by the lock room on first use, freed with the registry entry
    uint32_t handles;           // open handles of the file in this process (registry mutex)
    uint32_t unflushed_handles; // handles that set the header's state word and have not cleared it (registry mutex)
};

enum : uint8_t { // file_state::kind_flags
    kind_regular = 1,
    kind_stream = 2,
    kind_fifo = 4,
    kind_socket = 8,
    kind_fifo_read_only = 16,
    kind_character = 32,
};

enum : uint8_t { // file_state::mode_flags
    mode_mapped = 1,
    mode_asynchronous = 2,
    mode_direct = 4,
    mode_threads = 8,
    mode_read_only = 16,  // no write, create, truncate or append flag
    mode_readable = 32,   // neither O_WRONLY nor O_APPEND
    mode_write_only = 64, // O_WRONLY
    mode_reversed = 128,  // VFS_OPT_REVERSED
};

enum : uint8_t { setup_default_keys = 1 }; // file_state::setup_flags: the host gave no key description

// Ticks and usage summed over waits; the usage words are kept separately, not normalised.
struct wait_times {
    uint64_t ticks;
    int64_t user_seconds, user_microseconds, system_seconds, system_microseconds;
};

enum : uint16_t { file_lock_read = 0, file_lock_write = 1, file_lock_none = 2 };

struct file_state {
    char tag[4];    // "VFS"
    uint32_t stamp; // VFS_STAMP
    open_settings settings;
    const char *path;         // in the handle's own allocation
    const char *logical_name; // likewise, never null
    int fd;                   // -1: none
    uint32_t open_flags;      // as the driver keeps them
    uint8_t kind_flags;
    uint8_t mode_flags;
    uint8_t setup_flags;
    bool debug;
    bool unbuffered_stream;
    bool physically_sequential;      // records lie in ascending key order
    bool modified;                   // a byte of the file was changed through this handle
    bool unsynced;                   // bytes written through this handle may not be on the disk yet
    bool preallocates;               // new blocks may be allocated ahead of need
    uint32_t access_mode;            // VFS_ACCESS_...
    uint32_t physical_organization;  // 1 flat, 3 trees (as the header says, once it is read)
    uint32_t error;                  // the first error met that could not be reported at once; 0 none
    uint32_t operation;              // code of the operation under way (for reports)
    uint64_t operation_count;        // record operations so far
    uint64_t end_of_file;            // E: where the next item is appended
    uint64_t data_start;             // offset of the first item behind the metadata region
    uint64_t size_at_open;           // from fstat under the file's locks
    uint64_t allocated_size;         // bytes the file is known to be allocated to
    std::byte *map_base;             // mapping of the whole file, or null
    uint64_t map_length;             // bytes mapped
    bool positioned_writes;          // a mapped file was written past its mapping since the last sync
    vfs_lock_request lock_defaults;  // share_mode and lock_mode decided by open
    uint16_t file_lock_state;        // file_lock_...: the File lock of this handle
    bool exclusive_held;             // the Exclusive lock of this handle
    struct flock single_record_lock; // l_type F_UNLCK when none is held
    shared_file_state *shared;       // null until registered
    const vfs_cache *caches[3];      // borrowed: Data, the Index cache set up last, Meta; null: not set up
    pthread_t opener;
    pid_t opener_pid;
    uint32_t opener_generation;    // process_generation() at open: a forked child may not use the handle
    wait_times io_wait, lock_wait; // summed from the caches when they close
    uint64_t bytes_read, bytes_written;
};

// Keeps the first error: later ones are consequences.
inline void store_error(file_state *file, int error)
{
    if (file->error == 0) file->error = static_cast<uint32_t>(error);
}

inline bool is_read_only(const file_state *file)
{
    return (file->mode_flags & mode_read_only) != 0;
}
inline bool is_regular(const file_state *file)
{
    return (file->kind_flags & kind_regular) != 0;
}
// Lock modes 4 and 5: other processes may change the file between any two operations.
inline bool is_shared(const file_state *file)
{
    return file->lock_defaults.lock_mode > VFS_LOCK_FILE;
}

#endif
