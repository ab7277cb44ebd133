// Reading ahead of need, and the entries that take their position from a request.
#include "cache/internal.h"

namespace {

// The block of the position cached or being read; null when that would cost a block in use, or failed.
vfs_buffer *prefetch_block(vfs_cache *cache, uint64_t position, awaited when)
{
    if (cache->max <= 1 || (cache->bufftype == cache_data && cache->block_mask == none)) return nullptr;
    vfs_buffer *trigger = cache->curr != nullptr ? cache->curr : cache->lru_head;
    if (trigger != nullptr) trigger->state |= buffer_ahead_started;
    if (cache_lookup(cache, position) == 1) {
        cache_touch(cache->last_found);
        return cache->last_found;
    }
    vfs_buffer *buffer = cache_get_free(cache, position, wanted::ahead);
    if (buffer == nullptr) return nullptr;
    note_miss(buffer);
    ++cache->stats.prefetch;
    buffer->flags2 |= buffer_speculative;
    buffer_read_hint(buffer);
    const bool failed = buffer_start_read(buffer, when) == -1;
    if (buffer->done != 0) buffer->flags2 &= static_cast<uint8_t>(~buffer_speculative);
    if (!failed) return buffer;
    buffer_discard(buffer);
    return nullptr;
}

// Prefetches one block of a batch. All but the last say that reading ahead has been done from them already, so that
// reaching the last one starts the next batch.
bool prefetch_of_batch(vfs_cache *cache, uint64_t position, uint32_t left)
{
    vfs_buffer *buffer = prefetch_block(cache, position, awaited::later);
    if (buffer == nullptr) return false;
    if (left > 1) buffer->state |= buffer_ahead_started;
    return true;
}

void read_forward(vfs_cache *cache, uint32_t depth)
{
    if ((cache->curr->state & buffer_end_of_data) != 0) return;
    uint64_t position = cache->curr->offset + cache->block_size;
    for (; depth > 0 && position < cache->file->end_of_file; --depth, position += cache->block_size)
        if (!prefetch_of_batch(cache, position, depth)) return;
}

void read_backward(vfs_cache *cache, uint32_t depth)
{
    uint64_t position = cache->curr->offset;
    const uint64_t data_start = cache->file->data_start;
    for (; depth > 0 && position > data_start; --depth) {
        position -= cache->block_size;
        if (!prefetch_of_batch(cache, position, depth)) return;
    }
}

void read_ahead(vfs_cache *cache, const vfs_request *request, uint32_t depth)
{
    const vfs_buffer *curr = cache->curr;
    if (cache->readahead == 0 || (curr->state & buffer_ahead_started) != 0 || curr->mask == none || cache->max == 1)
        return;
    if (depth == 0 && cache->readahead == 1) depth = cache->max > 2 ? 1 : 0;
    const bool reversed = (cache->file->mode_flags & mode_reversed) != 0;
    const bool positioning = request->operation == VFS_OP_NONE; // by open: only toward where reading will go
    switch (request->mode) {
    case VFS_POS_NEXT: return read_forward(cache, depth);
    case VFS_POS_FIRST:
    case VFS_POS_BEFORE_FIRST:
        if (!(positioning && reversed)) read_forward(cache, depth);
        return;
    case VFS_POS_PREV: return read_backward(cache, depth);
    case VFS_POS_LAST:
    case VFS_POS_AFTER_LAST:
        if (!(positioning && !reversed)) read_backward(cache, depth);
        return;
    default: return;
    }
}

// The end of a Data cache is the end of file, whatever lies behind it; an Index or Meta block is there or is not.
bool at_end(const vfs_cache *cache, uint64_t position)
{
    if (cache->bufftype == cache_data) return position >= cache->file->end_of_file;
    return cache->curr->bytes == 0 && (cache->curr->state & buffer_end_of_data) != 0;
}

// Hosts reach these entries with any handle.
int may_write(const vfs_cache *cache)
{
    return is_read_only(cache->file) ? fail(EBADF) : 0;
}

} // namespace

vfs_buffer *fetch_ahead_at(vfs_cache *cache, const vfs_request *request, uint64_t position)
{
    const uint32_t depth = cache->curr != nullptr ? cache->curr->readahead : cache->readahead;
    if (cache_fetch_at(cache, position) == nullptr) return nullptr;
    vfs_buffer *buffer = cache->curr;
    read_ahead(cache, request, depth);
    return buffer;
}

void cache_prefetch(vfs_cache *cache, uint64_t position, awaited when)
{
    const int cause = errno;
    (void)prefetch_block(cache, position, when);
    errno = cause;
}

int cache_fetch_ahead(vfs_cache *cache, vfs_request *request)
{
    if (fetch_ahead_at(cache, request, request->record_offset) == nullptr) return -1;
    if (at_end(cache, request->record_offset)) request->flags |= VFS_FLAG_AT_END;
    return 0;
}

int cache_get_for_write(vfs_cache *cache, vfs_request *request)
{
    if (may_write(cache) == -1) return -1;
    return cache_update_at(cache, request->record_offset) != nullptr ? 0 : -1;
}

int cache_write_block(vfs_cache *cache, vfs_request *request)
{
    if (may_write(cache) == -1) return -1;
    if (cache_lookup(cache, request->record_offset) == 0 || !is_dirty(cache->last_found)) return 0;
    return buffer_start_write(cache->last_found, awaited::later) == -1 ? -1 : 0;
}
