// The life of a transfer: started, waited for, completed; which engine performs it; which bytes a write carries.
// May use buffer/ for queues and states; must not know which block is wanted or why, nor how an engine works.
#include "io/file_calls.h"
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

void take_off_flight(vfs_buffer *buffer)
{
    buffer->at_work = nullptr;
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
    caches_dump(buffer->file);
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
    --buffer->cache->pending_reads;
    return result_of(buffer);
}

void report_failed_write(const vfs_buffer *buffer)
{
    if (!buffer->file->debug) return;
    const auto error = static_cast<int>(buffer->error);
    if (!is_mapped(buffer)) {
        fprintf(stderr, "I/O Write Error 3 (short) %ld vs %ld @0x%lx: %d %s\n",
                static_cast<long>(buffer->transfer.moved), static_cast<long>(buffer->transfer.length),
                buffer->transfer.offset, error, strerror(error));
    }
    fprintf(stderr, "I/O Write Error %p @0x%lx: %d %s\n", static_cast<const void *>(buffer), buffer->offset, error,
            strerror(error));
    fprintf(stderr, "*** %s ***\n", "error");
    caches_dump(buffer->file);
}

int write_complete(vfs_buffer *buffer)
{
    take_off_flight(buffer);
    --buffer->cache->pending_writes;
    if (buffer->file->map_base != nullptr && !is_mapped(buffer) && buffer->transfer.moved > 0)
        buffer->file->positioned_writes = true;
    if (buffer->error == 0) {
        buffer->cache->stats.bytes_written += buffer->transfer.moved;
        buffer->state &= static_cast<uint8_t>(~buffer_end_of_data);
        buffer->changed_from = buffer->changed_to = 0;
        return 0;
    }
    dirty_add(buffer); // the change is not lost: whoever writes it next may have more luck
    record_error(buffer->cache, static_cast<int>(buffer->error));
    report_failed_write(buffer);
    return result_of(buffer);
}

// Some file systems take O_DIRECT at open and refuse every transfer: go on through the page cache.
void drop_direct(vfs_buffer *buffer)
{
    vfs_transfer &transfer = buffer->transfer;
    if (transfer.error != EINVAL || !transfer.direct) return;
    const int flags = fcntl(transfer.descriptor, F_GETFL);
    if (flags == -1 || fcntl(transfer.descriptor, F_SETFL, flags & ~O_DIRECT) == -1) return;
    buffer->engine &= static_cast<uint8_t>(~engine_direct);
    buffer->cache->engine &= static_cast<uint8_t>(~engine_direct);
    buffer->file->mode_flags &= static_cast<uint8_t>(~mode_direct);
    transfer.direct = false;
    transfer.error = 0;
    transfer_perform(&transfer);
}

// What the engine left in the transfer becomes the buffer's and the cache's.
void take_outcome(vfs_buffer *buffer)
{
    drop_direct(buffer);
    buffer->error = static_cast<uint32_t>(buffer->transfer.error);
    buffer->cache->stats.retries += buffer->transfer.retries;
}

int complete(vfs_buffer *buffer)
{
    take_outcome(buffer);
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

// Past the file size limit the kernel would not only refuse the write but kill the host with SIGXFSZ.
bool passes_limit(const vfs_buffer *buffer)
{
    const vfs_transfer &transfer = buffer->transfer;
    return transfer.operation == transfer_write && is_regular(buffer->file) && !is_mapped(buffer) &&
           transfer.offset + transfer.length > buffer->cache->write_limit;
}

void report_refusal(const vfs_buffer *buffer)
{
    const int error = buffer->transfer.error;
    if (!buffer->file->debug || error == EFBIG || error == EOVERFLOW || error == ECANCELED) return;
    const bool reads = buffer->transfer.operation == transfer_read;
    fprintf(stderr, "AIO %s Error %p @0x%lx: %d %s\n", reads ? "Read" : "Write", static_cast<const void *>(buffer),
            buffer->offset, error, strerror(error));
    if (reads) return;
    fprintf(stderr, "*** %s ***\n", "oops");
    cache_dump(buffer->cache, true);
}

// Whether the transfer is under way; else it has ended.
bool begin(vfs_buffer *buffer, const io_engine &engine)
{
    const bool timed = &engine == &sync_engine && buffer->file->debug;
    if (timed) timing_start(buffer);
    const bool under_way = engine.start(buffer);
    if (timed) timing_stop(buffer);
    if (&engine != &sync_engine) ++buffer->cache->stats.async;
    if (&engine == &kernel_engine && buffer->transfer.status != 0 && buffer->transfer.error != 0)
        report_refusal(buffer);
    return under_way;
}

int start(vfs_buffer *buffer, const io_engine &engine)
{
    if (passes_limit(buffer)) {
        buffer->transfer.error = EFBIG;
        return complete(buffer);
    }
    if (!begin(buffer, engine)) return complete(buffer);
    buffer->at_work = &engine;
    return 0;
}

// The hint about pages that are not wanted afterwards is given once.
bool takes_drop_behind(vfs_buffer *buffer, const io_engine &engine)
{
    if ((buffer->state & buffer_drop_behind) == 0 || (buffer->engine & engine_direct) != 0) return false;
    if (&engine == &kernel_engine) return false;
    buffer->state &= static_cast<uint8_t>(~buffer_drop_behind);
    return true;
}

void prepare(vfs_buffer *buffer, uint32_t operation, const byte_range &range, const io_engine &engine)
{
    assert(buffer->at_work == nullptr);
    buffer->error = 0;
    buffer->flags2 &= static_cast<uint8_t>(~buffer_timing);
    buffer->cancelled.store(false, std::memory_order_relaxed);
    buffer->done = 0;
    buffer->opcode = operation;
    vfs_transfer &transfer = buffer->transfer;
    transfer.descriptor = operation == transfer_read ? buffer->rfd : buffer->wfd;
    transfer.operation = operation;
    transfer.area = buffer->data + (range.from - buffer->offset);
    transfer.length = range.to - range.from;
    transfer.offset = range.from;
    transfer.moved = transfer.retries = 0;
    transfer.error = transfer.status = 0;
    transfer.direct = (buffer->engine & engine_direct) != 0;
    transfer.device = !is_regular(buffer->file);
    transfer.drop_behind = takes_drop_behind(buffer, engine);
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
        caches_dump(buffer->file);
    }
    dirty_remove(buffer);
}

} // namespace

const io_engine &engine_for(const vfs_buffer *buffer, awaited when)
{
    if (when == awaited::at_once || is_mapped(buffer)) return sync_engine;
    if (buffer->server != nullptr) return server_engine;
    if ((buffer->cache->mode & cache_synchronous) != 0) return sync_engine;
    if ((buffer->engine & engine_aio) == 0) return announce_engine;
    return (buffer->flags2 & buffer_no_context) != 0 ? sync_engine : kernel_engine;
}

void record_error(vfs_cache *cache, int error)
{
    if (cache->first_error == 0) cache->first_error = static_cast<uint32_t>(error);
    store_error(cache->file, error);
}

int buffer_start_read(vfs_buffer *buffer, awaited when)
{
    assert(buffer->queue == nullptr && buffer->done != 0 && buffer->data != nullptr);
    const io_engine &engine = engine_for(buffer, when);
    prepare(buffer, transfer_read, {buffer->offset, buffer->end + 1}, engine);
    buffer->bytes = 0;
    buffer->valid_end = buffer->offset - 1;
    buffer->checked = false;
    queue_append(&buffer->cache->read_queue, buffer);
    ++buffer->cache->pending_reads;
    return start(buffer, engine);
}

int buffer_start_write(vfs_buffer *buffer, awaited when)
{
    const byte_range range = range_to_write(buffer);
    if (!is_dirty(buffer) || buffer->bytes == 0 || range.from >= range.to) {
        skip_write(buffer);
        return 0;
    }
    vfs_cache *cache = buffer->cache;
    if (buffer->queue != &cache->dirty_queue) {
        fprintf(stderr, "wrong queue %p  %p\n", static_cast<void *>(buffer), static_cast<void *>(buffer->queue));
        cache_dump(cache, true);
        std::abort(); // the lists are broken: any write could hit the wrong block
    }
    clear_padding(buffer, range);
    if (wait_for_neighbour(buffer) == -1) return -1;
    if (cache->wcurr == buffer) cache->wcurr = nullptr;
    queue_remove(buffer); // keeps the range, for a write that fails
    const io_engine &engine = engine_for(buffer, when);
    prepare(buffer, transfer_write, range, engine);
    buffer->file->modified = buffer->file->unsynced = true;
    queue_append(&cache->write_queue, buffer);
    ++cache->pending_writes;
    return start(buffer, engine);
}

int buffer_wait(vfs_buffer *buffer)
{
    if (buffer->done != 0) return result_of(buffer);
    const io_engine &engine = *buffer->at_work;
    if (!engine.ended(buffer)) {
        ++buffer->cache->stats.wait;
        if (buffer->file->debug) timing_start(buffer);
    }
    engine.wait(buffer);
    timing_stop(buffer);
    return complete(buffer);
}

void buffer_cancel(vfs_buffer *buffer)
{
    if (buffer->cancelled.load(std::memory_order_relaxed)) return;
    if (buffer->at_work == &kernel_engine) {
        if (kernel_engine.ended(buffer)) return;
        if (buffer->file->debug) {
            fprintf(stderr, "cancelling AIO read @0x%lx  total=%ld\n", buffer->offset,
                    static_cast<long>(buffer->transfer.length));
        }
    }
    buffer->cancelled.store(true, std::memory_order_relaxed);
    ++buffer->cache->stats.cancel;
}

void buffer_forget_transfer(vfs_buffer *buffer)
{
    if (buffer->done != 0) return;
    vfs_cache *cache = buffer->cache;
    --(buffer->transfer.operation == transfer_read ? cache->pending_reads : cache->pending_writes);
    take_off_flight(buffer);
    buffer->bytes = 0;
    buffer->valid_end = buffer->offset - 1;
    buffer->changed_from = buffer->changed_to = 0;
}

int buffer_read_rest(vfs_buffer *buffer)
{
    assert(buffer->done != 0);
    if (buffer->bytes >= buffer->size) return 0;
    const uint64_t valid_to = buffer->offset + buffer->bytes;
    prepare(buffer, transfer_read, {valid_to, buffer->end + 1}, sync_engine);
    vfs_transfer &transfer = buffer->transfer;
    buffer->checked = false;
    if (transfer.direct && !is_mapped(buffer)) { // it begins anywhere
        const int64_t count = file_read_at(buffer->file, transfer.area, transfer.length, transfer.offset);
        transfer.moved = count == -1 ? 0 : static_cast<uint64_t>(count);
        transfer.error = count == -1 ? errno : 0;
        transfer.direct = false;
    } else {
        (void)sync_engine.start(buffer);
    }
    take_outcome(buffer);
    buffer->done = 1;
    if (buffer->error != 0) {
        record_error(buffer->cache, static_cast<int>(buffer->error));
        return result_of(buffer);
    }
    buffer->cache->stats.bytes_read += transfer.moved;
    buffer->bytes += transfer.moved;
    buffer->valid_end = buffer->offset + buffer->bytes - 1;
    return 0;
}

void buffer_read_hint(vfs_buffer *buffer)
{
    if ((buffer->state & buffer_drop_behind) == 0 || (buffer->engine & engine_direct) != 0) return;
    (void)posix_fadvise(buffer->rfd, static_cast<off_t>(buffer->offset), static_cast<off_t>(buffer->size),
                        POSIX_FADV_WILLNEED);
}
