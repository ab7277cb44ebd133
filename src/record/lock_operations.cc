// position, lock and unlock: they move no file position and leave the saved blocks alone when they succeed.
#include "record/locking.h"
#include "record/operations.h"
#include "record/positioning.h"
#include "util/errors.h"

namespace {

int mode_check(const operation_call &call, vfs_request *work)
{
    vfs_file *file = call.file;
    if (file->error != 0) return fail(static_cast<int>(file->error));
    switch (call.mode) {
    case VFS_POS_END:
    case VFS_POS_BEFORE_FIRST:
    case VFS_POS_AFTER_LAST:
    case 11:
    case VFS_POS_UNDEFINED: return fail(EINVAL);
    case VFS_POS_CURRENT: return work->previous_mode == VFS_POS_UNDEFINED ? fail(EINVAL) : 0;
    default: break;
    }
    const bool has_record = call.record != nullptr && call.record->bytes != nullptr;
    if (call.mode == VFS_POS_KEY && call.arguments.key == nullptr && !has_record) return fail(EINVAL);
    return key_from_arguments(call, work, work->record, work->record_length);
}

int position_only(const operation_call &call, vfs_request *work)
{
    vfs_file *file = call.file;
    if (bracket_begin(file, false) == -1 || record_wanted(file, work) == -1) return -1;
    return bracket_end(file);
}

int file_lock_take(vfs_file *file)
{
    if (file->file_lock_state != file_lock_none) return 0;
    if (lock_set({.file = file, .counted = &file->data, .kind = lock_file, .write = !is_read_only(file)}) == -1)
        return -1;
    return metadata_refresh(file);
}

// A record lock that the host asked for by name stays until it is released.
int lock_reached(const operation_call &call, vfs_request *work)
{
    vfs_file *file = call.file;
    if (file->lock_defaults.lock_mode == VFS_LOCK_FILE) return file_lock_take(file);
    if (bracket_begin(file, false) == -1) return -1;
    const vfs_request start = *work;
    operation_lock lock;
    lock_outcome outcome;
    do {
        *work = start;
        if (record_wanted(file, work) == -1) return -1;
        outcome =
            file->lock_defaults.lock_mode == VFS_LOCK_RECORD ? record_lock(call, *work, &lock) : lock_outcome::held;
    } while (outcome == lock_outcome::again);
    if (outcome == lock_outcome::failed) return -1;
    return bracket_end(file);
}

int unlock_all_kinds(const operation_call &call)
{
    vfs_file *file = call.file;
    switch (file->lock_defaults.lock_mode) {
    case VFS_LOCK_RECORD: return lock_release_records(file);
    case VFS_LOCK_FILE: {
        const lock_target target{.file = file, .counted = &file->data, .kind = lock_file, .write = !is_read_only(file)};
        // What was changed is in the file before the lock goes.
        if (file->file_lock_state != file_lock_none && session_publish(file) == -1) return -1;
        return lock_clr(target);
    }
    default: return 0;
    }
}

using lock_step = int (*)(const operation_call &call, vfs_request *work);

int64_t run(const operation_call &call, lock_step step)
{
    vfs_request work = working_request(call);
    if (mode_check(call, &work) == -1 || step(call, &work) == -1) return operation_failed(call.file, work, false);
    return 0;
}

int unlock_step(const operation_call &call, vfs_request *)
{
    return unlock_all_kinds(call);
}

} // namespace

int64_t operation_position(vfs_file *file, vfs_record *record, void *, vfs_status *, const vfs_lock_request *lock,
                           int32_t mode, ...)
{
    if (handle_check(file) == -1) return -1;
    operation_call call = make_call(file, record, nullptr, lock, VFS_OP_POSITION, mode);
    va_list arguments;
    va_start(arguments, mode);
    call.arguments = take_arguments(argument_form::plain, mode, &arguments);
    va_end(arguments);
    return run(call, position_only);
}

int64_t operation_lock_record(vfs_file *file, vfs_record *record, void *, vfs_status *, const vfs_lock_request *lock,
                              int32_t mode, ...)
{
    if (handle_check(file) == -1) return -1;
    operation_call call = make_call(file, record, nullptr, lock, VFS_OP_POSITION, mode);
    va_list arguments;
    va_start(arguments, mode);
    call.arguments = take_arguments(argument_form::plain, mode, &arguments);
    va_end(arguments);
    return run(call, lock_reached);
}

int64_t operation_unlock(vfs_file *file, vfs_record *record, void *, vfs_status *, const vfs_lock_request *lock,
                         int32_t mode, ...)
{
    if (handle_check(file) == -1) return -1;
    operation_call call = make_call(file, record, nullptr, lock, VFS_OP_UNLOCK, mode);
    va_list arguments;
    va_start(arguments, mode);
    call.arguments = take_arguments(argument_form::plain, mode, &arguments);
    va_end(arguments);
    return run(call, unlock_step);
}
