// Writing out, making durable, dropping and cancelling over ranges of the file, inclusive at both ends. After a
// failure the rest of the range is still done; the first cause is reported.
#include "cache/internal.h"

#include "io/file_calls.h"

namespace {

bool overlaps(const vfs_buffer *buffer, uint64_t from, uint64_t to)
{
    return buffer->end >= from && buffer->offset <= to;
}

// Calls `visit` for every buffer that is on the queue now. It may take the buffer off and put it back at the tail.
template <typename Visit> void for_each_queued(const vfs_queue *queue, Visit &&visit)
{
    uint32_t left = queue->count;
    for (vfs_buffer *buffer = queue->head; buffer != nullptr && left > 0; --left) {
        vfs_buffer *next = buffer->qnext;
        visit(buffer);
        buffer = next;
    }
}

class outcome { // a count of successes, or the first failure
public:
    void add(bool succeeded)
    {
        if (succeeded)
            ++count_;
        else if (error_ == 0)
            error_ = errno;
    }
    void add_failure(bool failed)
    {
        if (failed) add(false);
    }
    [[nodiscard]] int result() const { return error_ == 0 ? count_ : fail(error_); }

private:
    int count_ = 0;
    int error_ = 0;
};

int nothing_cached()
{
    errno = ENOENT;
    return 0;
}

bool holds_nothing(const vfs_cache *cache)
{
    return cache->lru_head == nullptr && cache->dirty_queue.count == 0;
}

void release_list(vfs_cache *cache, uint64_t from, uint64_t to, outcome *all)
{
    for (vfs_buffer *buffer = cache->lru_head; buffer != nullptr;) {
        vfs_buffer *next = buffer->next;
        if (overlaps(buffer, from, to)) all->add(buffer_release(buffer) == 0);
        buffer = next;
    }
}

void release_by_probes(vfs_cache *cache, uint64_t from, uint64_t to, outcome *all)
{
    for (uint64_t block = from & cache->block_mask; block <= to; block += cache->block_size) {
        if (cache_lookup(cache, block) == 1) all->add(buffer_release(cache->last_found) == 0);
        if (block + cache->block_size < block) return;
    }
}

} // namespace

int cache_write_dirty(vfs_cache *cache, uint64_t from, uint64_t to)
{
    if (holds_nothing(cache)) return nothing_cached();
    outcome all;
    for_each_queued(&cache->dirty_queue, [&](vfs_buffer *buffer) {
        if (!overlaps(buffer, from, to)) return;
        ++cache->stats.flush;
        all.add(buffer_start_write(buffer, awaited::later) == 0);
    });
    return all.result();
}

int cache_wait_writes(vfs_cache *cache, uint64_t from, uint64_t to)
{
    if (holds_nothing(cache) && cache->write_queue.count == 0) return nothing_cached();
    outcome all;
    for_each_queued(&cache->write_queue, [&](vfs_buffer *buffer) {
        if (!overlaps(buffer, from, to) || buffer->done != 0) return;
        ++cache->stats.flush;
        all.add(buffer_wait(buffer) == 0);
    });
    return all.result();
}

int cache_write_out(vfs_cache *cache, uint64_t from, uint64_t to)
{
    if (cache->wfd == 0) return 0;
    outcome all;
    if (cache->dirty_queue.count != 0) all.add_failure(cache_write_dirty(cache, from, to) == -1);
    if (cache->pending_writes != 0) all.add_failure(cache_wait_writes(cache, from, to) == -1);
    return all.result();
}

int cache_sync(vfs_cache *cache)
{
    if (cache->wfd == 0 || is_read_only(cache->file) || !is_regular(cache->file)) return 0;
    return file_sync(cache->file);
}

int cache_flush(vfs_cache *cache, uint64_t from, uint64_t to)
{
    outcome all;
    all.add_failure(cache_write_out(cache, from, to) == -1);
    all.add_failure(cache_sync(cache) == -1);
    return all.result();
}

int cache_invalidate(vfs_cache *cache, uint64_t from, uint64_t to)
{
    if (holds_nothing(cache)) return nothing_cached();
    outcome all;
    if (cache->dirty_queue.count != 0) all.add_failure(cache_write_dirty(cache, from, to) == -1);
    if (cache->pending_reads != 0) all.add_failure(cache_cancel_reads(cache, from, to) == -1);
    if (cache->pending_writes != 0) all.add_failure(cache_wait_writes(cache, from, to) == -1);
    const bool more_than_cached = (to - from) / cache->block_size >= cache->lru_count;
    if (more_than_cached || cache->hash == nullptr || cache->block_mask == none)
        release_list(cache, from, to, &all);
    else
        release_by_probes(cache, from, to, &all);
    return all.result();
}

void cache_discard(vfs_cache *cache)
{
    if (cache->pending_reads != 0) (void)cache_cancel_reads(cache, 0, none); // nobody waits for what nobody will see
    while (cache->lru_head != nullptr) {
        ++cache->stats.invalidate;
        buffer_discard(cache->lru_head);
    }
}

void cache_discard_changes(vfs_cache *cache)
{
    for_each_queued(&cache->dirty_queue, [&](vfs_buffer *buffer) {
        if (buffer == cache->hdrb) return;
        ++cache->stats.invalidate;
        buffer_discard(buffer);
    });
}

void cache_changes_written(vfs_cache *cache)
{
    for_each_queued(&cache->dirty_queue, [&](vfs_buffer *buffer) {
        if (cache->wcurr == buffer) cache->wcurr = nullptr;
        cache->stats.bytes_written += buffer->changed_to - buffer->changed_from;
        buffer->state &= static_cast<uint8_t>(~buffer_end_of_data);
        dirty_remove(buffer);
    });
}

int cache_cancel_reads(vfs_cache *cache, uint64_t, uint64_t)
{
    for (vfs_buffer *buffer = cache->read_queue.head; buffer != nullptr; buffer = buffer->qnext) buffer_cancel(buffer);
    outcome all;
    while (cache->read_queue.head != nullptr) {
        vfs_buffer *buffer = cache->read_queue.head;
        (void)buffer_wait(buffer); // nobody wanted its bytes
        all.add_failure(buffer_release(buffer) == -1);
    }
    return all.result();
}

void cache_forget_transfers(vfs_cache *cache)
{
    while (cache->read_queue.head != nullptr) buffer_forget_transfer(cache->read_queue.head);
    while (cache->write_queue.head != nullptr) buffer_forget_transfer(cache->write_queue.head);
}
