// How every operation begins and what it leaves behind. See request.h.
#include "record/request.h"

#include "record/read_beside.h"
#include "util/errors.h"
#include "util/process.h"

namespace {

operation_arguments take_arguments(argument_form form, int32_t mode, va_list *arguments)
{
    operation_arguments taken;
    const auto word = [&] { return static_cast<uint64_t>(va_arg(*arguments, int64_t)); };
    switch (mode) {
    case VFS_POS_FIRST:
    case VFS_POS_LAST:
        if (form != argument_form::plain) taken.key_number = word();
        break;
    case VFS_POS_RRN:
        if (form == argument_form::start) taken.relation = static_cast<uint8_t>(va_arg(*arguments, int32_t));
        taken.rrn = word();
        break;
    case VFS_POS_KEY:
        if (form == argument_form::start) taken.relation = static_cast<uint8_t>(va_arg(*arguments, int32_t));
        taken.key = va_arg(*arguments, const void *);
        taken.key_length = word();
        taken.key_number = word();
        break;
    case VFS_POS_OFFSET:
        if (form == argument_form::start) taken.offset = word();
        break;
    default: break;
    }
    return taken;
}

} // namespace

int handle_check(const vfs_file *file)
{
    if (file == nullptr || file->opener_generation != process_generation()) return fail(EBADF);
    if ((file->host.options & VFS_OPT_NO_IO) != 0) return fail(EBADF);
    return 0;
}

int64_t operate(const operation_kind &kind, vfs_file *file, vfs_record *record, vfs_status *status,
                const vfs_lock_request *lock, int32_t mode, va_list *arguments)
{
    if (handle_check(file) == -1) return -1;
    blocks_catch_up(file);
    ++file->operation_count;
    file->operation = kind.code;
    return kind.run({
        .file = file,
        .record = record,
        .status = status,
        .lock = lock != nullptr ? lock : &file->lock_defaults,
        .operation = kind.code,
        .mode = mode,
        .arguments = take_arguments(kind.form, mode, arguments),
    });
}

vfs_request working_request(const operation_call &call)
{
    vfs_request work = call.file->last;
    work.previous_operation = work.operation;
    work.operation = call.operation;
    work.previous_mode = work.mode;
    work.mode = mode_byte(call.mode);
    work.relation = VFS_EQUAL;
    work.flags =
        static_cast<uint8_t>(call.status != nullptr ? work.flags | VFS_FLAG_STATUS : work.flags & ~VFS_FLAG_STATUS);
    work.record = call.record != nullptr ? call.record->bytes : nullptr;
    work.record_length = call.record != nullptr ? call.record->length : 0;
    return work;
}

void save_last(vfs_file *file, const vfs_request &work)
{
    void *key = file->last.key;
    file->last = work;
    file->last.key = key;
}

void save_current(vfs_file *file, const vfs_request &work)
{
    void *key = file->current.key;
    file->current = work;
    file->current.key = key;
}

int operation_failed(vfs_file *file, const vfs_request &work, bool current_too)
{
    const int cause = errno;
    vfs_request left = work;
    left.mode = VFS_POS_UNDEFINED;
    left.record_offset = none;
    save_last(file, left);
    if (current_too) {
        // The key of the current record block outlives failures.
        left.key_number = file->current.key_number;
        left.key_length = file->current.key_length;
        save_current(file, left);
    }
    if (file->acquired) (void)metadata_abandon(file); // the cause is reported, not what follows from it
    return fail(cause);
}

int key_number_check(const vfs_file *file, uint64_t key_number)
{
    return key_number < file->key_count ? 0 : fail(EINVAL);
}

int current_record(vfs_file *file, vfs_request *work)
{
    const uint8_t state = work->previous_mode;
    if (state == VFS_POS_BEFORE_FIRST || state == VFS_POS_AFTER_LAST || state == VFS_POS_UNDEFINED ||
        (work->flags & VFS_FLAG_AT_END) != 0 || work->record_offset == none)
        return fail(EINVAL);
    const uint64_t rrn = work->rrn;
    const int there = record_still_there(file, work, rrn);
    if (there != 0) return there == 1 ? 0 : -1;
    if (!file->trees() || rrn == none) return fail(ESPIPE);
    // Another handle may have moved it; or it is gone, and its slot free or somebody else's.
    work->rrn = rrn;
    if (record_by_identity(file, work) == -1) return -1;
    if ((work->flags & VFS_FLAG_AT_END) != 0) return fail(ESPIPE);
    return 0;
}
