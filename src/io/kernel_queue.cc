// See kernel_queue.h. Contexts are kept for the whole process and never destroyed: the kernel takes milliseconds for
// that, and the system has few. A forked child has none of its parent's.
#include "io/kernel_queue.h"

#include "util/errors.h"

#include <atomic>
#include <cstdio>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// Idle contexts. No more are made than there is room for, so that giving one back cannot fail.
struct context_pool {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    uint32_t made, idle;
    aio_context_t contexts[1024];
};
context_pool pool;

void begin_anew_in_child()
{
    pthread_mutex_init(&pool.mutex, nullptr); // a thread that is not here may have held it
    pool.made = pool.idle = 0;
}

void watch_forks()
{
    pthread_atfork(nullptr, nullptr, begin_anew_in_child);
}

void note_unmade()
{
    pthread_mutex_lock(&pool.mutex);
    if (pool.made > 0) --pool.made;
    pthread_mutex_unlock(&pool.mutex);
}

long submit(vfs_transfer *transfer)
{
    iocb *list[] = {&transfer->control};
    return syscall(SYS_io_submit, transfer->context, 1L, list);
}

// The first full queue of the process is said once for each kind of transfer; a race may say it twice.
void note_full(vfs_transfer *transfer)
{
    static std::atomic<uint32_t> refused[2];
    ++transfer->retries;
    if (refused[transfer->operation].fetch_add(1, std::memory_order_relaxed) == 0)
        fprintf(stderr, "KAIO performance degradation detected - consider increasing AIO servers/requests\n");
    sched_yield();
}

int submit_operation(vfs_transfer *transfer, uint16_t opcode, const char *name)
{
    transfer->control = {};
    transfer->control.aio_data = transfer->control.aio_buf = reinterpret_cast<uintptr_t>(transfer->area);
    transfer->control.aio_lio_opcode = opcode;
    transfer->control.aio_fildes = static_cast<uint32_t>(transfer->descriptor);
    transfer->control.aio_nbytes = transfer->length;
    transfer->control.aio_offset = static_cast<int64_t>(transfer->offset);
    transfer->result = 0;
    transfer->status = EINPROGRESS;
    for (;;) {
        const long taken = submit(transfer);
        if (taken == 1) return 0;
        const int error = taken == 0 ? EAGAIN : errno;
        if (error == EAGAIN) {
            note_full(transfer);
            continue;
        }
        fprintf(stderr, "%s error %d\n", name, error);
        transfer->status = error;
        return fail(error);
    }
}

// Takes the transfer's event when there is one, or waits for it: 1 collected, 0 none yet, -1 with errno.
int collect(vfs_transfer *transfer, bool waits)
{
    for (;;) {
        io_event event{};
        const long count = syscall(SYS_io_getevents, transfer->context, waits ? 1L : 0L, 1L, &event, nullptr);
        if (count == -1 && (errno == EINTR || (waits && errno == EAGAIN))) continue;
        if (count == -1) return -1;
        if (count == 0 && !waits) return 0;
        // An event of another transfer would be a mistake of an earlier user of the context.
        if (count == 0 || event.obj != reinterpret_cast<uintptr_t>(&transfer->control)) continue;
        transfer->status = event.res < 0 ? static_cast<int>(-event.res) : 0;
        transfer->result = event.res < 0 ? 0 : event.res;
        return 1;
    }
}

// The context is lost, and the transfer with it.
int cannot_ask(vfs_transfer *transfer, const char *name)
{
    const int error = errno;
    fprintf(stderr, "%s error %d\n", name, error);
    transfer->status = error;
    transfer->context = 0;
    note_unmade();
    return fail(error);
}

} // namespace

int aio_context_take(vfs_transfer *transfer)
{
    static pthread_once_t watched = PTHREAD_ONCE_INIT;
    pthread_once(&watched, watch_forks);
    constexpr uint32_t most = sizeof pool.contexts / sizeof *pool.contexts;
    transfer->context = 0;
    pthread_mutex_lock(&pool.mutex);
    const bool idle = pool.idle > 0, makes = !idle && pool.made < most;
    if (idle) transfer->context = pool.contexts[--pool.idle];
    if (makes) ++pool.made;
    pthread_mutex_unlock(&pool.mutex);
    if (idle) return 0;
    if (!makes) return fail(EBUSY);
    if (syscall(SYS_io_setup, 1U, &transfer->context) == 0) return 0;
    const int error = errno;
    note_unmade();
    transfer->context = 0;
    return fail(error);
}

void aio_context_give_back(vfs_transfer *transfer)
{
    if (transfer->context == 0) return;
    pthread_mutex_lock(&pool.mutex);
    pool.contexts[pool.idle++] = transfer->context;
    pthread_mutex_unlock(&pool.mutex);
    transfer->context = 0;
}

int aio_read(vfs_transfer *transfer)
{
    return submit_operation(transfer, IOCB_CMD_PREAD, "aio_read");
}

int aio_write(vfs_transfer *transfer)
{
    return submit_operation(transfer, IOCB_CMD_PWRITE, "aio_write");
}

int aio_error(vfs_transfer *transfer)
{
    if (transfer->status == EINPROGRESS && collect(transfer, false) == -1) return cannot_ask(transfer, "aio_error");
    return transfer->status;
}

int64_t aio_return(vfs_transfer *transfer)
{
    if (transfer->status == EINPROGRESS) {
        const int collected = collect(transfer, false);
        if (collected == -1) return cannot_ask(transfer, "aio_return");
        if (collected == 0) return fail(EINVAL);
    }
    return transfer->status == 0 ? transfer->result : fail(transfer->status);
}

int aio_suspend(vfs_transfer *transfer)
{
    if (transfer->status != EINPROGRESS) return 0;
    return collect(transfer, true) == -1 ? cannot_ask(transfer, "aio_suspend") : 0;
}

int lio_listio(int mode, vfs_transfer *transfer)
{
    switch (transfer->operation) {
    case transfer_read:
        if (aio_read(transfer) == -1) return -1;
        break;
    case transfer_write:
        if (aio_write(transfer) == -1) return -1;
        break;
    case transfer_none:
        transfer->status = 0;
        transfer->result = 0;
        return 0;
    default: return fail(EINVAL);
    }
    if (mode == lio_no_wait) return 0;
    return collect(transfer, true) == -1 ? cannot_ask(transfer, "lio_listio") : 0;
}
