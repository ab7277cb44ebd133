// The engine that leaves transfers to the kernel's queue and collects them when they are waited for. What the queue
// could not do to the end is done with positioned calls by whoever collects it.
#include "io/io.h"
#include "io/kernel_queue.h"
#include "util/errors.h"

#include <cstdio>
#include <cstring>

namespace {

bool is_quiet(int error)
{
    return error == ECANCELED || error == EFBIG || error == ENOSPC || error == EDQUOT || error == EOVERFLOW;
}

// Errors that a positioned call deals with: it repeats itself, or goes through the page cache.
bool goes_on(int error)
{
    return error == EINTR || error == EAGAIN || error == ETIMEDOUT || error == EINVAL;
}

// A short count is no result yet: behind it may be more, an error, or the end of the file. Where the kernel could not
// be asked the context is gone, and nobody knows what became of the transfer.
void take_result(vfs_transfer *transfer)
{
    const bool lost = transfer->context == 0;
    const int64_t count = aio_return(transfer);
    const int error = count == -1 ? errno : 0;
    aio_context_give_back(transfer);
    if (error != 0 && (lost || !goes_on(error))) {
        transfer->error = error;
        return;
    }
    if (count > 0) transfer->moved = static_cast<uint64_t>(count);
    const bool at_end = transfer->operation == transfer_read && count == 0;
    if (!at_end && transfer->moved < transfer->length) transfer_perform(transfer);
}

bool kernel_start(vfs_buffer *buffer)
{
    vfs_transfer &transfer = buffer->transfer;
    if (aio_context_take(&transfer) == -1) {
        if (errno != EBUSY) buffer->flags2 |= buffer_no_context;
        transfer_perform(&transfer);
        return false;
    }
    const bool reads = transfer.operation == transfer_read;
    if ((reads ? aio_read(&transfer) : aio_write(&transfer)) == 0) return true;
    aio_context_give_back(&transfer);
    if (goes_on(transfer.status)) {
        transfer_perform(&transfer);
        return false;
    }
    transfer.error = transfer.status;
    return false;
}

bool kernel_ended(vfs_buffer *buffer)
{
    return aio_error(&buffer->transfer) != EINPROGRESS;
}

void kernel_wait(vfs_buffer *buffer)
{
    vfs_transfer *transfer = &buffer->transfer;
    (void)aio_suspend(transfer); // a failure is the status
    const int status = transfer->status;
    if (status != 0 && !is_quiet(status) && !goes_on(status))
        fprintf(stderr, "AIO Wait error %d %s\n", status, strerror(status));
    take_result(transfer);
}

} // namespace

void transfer_perform_queued(vfs_transfer *transfer)
{
    if (aio_context_take(transfer) == -1) return transfer_perform(transfer);
    (void)lio_listio(lio_wait, transfer); // a failure is the status
    take_result(transfer);
}

const io_engine kernel_engine{.name = "AIO", .start = kernel_start, .ended = kernel_ended, .wait = kernel_wait};
