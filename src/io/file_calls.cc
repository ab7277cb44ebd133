// See file_calls.h.
#include "io/file_calls.h"

#include "util/errors.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

thread_local uint64_t ignored_retries;

bool sync_not_offered(int error)
{
    return error == EINVAL || error == ENOSYS || error == ENOTSUP || error == EROFS;
}

int64_t read_plain(const file_state *file, void *to, uint64_t bytes, uint64_t offset)
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

int write_plain(const file_state *file, const void *from, uint64_t bytes, uint64_t offset)
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

// Direct I/O moves whole units between aligned places of the file and aligned memory. The bytes asked for lie
// anywhere, so they go by way of one such unit.
constexpr uint64_t direct_unit = 4096;

struct bounce_block {
    alignas(direct_unit) std::byte bytes[direct_unit];
    uint64_t valid;

    // A short count is the end of the file, or is tried once more from the begin of the unit: a call in the middle would be
    // misaligned. What the second attempt does not get cannot be had, and must not be taken for zeros.
    int read(const file_state *file, uint64_t offset)
    {
        for (int attempt = 0; attempt < 2; ++attempt) {
            const ssize_t got = retry_call(
                &ignored_retries, [&] { return pread(file->fd, bytes, direct_unit, static_cast<off_t>(offset)); });
            if (got == -1) return -1;
            valid = static_cast<uint64_t>(got);
            std::memset(bytes + valid, 0, direct_unit - valid);
            if (valid == direct_unit || file_ends_at(file->fd, offset + valid)) return 0;
        }
        return fail(EIO);
    }

    int write(const file_state *file, uint64_t offset)
    {
        for (int attempt = 0; attempt < 2; ++attempt) {
            const ssize_t put = retry_call(
                &ignored_retries, [&] { return pwrite(file->fd, bytes, direct_unit, static_cast<off_t>(offset)); });
            if (put == -1) return -1;
            if (put == direct_unit) return 0;
        }
        return fail(EIO);
    }
};

int64_t read_bounced(const file_state *file, void *to, uint64_t bytes, uint64_t offset)
{
    bounce_block block;
    uint64_t done = 0;
    while (done < bytes) {
        const uint64_t within = (offset + done) % direct_unit;
        if (block.read(file, offset + done - within) == -1) return -1;
        if (block.valid <= within) break;
        const uint64_t count = std::min(block.valid - within, bytes - done);
        std::memcpy(static_cast<std::byte *>(to) + done, block.bytes + within, count);
        done += count;
        if (block.valid < direct_unit) break;
    }
    return static_cast<int64_t>(done);
}

// A file that ends inside the last unit is filled up with zeros.
int write_bounced(const file_state *file, const void *from, uint64_t bytes, uint64_t offset)
{
    bounce_block block;
    for (uint64_t done = 0; done < bytes;) {
        const uint64_t within = (offset + done) % direct_unit, start = offset + done - within;
        const uint64_t count = std::min(direct_unit - within, bytes - done);
        if (block.read(file, start) == -1) return -1;
        std::memcpy(block.bytes + within, static_cast<const std::byte *>(from) + done, count);
        if (block.write(file, start) == -1) return -1;
        done += count;
    }
    return 0;
}

bool is_direct(const file_state *file)
{
    return (file->mode_flags & mode_direct) != 0;
}

void note_written(file_state *file)
{
    file->unsynced = true;
    if (file->map_base != nullptr) file->positioned_writes = true;
}

} // namespace

bool file_ends_at(int descriptor, uint64_t offset)
{
    struct stat facts {};
    return fstat(descriptor, &facts) == -1 || static_cast<uint64_t>(facts.st_size) <= offset;
}

int64_t file_read_at(file_state *file, void *to, uint64_t bytes, uint64_t offset)
{
    return is_direct(file) ? read_bounced(file, to, bytes, offset) : read_plain(file, to, bytes, offset);
}

int file_write_at(file_state *file, const void *from, uint64_t bytes, uint64_t offset)
{
    note_written(file);
    return is_direct(file) ? write_bounced(file, from, bytes, offset) : write_plain(file, from, bytes, offset);
}

int file_write_pieces(file_state *file, std::span<iovec> pieces, uint64_t offset)
{
    assert(!is_direct(file));
    note_written(file);
    while (!pieces.empty()) {
        const ssize_t put = retry_call(&ignored_retries, [&] {
            return pwritev(file->fd, pieces.data(), static_cast<int>(pieces.size()), static_cast<off_t>(offset));
        });
        if (put == -1) return -1;
        if (put == 0) return fail(EIO);
        offset += static_cast<uint64_t>(put);
        auto left = static_cast<size_t>(put);
        while (!pieces.empty() && left >= pieces.front().iov_len) {
            left -= pieces.front().iov_len;
            pieces = pieces.subspan(1);
        }
        if (pieces.empty()) break;
        pieces.front().iov_base = static_cast<char *>(pieces.front().iov_base) + left;
        pieces.front().iov_len -= left;
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
    note_written(file);
    return retry_call(&ignored_retries, [&] { return ftruncate(file->fd, static_cast<off_t>(size)); });
}

int file_sync_written(file_state *file)
{
    if (fdatasync(file->fd) == -1 && !sync_not_offered(errno)) return -1;
    file->positioned_writes = false;
    return 0;
}

int file_sync(file_state *file)
{
    // A failed sync is not repeated: the kernel may have dropped the pages that it could not write.
    if (file->map_base != nullptr && msync(file->map_base, file->map_length, MS_SYNC) == -1 && errno != ENOMEM &&
        !sync_not_offered(errno))
        return -1;
    if ((file->map_base == nullptr || file->positioned_writes) && file_sync_written(file) == -1) return -1;
    file->unsynced = false;
    return 0;
}
