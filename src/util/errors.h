// Errors as the driver returns them: -1 with errno set. Used by every room; knows nothing of files.
#ifndef VFS_UTIL_ERRORS_H
#define VFS_UTIL_ERRORS_H

#include <cerrno>
#include <cstdint>

[[nodiscard]] inline int fail(int error)
{
    errno = error;
    return -1;
}

// Repeats a system call while it fails with EINTR or EAGAIN, and up to twice after ETIMEDOUT, counting the
// repetitions in `retries`. Not for locks, where EAGAIN is a conflict.
template <typename Call> auto retry_call(uint64_t *retries, Call &&call) -> decltype(call())
{
    for (int timeouts = 0;; ++*retries) {
        const auto result = call();
        if (result != -1) return result;
        if (errno == EINTR || errno == EAGAIN) continue;
        if (errno == ETIMEDOUT && ++timeouts <= 2) continue;
        return result;
    }
}

#endif
