// The file position: what it keeps of a record, and how it is found again after another handle has changed the file.
//
// A place between two keys is found by the key. In a run of equal keys there is nothing but the records themselves: the
// position keeps the numbers of those that it has passed in the run, which no change takes away, wherever they lie by
// then. The one passed last that is still there tells the place.
#include "store/movement.h"

#include "util/errors.h"

namespace {

constexpr size_t before = 0, after = 1;

// Whether the live record of this number begins at `offset`.
int record_is_at(vfs_file *file, uint64_t offset, uint64_t rrn, bool *there)
{
    *there = false;
    if (offset >= file->end_of_file) return 0;
    slot_head head;
    if (slot_head_read(file, offset, &head) == -1) return errno == ENOEXEC ? 0 : -1;
    *there = (head.type == item_live || head.type == item_relocated) && head.rrn == rrn;
    return 0;
}

bool holds_runs(const vfs_file *file, uint64_t key)
{
    constexpr uint8_t both = key_flag_duplicates | key_flag_held_duplicate;
    return file->indexed() && (key_entry_get(file, key, key_entry_flags) & both) == both;
}

uint64_t key_bytes(const vfs_file *file, uint64_t key)
{
    return round_up(static_cast<uint64_t>(key_description(file, key)->length), 8);
}

// ---- The records passed in a run ----

void passed_forget(file_position *position)
{
    for (passed_records &side : position->passed) side.count = 0, side.complete = false;
}

void passed_push(passed_records *side, uint64_t offset, uint64_t rrn)
{
    if (side->count == std::size(side->records)) {
        side->complete = false;
        --side->count;
    }
    std::memmove(side->records + 1, side->records, side->count * sizeof side->records[0]);
    side->records[0] = {offset, rrn};
    ++side->count;
}

void passed_pop(passed_records *side)
{
    if (side->count == 0) return;
    --side->count;
    std::memmove(side->records, side->records + 1, side->count * sizeof side->records[0]);
}

// The position is about to go to the request's record. Only between brackets can another handle take records away.
void passed_note(vfs_file *file, const vfs_request *request)
{
    file_position &position = file->position;
    const uint64_t key = request->key_number;
    const bool stepped = request->mode == VFS_POS_NEXT || request->mode == VFS_POS_PREV;
    if (!file->acquired || !holds_runs(file, key) || position.key == request->key) return passed_forget(&position);
    const bool same_run = position.identified && position.key_number == key &&
                          std::memcmp(position.key, request->key, key_bytes(file, key)) == 0;
    if (same_run && position.rrn == request->rrn) return;
    if (same_run && stepped) {
        const size_t from = request->mode == VFS_POS_NEXT ? before : after;
        passed_push(&position.passed[from], position.record_offset, position.rrn);
        passed_pop(&position.passed[1 - from]);
        return;
    }
    passed_forget(&position);
    const bool by_key = request->mode == VFS_POS_KEY && request->relation == VFS_EQUAL; // finds the first of the run
    position.passed[before].complete = request->mode == VFS_POS_NEXT || request->mode == VFS_POS_FIRST || by_key;
    position.passed[after].complete = request->mode == VFS_POS_PREV || request->mode == VFS_POS_LAST;
}

// The position becomes the gap in front of, or behind, the entry at the request's cursor.
int stand_beside(file_position *position, const vfs_request &entry, size_t side)
{
    position->side = position_side::gap;
    position->node = entry.node;
    position->item = entry.item + (side == before ? 1 : 0);
    return 0;
}

struct passed_search {
    const passed_records *side;
    uint64_t best; // index of the nearest one met so far; count: none
    vfs_request entry;
};

bool meet_passed(const vfs_request *at, void *context)
{
    auto *search = static_cast<passed_search *>(context);
    for (uint64_t i = 0; i < search->best; ++i) {
        if (search->side->records[i].rrn != at->rrn) continue;
        search->best = i;
        search->entry = *at;
        return i == 0;
    }
    return false;
}

vfs_request at_position(const vfs_file *file, const vfs_request *request)
{
    vfs_request entry = *request;
    entry.key_number = file->position.key_number;
    if (file->indexed()) std::memcpy(entry.key, file->position.key, key_bytes(file, entry.key_number));
    return entry;
}

// Beside the record passed last that is still in the run: 0, 1 when none of this side is known, -1.
int beside_passed(vfs_file *file, const vfs_request *request, size_t which)
{
    file_position &position = file->position;
    const passed_records &side = position.passed[which];
    if (side.count != 0) {
        bool there; // usually where it was
        vfs_request entry = at_position(file, request);
        entry.record_offset = side.records[0].offset;
        if (record_is_at(file, entry.record_offset, side.records[0].rrn, &there) == -1) return -1;
        const int found = there ? tree_seek_record(file, &entry) : 1;
        if (found == 0) return stand_beside(&position, entry, which);
        if (found == -1 && errno != ESPIPE) return -1;
        passed_search search{&side, side.count, {}};
        entry = at_position(file, request);
        if (run_walk(file, &entry, meet_passed, &search) == -1) return -1;
        if (search.best != side.count) return stand_beside(&position, search.entry, which);
    }
    if (!side.complete) return 1;
    // All that was passed is gone: the place is the run's edge.
    vfs_request edge = at_position(file, request);
    return run_edge(file, &edge, which == after) == -1 ? -1 : stand_beside(&position, edge, after);
}

// The place of a gap among equal keys. Without any knowledge of the run it stays without cursor.
int place_in_run(vfs_file *file, const vfs_request *request)
{
    const size_t nearest = request->mode == VFS_POS_PREV ? after : before;
    int found = beside_passed(file, request, nearest);
    if (found == 1) found = beside_passed(file, request, 1 - nearest);
    return found == -1 ? -1 : 0;
}

int find_position(vfs_file *file, const vfs_request *request)
{
    file_position &position = file->position;
    if (position.node != none || !position.identified) return 0;
    const bool runs = holds_runs(file, position.key_number);
    if (position.side == position_side::gap && runs) return place_in_run(file, request);
    if (position.side != position_side::entry) return 0;
    bool there;
    if (record_is_at(file, position.record_offset, position.rrn, &there) == -1) return -1;
    if (there && !file->indexed()) return 0; // its number is its key
    vfs_request found = at_position(file, request);
    found.rrn = position.rrn;
    found.record_offset = position.record_offset;
    const int moved = there ? tree_seek_record(file, &found) : record_by_identity(file, &found);
    if (moved == -1 && errno != ESPIPE) return -1;
    if (moved == 0 && (found.flags & VFS_FLAG_AT_END) == 0) {
        position.record_offset = found.record_offset;
        position.node = found.node;
        position.item = found.item;
        return 0;
    }
    position.side = position_side::gap;
    return runs ? place_in_run(file, request) : 0;
}

} // namespace

int position_follow(vfs_file *file, const vfs_request *request)
{
    const int before_search = errno;
    if (find_position(file, request) == -1) return -1;
    errno = before_search; // what was not found on the way is no failure
    return 0;
}

void position_save(vfs_file *file, const vfs_request *request)
{
    passed_note(file, request);
    file_position &position = file->position;
    position.side = position_side::entry;
    position.end = position_end::inside;
    position.identified = true;
    position.started = false;
    position.key_number = request->key_number;
    position.node = request->node;
    position.item = request->item;
    position.stamp = request->stamp;
    position.record_offset = request->record_offset;
    position.stored_length = request->stored_length;
    position.rrn = request->rrn;
    position.before[0] = position.after[0] = none;
    if (file->indexed() && position.key != request->key)
        std::memcpy(position.key, request->key, key_bytes(file, request->key_number));
}

void position_to_gap(vfs_file *file, const vfs_request *request)
{
    file_position &position = file->position;
    passed_forget(&position);
    position.side = position_side::gap;
    position.end = position_end::inside;
    position.started = false;
    position.identified = true;
    position.key_number = request->key_number;
    position.node = position.item = position.record_offset = position.stamp = none;
    position.before[0] = position.after[0] = none;
    position.rrn = request->rrn;
    if (file->indexed()) std::memcpy(position.key, request->key, key_bytes(file, request->key_number));
}

void position_at_end(vfs_file *file, position_end end)
{
    file->position.end = end;
    file->position.started = false;
}

void position_to_end(vfs_file *file, position_end end, uint64_t key_number)
{
    file_position &position = file->position;
    position_at_end(file, end);
    position.identified = false;
    position.key_number = key_number;
    position.node = position.item = position.stamp = none;
    position.side = end == position_end::last ? position_side::after_last : position_side::before_first;
    position.record_offset = end == position_end::last ? file->end_of_file : file->data_start;
    // In a flat file the end is the place of the next number; none + 1 is 0.
    position.rrn = file->trees() ? none : end == position_end::last ? file->highest_rrn + 1 : 0;
    position.stored_length = 0;
}
