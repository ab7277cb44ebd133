// start: position without reading, so that the next read returns the record found.
#include "record/operations.h"
#include "record/positioning.h"
#include "util/errors.h"

#include <cstdio>
#include <cstring>

namespace {

vfs_request start_request(const operation_call &call)
{
    vfs_request work = working_request(call);
    work.flags = static_cast<uint8_t>(work.flags & ~(VFS_FLAG_CURRENT | VFS_FLAG_DUPLICATE));
    return work;
}

void at_first(vfs_request *work)
{
    work->mode = VFS_POS_FIRST;
    work->relation = VFS_GREATER_EQUAL;
}

void at_last(vfs_request *work)
{
    work->mode = VFS_POS_LAST;
    work->relation = VFS_LESS_EQUAL;
}

bool all_bytes(const void *key, uint64_t length, unsigned char value)
{
    const auto *at = static_cast<const unsigned char *>(key);
    for (uint64_t i = 0; i < length; ++i)
        if (at[i] != value) return false;
    return true;
}

void number_mode(const operation_call &call, vfs_request *work)
{
    work->relation = call.arguments.relation;
    work->rrn = call.mode == VFS_POS_RRN ? call.arguments.rrn : work->rrn;
    if (work->relation == VFS_GREATER_EQUAL && work->rrn == 0) return at_first(work);
    if (work->rrn == none) at_last(work);
}

// The key to search for: the given part, then bytes that put it before or behind every key that begins so.
int key_mode(const operation_call &call, vfs_request *work, uint64_t *leading)
{
    vfs_file *file = call.file;
    const void *record = call.record != nullptr ? call.record->bytes : nullptr;
    const uint64_t record_length = call.record != nullptr ? call.record->length : 0;
    if (key_number_check(file, call.arguments.key_number) == -1) return -1;
    const uint64_t full = file->indexed() ? key_length_of(file, call.arguments.key_number) : none;
    const uint64_t given = call.arguments.key_length < full ? call.arguments.key_length : full;
    operation_call cut = call;
    if (call.arguments.key != nullptr) cut.arguments.key_length = given;
    if (key_from_arguments(cut, work, record, record_length) == -1) return -1;
    work->relation = call.arguments.relation;
    if (!file->indexed()) {
        number_mode(call, work);
        return 0;
    }
    *leading = given;
    auto *key = static_cast<std::byte *>(work->key);
    if (given == 0 && call.arguments.key == nullptr) *leading = full; // the whole key of the record
    if (given == 0 && call.arguments.key != nullptr) {                // every key begins with nothing
        *leading = full;
        if (work->relation >= VFS_EQUAL)
            at_first(work);
        else
            at_last(work);
        return work->relation <= VFS_GREATER ? 0 : fail(EINVAL);
    }
    if (work->relation == VFS_GREATER_EQUAL && all_bytes(key, full, 0)) return at_first(work), 0;
    const bool high = work->relation == VFS_GREATER || work->relation == VFS_LESS_EQUAL;
    if (*leading < full) std::memset(key + given, high ? 0xFF : 0, full - given);
    if (work->relation == VFS_LESS_EQUAL && all_bytes(key, full, 0xFF)) return at_last(work), 0;
    return 0;
}

int apply_mode(const operation_call &call, vfs_request *work, uint64_t *leading)
{
    vfs_file *file = call.file;
    const bool first_operation = work->previous_operation == VFS_OP_NONE;
    work->flags = static_cast<uint8_t>(work->flags & ~VFS_FLAG_AT_END);
    // Modes that name no key keep to the file position's; a write by another key does not change it.
    if (call.mode != VFS_POS_CURRENT && call.mode != VFS_POS_OFFSET) work->key_number = file->position.key_number;
    switch (call.mode) {
    case VFS_POS_NEXT:
        if (first_operation) at_first(work);
        return 0;
    case VFS_POS_PREV:
        if (first_operation) at_last(work);
        return 0;
    case VFS_POS_FIRST:
    case VFS_POS_LAST:
        if (key_number_check(file, call.arguments.key_number) == -1) return -1;
        work->key_number = call.arguments.key_number;
        call.mode == VFS_POS_FIRST ? at_first(work) : at_last(work);
        return 0;
    case VFS_POS_END: return 0;
    case VFS_POS_CURRENT:
        work->flags |= file->last.flags & VFS_FLAG_AT_END;
        return work->previous_mode == VFS_POS_UNDEFINED ? fail(EINVAL) : 0;
    case VFS_POS_RRN: number_mode(call, work); return 0;
    case VFS_POS_KEY: return key_mode(call, work, leading);
    case VFS_POS_OFFSET: work->record_offset = call.arguments.offset; return 0;
    case VFS_POS_BEFORE_FIRST: at_first(work); return 0;
    case VFS_POS_AFTER_LAST: at_last(work); return 0;
    case 11:
    case 12: return fail(EINVAL);
    default: return mode_known(call) == -1 ? -1 : position_request(file, work); // rejects it, with its line
    }
}

// Mode 8: any offset of the host's, believed only when a live record lies there; then its index entry is found.
int record_at_offset(vfs_file *file, vfs_request *work)
{
    slot_head head;
    if (work->record_offset >= file->end_of_file) return fail(ESPIPE);
    if (slot_check(file, work->record_offset, &head) == -1) return errno == ENOEXEC ? fail(ESPIPE) : -1;
    const uint8_t away = file->trees() ? item_relocated : item_moved;
    if (head.type != item_live && head.type != away) return fail(ESPIPE);
    if (record_head(file, work) == -1) return -1;
    if (!file->trees()) return 0;
    if (key_load(file, work) == -1 || tree_select(file, work->key_number) == -1) return -1;
    const int found = tree_seek_record(file, work);
    return found == 1 ? fail(ESPIPE) : found;
}

int leading_part_search(vfs_file *file, vfs_request *work, uint64_t leading)
{
    const uint64_t full = key_length_of(file, work->key_number);
    const bool part = leading < full, equal = work->relation == VFS_EQUAL;
    if (part && equal) {
        std::memcpy(file->scratch_key, work->key, leading);
        work->relation = VFS_GREATER_EQUAL;
    }
    const int result = position_request(file, work);
    if (!part || !equal) return result;
    work->relation = VFS_EQUAL;
    if (result == -1 || (work->flags & VFS_FLAG_AT_END) != 0) return result;
    return std::memcmp(work->key, file->scratch_key, leading) == 0 ? 0 : fail(ESPIPE);
}

int position_for_start(const operation_call &call, vfs_request *work, uint64_t leading)
{
    vfs_file *file = call.file;
    int result;
    if (work->mode == VFS_POS_OFFSET)
        result = record_at_offset(file, work);
    else if (work->mode == VFS_POS_CURRENT)
        result = current_with_cursor(file, work);
    else if (work->mode == VFS_POS_KEY)
        result = leading_part_search(file, work, leading);
    else
        result = position_request(file, work);
    if (result == -1) return -1;
    const bool by_value = call.mode == VFS_POS_RRN || call.mode == VFS_POS_KEY;
    return by_value && (work->flags & VFS_FLAG_AT_END) != 0 ? fail(ESPIPE) : 0;
}

// An end: the following read steps from there instead of reading at the end of file.
void save_end(const operation_call &call, vfs_request *work)
{
    vfs_file *file = call.file;
    const bool start = work->mode == VFS_POS_BEFORE_FIRST || work->mode == VFS_POS_FIRST;
    const bool stepped = call.mode <= VFS_POS_PREV && work->mode >= VFS_POS_BEFORE_FIRST;
    work->mode = start ? VFS_POS_BEFORE_FIRST : VFS_POS_AFTER_LAST;
    const position_end end = start ? position_end::first : position_end::last;
    if (stepped)
        position_at_end(file, end);
    else
        position_to_end(file, end, work->key_number);
}

int64_t start_failed(const operation_call &call, vfs_request *work)
{
    const int cause = errno;
    if (call.file->debug)
        std::fprintf(stderr, "Seek failed %d rrn %ld key %s\n", cause, static_cast<long>(work->rrn),
                     static_cast<const char *>(work->key));
    skip_clear(work);
    errno = cause;
    return operation_failed(call.file, *work, true);
}

int64_t start_record(const operation_call &call)
{
    vfs_file *file = call.file;
    vfs_request work = start_request(call);
    const bool closed = (file->mode_flags & mode_write_only) != 0;
    if (file->error != 0 || closed) {
        errno = file->error != 0 ? static_cast<int>(file->error) : EROFS;
        return start_failed(call, &work);
    }
    if (bracket_begin(file, false) == -1) return start_failed(call, &work);
    work = start_request(call);
    uint64_t leading = none;
    if (apply_mode(call, &work, &leading) == -1) return start_failed(call, &work);
    if (position_for_start(call, &work, leading) == -1) return start_failed(call, &work);

    const bool at_end = (work.flags & VFS_FLAG_AT_END) != 0;
    skip_clear(&work);
    if (work.relation != VFS_EQUAL) work.flags |= VFS_FLAG_BROWSE;
    if (at_end)
        save_end(call, &work);
    else
        position_save(file, &work);
    file->position.started = !at_end;
    save_last(file, work);
    save_current(file, work);
    if (bracket_end(file) == -1) return start_failed(call, &work);
    if (status_fill(call, &work, !at_end) == -1) return -1;
    if (at_end) errno = ESPIPE;
    return at_end ? 0 : static_cast<int64_t>(work.data_length);
}

} // namespace

int64_t operation_start(vfs_file *file, vfs_record *record, void *, vfs_status *status, const vfs_lock_request *lock,
                        int32_t mode, ...)
{
    va_list arguments;
    va_start(arguments, mode);
    const int64_t result =
        operate({VFS_OP_START, argument_form::start, start_record}, file, record, status, lock, mode, &arguments);
    va_end(arguments);
    return result;
}
