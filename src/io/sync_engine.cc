// The engine that performs a transfer in the calling thread: positioned reads and writes, and blocks inside the
// file's mapping, whose bytes need no moving. Engines may use the transfer, the buffer's error and the cache's
// retries; they must not know queues, states or completions.
#include "io/io.h"
#include "util/errors.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr uint64_t most_at_once = 0x7ffff000; // bytes the kernel moves in one call
constexpr uint64_t direct_unit = 4096;

// A device without data answers EAGAIN at once: wait for it instead of asking again at full speed.
void wait_for_device(const vfs_buffer *buffer, short events)
{
    if (is_regular(buffer->file)) return;
    pollfd ready{.fd = buffer->transfer.descriptor, .events = events, .revents = 0};
    (void)poll(&ready, 1, -1);
    errno = EAGAIN;
}

// Some file systems take O_DIRECT at open and refuse every transfer: go on through the page cache.
bool drop_direct(vfs_buffer *buffer)
{
    if ((buffer->engine & engine_direct) == 0) return false;
    const int flags = fcntl(buffer->transfer.descriptor, F_GETFL);
    if (flags == -1 || fcntl(buffer->transfer.descriptor, F_SETFL, flags & ~O_DIRECT) == -1) return false;
    buffer->engine &= static_cast<uint8_t>(~engine_direct);
    buffer->cache->engine &= static_cast<uint8_t>(~engine_direct);
    buffer->file->mode_flags &= static_cast<uint8_t>(~mode_direct);
    return true;
}

// One system call of the transfer, from where it stands, with its retries: bytes moved or -1.
ssize_t move_some(vfs_buffer *buffer)
{
    vfs_transfer &transfer = buffer->transfer;
    const bool reads = transfer.operation == transfer_read;
    const uint64_t left = transfer.length - transfer.moved;
    const size_t bytes = left < most_at_once ? left : most_at_once;
    std::byte *area = transfer.area + transfer.moved;
    const auto offset = static_cast<off_t>(transfer.offset + transfer.moved);
    const auto once = [&] {
        return retry_call(&buffer->cache->stats.retries, [&] {
            const ssize_t result = reads ? pread(transfer.descriptor, area, bytes, offset)
                                         : pwrite(transfer.descriptor, area, bytes, offset);
            if (result == -1 && errno == EAGAIN) wait_for_device(buffer, reads ? POLLIN : POLLOUT);
            return result;
        });
    };
    const ssize_t result = once();
    return result == -1 && errno == EINVAL && drop_direct(buffer) ? once() : result;
}

void drop_pages(const vfs_buffer *buffer)
{
    if ((buffer->engine & engine_direct) != 0) return;
    (void)posix_fadvise(buffer->transfer.descriptor, static_cast<off_t>(buffer->offset),
                        static_cast<off_t>(buffer->size), POSIX_FADV_DONTNEED);
}

bool take_drop_behind(vfs_buffer *buffer)
{
    if ((buffer->state & buffer_drop_behind) == 0 || (buffer->engine & engine_direct) != 0) return false;
    buffer->state &= static_cast<uint8_t>(~buffer_drop_behind);
    return true;
}

// A mapped block is read by looking at it: as far as the file has bytes.
void read_mapped(vfs_buffer *buffer)
{
    const uint64_t filesize = buffer->cache->filesize;
    const uint64_t known = filesize > buffer->file->end_of_file ? filesize : buffer->file->end_of_file;
    vfs_transfer &transfer = buffer->transfer;
    const uint64_t there = transfer.offset < known ? known - transfer.offset : 0;
    transfer.moved = there < transfer.length ? there : transfer.length;
}

void sync_read(vfs_buffer *buffer)
{
    if (is_mapped(buffer)) return read_mapped(buffer);
    vfs_transfer &transfer = buffer->transfer;
    while (transfer.moved < transfer.length) {
        const ssize_t count = move_some(buffer);
        if (count == -1) {
            buffer->error = static_cast<uint32_t>(errno);
            return;
        }
        if (count == 0) break;
        transfer.moved += static_cast<uint64_t>(count);
        if ((buffer->engine & engine_direct) != 0 && transfer.moved % direct_unit != 0) break; // the end of the file
    }
    if (take_drop_behind(buffer)) drop_pages(buffer);
}

// A mapped block is in the page cache already: only its write-back is asked for.
void write_mapped(vfs_buffer *buffer)
{
    vfs_transfer &transfer = buffer->transfer;
    transfer.moved = transfer.length;
    if (transfer.offset % direct_unit != 0) return;
    if (msync(transfer.area, transfer.length, MS_ASYNC) == 0) {
        if (take_drop_behind(buffer)) (void)posix_madvise(transfer.area, transfer.length, POSIX_MADV_DONTNEED);
        return;
    }
    const int error = errno;
    if (buffer->file->debug) {
        fprintf(stderr, "MMAP Write Error @0x%lx: %d %s\n", transfer.offset, error, strerror(error));
        fprintf(stderr, "offset=0x%lx total=0x%lx size=0x%lx\n", buffer->offset, transfer.length,
                buffer->cache->filesize);
    }
    if (error != ENOMEM) buffer->error = static_cast<uint32_t>(error);
}

// Past the file size limit the kernel would not only refuse the write but kill the host with SIGXFSZ.
bool passes_limit(const vfs_buffer *buffer)
{
    return is_regular(buffer->file) && buffer->transfer.offset + buffer->transfer.length > buffer->cache->write_limit;
}

void sync_write(vfs_buffer *buffer)
{
    if (is_mapped(buffer)) return write_mapped(buffer);
    vfs_transfer &transfer = buffer->transfer;
    int error = passes_limit(buffer) ? EFBIG : 0;
    while (error == 0 && transfer.moved < transfer.length) {
        const ssize_t count = move_some(buffer);
        if (count > 0)
            transfer.moved += static_cast<uint64_t>(count);
        else
            error = count == 0 ? EIO : errno;
    }
    if (buffer->file->map_base != nullptr && transfer.moved > 0) buffer->file->positioned_writes = true;
    if (take_drop_behind(buffer)) drop_pages(buffer);
    if (error == 0) return;
    if (buffer->file->debug) {
        fprintf(stderr, "I/O Write Error 3 (short) %ld vs %ld @0x%lx: %d %s\n", static_cast<long>(transfer.moved),
                static_cast<long>(transfer.length), transfer.offset, error, strerror(error));
    }
    buffer->error = static_cast<uint32_t>(error);
}

void sync_start(vfs_buffer *buffer)
{
    if (buffer->transfer.operation == transfer_read) sync_read(buffer);
    if (buffer->transfer.operation == transfer_write) sync_write(buffer);
}

void sync_wait(vfs_buffer *) {} // it has ended when it was started

} // namespace

const io_engine sync_engine{.name = " IO", .asynchronous = false, .start = sync_start, .wait = sync_wait};
