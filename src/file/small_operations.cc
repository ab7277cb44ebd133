// See small_operations.h.
#include "file/small_operations.h"

#include "lock/lock.h"
#include "record/read_beside.h"
#include "record/request.h"
#include "util/errors.h"
#include "util/process.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr size_t text_bytes = 1024;

// The system's text for an error number; unknown numbers get the text that the system makes for them.
const char *system_text(int error)
{
    static thread_local char made[text_bytes];
    const char *known = strerrordesc_np(error);
    if (known != nullptr) return known;
    const char *text = strerror_r(error, made, sizeof made); // the GNU form: returns the text, in `made` or fixed
    return text != nullptr ? text : "?";
}

} // namespace

int file_access(const char *path)
{
    if (access(path, F_OK) == 0) return 1;
    return errno == ENOENT ? 0 : -1;
}

int file_rename(const char *old_path, const char *new_path)
{
    return rename(old_path, new_path);
}

int file_unlink(const char *path)
{
    return unlink(path);
}

vfs_open_block open_block_now(const vfs_file *file)
{
    vfs_open_block block = file->block;
    block.options = 0;
    block.record_count = static_cast<int64_t>(file->records);
    block.empty_count = static_cast<int64_t>(file->deleted);
    block.node_count = static_cast<int64_t>(file->moved);
    return block;
}

int file_info(vfs_file *file, vfs_open_block *out)
{
    if (file == nullptr || file->opener_generation != process_generation()) return fail(EBADF);
    if (file->error != 0) return fail(static_cast<int>(file->error));
    *out = open_block_now(file);
    out->keys = file->keys;
    return 0;
}

int file_flush(vfs_file *file)
{
    if (file == nullptr) return 0;
    if (file->opener_generation != process_generation()) return fail(EBADF);
    blocks_catch_up(file);
    if (session_flush(file) == -1) store_error(file, errno);
    return file->error != 0 ? fail(static_cast<int>(file->error)) : 0;
}

int file_at_end(vfs_file *file)
{
    if (file == nullptr) return fail(EBADF);
    blocks_catch_up(file);
    return (file->current.flags & VFS_FLAG_AT_END) != 0;
}

int file_unlock_all(vfs_file *file)
{
    // A handle without record operations has its locks nevertheless.
    if (file == nullptr || file->opener_generation != process_generation()) return fail(EBADF);
    blocks_catch_up(file);
    vfs_request work = file->last;
    work.previous_operation = work.operation;
    work.operation = VFS_OP_UNLOCK_ALL;
    work.previous_mode = work.mode;
    work.relation = VFS_EQUAL;
    if (file->error != 0) {
        errno = static_cast<int>(file->error);
        return operation_failed(file, work, false);
    }
    if (file->lock_defaults.lock_mode != VFS_LOCK_RECORD) return fail(EINVAL);
    if (file->shared == nullptr || lock_release_records(file) == 0) return 0;
    return operation_failed(file, work, false);
}

const char *file_error_text(vfs_file *file, int error, int *code_out, int want_text)
{
    if (code_out != nullptr) *code_out = error;
    if (file == nullptr) return want_text != 0 ? system_text(error) : nullptr;
    const bool same = file->error_buffer != nullptr && file->error_number == error;
    if (same && file->error_buffer[0] != '\0') return file->error_buffer;
    file->error_number = file->error_code = error;
    if (file->error_buffer != nullptr) file->error_buffer[0] = '\0';
    if (want_text == 0) return nullptr;
    if (file->error_buffer == nullptr) file->error_buffer = static_cast<char *>(std::aligned_alloc(16, text_bytes));
    if (file->error_buffer == nullptr) return nullptr;
    std::snprintf(file->error_buffer, text_bytes, "%s", system_text(error));
    return file->error_buffer;
}
