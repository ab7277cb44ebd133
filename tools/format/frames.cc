// See frames.h.
#include "format/frames.h"

#include "store/format.h"

#include <array>

bool frame::is_block() const
{
    return type >= item_block && type <= item_free_slots;
}
bool frame::is_slot() const
{
    return type == item_deleted || (type >= item_relocated && type <= item_moved);
}
bool frame::is_record() const
{
    return type == item_relocated || type == item_live;
}

frame_fault read_frame(file_image &image, uint64_t offset, uint64_t limit, frame *found)
{
    *found = {.offset = offset};
    std::array<std::byte, slot_head_bytes> head{};
    if (limit > image.size()) limit = image.size();
    if (offset > limit || limit - offset < hole_minimum || !image.read(offset, head)) return frame_fault::head;
    found->length = image_get(head, frame_length);
    found->link = image_get(head, frame_link);
    found->type = image_get(head, frame_type);
    found->rrn = image_get(head, slot_rrn);
    for (size_t i = slot_type.offset + 1; i < slot_rrn.offset; ++i)
        if (head[i] != std::byte{0}) found->reserved_zero = false;
    if (found->type < item_deleted || found->type > item_moved) return frame_fault::head;
    const uint64_t least = found->is_slot() ? slot_overhead : found->is_block() ? index_block_bytes : hole_minimum;
    if (found->length % 8 != 0 || found->length < least || found->length > limit - offset) return frame_fault::head;
    if (found->is_block() && found->length != index_block_bytes) return frame_fault::head;
    return image.word(offset + found->length - trailer_bytes) == found->length ? frame_fault::none
                                                                               : frame_fault::trailer;
}

bool frame_holds(file_image &image, uint64_t offset, uint64_t limit, frame *found)
{
    if (read_frame(image, offset, limit, found) != frame_fault::none || !found->reserved_zero) return false;
    if (found->is_block()) return offset % metadata_unit == 0;
    return !found->is_record() || found->link <= found->length - slot_overhead;
}

uint64_t next_frame(file_image &image, uint64_t from, uint64_t limit, frame *found)
{
    constexpr uint64_t look = 1024 * 1024; // zeros so long may be a hole of the file system
    if (limit > image.size()) limit = image.size();
    uint64_t zeros_from = from;
    for (uint64_t at = from; at < limit && limit - at >= hole_minimum; at += 8) {
        const uint64_t length = image.word(at);
        if (length != 0) zeros_from = at + 8;
        if (length == 0 && at - zeros_from >= look) {
            zeros_from = at;
            const uint64_t data = image.next_data(at) / 8 * 8;
            if (data > at) at = data - 8;
            continue;
        }
        if (length == 0 || length % 8 != 0 || length > limit - at) continue;
        if (frame_holds(image, at, limit, found)) return at;
    }
    return limit;
}
