// The settings of one open, as a plain record. driver/ fills it from the environment; everything below reads it.
#ifndef VFS_UTIL_SETTINGS_H
#define VFS_UTIL_SETTINGS_H

#include <cstdint>

enum class tri_state : int8_t { off = -1, undecided = 0, on = 1 };

struct open_settings {
    bool debug;            // VFS_DEBUG
    bool memory_mapping;   // VFS_IO_MMAP
    bool asynchronous_io;  // VFS_IO_AIO
    bool queue_asked;      // VFS_IO_AIO asks for the kernel's queue: also where only the page cache is behind it
    bool direct_io;        // VFS_IO_DIO
    tri_state io_threads;  // VFS_IO_THREAD
    bool caching;          // VFS_IO_CACHE
    bool hashing;          // VFS_IO_HASH
    uint32_t data_count;   // VFS_DATA_COUNT: buffers of the Data cache, 1..65536
    uint64_t data_size;    // VFS_DATA_SIZE in bytes, a power of two, 1 KiB..1 GiB
    bool data_size_fixed;  // VFS_DATA_SIZE was given
    uint32_t readahead;    // VFS_DATA_READAHEAD, blocks
    uint32_t writebehind;  // VFS_DATA_WRITEBEHIND, blocks
    char lock_choice;      // first character of VFS_LOCK; '2' when unset
    uint64_t cache_size;   // VFS_CACHE_SIZE in bytes, 0 when unset
    bool sync_each_change; // VFS_SYNC=1
    bool read_unclean;     // VFS_UNCLEAN=read
};

#endif
