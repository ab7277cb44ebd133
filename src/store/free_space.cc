// Free slots, holes, and the tail of a data block. See slots.h.
#include "store/slots.h"
#include "util/errors.h"

#include <algorithm>
#include <cstdio>

namespace {

// ---- The first free-slot list block ----

struct slot_list {
    std::byte *image;
    uint64_t count, capacity, lengths; // `lengths`: offset of the length array, 0 for fixed-length files

    std::byte *offset_at(uint64_t i) const { return image + free_slots_head_bytes + 8 * i; }
    std::byte *length_at(uint64_t i) const { return image + lengths + 8 * i; }
};

// The block at `address`, checked; for change when `update`.
int list_open(vfs_file *file, uint64_t address, bool update, slot_list *list)
{
    if (address % metadata_unit != 0 || address_check(file, address, index_block_bytes) == -1) return damaged();
    vfs_buffer *block = cache_fetch_at(&file->meta, address);
    if (block == nullptr) return -1;
    const std::span<const std::byte> image = buffer_bytes(block);
    const uint64_t capacity = file->fixed_length() ? free_slots_fixed_capacity : free_slots_variable_capacity;
    *list = {block->data, image_get(image, free_slots_count), capacity,
             file->fixed_length() ? 0 : free_slots_head_bytes + 8 * capacity};
    if (image_get(image, frame_type) != item_free_slots || image_get(image, free_slots_capacity) != capacity ||
        list->count > capacity || (list->lengths != 0 && image_get(image, free_slots_length_array) != list->lengths))
        return damaged();
    if ((block->offset != address || !block->checked) && cache_claim(block, address) == -1) return damaged();
    block->checked = true;
    return update && cache_update_at(&file->meta, address) == nullptr ? -1 : 0;
}

void list_count_put(const slot_list &list)
{
    image_put(std::span(list.image, index_block_bytes), free_slots_count, list.count);
}

void list_remove(slot_list &list, uint64_t i)
{
    const uint64_t after = 8 * (list.count - i - 1);
    std::memmove(list.offset_at(i), list.offset_at(i + 1), after);
    if (list.lengths != 0) std::memmove(list.length_at(i), list.length_at(i + 1), after);
    --list.count;
    list_count_put(list);
}

// First listed slot of at least `length` bytes.
uint64_t list_lower_bound(const slot_list &list, uint64_t length)
{
    uint64_t low = 0, high = list.count;
    while (low < high) {
        const uint64_t middle = (low + high) / 2;
        if (load_u64(list.length_at(middle)) < length)
            low = middle + 1;
        else
            high = middle;
    }
    return low;
}

int list_insert(vfs_file *file, uint64_t offset, uint64_t stored)
{
    slot_list list;
    if (list_open(file, header_get(file, header_free_slot_list), true, &list) == -1) return -1;
    assert(list.count < list.capacity);
    uint64_t i = list.count;
    if (list.lengths != 0) {
        i = list_lower_bound(list, stored);
        const uint64_t after = 8 * (list.count - i);
        std::memmove(list.offset_at(i + 1), list.offset_at(i), after);
        std::memmove(list.length_at(i + 1), list.length_at(i), after);
        store_u64(list.length_at(i), stored);
    }
    store_u64(list.offset_at(i), offset);
    ++list.count;
    list_count_put(list);
    ++file->deleted;
    ++file->dsn;
    return 0;
}

// An emptied first block leaves the list when another follows it.
int list_advance(vfs_file *file)
{
    const uint64_t first = header_get(file, header_free_slot_list);
    const vfs_buffer *block = cache_fetch_at(&file->meta, first);
    if (block == nullptr) return -1;
    const uint64_t next = image_get(buffer_bytes(block), free_slots_next);
    if (next == 0) return 0;
    if (next == first || address_check(file, next, index_block_bytes) == -1) return damaged();
    header_put(file, header_free_slot_list, next);
    const uint64_t blocks = header_get(file, header_free_slot_blocks);
    header_put(file, header_free_slot_blocks, blocks == 0 ? 0 : blocks - 1);
    return index_block_free(file, &file->meta, first);
}

// Takes a listed slot of at least `needed` bytes: 1 found, 0 none, -1. Entries that do not lead to such a slot are
// dropped: what the slot itself says counts.
int take_listed(vfs_file *file, uint64_t needed, vfs_request *request)
{
    for (;;) {
        const uint64_t first = header_get(file, header_free_slot_list);
        if (first == 0) return 0;
        slot_list list;
        if (list_open(file, first, false, &list) == -1) return -1;
        const uint64_t i = list.count == 0 ? 0 : list.lengths == 0 ? list.count - 1 : list_lower_bound(list, needed);
        if (list.count == 0 || i >= list.count) return 0;
        const uint64_t offset = load_u64(list.offset_at(i));
        slot_head head{};
        const int checked = slot_check(file, offset, &head);
        if (checked == -1 && errno != ENOEXEC) return -1;
        const bool fits = checked == 0 && head.type == item_deleted && head.stored_length >= needed;
        if (list_open(file, first, true, &list) == -1) return -1;
        list_remove(list, i);
        if (file->deleted != 0) --file->deleted;
        ++file->dsn;
        leave_sequence(file);
        if (list.count == 0 && list_advance(file) == -1) return -1;
        if (!fits) continue;
        request->record_offset = offset;
        request->stored_length = head.stored_length;
        return 1;
    }
}

// ---- Holes ----

int hole_write(vfs_file *file, uint64_t offset, uint64_t length, uint64_t next)
{
    // As long as the head of a slot, which is what is read of it before the bytes behind it are in the file.
    std::byte head[slot_head_bytes] = {};
    store_u64(head, length);
    store_u64(head + 8, next);
    head[16] = std::byte{item_hole};
    if (data_put(file, offset, head, std::min<uint64_t>(sizeof head, length - trailer_bytes)) == -1) return -1;
    return data_put(file, offset + length - trailer_bytes, &length, sizeof length);
}

// A deleted slot at `offset`, so that the place has a frame whatever happens to the operation that takes it.
int frame_deleted(vfs_file *file, uint64_t offset, uint64_t stored)
{
    vfs_request frame{};
    frame.record_offset = offset;
    frame.stored_length = stored;
    frame.record_state = item_deleted;
    frame.rrn = none;
    return record_write_frame(file, &frame);
}

void holes_put(vfs_file *file, uint64_t count, uint64_t first, uint64_t last)
{
    header_put(file, header_holes, count);
    header_put(file, header_first_hole, first);
    header_put(file, header_last_hole, first == 0 ? 0 : last);
    ++file->dsn;
}

// Only the first hole is looked at: 1 taken, 0 too small (and then dropped) or none, -1.
int take_hole(vfs_file *file, uint64_t needed, vfs_request *request)
{
    const uint64_t hole = header_get(file, header_first_hole), holes = header_get(file, header_holes);
    if (hole == 0) return 0;
    slot_head head; // a hole's second word is the next hole
    if (slot_check(file, hole, &head) == -1) return -1;
    const uint64_t length = head.stored_length, next = head.data_length, last = header_get(file, header_last_hole);
    if (head.type != item_hole || next == hole || (next != 0 && address_check(file, next, hole_minimum) == -1))
        return damaged();
    const uint64_t fewer = holes == 0 ? 0 : holes - 1;
    if (length < needed) {
        std::fprintf(stderr, "loosing hole @0x%lx len=%ld\n", hole, static_cast<long>(length));
        header_put(file, header_pad_bytes, header_get(file, header_pad_bytes) + length);
        holes_put(file, fewer, next, last);
        return 0;
    }
    request->record_offset = hole;
    request->stored_length = length;
    if (length - needed < needed) {
        header_put(file, header_pad_bytes, header_get(file, header_pad_bytes) + (length - needed));
        if (frame_deleted(file, hole, length) == -1) return -1;
        holes_put(file, fewer, next, last);
        return 1;
    }
    if (hole_write(file, hole + needed, length - needed, next) == -1) return -1;
    if (frame_deleted(file, hole, needed) == -1) return -1;
    holes_put(file, holes, hole + needed, last == hole ? hole + needed : last);
    request->stored_length = needed;
    return 1;
}

// ---- The tail of a data block ----

// Behind the end of a shared file a process that was killed may have left bytes; anybody else's are zeros.
int zero_leftovers(vfs_file *file, uint64_t offset, uint64_t length)
{
    return is_shared(file) ? data_put(file, offset, nullptr, length) : 0;
}

int tail_hole(vfs_file *file, uint64_t length)
{
    const uint64_t at = file->end_of_file, last = header_get(file, header_last_hole);
    if (length < hole_minimum) return damaged();
    if (last != 0) {
        slot_head head;
        if (slot_check(file, last, &head) == -1) return -1;
        if (head.type != item_hole) return damaged();
    }
    if (zero_leftovers(file, at, length) == -1 || hole_write(file, at, length, 0) == -1) return -1;
    if (last != 0 && data_put(file, last + 8, &at, sizeof at) == -1) return -1;
    const uint64_t first = header_get(file, header_first_hole);
    holes_put(file, header_get(file, header_holes) + 1, first == 0 ? at : first, at);
    return 0;
}

int tail_grow(vfs_file *file, uint64_t slot, uint64_t stored, uint64_t by)
{
    vfs_segment fill[] = {{by, nullptr}, {trailer_bytes, nullptr}};
    uint64_t grown = stored + by;
    fill[1].address = &grown;
    vfs_request write{};
    write.record_offset = slot + stored - trailer_bytes; // the old trailer becomes fill
    write.mode = VFS_POS_CURRENT;
    write.segment_count = std::size(fill);
    write.segments = fill;
    if (cache_write_bytes(&file->data, &write) == -1) return -1;
    if (data_put(file, slot, &grown, sizeof grown) == -1) return -1;
    header_put(file, header_pad_bytes, header_get(file, header_pad_bytes) + by);
    ++file->dsn;
    return 0;
}

bool is_record_slot(uint8_t type)
{
    return type == item_deleted || (type >= item_relocated && type <= item_moved);
}

} // namespace

int tail_close(vfs_file *file)
{
    const uint64_t end = file->end_of_file;
    const uint64_t rest = round_up(end, file->data_block_size) - end;
    if (rest == 0) return 0;
    uint64_t stored;
    slot_head last;
    if (data_get(file, end - trailer_bytes, &stored, sizeof stored) == -1) return -1;
    if (stored % 8 != 0 || stored < hole_minimum || stored > end - file->data_start) return damaged();
    if (slot_check(file, end - stored, &last) == -1) return -1;
    if (last.stored_length != stored) return damaged();
    const bool grows = is_record_slot(last.type) && rest < file->maximum_slot;
    if ((grows ? tail_grow(file, end - stored, stored, rest) : tail_hole(file, rest)) == -1) return -1;
    ++file->asn;
    file->end_of_file = end + rest;
    return 0;
}

int slot_choose(vfs_file *file, vfs_request *request)
{
    const uint64_t needed = slot_bytes(request->record_length);
    if (file->trees() && (file->deleted != 0 || header_get(file, header_holes) != 0)) {
        int taken = take_listed(file, needed, request);
        if (taken == 0) taken = take_hole(file, needed, request);
        if (taken == -1) return -1;
        if (taken == 1) return 0;
    }
    request->record_offset = file->end_of_file;
    request->stored_length = needed;
    return 0;
}

int slot_list_prepare(vfs_file *file)
{
    const uint64_t first = header_get(file, header_free_slot_list);
    if (first != 0) {
        slot_list list;
        if (list_open(file, first, false, &list) == -1) return -1;
        if (list.count < list.capacity) return 0;
    }
    uint64_t address;
    if (index_block_alloc(file, &file->meta, &address) == -1) return -1;
    vfs_buffer *block = cache_update_at(&file->meta, address);
    if (block == nullptr) return -1;
    const std::span<std::byte> image = buffer_bytes_for_update(block);
    const uint64_t capacity = file->fixed_length() ? free_slots_fixed_capacity : free_slots_variable_capacity;
    image_put<uint8_t>(image, frame_type, item_free_slots);
    image_put(image, free_slots_next, first);
    image_put(image, free_slots_capacity, capacity);
    image_put(image, free_slots_count, uint64_t{0});
    image_put(image, free_slots_length_array,
              file->fixed_length() ? uint64_t{0} : free_slots_head_bytes + 8 * capacity);
    header_put(file, header_free_slot_list, address);
    header_put(file, header_free_slot_blocks, header_get(file, header_free_slot_blocks) + 1);
    ++file->dsn;
    leave_sequence(file);
    return 0;
}

int slot_free(vfs_file *file, uint64_t offset, unlisted_slot unlisted)
{
    int room = slot_list_prepare(file);
    slot_list list; // what the listing needs is at hand before the record goes
    if (room == 0) room = list_open(file, header_get(file, header_free_slot_list), true, &list);
    const int cause = errno;
    slot_head head; // read after the list has room: making room may have grown the slot
    if (slot_head_read(file, offset, &head) == -1) return -1;
    if (room == -1 && unlisted == unlisted_slot::refused) return fail(cause);
    if (slot_head_write(file, offset, {head.stored_length, 0, head.rrn, item_deleted}) == -1) return -1;
    return room == -1 ? fail(cause) : list_insert(file, offset, head.stored_length);
}
