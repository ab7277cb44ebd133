// Steps and searches at the level of records. See movement.h.
#include "store/movement.h"

#include "util/errors.h"
#include "util/scope_guard.h"

namespace {

bool is_record(const vfs_file *file, uint8_t type)
{
    return type == item_live || type == (file->trees() ? item_relocated : item_moved);
}

int nothing_found(vfs_request *request)
{
    request->flags |= VFS_FLAG_AT_END;
    errno = ESPIPE;
    return 0;
}

void begin(vfs_request *request)
{
    request->flags = static_cast<uint8_t>(request->flags & ~VFS_FLAG_AT_END);
    request->record_state = state_unread;
}

// Reading ahead begins where a step enters a block, which it does with the head of the record, or the end of the slot
// before, not with the bytes that a program asked for.
int enter_block(vfs_file *file, const vfs_request *request, uint64_t offset)
{
    const vfs_buffer *curr = file->data.curr;
    if (file->data.readahead == 0 || (curr != nullptr && holds(curr, offset))) return 0;
    if (offset < file->data_start || offset >= file->end_of_file) return 0; // damage, found by who reads there
    vfs_request ahead = *request;
    ahead.record_offset = offset;
    return cache_fetch_ahead(&file->data, &ahead);
}

// An index entry leads to a live record, always: anything else is a damaged file.
int record_of_entry(vfs_file *file, vfs_request *request)
{
    const uint64_t rrn = request->rrn;
    if (enter_block(file, request, request->record_offset) == -1) return -1;
    if (record_head(file, request) == -1) return errno == ENOEXEC ? slot_damaged(file, request) : -1;
    if (!is_record(file, request->record_state)) return damaged();
    if (!file->indexed() && request->rrn != rrn) return damaged();
    return 0;
}

// ---- Flat files ----

int flat_forward_from(vfs_file *file, vfs_request *request, uint64_t offset)
{
    for (uint64_t stored = 0;; offset += stored) {
        if (offset >= file->end_of_file) return nothing_found(request);
        if (enter_block(file, request, offset) == -1) return -1;
        slot_head head;
        if (slot_head_read(file, offset, &head) == -1) {
            request->record_offset = offset;
            return errno == ENOEXEC ? slot_damaged(file, request) : -1;
        }
        stored = head.stored_length;
        if (!is_record(file, head.type)) continue;
        request->record_offset = offset;
        return record_head(file, request);
    }
}

// The slot that ends at `end`: its offset and head.
int slot_before(vfs_file *file, uint64_t end, uint64_t *offset, slot_head *head)
{
    uint64_t stored = file->maximum_slot;
    if (!file->fixed_length() && data_get(file, end - trailer_bytes, &stored, sizeof stored) == -1) return -1;
    if (stored % 8 != 0 || stored < slot_overhead || stored > end - file->data_start) return damaged();
    *offset = end - stored;
    if (slot_head_read(file, *offset, head) == -1) return -1;
    return head->stored_length == stored ? 0 : damaged();
}

int flat_backward_from(vfs_file *file, vfs_request *request, uint64_t end)
{
    while (end > file->data_start) {
        if (enter_block(file, request, end - 1) == -1) return -1;
        slot_head head;
        if (slot_before(file, end, &end, &head) == -1) return -1;
        if (!is_record(file, head.type)) continue;
        request->record_offset = end;
        return record_head(file, request);
    }
    return nothing_found(request);
}

// ---- Checkpoints: where every `stride`-th record number lies. A hint: checked against the slot's own number. ----

struct checkpoint_table {
    static constexpr uint64_t capacity = 1024;
    uint64_t stride;
    uint64_t offsets[capacity]; // of rrn i * stride; 0 unknown
};

checkpoint_table *checkpoints(const vfs_file *file)
{
    return reinterpret_cast<checkpoint_table *>(file->checkpoints);
}

// A home slot at or before the one of `rrn`, as near as is known, and its number.
uint64_t walk_start(vfs_file *file, uint64_t rrn, uint64_t *number)
{
    *number = 0;
    const checkpoint_table *table = checkpoints(file);
    if (table == nullptr) return file->data_start;
    uint64_t i = rrn / table->stride;
    if (i >= table->capacity) i = table->capacity - 1;
    for (uint64_t tries = 0; tries < 64 && i > 0; ++tries, --i) {
        const uint64_t at = table->offsets[i];
        slot_head head;
        if (at > file->data_start && at < file->end_of_file && slot_check(file, at, &head) == 0 &&
            head.type != item_relocated && head.rrn == i * table->stride) {
            *number = head.rrn;
            return at;
        }
    }
    return file->data_start;
}

// The home slot of exactly `rrn` in a file of variable slots: 1 found, 0 there is none, -1. Home slots stand in the
// order of their numbers; a slot that has been a relocated record, live or deleted, repeats a lower number.
int rrn_walk(vfs_file *file, uint64_t rrn, uint64_t *offset, slot_head *head)
{
    uint64_t next = 0;
    for (uint64_t at = walk_start(file, rrn, &next); at < file->end_of_file; at += head->stored_length) {
        if (slot_head_read(file, at, head) == -1) return -1;
        if (head->type == item_relocated || head->rrn < next) continue;
        next = head->rrn + 1;
        checkpoint_add(file, head->rrn, at);
        if (head->rrn > rrn) return 0;
        if (head->rrn == rrn) {
            *offset = at;
            return 1;
        }
    }
    return 0;
}

// The slot of exactly `rrn`, live or not: 1 found, 0 there is none, -1.
int flat_slot_of(vfs_file *file, uint64_t rrn, uint64_t *offset, slot_head *head)
{
    if (file->highest_rrn == none || rrn > file->highest_rrn) return 0;
    // The record after the one last handled: no search.
    if (file->last.record_offset != none && file->last.rrn != none && rrn == file->last.rrn + 1 &&
        file->last.stored_length != 0) {
        const uint64_t next = file->last.record_offset + file->last.stored_length;
        if (next < file->end_of_file && slot_check(file, next, head) == 0 && head->rrn == rrn &&
            head->type != item_relocated) {
            *offset = next;
            return 1;
        }
    }
    if (!file->fixed_length()) return rrn_walk(file, rrn, offset, head);
    if (rrn > (file->end_of_file - file->data_start) / file->maximum_slot) return 0;
    *offset = file->data_start + rrn * file->maximum_slot;
    if (*offset >= file->end_of_file) return 0;
    if (slot_head_read(file, *offset, head) == -1) return -1;
    return head->rrn == rrn && head->stored_length == file->maximum_slot ? 1 : damaged();
}

// Whether nobody else can have changed a slot since this handle last looked at it.
bool sees_all_changes(const vfs_file *file)
{
    return file->lock_defaults.lock_mode == VFS_LOCK_FILE && !metadata_bracket(file) && !file->acquired;
}

// Where a step from the file position begins: the slot behind it (forward), or the end of the one before it. The
// remembered place is good as long as the position's record lies there; another handle may have cut the file before it
// and appended other slots. The record number then says where it goes on.
int flat_origin(vfs_file *file, bool forward, uint64_t *origin)
{
    const file_position &position = file->position;
    const bool gap = position.stored_length == 0; // between the records, before the number
    *origin = position.record_offset + (forward ? position.stored_length : 0);
    if (sees_all_changes(file)) return 0;
    slot_head head;
    if (!gap && position.record_offset < file->end_of_file) {
        const int checked = slot_check(file, position.record_offset, &head);
        if (checked == -1 && errno != ENOEXEC) return -1;
        if (checked == 0 && is_record(file, head.type) && head.rrn == position.rrn) {
            *origin = position.record_offset + (forward ? head.stored_length : 0);
            return 0;
        }
    }
    const uint64_t wanted = position.rrn + (forward && !gap ? 1 : 0);
    if (file->highest_rrn == none || wanted > file->highest_rrn) {
        *origin = file->end_of_file;
        return 0;
    }
    const int found = flat_slot_of(file, wanted, origin, &head);
    return found == 0 ? damaged() : found == 1 ? 0 : -1;
}

int flat_locate_rrn(vfs_file *file, vfs_request *request)
{
    uint64_t rrn = request->rrn;
    const bool forward = request->relation >= VFS_GREATER_EQUAL, exact = request->relation == VFS_EQUAL;
    if (request->relation > VFS_GREATER) return nothing_found(request);
    if (request->relation == VFS_LESS && rrn-- == 0) return nothing_found(request);
    if (request->relation == VFS_GREATER && rrn++ == none) return nothing_found(request);
    if (file->highest_rrn == none) return nothing_found(request);
    if (rrn > file->highest_rrn) {
        if (exact || forward) return nothing_found(request);
        rrn = file->highest_rrn;
    }
    uint64_t offset = none;
    slot_head head{};
    const int found = flat_slot_of(file, rrn, &offset, &head);
    if (found == -1) return -1;
    if (found == 0) return nothing_found(request);
    if (is_record(file, head.type)) {
        request->record_offset = offset;
        return record_head(file, request);
    }
    if (exact) {
        request->record_offset = offset;
        if (record_head(file, request) == -1) return -1;
        return nothing_found(request);
    }
    return forward ? flat_forward_from(file, request, offset + head.stored_length)
                   : flat_backward_from(file, request, offset);
}

int flat_locate(vfs_file *file, vfs_request *request)
{
    switch (request->mode) {
    case VFS_POS_FIRST:
    case VFS_POS_BEFORE_FIRST: return flat_forward_from(file, request, file->data_start);
    case VFS_POS_LAST:
    case VFS_POS_AFTER_LAST: return flat_backward_from(file, request, file->end_of_file);
    case VFS_POS_RRN: return flat_locate_rrn(file, request);
    default: return fail(EINVAL);
    }
}

// ---- Trees ----

int tree_locate(vfs_file *file, vfs_request *request, int (*by_key)(vfs_file *, vfs_request *), uint8_t key_mode)
{
    if (tree_select(file, request->key_number) == -1) return -1;
    int found;
    switch (request->mode) {
    case VFS_POS_FIRST:
    case VFS_POS_BEFORE_FIRST: found = tree_first(file, request); break;
    case VFS_POS_LAST:
    case VFS_POS_AFTER_LAST: found = tree_last(file, request); break;
    default:
        if (request->mode != key_mode) return fail(EINVAL);
        found = by_key(file, request);
    }
    if (found == 1 || (found == -1 && errno == ESPIPE)) return nothing_found(request);
    if (found == -1) return -1;
    return record_of_entry(file, request);
}

int tree_step(vfs_file *file, vfs_request *request, bool forward)
{
    file_position &position = file->position;
    if (tree_select(file, position.key_number) == -1 || position_follow(file, request) == -1) return -1;
    request->key_number = position.key_number;
    const position_side kept = position.side;
    // Where the last step that way found nothing, records that have come since are beside the place where it stood.
    const position_end far = forward ? position_end::last : position_end::first;
    if (position.end != position_end::inside && position.end != far)
        position.side = forward ? position_side::before_first : position_side::after_last;
    const int found = forward ? tree_read_next(file, request) : tree_read_prev(file, request);
    position.side = kept;
    if (found == 1) return nothing_found(request);
    if (found == -1) return -1;
    return record_of_entry(file, request);
}

} // namespace

int record_step_forward(vfs_file *file, vfs_request *request)
{
    begin(request);
    if (file->trees()) return tree_step(file, request, true);
    request->flags |= VFS_FLAG_CURRENT | VFS_FLAG_SEQUENTIAL;
    const file_position &position = file->position;
    uint64_t origin = file->data_start;
    const bool from_start = position.end == position_end::first || position.side == position_side::before_first;
    if (!from_start && flat_origin(file, true, &origin) == -1) return -1;
    return flat_forward_from(file, request, origin);
}

int record_step_backward(vfs_file *file, vfs_request *request)
{
    begin(request);
    if (file->trees()) return tree_step(file, request, false);
    const file_position &position = file->position;
    if (position.side == position_side::before_first && position.end != position_end::last)
        return nothing_found(request);
    uint64_t origin = file->end_of_file;
    const bool from_end = position.end == position_end::last || position.side == position_side::after_last;
    if (!from_end && flat_origin(file, false, &origin) == -1) return -1;
    return flat_backward_from(file, request, origin);
}

int record_locate_rrn(vfs_file *file, vfs_request *request)
{
    begin(request);
    if (!file->trees()) return flat_locate(file, request);
    if (file->indexed()) return fail(EINVAL);
    request->key_number = 0;
    return tree_locate(file, request, rrn_locate, VFS_POS_RRN);
}

int record_locate_key(vfs_file *file, vfs_request *request)
{
    begin(request);
    return tree_locate(file, request, key_locate, VFS_POS_KEY);
}

int record_still_there(vfs_file *file, vfs_request *request, uint64_t rrn)
{
    if (request->record_offset >= file->end_of_file) return 0;
    slot_head head;
    // In a flat file that was cut meanwhile the place may be anything: the trailer has to agree.
    const bool slot_begins_here = file->trees() || sees_all_changes(file);
    if (!slot_begins_here && slot_check(file, request->record_offset, &head) == -1) return errno == ENOEXEC ? 0 : -1;
    if (record_head(file, request) == -1) return errno == ENOEXEC ? 0 : -1;
    return is_record(file, request->record_state) && request->rrn == rrn ? 1 : 0;
}

int run_walk(vfs_file *file, vfs_request *request, run_visit visit, void *context)
{
    begin(request);
    request->relation = VFS_EQUAL;
    if (tree_select(file, request->key_number) == -1) return -1;
    int found = key_locate(file, request);
    if (found == 1 || (found == -1 && errno == ESPIPE)) return nothing_found(request);
    if (found == -1) return -1;

    // The steps go from a position of their own.
    const file_position kept = file->position;
    const scope_guard restore{[&] { file->position = kept; }};
    const uint64_t length = static_cast<uint64_t>(key_description(file, request->key_number)->length);
    std::memcpy(file->scratch_key, request->key, length);
    for (;;) {
        if (record_of_entry(file, request) == -1) return -1;
        if (visit(request, context)) return 0;
        file->position.side = position_side::entry;
        file->position.end = position_end::inside;
        file->position.key_number = request->key_number;
        file->position.node = request->node;
        file->position.item = request->item;
        file->position.record_offset = request->record_offset;
        found = tree_read_next(file, request);
        if (found == -1) return -1;
        if (found == 1 || std::memcmp(request->key, file->scratch_key, length) != 0) return nothing_found(request);
    }
}

int record_by_identity(vfs_file *file, vfs_request *request)
{
    if (file->indexed()) {
        uint64_t rrn = request->rrn;
        return run_walk(
            file, request,
            [](const vfs_request *at, void *wanted) { return at->rrn == *static_cast<uint64_t *>(wanted); }, &rrn);
    }
    begin(request);
    request->relation = VFS_EQUAL;
    if (tree_select(file, request->key_number) == -1) return -1;
    const int found = rrn_locate(file, request);
    if (found == 1 || (found == -1 && errno == ESPIPE)) return nothing_found(request);
    return found == -1 ? -1 : record_of_entry(file, request);
}

void end_cut(vfs_file *file, uint64_t end, uint64_t highest_rrn)
{
    file->end_of_file = end;
    file->highest_rrn = highest_rrn;
    file_position &position = file->position;
    if (position.record_offset != none && position.record_offset >= end) {
        position.record_offset = end;
        position.stored_length = 0;
        position.rrn = highest_rrn + 1;
    }
    checkpoint_table *table = checkpoints(file);
    for (uint64_t i = 0; table != nullptr && i < table->capacity; ++i)
        if (table->offsets[i] >= end) table->offsets[i] = 0;
}

void checkpoint_add(vfs_file *file, uint64_t rrn, uint64_t offset)
{
    checkpoint_table *table = checkpoints(file);
    if (table == nullptr || rrn == 0 || rrn % table->stride != 0) return;
    uint64_t i = rrn / table->stride;
    while (i >= table->capacity) { // twice the distance, half the entries
        for (uint64_t k = 0; k < table->capacity / 2; ++k) table->offsets[k] = table->offsets[2 * k];
        std::memset(table->offsets + table->capacity / 2, 0, sizeof table->offsets / 2);
        table->stride *= 2;
        if (rrn % table->stride != 0) return;
        i = rrn / table->stride;
    }
    table->offsets[i] = offset;
}
