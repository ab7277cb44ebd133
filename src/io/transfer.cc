// The life of a transfer: started, waited for, completed; which engine performs it; which bytes a write carries.
// May use buffer/ for queues and states; must not know which block is wanted or why, nor how an engine works.
#include "io/io.h"
#include "util/errors.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>

namespace {

constexpr uint64_t page = 4096; // index blocks and the start of the data area are multiples of it

struct byte_range {
    uint64_t from, to; // [from, to) in the file
};

bool writes_whole_blocks(const vfs_buffer *buffer)
{
    return buffer->bufftype != cache_data;
}

// The bytes that a write of the dirty buffer transfers. No page of the file is shared between caches, so an aligned
// Data buffer of a file that nobody else changes may widen its range to whole pages, which spares the system from
// reading them; one that lies at any offset, or beside other writers, keeps to the bytes that were changed.
byte_range range_to_write(const vfs_buffer *buffer)
{
    if (writes_whole_blocks(buffer)) return {buffer->offset, buffer->end + 1};
    byte_range range{buffer->changed_from, buffer->changed_to};
    if (range.from >= range.to || buffer->mask == none || is_shared(buffer->file)) return range;
    range.from = range.from / page * page;
    range.to = (range.to + page - 1) / page * page;
    const uint64_t data_start = buffer->file->data_start;
    if (range.from < data_start) range.from = data_start < buffer->changed_from ? data_start : buffer->changed_from;
    if (range.from < buffer->offset) range.from = buffer->offset;
    if (range.to > buffer->end + 1) range.to = buffer->end + 1;
    return range;
}

// What widening adds behind the valid bytes is written as zeros.
void clear_padding(vfs_buffer *buffer, const byte_range &range)
{
    const uint64_t valid_to = buffer->offset + buffer->bytes;
    if (is_mapped(buffer) || range.to <= valid_to) return;
    std::memset(buffer->data + buffer->bytes, 0, range.to - valid_to);
}

void count_pending(vfs_cache *cache, uint32_t &pending, int change)
{
    const auto by = static_cast<uint32_t>(change);
    if ((cache->state & cache_has_threads) != 0)
        __atomic_add_fetch(&pending, by, __ATOMIC_RELAXED);
    else
        pending += by;
}

void take_off_flight(vfs_buffer *buffer)
{
    buffer->iostate &= static_cast<uint8_t>(~buffer_in_flight);
    buffer->done = 1;
    queue_remove(buffer);
}

int result_of(const vfs_buffer *buffer)
{
    return buffer->error == 0 ? 0 : fail(static_cast<int>(buffer->error));
}

void take_read_bytes(vfs_buffer *buffer)
{
    const uint64_t bytes = buffer->cancelled.load(std::memory_order_relaxed) ? 0 : buffer->transfer.moved;
    buffer->cache->stats.bytes_read += bytes;
    buffer->bytes = bytes;
    buffer->valid_end = buffer->offset + bytes - 1;
    buffer->state &= static_cast<uint8_t>(~buffer_end_of_data);
    if (bytes < buffer->size && !is_mapped(buffer)) std::memset(buffer->data + bytes, 0, buffer->size - bytes);
    if (bytes < buffer->size || buffer->end + 1 >= buffer->file->end_of_file) buffer->state |= buffer_end_of_data;
}

void report_empty_read(const vfs_buffer *buffer)
{
    if (!buffer->file->debug || is_mapped(buffer) || buffer->transfer.moved != 0) return;
    fprintf(stderr, "I/O Read of 0(%ld) @0x%lx size=0x%lx append=0x%lx: %d %s\n", static_cast<long>(buffer->size),
            buffer->offset, buffer->cache->filesize, buffer->file->end_of_file, 0, strerror(0));
}

int read_complete(vfs_buffer *buffer)
{
    if (buffer->error == 0) {
        report_empty_read(buffer);
        take_read_bytes(buffer);
    } else {
        buffer->bytes = 0;
        buffer->valid_end = buffer->offset - 1;
        if ((buffer->flags2 & buffer_speculative) == 0) {
            record_error(buffer->cache, static_cast<int>(buffer->error));
            if (buffer->file->debug) {
                fprintf(stderr, "I/O Read error %p @0x%lx: %d %s\n", static_cast<void *>(buffer), buffer->offset,
                        static_cast<int>(buffer->error), strerror(static_cast<int>(buffer->error)));
            }
        }
    }
    buffer->state &= static_cast<uint8_t>(~buffer_ahead_started);
    take_off_flight(buffer);
    count_pending(buffer->cache, buffer->cache->pending_reads, -1);
    return result_of(buffer);
}

int write_complete(vfs_buffer *buffer)
{
    take_off_flight(buffer);
    count_pending(buffer->cache, buffer->cache->pending_writes, -1);
    if (buffer->error == 0) {
        buffer->cache->stats.bytes_written += buffer->transfer.moved;
        buffer->state &= static_cast<uint8_t>(~buffer_end_of_data);
        buffer->changed_from = buffer->changed_to = 0;
        return 0;
    }
    dirty_add(buffer); // the change is not lost: whoever writes it next may have more luck
    record_error(buffer->cache, static_cast<int>(buffer->error));
    if (buffer->file->debug) {
        fprintf(stderr, "I/O Write Error %p @0x%lx: %d %s\n", static_cast<void *>(buffer), buffer->offset,
                static_cast<int>(buffer->error), strerror(static_cast<int>(buffer->error)));
        fprintf(stderr, "*** %s ***\n", "error");
    }
    return result_of(buffer);
}

int complete(vfs_buffer *buffer)
{
    switch (buffer->transfer.operation) {
    case transfer_read: return read_complete(buffer);
    case transfer_write: return write_complete(buffer);
    case transfer_none: buffer->done = 1; return 0;
    default:
        fprintf(stderr, "Eh? buffer %p 0x%lx opcode %d\n", static_cast<void *>(buffer), buffer->offset,
                static_cast<int>(buffer->transfer.operation));
        buffer->done = 1;
        return fail(EINVAL);
    }
}

int start(vfs_buffer *buffer)
{
    const io_engine &engine = engine_of(buffer);
    if (engine.asynchronous) {
        buffer->iostate |= buffer_in_flight;
        ++buffer->cache->stats.async;
        engine.start(buffer);
        return 0;
    }
    if (!buffer->file->debug) {
        engine.start(buffer);
        return complete(buffer);
    }
    timing_start(buffer);
    engine.start(buffer);
    timing_stop(buffer);
    return complete(buffer);
}

void prepare(vfs_buffer *buffer, uint32_t operation, const byte_range &range)
{
    buffer->error = 0;
    buffer->flags2 &= static_cast<uint8_t>(~buffer_timing);
    buffer->iostate &= static_cast<uint8_t>(~buffer_in_flight);
    buffer->cancelled.store(false, std::memory_order_relaxed);
    buffer->done = 0;
    buffer->opcode = operation;
    buffer->transfer = {.descriptor = operation == transfer_read ? buffer->rfd : buffer->wfd,
                        .operation = operation,
                        .area = buffer->data + (range.from - buffer->offset),
                        .length = range.to - range.from,
                        .offset = range.from,
                        .moved = 0};
}

// With a write-behind depth of one, the neighbour toward the tail finishes first.
int wait_for_neighbour(vfs_buffer *buffer)
{
    vfs_buffer *neighbour = buffer->writebehind == 1 ? buffer->next : nullptr;
    if (neighbour == nullptr || (neighbour->state & buffer_writing) == 0) return 0;
    return buffer_wait(neighbour);
}

void skip_write(vfs_buffer *buffer)
{
    if (buffer->file->debug) {
        fprintf(stderr, "skipping write of 0x%lx total %ld dirty %d\n", buffer->offset,
                static_cast<long>(buffer->bytes), is_dirty(buffer) ? 1 : 0);
    }
    dirty_remove(buffer);
}

} // namespace

const io_engine &engine_of(const vfs_buffer *)
{
    return sync_engine;
}

bool starts_asynchronously(const vfs_cache *)
{
    return sync_engine.asynchronous;
}

void record_error(vfs_cache *cache, int error)
{
    if (cache->first_error == 0) cache->first_error = static_cast<uint32_t>(error);
    store_error(cache->file, error);
}

int buffer_start_read(vfs_buffer *buffer)
{
    assert(buffer->queue == nullptr && buffer->done != 0 && buffer->data != nullptr);
    prepare(buffer, transfer_read, {buffer->offset, buffer->end + 1});
    buffer->bytes = 0;
    buffer->valid_end = buffer->offset - 1;
    buffer->checked = false;
    queue_append(&buffer->cache->read_queue, buffer);
    count_pending(buffer->cache, buffer->cache->pending_reads, 1);
    return start(buffer);
}

int buffer_start_write(vfs_buffer *buffer)
{
    const byte_range range = range_to_write(buffer);
    if (!is_dirty(buffer) || buffer->bytes == 0 || range.from >= range.to) {
        skip_write(buffer);
        return 0;
    }
    vfs_cache *cache = buffer->cache;
    if (buffer->queue != &cache->dirty_queue) {
        fprintf(stderr, "wrong queue %p  %p\n", static_cast<void *>(buffer), static_cast<void *>(buffer->queue));
        std::abort(); // the lists are broken: any write could hit the wrong block
    }
    clear_padding(buffer, range);
    if (wait_for_neighbour(buffer) == -1) return -1;
    if (cache->wcurr == buffer) cache->wcurr = nullptr;
    queue_remove(buffer); // keeps the range, for a write that fails
    prepare(buffer, transfer_write, range);
    buffer->file->modified = buffer->file->unsynced = true;
    queue_append(&cache->write_queue, buffer);
    count_pending(cache, cache->pending_writes, 1);
    return start(buffer);
}

int buffer_wait(vfs_buffer *buffer)
{
    if (buffer->done != 0) return result_of(buffer);
    ++buffer->cache->stats.wait;
    if (buffer->file->debug) timing_start(buffer);
    engine_of(buffer).wait(buffer);
    timing_stop(buffer);
    return complete(buffer);
}

int buffer_read_rest(vfs_buffer *buffer)
{
    assert(buffer->done != 0);
    if (buffer->bytes >= buffer->size) return 0;
    const uint64_t valid_to = buffer->offset + buffer->bytes;
    prepare(buffer, transfer_read, {valid_to, buffer->end + 1});
    buffer->checked = false;
    sync_engine.start(buffer);
    buffer->done = 1;
    if (buffer->error != 0) {
        record_error(buffer->cache, static_cast<int>(buffer->error));
        return result_of(buffer);
    }
    buffer->cache->stats.bytes_read += buffer->transfer.moved;
    buffer->bytes += buffer->transfer.moved;
    buffer->valid_end = buffer->offset + buffer->bytes - 1;
    return 0;
}

void buffer_read_hint(vfs_buffer *buffer)
{
    if ((buffer->state & buffer_drop_behind) == 0) return;
    if (is_mapped(buffer))
        (void)posix_madvise(buffer->data, buffer->size, POSIX_MADV_WILLNEED);
    else if ((buffer->engine & engine_direct) == 0)
        (void)posix_fadvise(buffer->rfd, static_cast<off_t>(buffer->offset), static_cast<off_t>(buffer->size),
                            POSIX_FADV_WILLNEED);
}
