// See salvage.h.
#include "format/salvage.h"

#include "format/frames.h"

#include <algorithm>

namespace {

constexpr uint64_t longest_record = uint64_t{1} << 30;

struct candidate {
    uint64_t rrn, slot, link;
    uint8_t type;
};

class salvage {
public:
    salvage(file_image &image, const file_facts &facts, const session &words, const salvage_options &options)
        : image_(image), facts_(facts), words_(words), options_(options)
    {
    }
    std::vector<found_record> run();

private:
    void walk();
    bool here(uint64_t at, frame *found);
    uint64_t damage(uint64_t at);
    void take(const frame &found);
    bool number_fits(const frame &found);
    void settle(std::span<const candidate> same_number, std::vector<found_record> &records);
    const candidate *choose(std::span<const candidate> same_number) const;
    void reject(const rejected_bytes &what) const
    {
        if (options_.reject) options_.reject(what);
    }
    void reject_record(uint64_t slot, uint64_t length, uint64_t rrn, std::string_view reason) const
    {
        reject({.offset = slot + slot_head_bytes, .length = length, .reason = reason, .rrn = rrn});
    }

    file_image &image_;
    const file_facts &facts_;
    const session &words_;
    const salvage_options &options_;
    uint64_t begin_ = 0, end_ = 0;          // of the part that the header knows
    uint64_t limit_ = 0;                    // of what is looked at
    uint64_t next_home_ = 0, home_end_ = 0; // flat files: number after the last home slot, and where that ends
    std::vector<candidate> candidates_;
};

// An item at `at`: a whole frame, or a slot whose lengthening was interrupted, which ends where its record does.
bool salvage::here(uint64_t at, frame *found)
{
    if (frame_holds(image_, at, limit_, found)) return true;
    if (!found->is_record() || !found->reserved_zero || found->link > longest_record) return false;
    const uint64_t shorter = slot_bytes(found->link);
    if (found->length < shorter || shorter > limit_ - at) return false;
    const uint64_t trailer = image_.word(at + shorter - trailer_bytes);
    if (trailer != shorter && trailer != found->length) return false;
    found->length = shorter;
    return true;
}

// Bytes that are no item, up to the next one. A slot whose own length is damaged is known by the trailer in front of that.
uint64_t salvage::damage(uint64_t at)
{
    if (const uint64_t bytes = redo_bytes(image_, at); bytes != 0) return at + round_up(bytes, 8);
    frame next, slot;
    const uint64_t good = next_frame(image_, at + 8, limit_, &next);
    const uint64_t bytes = good - at;
    if (bytes >= slot_overhead && image_.word(good - trailer_bytes) == bytes) {
        (void)read_frame(image_, at, limit_, &slot);
        slot.length = bytes;
        if (slot.is_record() && slot.reserved_zero && slot.link <= bytes - slot_overhead) {
            take(slot);
            return good;
        }
    }
    const uint64_t first = image_.first_nonzero(at, good);
    if (first == good) return good;
    if (good == limit_ && at >= end_ && words_.state != session_state::unflushed) return good;
    reject({.offset = first, .length = good - first, .reason = "no item"});
    return good;
}

void salvage::walk()
{
    begin_ = facts_.region_known && facts_.identified ? facts_.metadata_size : metadata_unit;
    const bool end_known = facts_.end >= begin_ && facts_.end <= image_.size() && facts_.end % 8 == 0;
    end_ = end_known ? facts_.end : image_.size();
    limit_ = image_.size();
    uint64_t told = 0;
    for (uint64_t at = begin_; at < limit_;) {
        if (at - told >= 4 * 1024 * 1024) {
            told = at;
            if (options_.progress && !options_.progress("items", at, limit_)) return;
        }
        frame found;
        if (here(at, &found)) {
            take(found);
            at += found.length;
            continue;
        }
        // What a dropped operation of a sharer left behind the end is no part of the file once its items end.
        const bool shared = words_.state == session_state::closed || words_.state == session_state::finished_changes ||
                            words_.state == session_state::pending_redo;
        if (at >= end_ && shared && redo_bytes(image_, at) == 0) return;
        at = damage(at);
    }
}

// Flat files: the number of a home slot follows from its place, as far as that is known, so that a damaged number cannot
// call for millions of free slots in front of it.
bool salvage::number_fits(const frame &found)
{
    if (!facts_.flat) return found.rrn != UINT64_MAX;
    if (facts_.fixed && facts_.lengths_known && facts_.maximum_slot != 0)
        return found.rrn == (found.offset - begin_) / facts_.maximum_slot;
    if (found.type == item_relocated) return found.rrn < (found.offset - begin_) / slot_overhead + 1;
    const uint64_t lost = home_end_ == 0 ? found.offset - begin_ : found.offset - home_end_;
    return found.rrn >= next_home_ && found.rrn - next_home_ <= lost / slot_overhead;
}

void salvage::take(const frame &found)
{
    if (!found.is_record() && !(facts_.flat && found.is_slot())) return;
    if (found.type == item_deleted && found.rrn < next_home_) return; // held a record that had moved there
    if (!number_fits(found)) {
        if (found.is_record())
            reject_record(found.offset, found.link, found.rrn, "its record number does not fit its place");
        return;
    }
    if (found.is_record() && found.link > longest_record)
        return reject({.offset = found.offset, .length = slot_overhead, .reason = "a record of more than a gigabyte"});
    if (facts_.flat && found.type != item_relocated) {
        next_home_ = found.rrn + 1;
        home_end_ = found.offset + found.length;
    }
    if (found.type != item_deleted) candidates_.push_back({found.rrn, found.offset, found.link, found.type});
}

// Files with trees: the slot to which the record moved is the newer one. Flat files: the home slot says where it is.
const candidate *salvage::choose(std::span<const candidate> same_number) const
{
    const candidate *best = nullptr, *home = nullptr;
    for (const candidate &each : same_number)
        if (each.type == item_moved || (each.type == item_live && facts_.flat)) home = &each;
    for (const candidate &each : same_number) {
        if (each.type == item_moved) continue;
        if (home != nullptr && home->type == item_moved && home->link == each.slot) return &each;
        if (home == &each) return home;
        if (best == nullptr || each.type < best->type || (each.type == best->type && each.slot > best->slot))
            best = &each; // 7, relocated, is lower than 8, live
    }
    return best;
}

void salvage::settle(std::span<const candidate> same_number, std::vector<found_record> &records)
{
    const candidate *chosen = choose(same_number);
    for (const candidate &each : same_number) {
        if (each.type == item_moved && chosen == nullptr)
            reject({.offset = each.slot,
                    .length = slot_head_bytes,
                    .reason = "the slot to which this record moved is not found"});
        if (each.type == item_moved || &each == chosen) continue;
        reject_record(each.slot, each.link, each.rrn, "another slot has the record with this number");
    }
    if (chosen != nullptr) records.push_back({chosen->rrn, chosen->slot, chosen->link});
}

std::vector<found_record> salvage::run()
{
    walk();
    std::sort(candidates_.begin(), candidates_.end(), [](const candidate &left, const candidate &right) {
        return left.rrn != right.rrn ? left.rrn < right.rrn : left.slot < right.slot;
    });
    std::vector<found_record> records;
    const std::span<const candidate> all{candidates_};
    for (size_t i = 0; i < all.size();) {
        size_t next = i + 1;
        while (next < all.size() && all[next].rrn == all[i].rrn) ++next;
        settle(all.subspan(i, next - i), records);
        i = next;
    }
    return records;
}

} // namespace

std::vector<found_record> salvage_records(file_image &image, const file_facts &facts, const session &words,
                                          const salvage_options &options)
{
    return salvage{image, facts, words, options}.run();
}
