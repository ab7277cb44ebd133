// position, lock and unlock: they move no file position and leave the saved blocks alone when they succeed.
#include "record/locking.h"
#include "record/operations.h"
#include "record/positioning.h"
#include "util/errors.h"

namespace {

int mode_check(const operation_call &call)
{
    const vfs_file *file = call.file;
    if (file->error != 0) return fail(static_cast<int>(file->error));
    switch (call.mode) {
    case VFS_POS_END:
    case VFS_POS_BEFORE_FIRST:
    case VFS_POS_AFTER_LAST:
    case 11:
    case VFS_POS_UNDEFINED: return fail(EINVAL);
    case VFS_POS_CURRENT: return file->last.mode == VFS_POS_UNDEFINED ? fail(EINVAL) : 0;
    default: break;
    }
    const bool has_record = call.record != nullptr && call.record->bytes != nullptr;
    return call.mode == VFS_POS_KEY && call.arguments.key == nullptr && !has_record ? fail(EINVAL) : 0;
}

int arguments_check(const operation_call &call, vfs_request *work)
{
    return key_from_arguments(call, work, work->record, work->record_length);
}

// To the record that the arguments name, inside the bracket.
int reach(const operation_call &call, vfs_request *work)
{
    *work = working_request(call);
    return arguments_check(call, work) == -1 ? -1 : record_wanted(call, work);
}

int position_only(const operation_call &call, vfs_request *work)
{
    if (bracket_begin(call.file, false) == -1 || reach(call, work) == -1) return -1;
    return bracket_end(call.file);
}

int file_lock_take(vfs_file *file)
{
    if (file->file_lock_state != file_lock_none) return 0;
    return lock_and_refresh(file,
                            {.file = file, .counted = &file->data, .kind = lock_file, .write = !is_read_only(file)});
}

// A record lock that the host asked for by name stays until it is released.
int lock_reached(const operation_call &call, vfs_request *work)
{
    vfs_file *file = call.file;
    if (file->lock_defaults.lock_mode == VFS_LOCK_FILE) return file_lock_take(file);
    if (bracket_begin(file, false) == -1) return -1;
    const bool locks = file->lock_defaults.lock_mode == VFS_LOCK_RECORD;
    operation_lock lock;
    lock_outcome outcome;
    do {
        outcome = reach(call, work) == -1 ? lock_outcome::failed
                  : locks                 ? record_lock(call, *work, &lock)
                                          : lock_outcome::held;
    } while (outcome == lock_outcome::again);
    if (outcome == lock_outcome::held) return bracket_end(file);
    record_unlock(&lock);
    return -1;
}

int unlock_all_kinds(const operation_call &call)
{
    vfs_file *file = call.file;
    switch (file->lock_defaults.lock_mode) {
    case VFS_LOCK_RECORD: return lock_release_records(file);
    case VFS_LOCK_AUTO: return block_unlock(file); // who stays in a block would keep all others out of it
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
    const bool sound = mode_check(call) == 0 && arguments_check(call, &work) == 0;
    return sound && step(call, &work) == 0 ? 0 : operation_failed(call.file, work, false);
}

int64_t position_record(const operation_call &call)
{
    return run(call, position_only);
}

int64_t lock_named_record(const operation_call &call)
{
    return run(call, lock_reached);
}

int64_t unlock_records(const operation_call &call)
{
    return run(call, [](const operation_call &asked, vfs_request *) { return unlock_all_kinds(asked); });
}

} // namespace

int64_t operation_position(vfs_file *file, vfs_record *record, void *, vfs_status *, const vfs_lock_request *lock,
                           int32_t mode, ...)
{
    va_list arguments;
    va_start(arguments, mode);
    const int64_t result = operate({VFS_OP_POSITION, argument_form::plain, position_record}, file, record, nullptr,
                                   lock, mode, &arguments);
    va_end(arguments);
    return result;
}

int64_t operation_lock_record(vfs_file *file, vfs_record *record, void *, vfs_status *, const vfs_lock_request *lock,
                              int32_t mode, ...)
{
    va_list arguments;
    va_start(arguments, mode);
    const int64_t result = operate({VFS_OP_POSITION, argument_form::plain, lock_named_record}, file, record, nullptr,
                                   lock, mode, &arguments);
    va_end(arguments);
    return result;
}

int64_t operation_unlock(vfs_file *file, vfs_record *record, void *, vfs_status *, const vfs_lock_request *lock,
                         int32_t mode, ...)
{
    va_list arguments;
    va_start(arguments, mode);
    const int64_t result =
        operate({VFS_OP_UNLOCK, argument_form::plain, unlock_records}, file, record, nullptr, lock, mode, &arguments);
    va_end(arguments);
    return result;
}
