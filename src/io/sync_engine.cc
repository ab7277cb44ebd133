// The engines that perform a transfer in the calling thread: positioned reads and writes, and blocks inside the
// file's mapping, whose bytes need no moving. Must not know queues, states or completions.
#include "io/file_calls.h"
#include "io/io.h"
#include "util/errors.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr uint64_t most_at_once = 0x7ffff000; // bytes the kernel moves in one call
constexpr uint64_t direct_unit = 4096;

// A device without data answers EAGAIN at once: wait for it instead of asking again at full speed.
void wait_for_device(const vfs_transfer *transfer)
{
    const short events = transfer->operation == transfer_read ? POLLIN : POLLOUT;
    pollfd ready{.fd = transfer->descriptor, .events = events, .revents = 0};
    (void)poll(&ready, 1, -1);
    errno = EAGAIN;
}

// One system call of the transfer, from where it stands, with its retries: bytes moved or -1.
ssize_t move_some(vfs_transfer *transfer)
{
    const uint64_t left = transfer->length - transfer->moved;
    const size_t bytes = left < most_at_once ? left : most_at_once;
    std::byte *area = transfer->area + transfer->moved;
    const auto offset = static_cast<off_t>(transfer->offset + transfer->moved);
    return retry_call(&transfer->retries, [&] {
        const ssize_t result = transfer->operation == transfer_read ? pread(transfer->descriptor, area, bytes, offset)
                                                                    : pwrite(transfer->descriptor, area, bytes, offset);
        if (result == -1 && errno == EAGAIN && transfer->device) wait_for_device(transfer);
        return result;
    });
}

// A direct transfer that ended inside a unit goes on at the begin of that unit. False when it has nowhere to go: at the
// end of the file, or where the next attempt ends no farther on: what lies there the device cannot move.
bool back_to_unit(vfs_transfer *transfer, uint64_t *ended_at)
{
    if (transfer->operation == transfer_read && file_ends_at(transfer->descriptor, transfer->offset + transfer->moved))
        return false;
    if (transfer->moved <= *ended_at) {
        transfer->error = EIO;
        return false;
    }
    *ended_at = transfer->moved;
    transfer->moved = transfer->moved / direct_unit * direct_unit;
    return true;
}

void move_all(vfs_transfer *transfer)
{
    uint64_t ended_at = 0;
    while (transfer->moved < transfer->length) {
        if (transfer->direct && transfer->moved % direct_unit != 0 && !back_to_unit(transfer, &ended_at)) return;
        const ssize_t count = move_some(transfer);
        if (count == -1) {
            transfer->error = errno;
            return;
        }
        if (count == 0) {
            if (transfer->operation == transfer_write) transfer->error = EIO;
            return;
        }
        transfer->moved += static_cast<uint64_t>(count);
    }
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

// A mapped block is in the page cache already: only its write-back is asked for.
void write_mapped(vfs_buffer *buffer)
{
    vfs_transfer &transfer = buffer->transfer;
    transfer.moved = transfer.length;
    if (transfer.offset % direct_unit != 0) return;
    if (msync(transfer.area, transfer.length, MS_ASYNC) == 0) return;
    const int error = errno;
    if (buffer->file->debug) {
        fprintf(stderr, "MMAP Write Error @0x%lx: %d %s\n", transfer.offset, error, strerror(error));
        fprintf(stderr, "offset=0x%lx total=0x%lx size=0x%lx\n", buffer->offset, transfer.length,
                buffer->cache->filesize);
    }
    if (error != ENOMEM) transfer.error = error;
}

bool sync_start(vfs_buffer *buffer)
{
    if (!is_mapped(buffer))
        transfer_perform(&buffer->transfer);
    else if (buffer->transfer.operation == transfer_read)
        read_mapped(buffer);
    else
        write_mapped(buffer);
    return false;
}

// Nothing is to be waited for.
bool sync_ended(vfs_buffer *)
{
    return true;
}
void sync_wait(vfs_buffer *) {}

// Takes what the page cache has already; the system does not begin to read for this.
void take_cached(vfs_transfer *transfer)
{
    const iovec piece{transfer->area, transfer->length};
    const ssize_t count = preadv2(transfer->descriptor, &piece, 1, static_cast<off_t>(transfer->offset), RWF_NOWAIT);
    if (count > 0) transfer->moved = static_cast<uint64_t>(count);
}

// Through the page cache the system itself reads and writes while the caller goes on: pages that are there are copied
// at once; it is told which others will be wanted, and they are copied when they are. The kernel's queue gains nothing
// here, because what is submitted to it is copied before the call returns.
bool announce_start(vfs_buffer *buffer)
{
    vfs_transfer &transfer = buffer->transfer;
    if (transfer.operation != transfer_read) return sync_start(buffer);
    take_cached(&transfer);
    if (transfer.moved == transfer.length) return false;
    (void)posix_fadvise(transfer.descriptor, static_cast<off_t>(transfer.offset + transfer.moved),
                        static_cast<off_t>(transfer.length - transfer.moved), POSIX_FADV_WILLNEED);
    return true;
}

void announce_wait(vfs_buffer *buffer)
{
    if (!buffer->cancelled.load(std::memory_order_relaxed)) transfer_perform(&buffer->transfer);
}

} // namespace

void transfer_perform(vfs_transfer *transfer)
{
    move_all(transfer);
    const bool failed_read = transfer->error != 0 && transfer->operation == transfer_read;
    if (!transfer->drop_behind || failed_read) return;
    (void)posix_fadvise(transfer->descriptor, static_cast<off_t>(transfer->offset),
                        static_cast<off_t>(transfer->length), POSIX_FADV_DONTNEED);
}

const io_engine sync_engine{.name = "PIO", .start = sync_start, .ended = sync_ended, .wait = sync_wait};
const io_engine announce_engine{
    .name = "announce", .start = announce_start, .ended = sync_ended, .wait = announce_wait};
