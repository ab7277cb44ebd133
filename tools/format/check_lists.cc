// The free space: list of free index blocks, lists of free slots, chain of holes. Damage here loses no record, but the
// driver would write a new record over something else.
#include "format/check_parts.h"

#include <array>

namespace {

using enum finding_area;

void free_blocks(check_state &state)
{
    offset_set listed{metadata_unit};
    uint64_t at = state.header(header_free_index_list), from = header_free_index_list.offset;
    for (; at != 0; from = at + frame_link.offset, at = state.image.word(from)) {
        if (!state.free_blocks.contains(at)) {
            state.report.problem(lists, from,
                                 "the list of free index blocks leads to 0x{:x}, which is none: the driver "
                                 "would overwrite what is there",
                                 at);
            return;
        }
        if (!listed.insert(at)) {
            state.report.problem(lists, from, "the list of free index blocks leads back to 0x{:x}", at);
            return;
        }
    }
    state.expect(lists, header_free_index_blocks.offset, state.header(header_free_index_blocks), listed.count(),
                 "number of free index blocks");
    if (state.free_blocks.count() > listed.count())
        state.report.note("{} index blocks are on no list: lost space, {} bytes",
                          state.free_blocks.count() - listed.count(),
                          (state.free_blocks.count() - listed.count()) * index_block_bytes);
}

// One block that lists free slots.
void slot_list(check_state &state, uint64_t at, offset_set &listed)
{
    const bool fixed = state.facts.fixed;
    const uint64_t capacity = fixed ? free_slots_fixed_capacity : free_slots_variable_capacity;
    std::array<std::byte, index_block_bytes> image;
    if (!state.image.read(at, image)) return state.report.problem(lists, at, "a list of free slots cannot be read");
    state.expect(lists, at + free_slots_capacity.offset, image_get(image, free_slots_capacity), capacity,
                 "capacity of a list of free slots");
    if (!fixed)
        state.expect(lists, at + free_slots_length_array.offset, image_get(image, free_slots_length_array),
                     free_slots_head_bytes + 8 * capacity, "length array of a list of free slots");
    const uint64_t count = image_get(image, free_slots_count);
    if (count > capacity)
        return state.report.problem(lists, at + free_slots_count.offset,
                                    "a list of {} free slots, which has room for {}", count, capacity);
    for (uint64_t i = 0, before = 0; i < count; ++i) {
        const uint64_t entry = free_slots_head_bytes + 8 * i, slot = load_u64(image.data() + entry);
        if (!state.free_slots.contains(slot)) {
            state.report.problem(lists, at + entry, "0x{:x} is listed as a free slot, which it is not", slot);
            continue;
        }
        if (!listed.insert(slot))
            state.report.problem(lists, at + entry, "the free slot at 0x{:x} is listed twice", slot);
        if (fixed) continue;
        const uint64_t length = load_u64(image.data() + entry + 8 * capacity), real = state.image.word(slot);
        if (length > real || length < slot_overhead) // padding may have lengthened it since
            state.report.problem(lists, at + entry + 8 * capacity,
                                 "the free slot at 0x{:x} is listed with {} bytes, "
                                 "it has {}",
                                 slot, length, real);
        if (length < before)
            state.report.problem(lists, at + entry + 8 * capacity, "the lengths of a list of free slots do not ascend");
        before = length;
    }
}

void free_slots(check_state &state)
{
    offset_set blocks{metadata_unit}, listed;
    uint64_t at = state.header(header_free_slot_list), from = header_free_slot_list.offset;
    for (; at != 0; from = at + free_slots_next.offset, at = state.image.word(from)) {
        if (!state.lists.contains(at)) {
            state.report.problem(lists, from, "the chain of free-slot lists leads to 0x{:x}, which is none", at);
            return;
        }
        if (!blocks.insert(at)) {
            state.report.problem(lists, from, "the chain of free-slot lists leads back to 0x{:x}", at);
            return;
        }
        slot_list(state, at, listed);
    }
    state.expect(lists, header_free_slot_blocks.offset, state.header(header_free_slot_blocks), blocks.count(),
                 "number of free-slot lists");
    state.expect(lists, header_deleted.offset, state.header(header_deleted), listed.count(), "number of free slots");
    state.lists.each_not_in(blocks, [&](uint64_t lost) {
        state.report.problem(lists, lost, "a list of free slots that no other leads to");
        return true;
    });
    if (state.free_slots.count() > listed.count())
        state.report.note("{} free slots are on no list: lost space", state.free_slots.count() - listed.count());
}

void holes(check_state &state)
{
    offset_set chained;
    uint64_t at = state.header(header_first_hole), from = header_first_hole.offset, last = 0, chained_bytes = 0;
    for (; at != 0; from = at + frame_link.offset, at = state.image.word(from)) {
        if (!state.holes.contains(at)) {
            state.report.problem(lists, from, "the chain of holes leads to 0x{:x}, which is none", at);
            return;
        }
        if (!chained.insert(at)) {
            state.report.problem(lists, from, "the chain of holes leads back to 0x{:x}", at);
            return;
        }
        chained_bytes += state.image.word(at);
        last = at;
    }
    state.expect(lists, header_holes.offset, state.header(header_holes), chained.count(), "number of holes");
    state.expect(lists, header_last_hole.offset, state.header(header_last_hole), last, "last hole");
    const uint64_t pad = state.header(header_pad_bytes), dropped = state.hole_bytes - chained_bytes;
    if (pad < dropped || pad > state.end)
        state.report.problem(lists, header_pad_bytes.offset, "{} pad bytes, while holes of {} bytes were given up", pad,
                             dropped);
}

} // namespace

void check_lists(check_state &state)
{
    if (!state.facts.flat) {
        free_blocks(state);
        free_slots(state);
        holes(state);
        return;
    }
    for (const field<uint64_t> each :
         {header_holes, header_pad_bytes, header_free_index_blocks, header_free_index_list, header_free_slot_blocks,
          header_free_slot_list, header_first_hole, header_last_hole})
        state.expect(lists, each.offset, state.header(each), 0, "free space of a file without index");
}
