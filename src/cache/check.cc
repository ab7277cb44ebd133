// The invariants of a cache between two calls, asserted. Tests call this after every step, debug builds when a cache
// is closed. Reads everything, changes nothing.
//
//  1. A list's links, ends and count agree; every buffer is on one list, and both counts make `count`.
//  2. A buffer of the LRU list holds a block (its base is a multiple as the mask says); one of the idle list holds
//     none, is on no queue and not in the table.
//  3. A queue's links, ends and count agree; the bit of a state is set exactly on the buffers of its queue.
//  4. A transfer is outstanding exactly on the read and the write queue, and the pending counts say how many.
//  5. With a table every LRU buffer is found in it under its block, and it holds nothing else; without one none is.
//  6. Two buffers never hold the same byte of the file. (An index block that was only read ahead, by an address in its
//     neighbour, may turn out to be none: it counts when it is used, which checks it.)
//  7. Valid bytes lie inside the block. A changed range is empty but in a dirty or a writing buffer, and covers valid
//     bytes only; a dirty Index or Meta block is changed and valid as a whole.
//  8. `data` is the place in the mapping when the mapping has the whole block, else the buffer's own area.
//  9. `curr` and `wcurr` are null or on the LRU list.
// 10. The header buffer is on no list and in no table, at offset 0, valid as a whole, with an area of its own.
// 11. There are more buffers than the maximum only while or after blocks were pinned, or dirty in a shared file.
//     (Not asserted: the next call that needs a buffer takes the surplus back.)
#include "cache/internal.h"

#include <cstdio>
#include <cstdlib>

namespace {

// Broken invariants end the process in every build: what follows could write a block to the wrong place.
void require(bool holds_true, int invariant, const vfs_cache *cache, const vfs_buffer *buffer)
{
    if (holds_true) return;
    fprintf(stderr, "cache %p (kind %d): invariant %d broken, buffer %p @0x%lx\n", static_cast<const void *>(cache),
            cache->bufftype, invariant, static_cast<const void *>(buffer), buffer != nullptr ? buffer->offset : none);
    std::abort();
}

bool is_changed(const vfs_buffer *buffer)
{
    return buffer->changed_from < buffer->changed_to;
}

void check_state(const vfs_cache *cache, const vfs_buffer *buffer)
{
    const bool reading = (buffer->rstate & buffer_reading) != 0;
    const bool writing = (buffer->state & buffer_writing) != 0;
    require(reading == (buffer->queue == &cache->read_queue), 3, cache, buffer);
    require(writing == (buffer->queue == &cache->write_queue), 3, cache, buffer);
    require(is_dirty(buffer) == (buffer->queue == &cache->dirty_queue), 3, cache, buffer);
    require((buffer->done == 0) == (reading || writing), 4, cache, buffer);
    require(buffer->cache == cache, 1, cache, buffer);
}

void check_bytes(const vfs_cache *cache, const vfs_buffer *buffer)
{
    require(buffer->end == buffer->offset + buffer->size - 1 && buffer->bytes <= buffer->size, 7, cache, buffer);
    require(buffer->valid_end == buffer->offset + buffer->bytes - 1, 7, cache, buffer);
    const bool changeable = is_dirty(buffer) || (buffer->state & buffer_writing) != 0;
    require(changeable || !is_changed(buffer), 7, cache, buffer);
    if (!is_changed(buffer)) return;
    require(buffer->changed_from >= buffer->offset, 7, cache, buffer);
    require(buffer->changed_to <= buffer->offset + buffer->bytes, 7, cache, buffer);
}

void check_block(const vfs_cache *cache, const vfs_buffer *buffer)
{
    require(buffer->offset != none && (buffer->offset & buffer->mask) == buffer->offset, 2, cache, buffer);
    require(!buffer->idled && buffer->size == cache->block_size && buffer->mask == cache->block_mask, 2, cache, buffer);
    check_bytes(cache, buffer);
    if (is_dirty(buffer) && cache->bufftype != cache_data)
        require(buffer->bytes == buffer->size && buffer->changed_to - buffer->changed_from == buffer->size, 7, cache,
                buffer);
    const file_state *file = cache->file;
    if (is_mapped(buffer))
        require(buffer->end < file->map_length && buffer->data == file->map_base + buffer->offset, 8, cache, buffer);
    else
        require(buffer->data != nullptr && buffer->data == buffer->area, 8, cache, buffer);
}

void check_hashed(vfs_cache *cache, const vfs_buffer *buffer)
{
    require(((buffer->flags2 & buffer_hashed) != 0) == (cache->hash != nullptr), 5, cache, buffer);
    if (cache->hash == nullptr) return;
    HashTable_Pos pos;
    const HashTable_Entry *entry =
        HashTable_Lookup(cache->hash, &pos, &buffer->offset, sizeof buffer->offset, 0, false);
    require(entry == &buffer->hash_entry && entry->value == buffer, 5, cache, buffer);
}

bool is_unverified(const vfs_buffer *buffer)
{
    return buffer->bufftype != cache_data && !buffer->checked && !is_dirty(buffer);
}

// Aligned blocks overlap only when they are the same one, which the table would show; unaligned ones are few.
void check_overlap(const vfs_cache *cache, const vfs_buffer *buffer)
{
    if (is_unverified(buffer)) return;
    for (const vfs_buffer *other = buffer->next; other != nullptr; other = other->next)
        require(buffer->end < other->offset || other->end < buffer->offset || is_unverified(other), 6, cache, buffer);
}

template <typename Check>
void walk_list(const vfs_cache *cache, const vfs_buffer *head, const vfs_buffer *tail, uint32_t count, Check &&check)
{
    const vfs_buffer *previous = nullptr;
    for (const vfs_buffer *buffer = head; buffer != nullptr; buffer = buffer->next) {
        require(buffer->prev == previous && count-- > 0, 1, cache, buffer);
        check_state(cache, buffer);
        check(buffer);
        previous = buffer;
    }
    require(previous == tail && count == 0, 1, cache, tail);
}

void walk_queue(const vfs_cache *cache, const vfs_queue &queue)
{
    const vfs_buffer *previous = nullptr;
    uint32_t count = queue.count;
    for (const vfs_buffer *buffer = queue.head; buffer != nullptr; buffer = buffer->qnext) {
        require(buffer->queue == &queue && buffer->qprev == previous && count-- > 0, 3, cache, buffer);
        require(!buffer->idled, 2, cache, buffer);
        previous = buffer;
    }
    require(previous == queue.tail && count == 0, 3, cache, queue.tail);
}

void check_header_buffer(const vfs_cache *cache)
{
    const vfs_buffer *header = cache->hdrb;
    require(cache->bufftype == cache_meta && header->offset == 0 && header->mask == none, 10, cache, header);
    require(header->next == nullptr && header->prev == nullptr && !header->idled, 10, cache, header);
    require((header->flags2 & buffer_hashed) == 0 && !is_mapped(header), 10, cache, header);
    require(header->data == header->area && cache->lru_head != header, 10, cache, header);
    check_state(cache, header);
    check_bytes(cache, header);
}

} // namespace

void cache_check(const vfs_cache *cache)
{
    auto *looked_up = const_cast<vfs_cache *>(cache); // a lookup counts a search, no more
    bool curr_listed = cache->curr == nullptr;
    bool wcurr_listed = cache->wcurr == nullptr;
    walk_list(cache, cache->lru_head, cache->lru_tail, cache->lru_count, [&](const vfs_buffer *buffer) {
        check_block(cache, buffer);
        check_hashed(looked_up, buffer);
        if (cache->lru_count <= 64 || cache->hash == nullptr) check_overlap(cache, buffer);
        curr_listed = curr_listed || cache->curr == buffer;
        wcurr_listed = wcurr_listed || cache->wcurr == buffer;
    });
    walk_list(cache, cache->idle_head, cache->idle_tail, cache->idle_count, [&](const vfs_buffer *buffer) {
        require(buffer->idled && buffer->offset == none && buffer->queue == nullptr, 2, cache, buffer);
        require((buffer->flags2 & buffer_hashed) == 0, 2, cache, buffer);
    });
    require(cache->lru_count + cache->idle_count == cache->count, 1, cache, nullptr);
    walk_queue(cache, cache->read_queue);
    walk_queue(cache, cache->dirty_queue);
    walk_queue(cache, cache->write_queue);
    require(cache->pending_reads == cache->read_queue.count, 4, cache, nullptr);
    require(cache->pending_writes == cache->write_queue.count, 4, cache, nullptr);
    if (cache->hash != nullptr) require(cache->hash->entries == cache->lru_count, 5, cache, nullptr);
    require(curr_listed && wcurr_listed, 9, cache, nullptr);
    if (cache->hdrb != nullptr) check_header_buffer(cache);
}
