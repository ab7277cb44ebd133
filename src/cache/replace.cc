// Which buffer a block gets, and the life of buffers: created, assigned, released, reset, freed. The last unpinned
// buffer of the LRU list is evicted; in a file that other processes change, a dirty one stays as well, because
// nothing may be written before the operation is committed.
#include "cache/internal.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace {

void buffer_reset(vfs_buffer *buffer)
{
    vfs_cache *cache = buffer->cache;
    assert(buffer != cache->hdrb && buffer->done != 0);
    if (cache->wcurr == buffer) cache->wcurr = nullptr;
    if (cache->curr == buffer) cache->curr = nullptr;
    dirty_remove(buffer);
    hash_leave(buffer);
    buffer->rstate &= static_cast<uint8_t>(~buffer_reading);
    buffer->opcode = buffer->transfer.operation = transfer_none;
    buffer->done = 1;
    buffer->offset = buffer->end = none;
    buffer->state &= buffer_drop_behind;
    buffer->flags2 &= static_cast<uint8_t>(~buffer_speculative);
    buffer->valid_end = buffer->bytes = 0;
    buffer->changed_from = buffer->changed_to = 0;
    buffer->size = cache->block_size;
    buffer->error = 0;
    buffer->checked = false;
    buffer->cancelled.store(false, std::memory_order_relaxed);
    buffer->mask = cache->block_mask;
    buffer->readahead = cache->readahead;
}

void make_idle(vfs_buffer *buffer)
{
    buffer_reset(buffer);
    if (buffer->idled) return;
    list_unlink(buffer);
    idle_push_tail(buffer);
}

bool is_evictable(const vfs_buffer *buffer, wanted how)
{
    const vfs_cache *cache = buffer->cache;
    if (buffer->pins != 0) return false;
    if (is_dirty(buffer) && is_shared(buffer->file)) return false;
    return how == wanted::now || (buffer != cache->curr && buffer != cache->wcurr);
}

vfs_buffer *last_evictable(const vfs_cache *cache, wanted how)
{
    vfs_buffer *buffer = cache->lru_tail;
    while (buffer != nullptr && !is_evictable(buffer, how)) buffer = buffer->prev;
    return buffer;
}

// A pinned idle buffer is one whose block was dropped under its holder: it is left until the holder lets go.
vfs_buffer *last_idle(const vfs_cache *cache)
{
    vfs_buffer *buffer = cache->idle_tail;
    while (buffer != nullptr && buffer->pins != 0) buffer = buffer->prev;
    return buffer;
}

// Gives back what was allocated above the maximum while everything was pinned.
void free_surplus(vfs_cache *cache, wanted how)
{
    while (cache->count > cache->max) {
        vfs_buffer *buffer = last_idle(cache);
        if (buffer == nullptr) {
            buffer = last_evictable(cache, how);
            if (buffer == nullptr || buffer_release(buffer) == -1) return;
        }
        buffer_free(buffer);
    }
}

vfs_buffer *grow_or_evict(vfs_cache *cache, wanted how)
{
    vfs_buffer *victim = last_evictable(cache, how);
    const bool within_budget = cache->file->settings.cache_size != 0;
    const bool may_grow = cache->lru_count < cache->min ||
                          (cache->lru_count < cache->max && (victim == nullptr || is_dirty(victim) || within_budget));
    const bool one_only = cache->bufftype == cache_data && cache->block_mask == none; // two of these would overlap
    const bool must_grow = victim == nullptr && how == wanted::now && !(one_only && cache->count > 0);
    if (may_grow || must_grow) {
        vfs_buffer *buffer = buffer_alloc(cache);
        if (buffer != nullptr) return buffer;
    }
    if (victim == nullptr) {
        errno = one_only ? EBUSY : ENOMEM;
        return nullptr;
    }
    return buffer_release(victim) == -1 ? nullptr : victim;
}

// Where the block's bytes are: in the mapping when it has all of them, else in an area of the buffer's own.
int place_data(vfs_buffer *buffer)
{
    const vfs_cache *cache = buffer->cache;
    const file_state *file = buffer->file;
    if ((cache->engine & engine_mmap) != 0 && buffer->end < file->map_length) {
        buffer->engine = cache->engine;
        buffer->data = file->map_base + buffer->offset;
        return 0;
    }
    buffer->engine = static_cast<uint8_t>(cache->engine & ~engine_mmap);
    buffer->data = buffer->area != nullptr ? buffer->area : block_area_take(buffer);
    return buffer->data != nullptr ? 0 : fail(ENOMEM);
}

// Binds the buffer, at the LRU head, to the block of the position; nothing in it is valid yet.
int cache_assign(vfs_buffer *buffer, uint64_t position)
{
    buffer->offset = position & buffer->mask;
    buffer->cache->places |= claim_place(buffer->offset);
    buffer->end = buffer->offset + buffer->size - 1;
    buffer->valid_end = buffer->offset - 1;
    buffer->bytes = 0;
    if (place_data(buffer) == -1) return -1;
    buffer->cache->last_found = buffer;
    hash_enter(buffer);
    return 0;
}

} // namespace

vfs_buffer *buffer_alloc(vfs_cache *cache)
{
    void *memory = std::malloc(sizeof(vfs_buffer));
    if (memory == nullptr) {
        warn_allocation(cache, "buffer", errno, "Check `ulimit -d`");
        return nullptr;
    }
    auto *buffer = new (memory) vfs_buffer{};
    buffer->cache = cache;
    buffer->file = cache->file;
    buffer->done = 1;
    buffer->size = cache->block_size;
    buffer->bufftype = cache->bufftype;
    buffer->rfd = cache->rfd;
    buffer->wfd = cache->wfd;
    buffer->writebehind = cache->writebehind;
    buffer->engine = cache->engine;
    if ((cache->flags & cache_drop_behind) != 0) buffer->state |= buffer_drop_behind;
    if ((cache->engine & engine_mmap) == 0) {
        buffer->data = block_area_take(buffer);
        if (buffer->data == nullptr) {
            std::free(memory);
            return nullptr;
        }
    }
    buffer_reset(buffer);
    ++cache->count;
    idle_push_tail(buffer);
    if ((cache->mode & cache_threads) != 0 && cache->count <= cache->max) server_start(buffer);
    return buffer;
}

void buffer_free(vfs_buffer *buffer)
{
    assert(buffer->queue == nullptr && buffer->done != 0 && buffer->pins == 0);
    if (buffer->cache->last_found == buffer) buffer->cache->last_found = nullptr;
    list_unlink(buffer);
    --buffer->cache->count;
    server_stop(buffer);
    block_area_give(buffer);
    std::free(buffer);
}

vfs_buffer *cache_get_free(vfs_cache *cache, uint64_t position, wanted how)
{
    if (cache->count > cache->max) free_surplus(cache, how);
    vfs_buffer *buffer = last_idle(cache);
    if (buffer == nullptr) buffer = grow_or_evict(cache, how);
    if (buffer == nullptr) return nullptr;
    idle_to_lru_head(buffer);
    ++cache->stats.use;
    if (cache_assign(buffer, position) == 0) return buffer;
    make_idle(buffer);
    errno = ENOMEM;
    return nullptr;
}

int buffer_release(vfs_buffer *buffer)
{
    vfs_cache *cache = buffer->cache;
    ++cache->stats.invalidate;
    if (buffer->done == 0 && buffer_wait(buffer) == -1 && is_dirty(buffer)) return -1;
    if (is_dirty(buffer)) {
        ++cache->stats.spill;
        ++cache->stats.stall;
        if (buffer_start_write(buffer) == -1) return -1;
        if (buffer->done == 0 && buffer_wait(buffer) == -1) return -1;
    }
    make_idle(buffer);
    return 0;
}

void buffer_discard(vfs_buffer *buffer)
{
    const int cause = errno;
    if (buffer->done == 0) (void)buffer_wait(buffer);
    dirty_remove(buffer);
    make_idle(buffer);
    errno = cause;
}
