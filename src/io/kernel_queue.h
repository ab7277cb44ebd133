// The kernel's asynchronous I/O by its system calls, behind routines that work as their POSIX namesakes do, on one
// transfer with a context of its own. The status of a transfer is EINPROGRESS from its submission until it has been
// collected, then 0 (the result is the count of bytes) or an error number.
// May use the transfer only. A transfer is not moved or changed while its status is EINPROGRESS.
#ifndef VFS_IO_KERNEL_QUEUE_H
#define VFS_IO_KERNEL_QUEUE_H

#include "buffer/buffer.h"

// Gives the transfer a context out of those of the process: 0, or -1 with errno (EBUSY: all of them are in use; any
// other: the system makes no more).
[[nodiscard]] int aio_context_take(vfs_transfer *transfer);
void aio_context_give_back(vfs_transfer *transfer); // nothing of it is in progress; no effect when it has none

// 0 when submitted, or -1 with errno, which is then the status. A full queue is waited out.
[[nodiscard]] int aio_read(vfs_transfer *transfer);
[[nodiscard]] int aio_write(vfs_transfer *transfer);
// The status, after a look at the queue; -1 when the kernel cannot be asked: the status is then its error and the
// context is lost.
[[nodiscard]] int aio_error(vfs_transfer *transfer);
// The result of a finished transfer; -1 with its error, or with EINVAL while it is in progress.
[[nodiscard]] int64_t aio_return(vfs_transfer *transfer);
// Waits until it has finished: 0, or -1 when the kernel cannot be asked.
[[nodiscard]] int aio_suspend(vfs_transfer *transfer);
// Submits it, and with `lio_wait` waits as well; a transfer of no operation has finished. 0 or -1 with the status.
enum : int { lio_wait = 0, lio_no_wait = 1 };
[[nodiscard]] int lio_listio(int mode, vfs_transfer *transfer);

#endif
