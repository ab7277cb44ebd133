// The routing driver (libvfs_gen_64r.so): it finds the driver that serves a name, and serves no file itself. Not part
// of this driver's library.
#include "driver/resolve.h"

#include <cerrno>

namespace {

int64_t refused()
{
    errno = ENOSYS;
    return -1;
}
int refuse_path(const char *)
{
    return static_cast<int>(refused());
}
int refuse_paths(const char *, const char *)
{
    return static_cast<int>(refused());
}
vfs_file *refuse_open(vfs_open_block *)
{
    (void)refused();
    return nullptr;
}
int refuse_file(vfs_file *)
{
    return static_cast<int>(refused());
}
int refuse_block(vfs_file *, vfs_open_block *)
{
    return static_cast<int>(refused());
}
int64_t refuse_record(vfs_file *, vfs_record *, void *, vfs_status *, const vfs_lock_request *, int32_t, ...)
{
    return refused();
}
const char *refuse_text(vfs_file *, int, int *, int)
{
    (void)refused();
    return nullptr;
}

const vfs_driver *resolve(const char *type_word, const char *assignment_name, const char *name,
                          const char **resolved_out);

constexpr vfs_driver driver{
    .name = {'v', 'f', 's', '_', 'g', 'e', 'n', '\0'},
    .stamp = VFS_STAMP,
    .size = sizeof(vfs_driver),
    .shared = nullptr,
    .host_count_1 = 3,
    .host_count_2 = 3,
    .flags = 0x2e,
    .reserved = 0,
    .ops =
        {
            .resolve = resolve,
            .access = refuse_path,
            .rename = refuse_paths,
            .slot_3 = nullptr,
            .unlink = refuse_path,
            .open = refuse_open,
            .info = refuse_block,
            .flush = refuse_file,
            .close = refuse_block,
            .at_end = refuse_file,
            .read = refuse_record,
            .write = refuse_record,
            .rewrite = refuse_record,
            .delete_record = refuse_record,
            .start = refuse_record,
            .position = refuse_record,
            .lock = refuse_record,
            .unlock = refuse_record,
            .unlock_all = refuse_file,
            .error_text = refuse_text,
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
