// Finding the block of a position, for reading and for update. `curr` and `wcurr` come first, then the table or the
// list; a block that is nowhere is read, or made anew behind the end of the file.
#include "cache/internal.h"

#include <cstring>

namespace {

bool exists(const vfs_cache *cache, uint64_t position)
{
    const uint64_t block = position & cache->block_mask;
    return block < cache->filesize || block < cache->file->end_of_file;
}

vfs_buffer *found(vfs_cache *cache, vfs_buffer *buffer)
{
    buffer->state &= static_cast<uint8_t>(~buffer_new);
    return cache->last_found = buffer;
}

vfs_buffer *find(vfs_cache *cache, uint64_t position)
{
    if (cache->curr != nullptr && holds(cache->curr, position)) return cache->curr;
    if (cache->wcurr != nullptr && holds(cache->wcurr, position)) return cache->wcurr;
    return cache_lookup(cache, position) == 1 ? cache->last_found : nullptr;
}

vfs_buffer *read_block(vfs_cache *cache, uint64_t position)
{
    vfs_buffer *buffer = cache_get_free(cache, position, wanted::now);
    if (buffer == nullptr) return nullptr;
    note_miss(buffer);
    cache->curr = buffer;
    buffer_read_hint(buffer);
    if (buffer_start_read(buffer) == 0 && (buffer->done != 0 || buffer_wait(buffer) == 0)) return buffer;
    buffer_discard(buffer); // a block that could not be read must not be found
    return nullptr;
}

// Waits for a read under way. When one that was only read ahead has failed, the block is read again, and that
// read reports.
vfs_buffer *settle_read(vfs_cache *cache, vfs_buffer *buffer, uint64_t position)
{
    if (buffer->done != 0 || (buffer->state & buffer_writing) != 0) return buffer;
    const bool speculative = (buffer->flags2 & buffer_speculative) != 0;
    const bool failed = buffer_wait(buffer) == -1;
    const bool cancelled = buffer->cancelled.load(std::memory_order_relaxed);
    if (!failed && !cancelled) return buffer;
    buffer_discard(buffer);
    return speculative || cancelled ? read_block(cache, position) : nullptr;
}

// A block that the file does not have yet.
vfs_buffer *make_block(vfs_cache *cache, uint64_t position)
{
    refresh_write_limit(cache);
    vfs_buffer *buffer = cache_get_free(cache, position, wanted::now);
    if (buffer == nullptr) return nullptr;
    if (is_regular(buffer->file) && preallocate(buffer) == -1) {
        buffer_discard(buffer);
        return nullptr;
    }
    std::memset(buffer->data, 0, buffer->size);
    if (cache->filesize < buffer->end + 1) cache->filesize = buffer->end + 1;
    return buffer;
}

// The block that begins at `offset`, or null.
vfs_buffer *cached_block(vfs_cache *cache, uint64_t offset)
{
    if (cache->hash != nullptr) {
        const HashTable_Entry *entry = HashTable_Lookup64(cache->hash, &cache->scratch, offset);
        return entry != nullptr ? static_cast<vfs_buffer *>(entry->value) : nullptr;
    }
    vfs_buffer *buffer = cache->lru_head;
    while (buffer != nullptr && buffer->offset != offset) buffer = buffer->next;
    return buffer;
}

bool is_claimed(const vfs_buffer *buffer)
{
    return buffer->checked || is_dirty(buffer) || buffer->pins != 0;
}

} // namespace

void note_miss(vfs_buffer *buffer)
{
    buffer->state |= buffer_new;
    buffer->opnum = buffer->file->operation_count;
    ++buffer->cache->miss;
}

int cache_lookup(vfs_cache *cache, uint64_t position)
{
    vfs_buffer *buffer = cached_block(cache, position & cache->block_mask);
    if (buffer != nullptr && position <= buffer->end) {
        found(cache, buffer);
        return 1;
    }
    cache->last_found = nullptr;
    errno = ENOENT;
    return 0;
}

vfs_buffer *cache_fetch_slow(vfs_cache *cache, uint64_t position)
{
    assert(cache->hdrb == nullptr || !holds(cache->hdrb, position));
    vfs_buffer *buffer = find(cache, position);
    if (buffer == nullptr) return read_block(cache, position);
    buffer = settle_read(cache, buffer, position);
    if (buffer == nullptr) return nullptr;
    buffer->state &= static_cast<uint8_t>(~buffer_new);
    cache_touch(buffer);
    return cache->curr = buffer;
}

vfs_buffer *cache_update_slow(vfs_cache *cache, uint64_t position)
{
    assert(!is_read_only(cache->file));
    cache->file->modified = true;
    vfs_buffer *buffer = find(cache, position);
    if (buffer == nullptr) buffer = exists(cache, position) ? read_block(cache, position) : make_block(cache, position);
    if (buffer == nullptr) return nullptr;
    if (buffer->done == 0) { // its bytes must not change under a transfer, read or write
        const bool reading = (buffer->rstate & buffer_reading) != 0;
        if (reading) buffer = settle_read(cache, buffer, position);
        if (buffer == nullptr || (!reading && buffer_wait(buffer) == -1)) return nullptr;
    }
    buffer->state &= static_cast<uint8_t>(~buffer_new);
    cache_touch(buffer);
    dirty_add(buffer);
    if (cache->bufftype != cache_data) {
        buffer->bytes = buffer->size;
        buffer->valid_end = buffer->end;
        mark_changed(buffer, buffer->offset, buffer->end + 1);
    }
    return cache->curr = cache->wcurr = buffer;
}

void cache_drop_block(vfs_cache *cache, uint64_t position)
{
    const int cause = errno;
    if (cache_lookup(cache, position) == 1) {
        ++cache->stats.invalidate;
        buffer_discard(cache->last_found);
    }
    errno = cause;
}

int cache_claim(const vfs_buffer *buffer, uint64_t offset)
{
    if (buffer->offset != offset) return fail(ENOEXEC);
    vfs_cache *cache = buffer->cache;
    for (uint64_t away = claim_unit; away < cache->block_size; away += claim_unit) {
        for (const uint64_t beside : {offset - away, offset + away}) {
            if ((cache->places & claim_place(beside)) == 0) continue; // as nearly always
            vfs_buffer *other = cached_block(cache, beside);
            if (other == nullptr) continue;
            if (is_claimed(other)) return fail(ENOEXEC);
            buffer_discard(other);
        }
    }
    return 0;
}

vfs_buffer *cache_copy_block(vfs_cache *to, vfs_cache *from, uint64_t offset)
{
    assert(to != from && to->block_size == from->block_size);
    if (cache_lookup(from, offset) == 0) {
        vfs_buffer *fetched = cache_fetch_at(to, offset);
        return fetched != nullptr && cache_claim(fetched, offset) == 0 ? fetched : nullptr;
    }
    vfs_buffer *source = from->last_found;
    if (source->done == 0 && buffer_wait(source) == -1) return nullptr;
    cache_drop_block(to, offset); // an older image
    vfs_buffer *copy = cache_get_free(to, offset, wanted::now);
    if (copy == nullptr) return nullptr;
    if (cache_claim(copy, offset) == -1) {
        buffer_discard(copy);
        return nullptr;
    }
    if (copy->data != source->data) std::memcpy(copy->data, source->data, copy->size);
    copy->state |= buffer_new;
    copy->valid_end = source->valid_end;
    copy->bytes = source->bytes;
    copy->opnum = source->opnum;
    if (to->filesize < from->filesize) to->filesize = from->filesize;
    if (is_dirty(source)) {
        dirty_add(copy);
        copy->changed_from = source->changed_from;
        copy->changed_to = source->changed_to;
    }
    to->curr = copy;
    ++from->stats.abscond;
    ++from->stats.invalidate;
    buffer_discard(source); // its change is the copy's now
    return copy;
}
