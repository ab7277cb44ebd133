// The driver's descriptor and its tables: what `vfs` returns. The slots are the operations of the floors below.
#include "cache/cache.h"
#include "driver/configuration.h"
#include "driver/resolve.h"
#include "file/open.h"
#include "file/small_operations.h"
#include "record/operations.h"
#include "record/read_beside.h"
#include "store/header.h"
#include "util/errors.h"

#include <sys/stat.h>

namespace {

const vfs_driver *resolve(const char *type_word, const char *assignment_name, const char *name,
                          const char **resolved_out);

void settings_now(open_settings *out)
{
    read_settings(out);
}

vfs_file *open_slot(vfs_open_block *block)
{
    const open_services services{vfs(), settings_now, apply_lock_choice, sharing_delays_announced};
    return file_open(block, services);
}

// A host that works on the blocks of a cache ends what the reads before it took for granted.
int fetch_ahead_slot(vfs_cache *cache, vfs_request *request)
{
    blocks_catch_up(static_cast<vfs_file *>(cache->file));
    return cache_fetch_ahead(cache, request);
}

// Hosts may change blocks, but not of a file whose locks come and go: another process may be changing them.
int get_for_write_slot(vfs_cache *cache, vfs_request *request)
{
    auto *file = static_cast<vfs_file *>(cache->file);
    if (metadata_bracket(file)) return fail(EINVAL);
    if (is_read_only(file)) return fail(EBADF);
    blocks_catch_up(file);
    if (change_begin(file) == -1) return -1;
    return cache_get_for_write(cache, request);
}

int write_block_slot(vfs_cache *cache, vfs_request *request)
{
    if (is_shared(cache->file)) return fail(EINVAL);
    blocks_catch_up(static_cast<vfs_file *>(cache->file));
    return cache_write_block(cache, request);
}

vfs_shared_entries shared_entries{
    .fetch_ahead = fetch_ahead_slot,
    .get_for_write = get_for_write_slot,
    .write_block = write_block_slot,
    .end = nullptr,
};

constexpr vfs_driver driver{
    .name = {'v', 'f', 's', '_', 'p', 's', 'x', '\0'},
    .stamp = VFS_STAMP,
    .size = sizeof(vfs_driver),
    .shared = &shared_entries,
    .host_count_1 = 3,
    .host_count_2 = 3,
    .flags = 0x2e,
    .reserved = 0,
    .ops =
        {
            .resolve = resolve,
            .access = file_access,
            .rename = file_rename,
            .slot_3 = nullptr,
            .unlink = file_unlink,
            .open = open_slot,
            .info = file_info,
            .flush = file_flush,
            .close = file_close,
            .at_end = file_at_end,
            .read = operation_read,
            .write = operation_write,
            .rewrite = operation_rewrite,
            .delete_record = operation_delete,
            .start = operation_start,
            .position = operation_position,
            .lock = operation_lock_record,
            .unlock = operation_unlock,
            .unlock_all = file_unlock_all,
            .error_text = file_error_text,
        },
};

const vfs_driver *resolve(const char *type_word, const char *assignment_name, const char *name,
                          const char **resolved_out)
{
    return resolve_name(driver, type_word, assignment_name, name, resolved_out);
}

} // namespace

extern "C" __attribute__((visibility("default"))) const vfs_driver *vfs(void)
{
    return &driver;
}
