// The walk over all items from the header to the end of file, and what it counts: records, numbers, moved and free slots.
#include "format/check_parts.h"

#include <algorithm>
#include <limits>

namespace {

using enum finding_area;

// Calls for every item that begins in a range, for items whose trailer is another length, and for ranges where no item
// begins. Where the next one begins, or where it was stopped.
template <typename Item, typename Trailer, typename Damage>
uint64_t walk(check_state &state, uint64_t at, uint64_t to, Item item, Trailer trailer, Damage damage)
{
    uint64_t told = 0;
    while (at < to) {
        if (at - told >= 4 * 1024 * 1024) {
            told = at;
            if (!state.go_on("items", at, state.end)) return at;
        }
        frame found;
        frame_fault fault = read_frame(state.image, at, state.end, &found);
        if (fault == frame_fault::trailer) {
            frame next;
            const uint64_t behind = at + found.length;
            if (behind == state.end || frame_holds(state.image, behind, state.end, &next)) {
                trailer(found);
                fault = frame_fault::none;
            }
        }
        if (fault == frame_fault::none) {
            item(found);
            at += found.length;
            continue;
        }
        frame next;
        const uint64_t place = next_frame(state.image, at + 8, state.end, &next);
        const uint64_t good = next.length != 0 && place < state.end ? place : state.end;
        damage(at, good);
        at = good;
    }
    return at;
}

} // namespace

uint64_t item_walk::run(uint64_t from, uint64_t to)
{
    return walk(
        state_, from, to, [&](const frame &found) { item(found); },
        [&](const frame &found) {
            const uint64_t at = found.offset + found.length - trailer_bytes;
            state_.report.problem(items, at,
                                  "the item at 0x{:x} ends with length {}, it begins with {}: it cannot be read",
                                  found.offset, state_.image.word(at), found.length);
        },
        [&](uint64_t at, uint64_t good) {
            state_.walk_whole = false;
            state_.report.problem(items, at,
                                  "no item begins here; {} bytes up to 0x{:x} cannot be read, and what is in them is "
                                  "missing",
                                  good - at, good);
        });
}

bool item_walk::absorb(const item_walk &next)
{
    if (!numbers_.absorb(next.numbers_)) return false;
    records_ += next.records_;
    if (highest_ == UINT64_MAX || (next.highest_ != UINT64_MAX && next.highest_ > highest_)) highest_ = next.highest_;
    check_state &mine = state_;
    const check_state &other = next.state_;
    mine.records += other.records;
    mine.hole_bytes += other.hole_bytes;
    mine.moved += other.moved;
    for (size_t key = 0; key < mine.pairs.size(); ++key) mine.pairs[key].add(other.pairs[key]);
    bool apart = true;
    for (const auto set : {&check_state::free_slots, &check_state::holes, &check_state::free_blocks,
                           &check_state::leaves, &check_state::branches, &check_state::lists})
        apart = (mine.*set).absorb(other.*set) && apart;
    return apart;
}

void item_walk::item(const frame &found)
{
    const uint64_t at = found.offset;
    if (!found.reserved_zero)
        state_.report.problem(items, at + frame_type.offset + 1, "bytes of the item's frame are not zero");
    if (at < state_.facts.data_start && !found.is_block())
        state_.report.problem(items, at, "an item of type {} below data start 0x{:x}", found.type,
                              state_.facts.data_start);
    if (flat() && !found.is_slot())
        state_.report.problem(items, at, "an item of type {} in a file without index", found.type);
    if (found.is_block() && at % metadata_unit != 0) {
        state_.report.problem(items, at, "an index block that does not begin at a multiple of {}", metadata_unit);
        return;
    }
    switch (found.type) {
    case item_block: state_.free_blocks.insert(at); break;
    case item_branch: state_.branches.insert(at); break;
    case item_leaf: state_.leaves.insert(at); break;
    case item_free_slots: state_.lists.insert(at); break;
    case item_hole:
        state_.holes.insert(at);
        state_.hole_bytes += found.length;
        break;
    default: slot(found);
    }
}

void item_walk::slot(const frame &found)
{
    if (found.type == item_deleted && found.link > found.length - slot_overhead)
        state_.report.note("the free slot at 0x{:x} names a length of {} bytes that it cannot have; it means nothing",
                           found.offset, found.link);
    if (found.is_record()) record(found);
    if (found.type == item_moved) {
        if (!flat()) state_.report.problem(records, found.offset, "a moved slot in a file with trees");
        moved_slot(found);
    }
    if (found.type == item_deleted) state_.free_slots.insert(found.offset);
    const bool counts =
        found.type == item_live || (found.type == item_relocated && !flat()) || found.type == item_moved;
    if ((counts || flat()) && (highest_ == UINT64_MAX || found.rrn > highest_)) highest_ = found.rrn;
    if (flat()) flat_slot(found);
    if (!counts) return;
    ++records_;
    if (!flat() && !numbers_.insert(found.rrn))
        state_.report.problem(records, found.offset, "a second record with number {}", found.rrn);
}

void item_walk::record(const frame &found)
{
    if (flat() && found.type == item_relocated)
        state_.relocated.insert(found.offset);
    else
        ++state_.records;
    if (found.link > found.length - slot_overhead) {
        state_.report.problem(records, found.offset, "a record of {} bytes in a slot of {}: it cannot be read",
                              found.link, found.length);
        return;
    }
    const uint64_t from = found.offset + slot_head_bytes + found.link, to = found.offset + found.length - trailer_bytes;
    if (const uint64_t at = from == to ? to : state_.image.first_nonzero(from, to); at != to)
        state_.report.problem(records, at,
                              "the record at 0x{:x} has {} bytes, behind it not all are zero: its length "
                              "or its bytes are damaged",
                              found.offset, found.link);
    length_of_record(found);
    keys_of(found);
}

void item_walk::keys_of(const frame &found)
{
    for (size_t i = 0; i < state_.pairs.size(); ++i)
        if (key_of_record(state_.image, state_.facts.keys[i], found.offset, &value_))
            state_.pairs[i].add(found.offset, value_);
}

void item_walk::length_of_record(const frame &found)
{
    const file_facts &facts = state_.facts;
    if (facts.flat && facts.fixed && found.type == item_relocated)
        state_.report.problem(records, found.offset, "a record that moved in a file of fixed length");
    if (slot_bytes(found.link) > facts.maximum_slot)
        state_.report.problem(records, found.offset, "the record needs a slot of {} bytes, the header's maximum is {}",
                              slot_bytes(found.link), facts.maximum_slot);
}

// The numbers of the home slots count up. A free slot whose number is lower once held a record that had moved there.
void item_walk::flat_slot(const frame &found)
{
    const file_facts &facts = state_.facts;
    if (facts.fixed && found.length != facts.maximum_slot)
        state_.report.problem(records, found.offset, "a slot of {} bytes in a file whose slots have {}", found.length,
                              facts.maximum_slot);
    if (found.type == item_relocated || (found.type == item_deleted && found.rrn < expected_)) return;
    if (found.rrn != expected_)
        state_.report.problem(records, found.offset + slot_rrn.offset,
                              "the slot has number {}, in the order of the file it is {}", found.rrn, expected_);
    if (facts.fixed && found.offset != facts.data_start + found.rrn * facts.maximum_slot)
        state_.report.problem(records, found.offset, "record {} does not lie in its place", found.rrn);
    expected_ = found.rrn + 1;
    free_home_ += found.type == item_deleted ? 1 : 0;
}

void item_walk::moved_slot(const frame &found)
{
    ++state_.moved;
    if (!flat()) return;
    frame target;
    const frame_fault fault = read_frame(state_.image, found.link, state_.end, &target);
    if (found.link < state_.facts.data_start || fault != frame_fault::none || target.type != item_relocated ||
        target.rrn != found.rrn) {
        state_.report.problem(records, found.offset + slot_data_length.offset,
                              "record {} is said to have moved to 0x{:x}, where it is not: it cannot be read",
                              found.rrn, found.link);
        return;
    }
    if (found.link % 8 != 0 || !state_.moved_targets.insert(found.link))
        state_.report.problem(records, found.offset + slot_data_length.offset,
                              "a second slot leads to the record at 0x{:x}", found.link);
}

void item_walk::totals()
{
    if (!state_.walk_whole) return; // what is missing has been said
    check_state &s = state_;
    numbers_.each_double(
        [&](uint64_t number) { s.report.problem(records, 0, "two records have the number {}", number); });
    s.expect(header, header_records.offset, s.header(header_records), records_, "number of records");
    s.expect(header, header_moved.offset, s.header(header_moved), s.moved, "number of moved records");
    const uint64_t highest = s.header(header_highest_rrn);
    if (s.facts.flat) {
        s.expect(header, header_highest_rrn.offset, highest, highest_, "highest record number");
        s.expect(header, header_deleted.offset, s.header(header_deleted), free_home_, "number of deleted records");
    } else if (highest_ != UINT64_MAX && (highest == UINT64_MAX || highest < highest_)) {
        s.report.problem(header, header_highest_rrn.offset,
                         "highest record number {}, but there is a record {}: new records would get numbers that exist",
                         static_cast<int64_t>(highest), highest_);
    }
    if (!s.facts.flat) return;
    s.relocated.each_not_in(s.moved_targets, [&](uint64_t at) {
        s.report.problem(records, at, "no slot leads to this record that has moved: it is not found");
        return true;
    });
    s.moved_targets.each_not_in(s.relocated, [&](uint64_t at) {
        s.report.problem(records, at, "a slot leads here, but no item begins here");
        return true;
    });
}

void check_items(check_state &state)
{
    item_walk all{state};
    all.run(state.facts.metadata_size, state.end);
    if (state.result.complete) all.totals();
    state.items_known = true;
    state.result.records = state.facts.flat ? state.records + state.moved : state.records;
}

offset_set record_slots(check_state &state)
{
    offset_set slots;
    walk(
        state, state.facts.metadata_size, state.end,
        [&](const frame &found) {
            if (found.is_record()) slots.insert(found.offset);
        },
        [](const frame &) {}, [](uint64_t, uint64_t) {});
    return slots;
}
