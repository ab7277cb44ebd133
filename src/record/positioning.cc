// See positioning.h. Finding nothing is success with the at-end flag, but where a record is wanted.
#include "record/positioning.h"

#include "util/errors.h"

#include <cstdio>

namespace {

int at_end(vfs_file *file, vfs_request *request)
{
    request->previous_mode = request->mode;
    request->mode = VFS_POS_AFTER_LAST;
    request->rrn = file->highest_rrn + 1;
    request->record_offset = file->end_of_file;
    request->stored_length = 0;
    request->record_state = state_unread;
    errno = ESPIPE;
    return 0;
}

int at_start(vfs_file *file, vfs_request *request)
{
    request->previous_mode = request->mode;
    request->mode = VFS_POS_BEFORE_FIRST;
    request->rrn = none;
    request->record_offset = file->data_start;
    request->stored_length = 0;
    request->record_state = state_unread;
    errno = ESPIPE;
    return 0;
}

int append_point(vfs_file *file, vfs_request *request)
{
    request->record_offset = file->end_of_file;
    request->rrn = file->highest_rrn + 1; // none + 1 is 0: the first record
    request->stored_length = 0;
    request->record_state = state_unread;
    request->flags |= VFS_FLAG_AT_END;
    errno = ESPIPE;
    return 0;
}

int locate(vfs_file *file, vfs_request *request)
{
    return file->indexed() ? record_locate_key(file, request) : record_locate_rrn(file, request);
}

int unknown_mode(int32_t mode)
{
    std::fprintf(stderr, "pos=%d\n", mode);
    return fail(EINVAL);
}

} // namespace

int mode_known(const operation_call &call)
{
    const bool known = call.mode >= VFS_POS_NEXT && call.mode <= VFS_POS_UNDEFINED && call.mode != VFS_POS_OFFSET;
    return known ? 0 : unknown_mode(call.mode);
}

int position_request(vfs_file *file, vfs_request *request)
{
    request->flags = static_cast<uint8_t>(request->flags & ~VFS_FLAG_CURRENT);
    switch (request->mode) {
    case VFS_POS_NEXT:
        request->flags |= VFS_FLAG_SEQUENTIAL;
        if (record_step_forward(file, request) == -1) return -1;
        return (request->flags & VFS_FLAG_AT_END) != 0 ? at_end(file, request) : 0;
    case VFS_POS_PREV:
        request->flags |= VFS_FLAG_SEQUENTIAL;
        if (record_step_backward(file, request) == -1) return -1;
        return (request->flags & VFS_FLAG_AT_END) != 0 ? at_start(file, request) : 0;
    case VFS_POS_FIRST:
    case VFS_POS_BEFORE_FIRST:
    case VFS_POS_LAST:
    case VFS_POS_AFTER_LAST: return locate(file, request);
    case VFS_POS_END: return append_point(file, request);
    case VFS_POS_CURRENT: return current_record(file, request);
    case VFS_POS_RRN: return record_locate_rrn(file, request);
    case VFS_POS_KEY: request->record_offset = request->data_offset = none; return record_locate_key(file, request);
    default: return unknown_mode(request->mode);
    }
}

int current_with_cursor(vfs_file *file, vfs_request *request)
{
    if (current_record(file, request) == -1 || key_load(file, request) == -1) return -1;
    if (!file->trees()) return 0;
    const file_position &position = file->position;
    request->node = request->item = none;
    if (position.side == position_side::entry && position.record_offset == request->record_offset &&
        position.key_number == request->key_number && position.node != none) {
        request->node = position.node;
        request->item = position.item;
        return 0;
    }
    if (tree_select(file, request->key_number) == -1) return -1;
    return tree_seek_record(file, request) == -1 ? -1 : 0;
}

int key_from_arguments(const operation_call &call, vfs_request *work, const void *from_record, uint64_t record_length)
{
    vfs_file *file = call.file;
    if (call.mode == VFS_POS_RRN) {
        work->rrn = call.arguments.rrn;
        return 0;
    }
    if (call.mode != VFS_POS_KEY) return 0;
    if (key_number_check(file, call.arguments.key_number) == -1) return -1;
    work->key_number = call.arguments.key_number;
    if (call.arguments.key != nullptr) {
        if (key_copy(file, work, call.arguments.key, call.arguments.key_length) == -1) return -1;
    } else {
        work->key_length = call.arguments.key_length;
        if (key_extract(file, work, from_record, record_length) == -1) return -1;
    }
    return file->indexed() ? 0 : rrn_from_key(work);
}

int record_wanted(const operation_call &call, vfs_request *work)
{
    if (mode_known(call) == -1 || position_request(call.file, work) == -1) return -1;
    return (work->flags & VFS_FLAG_AT_END) != 0 ? fail(ESPIPE) : 0;
}

int one_record_named(const operation_call &call)
{
    vfs_file *file = call.file;
    if (call.mode == VFS_POS_END || (call.mode >= VFS_POS_BEFORE_FIRST && call.mode <= VFS_POS_UNDEFINED))
        return fail(EINVAL);
    if (call.mode != VFS_POS_KEY) return 0;
    if (key_number_check(file, call.arguments.key_number) == -1) return -1;
    return key_allows_duplicates(file, call.arguments.key_number) ? fail(EINVAL) : 0;
}
