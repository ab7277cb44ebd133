#include "io/file_calls.h"

#include "util/errors.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

thread_local uint64_t ignored_retries;

bool sync_not_offered(int error)
{
    return error == EINVAL || error == ENOSYS || error == ENOTSUP || error == EROFS;
}

} // namespace

int64_t file_read_at(file_state *file, void *to, uint64_t bytes, uint64_t offset)
{
    uint64_t done = 0;
    while (done < bytes) {
        const ssize_t got = retry_call(&ignored_retries, [&] {
            return pread(file->fd, static_cast<char *>(to) + done, bytes - done, static_cast<off_t>(offset + done));
        });
        if (got == -1) return -1;
        if (got == 0) break;
        done += static_cast<uint64_t>(got);
    }
    return static_cast<int64_t>(done);
}

int file_write_at(file_state *file, const void *from, uint64_t bytes, uint64_t offset)
{
    uint64_t done = 0;
    while (done < bytes) {
        const ssize_t put = retry_call(&ignored_retries, [&] {
            return pwrite(file->fd, static_cast<const char *>(from) + done, bytes - done,
                          static_cast<off_t>(offset + done));
        });
        if (put == -1) return -1;
        if (put == 0) return fail(EIO);
        done += static_cast<uint64_t>(put);
    }
    return 0;
}

int64_t file_size_now(const file_state *file)
{
    struct stat facts;
    if (fstat(file->fd, &facts) == -1) return -1;
    return facts.st_size;
}

int file_truncate(file_state *file, uint64_t size)
{
    return retry_call(&ignored_retries, [&] { return ftruncate(file->fd, static_cast<off_t>(size)); });
}

int file_sync(file_state *file)
{
    if (file->map_base != nullptr && msync(file->map_base, file->map_length, MS_SYNC) == -1 && errno != ENOMEM)
        return -1;
    if (file->map_base != nullptr && !file->positioned_writes) return 0;
    // A failed sync is not repeated: the kernel may have dropped the pages that it could not write.
    if (fdatasync(file->fd) == -1 && !sync_not_offered(errno)) return -1;
    file->positioned_writes = false;
    return 0;
}
