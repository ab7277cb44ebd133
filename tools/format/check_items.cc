// The walk over all items from the header to the end of file, and what it counts: records, numbers, moved and free slots.
#include "format/check_parts.h"

#include <algorithm>
#include <limits>

namespace {

using enum finding_area;

// Record numbers that were seen. Those of ordinary size are bits; the others are kept and sorted, so that memory stays
// below eight bytes for each record whatever they are.
class number_set {
public:
    explicit number_set(uint64_t file_bytes) : dense_(std::max<uint64_t>(file_bytes / 5, 1 << 16)) {}
    bool insert(uint64_t number) // false: it is there already, as far as can be told at once
    {
        if (number < dense_) return bits_.insert(number);
        others_.push_back(number);
        return true;
    }
    template <typename Call> void each_double(Call call)
    {
        std::sort(others_.begin(), others_.end());
        for (size_t i = 1; i < others_.size(); ++i)
            if (others_[i] == others_[i - 1]) call(others_[i]);
    }

private:
    uint64_t dense_;
    offset_set bits_{1};
    std::vector<uint64_t> others_;
};

// Calls for every item, for items whose trailer is another length, and for ranges where no item begins. False: stopped.
template <typename Item, typename Trailer, typename Damage>
bool walk(check_state &state, Item item, Trailer trailer, Damage damage)
{
    uint64_t at = state.facts.metadata_size, told = 0;
    while (at < state.end) {
        if (at - told >= 4 * 1024 * 1024) {
            told = at;
            if (!state.go_on("items", at, state.end)) return false;
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
    return true;
}

class item_walk {
public:
    explicit item_walk(check_state &state) : state_(state), numbers_(state.end) {}
    void run();

private:
    bool flat() const { return state_.facts.flat; }
    void item(const frame &found);
    void slot(const frame &found);
    void flat_slot(const frame &found);
    void moved_slot(const frame &found);
    void record(const frame &found);
    void keys_of(const frame &found);
    void length_of_record(const frame &found);
    void totals();

    check_state &state_;
    number_set numbers_;
    std::vector<std::byte> value_;
    uint64_t records_ = 0, free_home_ = 0;
    uint64_t highest_ = UINT64_MAX; // none yet
    uint64_t expected_ = 0;         // flat files: number of the next home slot
};

void item_walk::run()
{
    const bool whole = walk(
        state_, [&](const frame &found) { item(found); },
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
    if (whole) totals();
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

} // namespace

void check_items(check_state &state)
{
    item_walk walk{state};
    walk.run();
    state.result.records = state.facts.flat ? state.records + state.moved : state.records;
}

offset_set record_slots(check_state &state)
{
    offset_set slots;
    walk(
        state,
        [&](const frame &found) {
            if (found.is_record()) slots.insert(found.offset);
        },
        [](const frame &) {}, [](uint64_t, uint64_t) {});
    return slots;
}
