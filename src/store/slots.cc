// Reading and writing record slots. See slots.h.
#include "store/slots.h"

#include "util/errors.h"
#include "util/scope_guard.h"

#include <cstdio>

namespace {

struct head_image {
    std::byte bytes[slot_head_bytes];
};

head_image make_head(const vfs_request *request, uint64_t stored, uint64_t data_word, uint8_t type)
{
    head_image head{};
    const std::span<std::byte> image(head.bytes);
    image_put(image, slot_stored_length, stored);
    image_put(image, slot_data_length, data_word);
    image_put(image, slot_type, type);
    image_put(image, slot_rrn, request->rrn);
    return head;
}

// Writes head, data, zero fill and trailer of one slot.
int put_slot(vfs_file *file, uint64_t offset, const head_image &head, std::span<const std::byte> data)
{
    uint64_t stored = load_u64(head.bytes);
    vfs_segment pieces[] = {
        {sizeof head.bytes, const_cast<std::byte *>(head.bytes)},
        {data.size(), const_cast<std::byte *>(data.data())},
        {stored - slot_overhead - data.size(), nullptr},
        {trailer_bytes, &stored},
    };
    vfs_request write{};
    write.record_offset = offset;
    write.mode = VFS_POS_CURRENT;
    write.segment_count = std::size(pieces);
    write.segments = pieces;
    return cache_write_bytes(&file->data, &write) == -1 ? -1 : 0;
}

void end_advance(vfs_file *file, uint64_t offset, uint64_t stored)
{
    if (offset + stored > file->end_of_file) file->end_of_file = offset + stored;
}

bool plausible(const vfs_file *file, uint64_t offset, const slot_head &head)
{
    const uint64_t room = file->end_of_file - offset;
    if (head.type < item_deleted || head.type > item_moved || head.stored_length % 8 != 0 || head.stored_length > room)
        return false;
    if (head.type == item_hole) return head.stored_length >= hole_minimum;
    if (head.stored_length < slot_overhead) return false;
    const bool has_data = head.type == item_live || head.type == item_relocated || head.type == item_deleted;
    return !has_data || head.data_length <= head.stored_length - slot_overhead;
}

int moved_target(vfs_file *file, uint64_t home_rrn, uint64_t target, slot_head *head)
{
    if (slot_head_read(file, target, head) == -1) return -1;
    return head->type == item_relocated && head->rrn == home_rrn ? 0 : damaged();
}

int report_mismatch(vfs_file *file, const vfs_request *request, uint64_t trailer, std::span<const vfs_segment> pieces)
{
    const vfs_buffer *block = file->data.curr;
    std::fprintf(stderr,
                 "offset 0x%lx bend 0x%lx roffset 0x%lx tlr 0x%lx end 0x%lx type %d rrn %ld len %ld %ld dlen %ld "
                 "sequential %d noseek %d\n",
                 block != nullptr ? block->offset : none, block != nullptr ? block->end : none, request->record_offset,
                 request->record_offset + request->stored_length - trailer_bytes,
                 request->record_offset + request->stored_length, request->record_state,
                 static_cast<long>(request->rrn), static_cast<long>(request->stored_length), static_cast<long>(trailer),
                 static_cast<long>(request->data_length), (request->flags & VFS_FLAG_SEQUENTIAL) != 0,
                 (request->flags & VFS_FLAG_CURRENT) != 0);
    int index = 0;
    for (const vfs_segment &piece : pieces)
        std::fprintf(stderr, "%d: %3.3ld %p\n", index++, static_cast<long>(piece.length), piece.address);
    return damaged();
}

} // namespace

int data_get(vfs_file *file, uint64_t offset, void *to, uint64_t bytes)
{
    const vfs_buffer *block = cache_fetch_at(&file->data, offset);
    if (block == nullptr) return -1;
    if (offset + bytes <= block->offset + block->bytes && offset + bytes <= file->end_of_file) {
        std::memcpy(to, block->data + (offset - block->offset), bytes);
        return 0;
    }
    vfs_segment piece{bytes, to};
    vfs_request read{};
    read.record_offset = offset;
    read.mode = VFS_POS_CURRENT;
    read.segment_count = 1;
    read.segments = &piece;
    const int64_t got = cache_read_bytes(&file->data, &read);
    if (got == -1) return -1;
    return static_cast<uint64_t>(got) == bytes ? 0 : damaged();
}

int data_put(vfs_file *file, uint64_t offset, const void *from, uint64_t bytes)
{
    vfs_segment piece{bytes, const_cast<void *>(from)};
    vfs_request write{};
    write.record_offset = offset;
    write.mode = VFS_POS_CURRENT;
    write.segment_count = 1;
    write.segments = &piece;
    return cache_write_bytes(&file->data, &write) == -1 ? -1 : 0;
}

int slot_head_read(vfs_file *file, uint64_t offset, slot_head *head)
{
    if (offset % 8 != 0 || offset < file->data_start) return damaged();
    if (offset >= file->end_of_file || file->end_of_file - offset < hole_minimum) {
        if (address_check(file, offset, hole_minimum) == -1) return -1;
    }
    std::byte local[slot_head_bytes];
    const std::byte *at = local;
    const vfs_buffer *block = cache_fetch_at(&file->data, offset);
    if (block == nullptr) return -1;
    if (offset + slot_head_bytes <= block->offset + block->bytes) [[likely]] {
        at = block->data + (offset - block->offset);
    } else if (data_get(file, offset, local, sizeof local) == -1) {
        return -1;
    }
    const uint64_t type_word = load_u64(at + slot_type.offset);
    head->stored_length = load_u64(at + slot_stored_length.offset);
    head->data_length = load_u64(at + slot_data_length.offset);
    head->rrn = load_u64(at + slot_rrn.offset);
    head->type = static_cast<uint8_t>(type_word);
    if ((type_word >> 8) != 0 || !plausible(file, offset, *head)) return damaged();
    return 0;
}

int slot_check(vfs_file *file, uint64_t offset, slot_head *head)
{
    if (slot_head_read(file, offset, head) == -1) return -1;
    uint64_t trailer;
    if (data_get(file, offset + head->stored_length - trailer_bytes, &trailer, sizeof trailer) == -1) return -1;
    return trailer == head->stored_length ? 0 : damaged();
}

int record_head(vfs_file *file, vfs_request *request)
{
    slot_head head;
    if (slot_head_read(file, request->record_offset, &head) == -1) return -1;
    request->stored_length = head.stored_length;
    request->record_state = head.type;
    request->rrn = head.rrn;
    request->data_length = head.data_length;
    request->data_offset = request->record_offset + slot_head_bytes;
    if (head.type == item_moved) {
        const uint64_t target = head.data_length;
        slot_head at;
        if (moved_target(file, head.rrn, target, &at) == -1) return -1;
        request->data_length = at.data_length;
        request->data_offset = target + slot_head_bytes;
    }
    return 0;
}

int64_t record_read(vfs_file *file, vfs_request *request)
{
    uint64_t slot = request->data_offset - slot_head_bytes, stored = request->stored_length;
    if (request->record_state == item_moved) {
        slot_head target;
        if (moved_target(file, request->rrn, slot, &target) == -1) return -1;
        if (request->mode == VFS_POS_CURRENT) {
            std::fprintf(stderr, "record moved from 0x%lx to 0x%lx\n", request->record_offset, slot);
            std::fprintf(stderr, "new len @0x%lx %ld %ld\n", slot, static_cast<long>(target.stored_length),
                         static_cast<long>(target.data_length));
        }
        stored = target.stored_length;
    }
    const uint64_t bytes =
        request->data_length < request->record_length ? request->data_length : request->record_length;
    const vfs_buffer *block = cache_fetch_at(&file->data, slot);
    if (block == nullptr) return -1;
    uint64_t trailer;
    if (slot + stored <= block->offset + block->bytes) [[likely]] {
        const std::byte *at = block->data + (slot - block->offset);
        trailer = load_u64(at + stored - trailer_bytes);
        if (bytes != 0) std::memcpy(request->record, at + slot_head_bytes, bytes);
        if (trailer == stored) [[likely]]
            return static_cast<int64_t>(request->data_length);
        return report_mismatch(file, request, trailer, {});
    }
    vfs_segment pieces[] = {
        {bytes, request->record},
        {stored - slot_overhead - bytes, nullptr},
        {trailer_bytes, &trailer},
    };
    vfs_request read{};
    read.record_offset = slot + slot_head_bytes;
    read.mode = request->mode;
    read.operation = request->operation;
    read.flags = request->flags & VFS_FLAG_SEQUENTIAL;
    read.segment_count = std::size(pieces);
    read.segments = pieces;
    const int64_t got = cache_read_bytes(&file->data, &read);
    if (got == -1) return -1;
    if (static_cast<uint64_t>(got) != stored - slot_head_bytes) return damaged();
    if (trailer != stored) return report_mismatch(file, request, trailer, pieces);
    return static_cast<int64_t>(request->data_length);
}

int64_t record_write_new(vfs_file *file, vfs_request *request)
{
    const head_image head = make_head(request, request->stored_length, request->record_length, request->record_state);
    const std::span data(static_cast<const std::byte *>(request->record), request->record_length);
    if (put_slot(file, request->record_offset, head, data) == -1) return -1;
    end_advance(file, request->record_offset, request->stored_length);
    const uint64_t needed = slot_bytes(request->record_length);
    if (needed > file->maximum_slot) file->maximum_slot = needed;
    request->data_length = request->record_length;
    request->data_offset = request->record_offset + slot_head_bytes;
    return static_cast<int64_t>(request->record_length);
}

int64_t record_rewrite_in_place(vfs_file *file, vfs_request *request)
{
    const uint64_t slot = request->data_offset - slot_head_bytes;
    slot_head held; // the slot may have grown since the request was filled
    if (slot_head_read(file, slot, &held) == -1) return -1;
    if (slot_bytes(request->record_length) > held.stored_length) return damaged();
    const bool away = request->record_state == item_moved;
    if (away && (held.type != item_relocated || held.rrn != request->rrn)) return damaged();
    const uint8_t type = away ? uint8_t{item_relocated} : request->record_state;
    const head_image head = make_head(request, held.stored_length, request->record_length, type);
    const std::span data(static_cast<const std::byte *>(request->record), request->record_length);
    if (put_slot(file, slot, head, data) == -1) return -1;
    request->data_length = request->record_length;
    return static_cast<int64_t>(request->record_length);
}

int record_write_frame(vfs_file *file, vfs_request *request)
{
    const bool moved = request->record_state == state_write_moved;
    const uint8_t type = moved ? uint8_t{item_moved} : request->record_state;
    const head_image head = make_head(request, request->stored_length, request->data_length, type);
    if (put_slot(file, request->record_offset, head, {}) == -1) return -1;
    end_advance(file, request->record_offset, request->stored_length);
    if (moved) {
        ++file->moved;
        request->record_state = item_moved;
    }
    return 0;
}

int copy_reaches_file(vfs_file *file, uint64_t offset, uint64_t stored)
{
    return is_shared(file) ? 0 : cache_write_out(&file->data, offset, offset + stored - 1);
}

int64_t record_rewrite(vfs_file *file, vfs_request *request)
{
    const uint64_t needed = slot_bytes(request->record_length);
    const uint64_t holder = request->data_offset - slot_head_bytes;
    const bool was_moved = request->record_state == item_moved;
    slot_head held{};
    held.stored_length = request->stored_length;
    if (was_moved && moved_target(file, request->rrn, holder, &held) == -1) return -1;
    if (needed <= held.stored_length) return record_rewrite_in_place(file, request);

    // The new copy is in the file before the home slot leads to it.
    vfs_request copy = *request;
    copy.record_offset = file->end_of_file;
    copy.stored_length = needed;
    copy.record_state = item_relocated;
    const uint64_t end = file->end_of_file;
    scope_guard undo{[&] { file->end_of_file = end; }};
    if (record_write_new(file, &copy) == -1 || copy_reaches_file(file, copy.record_offset, needed) == -1) return -1;
    vfs_request home = *request;
    home.data_length = copy.record_offset;
    home.record_state = was_moved ? uint8_t{item_moved} : state_write_moved;
    if (record_write_frame(file, &home) == -1) return -1;
    undo.dismiss();
    if (was_moved) { // nothing leads to the old copy any more: if it cannot be marked, its space is lost
        vfs_request old = *request;
        old.record_offset = holder;
        old.stored_length = held.stored_length;
        old.data_length = 0;
        old.record_state = item_deleted;
        (void)record_write_frame(file, &old);
    }
    request->record_state = item_moved;
    request->data_length = request->record_length;
    request->data_offset = copy.data_offset;
    return static_cast<int64_t>(request->record_length);
}
