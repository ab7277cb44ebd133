// Reading and writing record slots. See slots.h.
#include "store/slots.h"

#include "util/errors.h"
#include "util/scope_guard.h"

#include <cstdio>

namespace {

struct head_image {
    std::byte bytes[slot_head_bytes];
};

head_image make_head(const slot_head &head)
{
    head_image made{};
    const std::span<std::byte> image(made.bytes);
    image_put(image, slot_stored_length, head.stored_length);
    image_put(image, slot_data_length, head.data_length);
    image_put(image, slot_type, head.type);
    image_put(image, slot_rrn, head.rrn);
    return made;
}

int put_pieces(vfs_file *file, uint64_t offset, std::span<vfs_segment> pieces)
{
    vfs_request write{};
    write.record_offset = offset;
    write.mode = VFS_POS_CURRENT;
    write.segment_count = pieces.size();
    write.segments = pieces.data();
    return cache_write_bytes(&file->data, &write) == -1 ? -1 : 0;
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
    return put_pieces(file, offset, pieces);
}

// The same without data: nothing is ever read between its ends. How long it is may be a lie of a damaged header; the file
// system keeps no blocks for what is not written.
int put_ends(vfs_file *file, uint64_t offset, const head_image &head)
{
    const uint64_t stored = load_u64(head.bytes);
    if (data_put(file, offset, head.bytes, sizeof head.bytes) == -1) return -1;
    return data_put(file, offset + stored - trailer_bytes, &stored, sizeof stored);
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
    const bool has_data = head.type == item_live || head.type == item_relocated;
    return !has_data || head.data_length <= head.stored_length - slot_overhead;
}

int moved_target(vfs_file *file, uint64_t home_rrn, uint64_t target, slot_head *head)
{
    if (slot_head_read(file, target, head) == -1) return -1;
    return head->type == item_relocated && head->rrn == home_rrn ? 0 : damaged();
}

// What a slot is read as: the record as far as it is wanted, the rest of the slot, the trailer.
struct slot_pieces {
    vfs_segment list[3];
};

slot_pieces pieces_of(const vfs_request *request, uint64_t stored, uint64_t bytes, uint64_t *trailer)
{
    return {{{bytes, request->record}, {stored - slot_overhead - bytes, nullptr}, {trailer_bytes, trailer}}};
}

int report_mismatch(vfs_file *file, const vfs_request *request, const slot_pieces &pieces)
{
    const vfs_buffer *block = file->data.curr;
    const uint64_t trailer = *static_cast<const uint64_t *>(pieces.list[2].address);
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
    for (const vfs_segment &piece : pieces.list)
        std::fprintf(stderr, "%d: %3.3ld %p\n", index++, static_cast<long>(piece.length), piece.address);
    cache_dump(&file->data, false);
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
    return put_pieces(file, offset, {&piece, 1});
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
    // Of a slot without record it is what the machine's stop has left there.
    if (head->type == item_deleted && head->data_length > head->stored_length - slot_overhead) head->data_length = 0;
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

int slot_damaged(vfs_file *file, const vfs_request *request)
{
    const uint64_t offset = request->record_offset;
    std::byte image[slot_head_bytes];
    if (offset % 8 != 0 || offset < file->data_start || offset >= file->end_of_file ||
        file->end_of_file - offset < slot_overhead || data_get(file, offset, image, sizeof image) == -1)
        return damaged();
    vfs_request found = *request;
    found.stored_length = load_u64(image + slot_stored_length.offset);
    found.data_length = load_u64(image + slot_data_length.offset);
    found.rrn = load_u64(image + slot_rrn.offset);
    found.record_state = static_cast<uint8_t>(image[slot_type.offset]);
    const slot_head head{found.stored_length, found.data_length, found.rrn, found.record_state};
    if (head.type < item_deleted || head.type > item_moved || plausible(file, offset, head)) return damaged();
    uint64_t trailer = 0;
    const bool inside = found.stored_length >= slot_overhead && found.stored_length <= file->end_of_file - offset;
    if (inside) (void)data_get(file, offset + found.stored_length - trailer_bytes, &trailer, sizeof trailer);
    found.record = nullptr;
    return report_mismatch(file, &found, pieces_of(&found, found.stored_length, 0, &trailer));
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
        return report_mismatch(file, request, pieces_of(request, stored, bytes, &trailer));
    }
    slot_pieces pieces = pieces_of(request, stored, bytes, &trailer);
    vfs_request read{};
    read.record_offset = slot + slot_head_bytes;
    read.mode = request->mode;
    read.operation = request->operation;
    read.flags = request->flags & VFS_FLAG_SEQUENTIAL;
    read.segment_count = std::size(pieces.list);
    read.segments = pieces.list;
    const int64_t got = cache_read_bytes(&file->data, &read);
    if (got == -1) return -1;
    if (static_cast<uint64_t>(got) != stored - slot_head_bytes) return damaged();
    if (trailer != stored) return report_mismatch(file, request, pieces);
    return static_cast<int64_t>(request->data_length);
}

int64_t record_write_new(vfs_file *file, vfs_request *request)
{
    const head_image head =
        make_head({request->stored_length, request->record_length, request->rrn, request->record_state});
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
    const head_image head = make_head({held.stored_length, request->record_length, request->rrn, type});
    const std::span data(static_cast<const std::byte *>(request->record), request->record_length);
    if (put_slot(file, slot, head, data) == -1) return -1;
    request->data_length = request->record_length;
    return static_cast<int64_t>(request->record_length);
}

int record_write_frame(vfs_file *file, const vfs_request *request)
{
    const head_image head =
        make_head({request->stored_length, request->data_length, request->rrn, request->record_state});
    const bool is_long = request->stored_length > file->data_block_size;
    if ((is_long ? put_ends(file, request->record_offset, head) : put_slot(file, request->record_offset, head, {})) ==
        -1)
        return -1;
    end_advance(file, request->record_offset, request->stored_length);
    return 0;
}

int slot_head_write(vfs_file *file, uint64_t offset, const slot_head &head)
{
    const head_image image = make_head(head);
    return data_put(file, offset, image.bytes, sizeof image.bytes);
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
    // Only the head of a slot that keeps its place is written: it cannot be left half done between two blocks.
    const slot_head home{request->stored_length, copy.record_offset, request->rrn, item_moved};
    if (slot_head_write(file, request->record_offset, home) == -1) return -1;
    undo.dismiss();
    if (!was_moved) {
        ++file->moved;
    } else { // nothing leads to the old copy any more: if it cannot be marked, its space is lost
        (void)slot_head_write(file, holder, {held.stored_length, 0, request->rrn, item_deleted});
    }
    request->record_state = item_moved;
    request->data_length = request->record_length;
    request->data_offset = copy.data_offset;
    return static_cast<int64_t>(request->record_length);
}
