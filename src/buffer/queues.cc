// Constant-time list and queue work on buffers. A buffer's queue and the state bit that tells it change together,
// here and nowhere else. May use buffer.h only; must not know what a transfer is.
#include "buffer/buffer.h"

namespace {

void set_queue_bit(vfs_buffer *buffer, const vfs_queue *queue, bool on)
{
    const vfs_cache *cache = buffer->cache;
    uint8_t &byte = queue == &cache->read_queue ? buffer->rstate : buffer->state;
    const uint8_t bit = queue == &cache->read_queue    ? uint8_t{buffer_reading}
                        : queue == &cache->dirty_queue ? uint8_t{buffer_dirty}
                                                       : uint8_t{buffer_writing};
    assert(((byte & bit) != 0) != on);
    byte = static_cast<uint8_t>(on ? byte | bit : byte & ~bit);
}

} // namespace

void queue_remove(vfs_buffer *buffer)
{
    vfs_queue *queue = buffer->queue;
    if (queue == nullptr) return;
    assert(queue->count > 0);
    (buffer->qprev != nullptr ? buffer->qprev->qnext : queue->head) = buffer->qnext;
    (buffer->qnext != nullptr ? buffer->qnext->qprev : queue->tail) = buffer->qprev;
    --queue->count;
    buffer->queue = nullptr;
    buffer->qnext = buffer->qprev = nullptr;
    set_queue_bit(buffer, queue, false);
}

void queue_append(vfs_queue *queue, vfs_buffer *buffer)
{
    assert(buffer->queue == nullptr);
    buffer->qprev = queue->tail;
    buffer->qnext = nullptr;
    (queue->tail != nullptr ? queue->tail->qnext : queue->head) = buffer;
    queue->tail = buffer;
    ++queue->count;
    buffer->queue = queue;
    set_queue_bit(buffer, queue, true);
}

void dirty_add(vfs_buffer *buffer)
{
    if (!is_dirty(buffer)) queue_append(&buffer->cache->dirty_queue, buffer);
}

void dirty_remove(vfs_buffer *buffer)
{
    if (!is_dirty(buffer)) return;
    queue_remove(buffer);
    buffer->changed_from = buffer->changed_to = 0;
}

void list_unlink(vfs_buffer *buffer)
{
    vfs_cache *cache = buffer->cache;
    assert(buffer != cache->hdrb);
    vfs_buffer *&head = buffer->idled ? cache->idle_head : cache->lru_head;
    vfs_buffer *&tail = buffer->idled ? cache->idle_tail : cache->lru_tail;
    uint32_t &count = buffer->idled ? cache->idle_count : cache->lru_count;
    assert(count > 0);
    (buffer->prev != nullptr ? buffer->prev->next : head) = buffer->next;
    (buffer->next != nullptr ? buffer->next->prev : tail) = buffer->prev;
    buffer->next = buffer->prev = nullptr;
    --count;
}

void lru_push_head(vfs_buffer *buffer)
{
    vfs_cache *cache = buffer->cache;
    assert(buffer->next == nullptr && buffer->prev == nullptr && buffer != cache->hdrb);
    buffer->next = cache->lru_head;
    (cache->lru_head != nullptr ? cache->lru_head->prev : cache->lru_tail) = buffer;
    cache->lru_head = buffer;
    ++cache->lru_count;
    buffer->idled = 0;
}

void idle_push_tail(vfs_buffer *buffer)
{
    vfs_cache *cache = buffer->cache;
    assert(buffer->next == nullptr && buffer->prev == nullptr && buffer != cache->hdrb);
    buffer->prev = cache->idle_tail;
    (cache->idle_tail != nullptr ? cache->idle_tail->next : cache->idle_head) = buffer;
    cache->idle_tail = buffer;
    ++cache->idle_count;
    buffer->idled = 1;
}

void idle_to_lru_head(vfs_buffer *buffer)
{
    assert(buffer->idled);
    list_unlink(buffer);
    lru_push_head(buffer);
}
