// Extends a regular file ahead of the blocks appended to it, in large steps, and knows the limits of doing so: the
// process's file size limit, the free space that others need too, file systems that cannot or should not.
// May use the file's descriptor; must not know why a block is new.
#include "io/file_calls.h"
#include "io/io.h"
#include "util/errors.h"

#include <atomic>
#include <cstdio>
#include <linux/magic.h>
#include <sys/vfs.h>

namespace {

constexpr uint64_t unlimited_step = 0x40000000;
constexpr uint64_t limited_step = 0x1000000;
constexpr uint64_t page = 4096;

// Size of the first extension and of every later one; all ones until the first use in the process. Threads that
// decide at the same time decide alike.
std::atomic<uint64_t> amount{none};

uint64_t decide_amount()
{
    uint64_t decided = amount.load(std::memory_order_relaxed);
    if (decided != none) return decided;
    rlimit limit;
    if (getrlimit(RLIMIT_FSIZE, &limit) != 0)
        decided = 0;
    else
        decided = limit.rlim_cur == RLIM_INFINITY ? unlimited_step : limited_step;
    amount.store(decided, std::memory_order_relaxed);
    return decided;
}

void switch_off(vfs_cache *cache)
{
    cache->flags &= static_cast<uint8_t>(~cache_preallocates);
    cache->state &= static_cast<uint8_t>(~(cache_fallocate_usable | cache_ftruncate_fallback));
}

// Memory file systems allocate pages for what is preallocated: there only the size grows.
void look_at_file_system(vfs_cache *cache, const struct statfs &about)
{
    const auto type = static_cast<uint64_t>(about.f_type);
    if (type != TMPFS_MAGIC && type != RAMFS_MAGIC) return;
    if ((cache->state & cache_fallocate_usable) == 0) return;
    cache->state &= static_cast<uint8_t>(~cache_fallocate_usable);
    cache->state |= cache_ftruncate_fallback;
}

// Where the extension may end: not past the limit of the process, and not with more than a quarter of what is free.
uint64_t bounded_end(const vfs_cache *cache, uint64_t from, uint64_t to, const struct statfs &about)
{
    const uint64_t quarter = about.f_bavail / 4 * static_cast<uint64_t>(about.f_bsize);
    if (to - from > quarter) to = from + quarter;
    if (to > cache->write_limit) to = cache->write_limit;
    return to / page * page;
}

bool no_space(int error)
{
    return error == EFBIG || error == ENOSPC || error == EDQUOT;
}

void record_extension(vfs_cache *cache, uint64_t to)
{
    cache->file->allocated_size = to;
    ++cache->stats.extend;
}

// 0: done, or given up without harm; 1: the file system cannot, try the fallback; -1 an unexpected error.
int extend_by_fallocate(vfs_cache *cache, uint64_t from, uint64_t to)
{
    const int64_t size = file_size_now(cache->file);
    const int result = retry_call(&cache->stats.retries, [&] {
        return fallocate(cache->wfd, 0, static_cast<off_t>(from), static_cast<off_t>(to - from));
    });
    if (result == 0) {
        record_extension(cache, to);
        return 0;
    }
    const int error = errno;
    if (no_space(error)) {
        switch_off(cache);
        if (size >= 0) (void)file_truncate(cache->file, static_cast<uint64_t>(size)); // it keeps what it got
        return 0;
    }
    if (error == ENOSYS || error == EOPNOTSUPP || error == EINVAL) return 1;
    fprintf(stderr, "fallocate rc %d\n", error);
    return fail(error);
}

int extend_by_ftruncate(vfs_cache *cache, uint64_t to)
{
    const int64_t size = file_size_now(cache->file);
    if (size == -1) return -1;
    if (static_cast<uint64_t>(size) < to) { // never shrinks what somebody else made longer
        const int result = file_truncate(cache->file, to);
        if (result == -1 && no_space(errno)) {
            switch_off(cache);
            return 0;
        }
        if (result == -1) {
            const int error = errno;
            fprintf(stderr, "ftruncate rc %d\n", result);
            return fail(error);
        }
    }
    record_extension(cache, to);
    return 0;
}

} // namespace

void refresh_write_limit(vfs_cache *cache)
{
    rlimit limit;
    const bool known = is_regular(cache->file) && getrlimit(RLIMIT_FSIZE, &limit) == 0;
    cache->write_limit = known && limit.rlim_cur != RLIM_INFINITY ? limit.rlim_cur : none;
}

int preallocate(vfs_buffer *buffer)
{
    vfs_cache *cache = buffer->cache;
    file_state *file = buffer->file;
    if (!is_regular(file) || buffer->wfd != file->fd || buffer->end + 1 < file->allocated_size) return 0;
    const uint64_t step = decide_amount();
    if (step == 0) switch_off(cache);
    const bool jumps = buffer->offset > file->allocated_size + buffer->size; // a hole stays behind, and more may follow
    if ((cache->flags & cache_preallocates) == 0 || !file->preallocates || jumps) {
        if (file->allocated_size < buffer->end + 1) file->allocated_size = buffer->end + 1;
        return 0;
    }
    struct statfs about;
    if (fstatfs(cache->wfd, &about) != 0) {
        switch_off(cache);
        return 0;
    }
    look_at_file_system(cache, about);
    const uint64_t from = buffer->offset;
    const bool is_first = file->allocated_size < step && from < step;
    const uint64_t to = bounded_end(cache, from, is_first ? step : from + step, about);
    if (to <= buffer->end + 1) { // not worth a call: the writes extend the file themselves
        switch_off(cache);
        return 0;
    }
    if ((cache->state & cache_fallocate_usable) != 0) {
        const int result = extend_by_fallocate(cache, from, to);
        if (result <= 0) return result;
        cache->state &= static_cast<uint8_t>(~cache_fallocate_usable);
        cache->state |= cache_ftruncate_fallback;
    }
    return (cache->state & cache_ftruncate_fallback) != 0 ? extend_by_ftruncate(cache, to) : 0;
}
