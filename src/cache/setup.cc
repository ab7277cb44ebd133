// A cache from its fields to its first buffers, and back: nothing dirty is left behind unreported.
#include "cache/internal.h"

#include "util/format_text.h"

#include <cstdio>
#include <sys/resource.h>

namespace {

// Tables serve caches of several blocks; a program that only appends never looks back.
bool wants_hash(const vfs_cache *cache)
{
    const file_state *file = cache->file;
    if (!file->settings.hashing || cache->max <= 1 || (file->mode_flags & mode_mapped) != 0) return false;
    const bool appends_only = (file->mode_flags & mode_write_only) != 0 && file->access_mode == VFS_ACCESS_SEQUENTIAL;
    return !(cache->bufftype == cache_data && appends_only);
}

void settle_counts(vfs_cache *cache)
{
    if (cache->min == 0) cache->min = 4;
    if (cache->max < cache->min) cache->min = cache->max;
    if (cache->max != 1) return;
    cache->min = 1;
    cache->readahead = cache->writebehind = 0;
    if (cache->preread_count > 1) cache->preread_count = 1;
}

// Server threads are for record bytes; index blocks come one at a time.
void settle_engine(vfs_cache *cache)
{
    const uint8_t modes = cache->file->mode_flags;
    cache->engine &= engine_fifo | engine_socket;
    if ((modes & mode_direct) != 0) cache->engine |= engine_direct;
    if ((modes & mode_mapped) != 0) cache->engine |= engine_mmap;
    const bool queue = (modes & mode_direct) != 0 || cache->file->settings.queue_asked;
    if ((modes & mode_asynchronous) != 0 && queue) cache->engine |= engine_aio;
    cache->mode = 0;
    if ((modes & mode_threads) != 0 && cache->bufftype == cache_data && cache->max > 1) cache->mode |= cache_threads;
    if ((modes & mode_asynchronous) == 0 && (cache->mode & cache_threads) == 0) cache->mode |= cache_synchronous;
    cache->mmap_base = cache->file->map_base;
}

// Whether no further block lies in the direction of the pre-read.
bool preread_ends(const vfs_cache *cache, uint64_t start)
{
    if (cache->preread_direction == preread_forward) return start + cache->block_size >= cache->filesize;
    return start < cache->block_size;
}

void preread(vfs_cache *cache)
{
    uint64_t start = cache->preread_position & cache->block_mask;
    for (uint32_t left = cache->preread_count; left > 0; --left) {
        const uint64_t position = start == cache->filesize ? cache->filesize - 1 : start;
        cache_prefetch(cache, position);
        if (cache_lookup(cache, position) == 0 || preread_ends(cache, start)) return;
        start += cache->preread_direction == preread_forward ? cache->block_size : -cache->block_size;
    }
}

void add_times(wait_times *total, const wait_times &part)
{
    total->ticks += part.ticks;
    total->user_seconds += part.user_seconds;
    total->user_microseconds += part.user_microseconds;
    total->system_seconds += part.system_seconds;
    total->system_microseconds += part.system_microseconds;
}

// Writes everything, once more what failed, and drops the rest: its loss is in the errors stored.
void write_or_drop(vfs_cache *cache)
{
    if (cache_write_out(cache, 0, none) == -1) {
        record_error(cache, errno);
        (void)cache_write_out(cache, 0, none);
    }
    if (cache->hdrb != nullptr) dirty_remove(cache->hdrb);
    cache_discard(cache);
}

void delay_line(const char *format, const wait_times &times)
{
    if (times.ticks == 0) return;
    const auto ticks = static_cast<clock_t>(times.ticks);
    rusage usage{};
    usage.ru_utime = {.tv_sec = times.user_seconds, .tv_usec = times.user_microseconds};
    usage.ru_stime = {.tv_sec = times.system_seconds, .tv_usec = times.system_microseconds};
    char text[100];
    snprintf(text, sizeof text, "%s", format_times(nullptr, nullptr, &ticks, &usage, nullptr));
    fprintf(stderr, "%s %s\n", format, text);
}

} // namespace

void cache_reset(vfs_cache *cache, file_state *file, uint8_t bufftype)
{
    *cache = {};
    cache->file = file;
    cache->bufftype = bufftype;
    cache->preread_direction = preread_forward;
    cache->write_limit = none;
}

int cache_init(vfs_cache *cache)
{
    if (cache->name == nullptr) cache->name = cache->file->path;
    if (cache->max == 0) return 0;
    if (cache->count != 0 && (cache->engine & (engine_fifo | engine_socket)) != 0) return 0;
    cache->file->caches[cache->bufftype] = cache;
    settle_counts(cache);
    settle_engine(cache);
    refresh_write_limit(cache);
    if (cache->hash == nullptr && wants_hash(cache)) cache->flags |= cache_hash_lookup;
    hash_open(cache);
    if (cache->count == 0 && buffer_alloc(cache) == nullptr) {
        fprintf(stderr, "Error could not allocate I/O buffers... check `ulimit -d`\n");
        fprintf(stderr, "cache %p\n", static_cast<void *>(cache));
        hash_close(cache);
        return fail(ENOMEM);
    }
    if (cache->filesize != 0 && is_regular(cache->file)) preread(cache);
    return 0;
}

void cache_delay_lines(const vfs_cache *cache)
{
    const uint64_t moved = cache->stats.bytes_read + cache->stats.bytes_written;
    if (moved == 0 || !cache->file->debug) return;
    delay_line("I/O  Delay", cache->io_wait);
    delay_line("Lock Delay", cache->lock_wait);
}

int cache_close(vfs_cache *cache)
{
    file_state *file = cache->file;
#ifndef NDEBUG
    cache_check(cache);
#endif
    if (file->debug && cache->count != 0) cache_dump(cache, true);
    write_or_drop(cache);
    cache_delay_lines(cache);
    add_times(&file->io_wait, cache->io_wait);
    add_times(&file->lock_wait, cache->lock_wait);
    file->bytes_read += cache->stats.bytes_read;
    file->bytes_written += cache->stats.bytes_written;
    hash_close(cache);
    while (cache->idle_head != nullptr) buffer_free(cache->idle_head);
    slabs_free(cache);
    cache_header_free(cache);
    cache->curr = cache->wcurr = cache->last_found = nullptr;
    cache->pending_reads = cache->pending_writes = 0;
    cache->miss = 0;
    cache->stats = {};
    cache->io_wait = cache->lock_wait = {};
    if (file->caches[cache->bufftype] == cache) file->caches[cache->bufftype] = nullptr;
    return file->error == 0 ? 0 : fail(static_cast<int>(file->error));
}
