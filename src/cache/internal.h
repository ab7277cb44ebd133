// What the files of this room share. See cache.h for what the rest of the driver may use, and check.cc for the
// invariants. May use io/ and buffer/.
#ifndef VFS_CACHE_INTERNAL_H
#define VFS_CACHE_INTERNAL_H

#include "cache/cache.h"
#include "util/errors.h"

// Blocks of the Index and Meta caches begin at any multiple of this; the bit of `places` for the one at `offset`.
inline constexpr uint64_t claim_unit = 4096;
inline uint8_t claim_place(uint64_t offset)
{
    return static_cast<uint8_t>(1U << offset / claim_unit % 8);
}

// Whether a buffer is wanted for a block that is needed, or for one that may be.
enum class wanted { now, ahead };

// A buffer at the LRU head, assigned to the block of the position, its bytes undefined; null with errno. For a block
// that is only read ahead nothing in use is evicted and the cache does not grow past its maximum.
[[nodiscard]] vfs_buffer *cache_get_free(vfs_cache *cache, uint64_t position, wanted how);

// A new idle buffer; null when there is no memory, with one warning a cache.
[[nodiscard]] vfs_buffer *buffer_alloc(vfs_cache *cache);
void buffer_free(vfs_buffer *buffer); // on a list, without a block

// ---- area.cc: page-aligned and zeroed; null when there is no memory, with one warning a cache.
[[nodiscard]] std::byte *area_alloc(vfs_cache *cache, uint64_t bytes); // whole pages; free() takes it back
std::byte *block_area_take(vfs_buffer *buffer);                        // the buffer's `area`, for its block
void block_area_give(vfs_buffer *buffer);                              // leaves it without, if it has one
void slabs_free(vfs_cache *cache);                                     // no buffer has an area any more
// `what` there was no memory for, and where to look when memory is limited.
void warn_allocation(vfs_cache *cache, const char *what, int error, const char *advice);

// Writes the buffer if it is dirty, waits for its transfer and makes it idle. -1 when the write failed: it is kept.
[[nodiscard]] int buffer_release(vfs_buffer *buffer);
// Makes the buffer idle without writing it.
void buffer_discard(vfs_buffer *buffer);

// Marks a block for reading on a miss.
void note_miss(vfs_buffer *buffer);

// Fetches the block of the position with reading ahead as the mode says: `curr`, or null with errno.
[[nodiscard]] vfs_buffer *fetch_ahead_at(vfs_cache *cache, const vfs_request *request, uint64_t position);

void hash_open(vfs_cache *cache);  // makes the table when hash lookup is on, or switches it off
void hash_close(vfs_cache *cache); // drops the table and switches hash lookup off
void hash_enter(vfs_buffer *buffer);
void hash_leave(vfs_buffer *buffer);

#endif
