// Transfers of a buffer: start, wait, complete, and the engines behind them; preallocation and timing.
// May use buffer/ and util/; must not know which block is wanted or why.
#ifndef VFS_IO_IO_H
#define VFS_IO_IO_H

#include "buffer/buffer.h"

// An engine performs or starts the transfer described in buffer->transfer: the result goes to transfer.moved and
// buffer->error. It touches nothing else of the cache but `retries`; whoever waits runs the completion.
struct io_engine {
    const char *name;
    bool asynchronous; // `start` may return before the transfer has ended
    void (*start)(vfs_buffer *buffer);
    void (*wait)(vfs_buffer *buffer); // returns when it has ended
};
extern const io_engine sync_engine;
const io_engine &engine_of(const vfs_buffer *buffer); // the one place that chooses by the bits
bool starts_asynchronously(const vfs_cache *cache);   // whether any transfer of the cache can be left under way

// Starts reading the whole block: 0 when completed or under way, -1 with errno when it failed at once.
[[nodiscard]] int buffer_start_read(vfs_buffer *buffer);
// Starts writing the changed range of a dirty buffer (Data, aligned: widened to multiples of 4096, never below data
// start nor past the block; Index, Meta and header: the whole block). 0 when nothing is to be written.
// A write that fails leaves the buffer on the dirty queue with its range.
[[nodiscard]] int buffer_start_write(vfs_buffer *buffer);
// Waits for the outstanding transfer and runs its completion: 0, or -1 with the transfer's error.
[[nodiscard]] int buffer_wait(vfs_buffer *buffer);
void buffer_read_hint(vfs_buffer *buffer);
// Reads what the file now has behind the buffer's valid bytes into its place: 0, or -1 with errno. No transfer is
// outstanding; the buffer may be dirty.
[[nodiscard]] int buffer_read_rest(vfs_buffer *buffer);
// Takes note of the first error of the cache and of its file.
void record_error(vfs_cache *cache, int error);

// Extends a regular file ahead of a new block at or beyond its end. 0, also when the file system has no space for
// it (the writes then extend the file themselves); -1 on an unexpected error.
[[nodiscard]] int preallocate(vfs_buffer *buffer);
// Looks up the file size limit of the process again. Writes of a cache are checked against what was last seen.
void refresh_write_limit(vfs_cache *cache);

// Adds the time between start and stop to the cache's I/O waits. Used with debugging on only.
void timing_start(vfs_buffer *buffer);
void timing_stop(vfs_buffer *buffer);

#endif
