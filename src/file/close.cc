// Closing a handle. The order loses nothing: counters and blocks into the file, its length, the disk, then the locks,
// then the descriptors. No step stops at the failure of another; the first error is reported.
#include "file/open.h"
#include "file/registry.h"
#include "file/small_operations.h"
#include "lock/lock.h"
#include "record/locking.h"
#include "store/header.h"
#include "store/tree.h"
#include "util/errors.h"
#include "util/format_text.h"
#include "util/process.h"

#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>

namespace {

void keep(vfs_file *file, int result)
{
    if (result == -1) store_error(file, errno);
}

void caches_close(vfs_file *file)
{
    if (file->contexts != nullptr) contexts_close(file);
    // Caches without buffers too: their times count.
    if (file->data.file != nullptr) keep(file, cache_close(&file->data));
    if (file->meta.file != nullptr) keep(file, cache_close(&file->meta));
    if (file->meta.hdrb != nullptr) cache_header_free(&file->meta);
}

void locks_release(vfs_file *file)
{
    if (file->shared == nullptr) return;
    if (file->lock_defaults.lock_mode == VFS_LOCK_RECORD) keep(file, lock_release_records(file));
    const bool write = !is_read_only(file);
    keep(file, block_unlock(file));
    if (file->file_lock_state != file_lock_none)
        keep(file, lock_clr({.file = file, .counted = &file->data, .kind = lock_file, .write = write}));
    if (file->exclusive_held)
        keep(file, lock_clr({.file = file, .counted = &file->data, .kind = lock_exclusive, .write = write}));
}

void unmap(vfs_file *file)
{
    if (file->map_base != nullptr && munmap(file->map_base, file->map_length) == -1) store_error(file, errno);
    file->map_base = nullptr;
}

void release_descriptors(vfs_file *file)
{
    if (file->fd < 0) return;
    unmap(file);
    usage_snapshot now{};
    const int others = registry_release(file, &now);
    if (others == -1) store_error(file, errno);
    if (others > 0 && file->debug)
        std::fprintf(stderr, "Deferring close(%s:%s), count=%ld\n", file->logical_name, file->path,
                     static_cast<long>(others));
    file->closed = {now.ticks, now.usage};
}

void print_delay(const char *format, const wait_times &times)
{
    if (times.ticks == 0) return;
    const auto ticks = static_cast<clock_t>(times.ticks);
    rusage usage{};
    usage.ru_utime = {times.user_seconds, times.user_microseconds};
    usage.ru_stime = {times.system_seconds, times.system_microseconds};
    char text[100];
    std::snprintf(text, sizeof text, "%s", format_times(nullptr, nullptr, &ticks, &usage, nullptr));
    std::fprintf(stderr, "%s %s\n", format, text);
}

void print_statistics(const vfs_file *file)
{
    if (!file->debug) return;
    const uint64_t bytes = file->bytes_read + file->bytes_written;
    if (bytes != 0) {
        print_delay("File I/O  Delay:", file->io_wait);
        print_delay("File Lock Delay:", file->lock_wait);
        char text[100];
        std::snprintf(
            text, sizeof text, "%s",
            format_times(&file->opened.ticks, &file->opened.usage, &file->closed.ticks, &file->closed.usage, &bytes));
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat" // the grouping flag is POSIX, not ISO C
        std::fprintf(stderr, "Open to Close: #%'lld %s\n", static_cast<long long>(file->operation_count), text);
#pragma GCC diagnostic pop
    }
    if (file->physically_sequential) std::fprintf(stderr, "File is physically sequential\n");
}

void fill_out(vfs_file *file, vfs_open_block *out)
{
    if (out == nullptr) return;
    *out = open_block_now(file);
    // The handle's own copies are about to go: the host gets its own pointers back.
    out->logical_name = file->host.logical_name;
    out->path = file->host.path;
    out->lock_defaults = file->host.lock_defaults;
    out->keys = file->host.keys;
}

void free_memory(vfs_file *file)
{
    std::free(file->error_buffer);
    std::free(file->keys);
    std::free(file->key_area);
    std::free(file->changed_keys);
    std::free(file->checkpoints);
    std::free(file->contexts);
    std::free(file->changes.ranges);
    std::free(file->changes.chunk);
    std::free(file);
}

void transfers_forget(vfs_file *file)
{
    cache_forget_transfers(&file->data);
    cache_forget_transfers(&file->meta);
    for (uint64_t key = 0; file->contexts != nullptr && key < file->tree_count; ++key)
        cache_forget_transfers(&file->contexts[key].cache);
}

// In a forked child the file belongs to the parent: memory is given back, nothing else is touched.
void release_inherited(vfs_file *file)
{
    file->debug = false;
    transfers_forget(file);
    changes_drop(file);
    caches_close(file);
    unmap(file);
    if (file->shared != nullptr) (void)registry_release(file, nullptr);
    free_memory(file);
}

int finish(vfs_file *file, vfs_open_block *out)
{
    locks_release(file);
    release_descriptors(file);
    file->block.bytes_transferred = static_cast<int64_t>(file->bytes_read + file->bytes_written);
    fill_out(file, out);
    print_statistics(file);
    const auto error = static_cast<int>(file->error);
    free_memory(file);
    return error == 0 ? 0 : fail(error);
}

} // namespace

int file_close(vfs_file *file, vfs_open_block *out)
{
    if (file == nullptr) return 0;
    if (file->opener_generation != process_generation()) {
        fill_out(file, out);
        release_inherited(file);
        return 0;
    }
    file->last.previous_operation = file->last.operation;
    file->last.operation = VFS_OP_CLOSE;
    keep(file, session_close(file));
    if (file->error == ESTALE) changes_drop(file); // the file is another's now: nothing of ours may reach it
    caches_close(file);
    return finish(file, out);
}

void file_abandon(vfs_file *file)
{
    if (file->shared != nullptr) session_abandon(file);
    changes_drop(file);
    caches_close(file);
    (void)finish(file, nullptr);
}
