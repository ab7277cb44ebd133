// Block caches: set-up, lookup and replacement, reading ahead, writing out, invalidation, byte runs.
// May call io/ and buffer/; knows the file only as file_state. Takes no locks: the record operations do.
//
// Three caches serve a file. Data holds record bytes in aligned blocks and writes only the byte ranges that were
// changed; Index (one context per key) and Meta hold index blocks of 32768 bytes, one buffer per exact block start,
// and write whole blocks. A byte of the file belongs to one cache at a time; cache_copy_block moves a block.
#ifndef VFS_CACHE_CACHE_H
#define VFS_CACHE_CACHE_H

#include "buffer/buffer.h"
#include "io/io.h"

#include <cstring>

// Prepares an empty cache record of a handle: kind, owner, descriptors (0: not used), nothing allocated.
void cache_reset(vfs_cache *cache, file_state *file, uint8_t bufftype);

// Sets the cache up from its fields (block_size, block_mask, min, max, readahead, ...): decides hashing by its own
// `max` and the settings, allocates the first buffers, pre-reads. -1 when no buffer at all could be allocated.
[[nodiscard]] int cache_init(vfs_cache *cache);

// Writes what is dirty, drops everything, frees the buffers, adds times and byte counts to the handle's totals.
// A write that fails is tried once more and then dropped; errors go to first_error and the handle's stored error.
// -1 when the handle holds a stored error.
int cache_close(vfs_cache *cache);

// ---- One block. `position` is any byte of it. A pointer into the block is good until the next call on the same
// ---- cache, unless the buffer is pinned.

// The block of the position, read and waited for; null with errno. A block at or beyond the end of data comes
// with `bytes` 0 and its area cleared.
[[nodiscard]] vfs_buffer *cache_fetch_slow(vfs_cache *cache, uint64_t position);
[[nodiscard]] inline vfs_buffer *cache_fetch_at(vfs_cache *cache, uint64_t position)
{
    vfs_buffer *curr = cache->curr;
    if (curr != nullptr && holds(curr, position) && curr->done != 0) {
        curr->state &= static_cast<uint8_t>(~buffer_new);
        return curr;
    }
    return cache_fetch_slow(cache, position);
}

// The block of the position, dirty and `wcurr`; null with errno. A block that begins at or beyond the end of file
// (and the cache's filesize) is made anew, zero-filled, without reading. Marks the handle modified. In Index and
// Meta the whole block counts as changed; in Data nothing does until cache_write_bytes marks its range.
// Never called on a read-only handle.
[[nodiscard]] vfs_buffer *cache_update_slow(vfs_cache *cache, uint64_t position);
[[nodiscard]] inline vfs_buffer *cache_update_at(vfs_cache *cache, uint64_t position)
{
    vfs_buffer *wcurr = cache->wcurr;
    if (wcurr != nullptr && holds(wcurr, position) && is_dirty(wcurr) && wcurr->done != 0) return cache->curr = wcurr;
    return cache_update_slow(cache, position);
}

// 1 with the buffer in last_found, 0 (ENOENT) when the block is not cached.
int cache_lookup(vfs_cache *cache, uint64_t position);

// For whoever verifies a block of the Index or Meta cache that was fetched at `offset`. In a sound file no two of them
// overlap; in a damaged one any address may be named, and of blocks that lie across each other only the first to be
// verified stays, so that a change of the one never undoes a change of the other. -1 with ENOEXEC: it came too late, or
// the fetch has found another block around `offset`.
[[nodiscard]] int cache_claim(const vfs_buffer *buffer, uint64_t offset);

// Moves the block at `offset` from one cache to another (fetches it into `to` when `from` does not hold it), with
// its changed range, and claims it there; it is then `to->curr`. Both caches have the same block size. null with errno.
[[nodiscard]] vfs_buffer *cache_copy_block(vfs_cache *to, vfs_cache *from, uint64_t offset);

// Releases the cached block of the position, if any, without writing it.
void cache_drop_block(vfs_cache *cache, uint64_t position);

// Starts reading the block if it is not cached; never evicts `curr`, `wcurr` or a pinned block, and gives up when
// nothing else is left. A failure is dropped: the fetch reports it.
void cache_prefetch(vfs_cache *cache, uint64_t position, awaited when = awaited::later);

// ---- The same on requests: the three entries that hosts reach ----

// Sets the at-end bit when the block is empty; reads ahead by request->mode.
[[nodiscard]] int cache_fetch_ahead(vfs_cache *cache, vfs_request *request);
[[nodiscard]] int cache_get_for_write(vfs_cache *cache, vfs_request *request);
[[nodiscard]] int cache_write_block(vfs_cache *cache, vfs_request *request);

// ---- Byte runs in the Data cache: request->record_offset is the position, request->segments the pieces ----

// Bytes copied, or -1. The handle's end of file bounds the copy: what lies at or beyond it is end of data (0x40 set
// when nothing was copied). Bytes below it that the file does not have are ENOEXEC. Reads ahead as request->mode
// says when the copy crosses into another block. The request's position is left as it was.
[[nodiscard]] inline int64_t cache_read_bytes(vfs_cache *data, vfs_request *request);

// Bytes copied, or -1. Obtains each block for update itself (at the position when `curr` is not there yet), marks
// exactly the bytes written as changed, raises `bytes`, `valid_end` and the cache's filesize.
[[nodiscard]] inline int64_t cache_write_bytes(vfs_cache *data, vfs_request *request);

// The bytes of the run where they lie, when all of them are valid bytes of the current block below the end of file;
// null otherwise (then fetch the block, or copy with cache_read_bytes). Good as long as a pointer into the block is.
[[nodiscard]] inline const std::byte *cache_current_bytes(const vfs_cache *data, uint64_t position, uint64_t length);

// ---- Ranges, inclusive at both ends; 0 to none is the whole file ----

int cache_write_dirty(vfs_cache *cache, uint64_t from, uint64_t to); // writes started, or -1
int cache_wait_writes(vfs_cache *cache, uint64_t from, uint64_t to); // writes waited for, or -1
// Writes and waits, without a sync: what other handles and processes can then see.
[[nodiscard]] int cache_write_out(vfs_cache *cache, uint64_t from, uint64_t to);
// Makes what was written durable (fdatasync or msync); nothing for read-only handles. -1 with errno, not stored.
[[nodiscard]] int cache_sync(vfs_cache *cache);
[[nodiscard]] int cache_flush(vfs_cache *cache, uint64_t from, uint64_t to); // write out, then sync
int cache_invalidate(vfs_cache *cache, uint64_t from, uint64_t to); // writes dirty ones, drops all: released, or -1
// Drops every block, dirty ones without writing them (the change is abandoned, or another process made it stale).
// The header buffer stays as it is: whoever abandons its change takes it off the dirty queue and refreshes it.
void cache_discard(vfs_cache *cache);
// The same for the dirty blocks alone; the others stay. The header buffer, when it is dirty, as above.
void cache_discard_changes(vfs_cache *cache);
// What is dirty, the header buffer included, has been written by other means: it is clean now.
void cache_changes_written(vfs_cache *cache);
int cache_cancel_reads(vfs_cache *cache, uint64_t from, uint64_t to); // all of the cache, whatever the range
// In a forked child: transfers under way belong to the parent.
void cache_forget_transfers(vfs_cache *cache);

// ---- The header buffer of the Meta cache ----

// Gives the Meta cache a header buffer of `bytes` bytes at offset 0 (hdrb), zeroed, outside lists, hash and count, and
// as much room beside it (header_copy), where the file's header is read to be compared.
// It takes part in the dirty queue: write-outs of the Meta cache write it whole. -1 with ENOMEM.
[[nodiscard]] int cache_header_create(vfs_cache *meta, uint64_t bytes);
// Reads it in place from the file with one pread; -1 with errno (EINVAL: the file is shorter). Must not be dirty.
[[nodiscard]] int cache_header_refresh(vfs_cache *meta);
void cache_header_free(vfs_cache *meta);

// ---- For tests and debug builds: asserts the numbered invariants of lists, queues, hash and counts ----
void cache_check(const vfs_cache *cache);

// With debugging on, the lines about the time that the cache's transfers and locks took.
void cache_delay_lines(const vfs_cache *cache);

// ---- The short ways of the byte runs: all pieces inside the current block, which is nearly every record ----

[[nodiscard]] int64_t cache_read_bytes_slow(vfs_cache *data, vfs_request *request);
[[nodiscard]] int64_t cache_write_bytes_slow(vfs_cache *data, vfs_request *request);

// Whether all pieces end before `room` bytes are used up; `total` is then their length.
inline bool segments_fit(const vfs_request *request, uint64_t room, uint64_t *total)
{
    uint64_t sum = 0;
    for (uint64_t i = 0; i < request->segment_count; ++i) {
        if (request->segments[i].length >= room - sum) return false;
        sum += request->segments[i].length;
    }
    *total = sum;
    return true;
}

// Copies of a few bytes, frames mostly, without a call.
inline void copy_bytes(std::byte *to, const std::byte *from, uint64_t length)
{
    if (length == 8) {
        std::memcpy(to, from, 8);
        return;
    }
    std::memcpy(to, from, length);
}

// Takes note that [from, to) of the dirty buffer was written.
inline void note_written(vfs_buffer *buffer, uint64_t from, uint64_t to)
{
    mark_changed(buffer, from, to);
    if (to - buffer->offset <= buffer->bytes) return;
    buffer->bytes = to - buffer->offset;
    buffer->valid_end = to - 1;
    if (buffer->cache->filesize < to) buffer->cache->filesize = to;
}

inline const std::byte *cache_current_bytes(const vfs_cache *data, uint64_t position, uint64_t length)
{
    const vfs_buffer *curr = data->curr;
    if (curr == nullptr || curr->done == 0) return nullptr;
    const uint64_t within = position - curr->offset;
    if (within >= curr->bytes || length > curr->bytes - within) return nullptr;
    if (position + length > data->file->end_of_file) return nullptr;
    return curr->data + within;
}

inline int64_t cache_read_bytes(vfs_cache *data, vfs_request *request)
{
    const vfs_buffer *curr = data->curr;
    const uint64_t position = request->record_offset;
    if (curr == nullptr || curr->done == 0 || request->segment_count == 0) return cache_read_bytes_slow(data, request);
    const uint64_t within = position - curr->offset;
    uint64_t total;
    if (within >= curr->bytes || !segments_fit(request, curr->bytes - within, &total) ||
        position + total > data->file->end_of_file || total == 0)
        return cache_read_bytes_slow(data, request);
    const std::byte *from = curr->data + within;
    for (uint64_t i = 0; i < request->segment_count; ++i) {
        const vfs_segment &segment = request->segments[i];
        if (segment.address != nullptr) copy_bytes(static_cast<std::byte *>(segment.address), from, segment.length);
        from += segment.length;
    }
    return static_cast<int64_t>(total);
}

inline int64_t cache_write_bytes(vfs_cache *data, vfs_request *request)
{
    vfs_buffer *wcurr = data->wcurr;
    const uint64_t position = request->record_offset;
    uint64_t total;
    if (wcurr == nullptr || !holds(wcurr, position) || !is_dirty(wcurr) || wcurr->done == 0 ||
        (data->flags & cache_split_changes) != 0 ||
        !segments_fit(request, wcurr->size - (position - wcurr->offset), &total) || total == 0)
        return cache_write_bytes_slow(data, request);
    std::byte *to = wcurr->data + (position - wcurr->offset);
    for (uint64_t i = 0; i < request->segment_count; ++i) {
        const vfs_segment &segment = request->segments[i];
        if (segment.address != nullptr)
            copy_bytes(to, static_cast<const std::byte *>(segment.address), segment.length);
        else
            std::memset(to, 0, segment.length);
        to += segment.length;
    }
    note_written(wcurr, position, position + total);
    data->curr = wcurr;
    return static_cast<int64_t>(total);
}

#endif
