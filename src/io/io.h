// Transfers of a buffer: start, wait, complete, and the engines behind them; preallocation and timing.
// May use buffer/ and util/; must not know which block is wanted or why.
#ifndef VFS_IO_IO_H
#define VFS_IO_IO_H

#include "buffer/buffer.h"

// Whether the caller waits for a transfer as soon as it has started it, or goes on meanwhile. What is awaited at once
// is performed by the caller: handing it to somebody else would only cost more.
enum class awaited { at_once, later };

// An engine performs the transfer described in buffer->transfer: the result goes to transfer.moved and transfer.error.
// It touches nothing else of the buffer, and nothing of the cache: whoever waits runs the completion, which tells
// them. Requires of `ended` and `wait`: the transfer is under way.
struct io_engine {
    const char *name;
    bool (*start)(vfs_buffer *buffer); // whether the transfer is under way; else it has ended
    bool (*ended)(vfs_buffer *buffer); // a look, without waiting
    void (*wait)(vfs_buffer *buffer);  // returns when it has ended
};
extern const io_engine sync_engine;     // the calling thread
extern const io_engine announce_engine; // the system's page cache, which is told what will be wanted
extern const io_engine kernel_engine;   // the kernel's queue
extern const io_engine server_engine;   // the buffer's server thread
const io_engine &engine_for(const vfs_buffer *buffer, awaited when); // the one place that chooses

// Performs the transfer, or what is left of it, in the calling thread, with positioned reads and writes.
void transfer_perform(vfs_transfer *transfer);
// The same through the kernel's queue, waiting there; in the calling thread when the kernel has no room.
void transfer_perform_queued(vfs_transfer *transfer);

// Starts reading the whole block: 0 when completed or under way, -1 with errno when it failed at once.
[[nodiscard]] int buffer_start_read(vfs_buffer *buffer, awaited when = awaited::at_once);
// Starts writing the changed range of a dirty buffer (Data, aligned: widened to multiples of 4096, never below data
// start nor past the block; Index, Meta and header: the whole block). 0 when nothing is to be written.
// A write that fails leaves the buffer on the dirty queue with its range.
[[nodiscard]] int buffer_start_write(vfs_buffer *buffer, awaited when = awaited::at_once);
// Waits for the outstanding transfer and runs its completion: 0, or -1 with the transfer's error.
[[nodiscard]] int buffer_wait(vfs_buffer *buffer);
// Takes note that nobody wants what is being read: it counts as nothing read. To be waited for nevertheless.
void buffer_cancel(vfs_buffer *buffer);
// In a forked child: the transfer belongs to the parent, which alone can wait for it. Nothing counts as changed.
void buffer_forget_transfer(vfs_buffer *buffer);
void buffer_read_hint(vfs_buffer *buffer);
// Reads what the file now has behind the buffer's valid bytes into its place: 0, or -1 with errno. No transfer is
// outstanding; the buffer may be dirty.
[[nodiscard]] int buffer_read_rest(vfs_buffer *buffer);
// Takes note of the first error of the cache and of its file.
void record_error(vfs_cache *cache, int error);

// Gives the buffer a server thread. Without one, which is said on standard error, it is served as any other buffer.
void server_start(vfs_buffer *buffer);
// Ends it, when there is one; no transfer is under way.
void server_stop(vfs_buffer *buffer);

// Extends a regular file ahead of a new block at or beyond its end. 0, also when the file system has no space for
// it (the writes then extend the file themselves); -1 on an unexpected error.
[[nodiscard]] int preallocate(vfs_buffer *buffer);
// Looks up the file size limit of the process again. Writes of a cache are checked against what was last seen.
void refresh_write_limit(vfs_cache *cache);

// Adds the time between start and stop to the cache's I/O waits. Used with debugging on only.
void timing_start(vfs_buffer *buffer);
void timing_stop(vfs_buffer *buffer);

#endif
