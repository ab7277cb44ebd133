// model.cc: see model.h.
#include "model.h"

#include <algorithm>
#include <cerrno>

namespace host {

namespace {

// Record numbers as keys: eight bytes, the highest first, so that strings compare as the numbers do.
std::string number_as_key(int64_t rrn)
{
    std::string key(8, '\0');
    for (size_t i = 0; i < 8; ++i) key[i] = static_cast<char>(rrn >> (56 - 8 * i));
    return key;
}

uint64_t slot_bytes(size_t length)
{
    return (length + 7) / 8 * 8 + 40;
}

} // namespace

void model::open(const file_spec &spec)
{
    spec_ = spec;
    const size_t count = is_indexed() ? spec.keys.size() : 1;
    order_.resize(count);
    tsn_.resize(count);
    const bool reversed = (spec.options & VFS_OPT_REVERSED) != 0;
    largest_slot_ = std::min(largest_slot_, slots_end_); // no slot in the file is longer
    position_ = {};
    position_.where = reversed ? side::high_edge : side::low_edge;
    position_.index = reversed ? order_[0].size() : 0;
    last_ = {};
}

std::vector<std::string> model::in_order(size_t key_number) const
{
    std::vector<std::string> all;
    for (const entry &each : order_[key_number]) all.push_back(records_[each.id].bytes);
    return all;
}

std::string model::key_of(size_t k, const record &which) const
{
    return is_indexed() ? spec_.keys[k].of(which.bytes) : number_as_key(which.rrn);
}

std::pair<size_t, size_t> model::equal_range(size_t k, const std::string &key) const
{
    const auto below = [](const entry &a, const std::string &b) { return a.key < b; };
    const auto above = [](const std::string &a, const entry &b) { return a < b.key; };
    const auto &order = order_[k];
    const auto low = std::lower_bound(order.begin(), order.end(), key, below);
    const auto high = std::upper_bound(low, order.end(), key, above);
    return {static_cast<size_t>(low - order.begin()), static_cast<size_t>(high - order.begin())};
}

size_t model::index_of(size_t k, size_t id) const
{
    auto [at, stop] = equal_range(k, key_of(k, records_[id]));
    while (at < stop && order_[k][at].id != id) ++at;
    return at;
}

std::optional<size_t> model::id_of_rrn(int64_t rrn) const
{
    const auto [low, high] = equal_range(0, number_as_key(rrn));
    return low < high ? std::optional{order_[0][low].id} : std::nullopt;
}

// ---- The ordered lists and the position ------------------------------------------------------------------------

void model::insert(size_t k, const std::string &key, size_t id)
{
    file_position &p = position_;
    if (p.browse && p.key == k && !is_flat()) tsn_[k] = std::max(tsn_[k], p.stamp + 1);
    const size_t at = equal_range(k, key).second;
    order_[k].insert(order_[k].begin() + static_cast<std::ptrdiff_t>(at), {key, id, tsn_[k]});
    if (p.key != k) return;
    // In a flat file a record that comes back inside, after a step met an end, is behind that end or not.
    const bool at_edge = p.where == side::low_edge || p.where == side::high_edge;
    if (is_flat() && at_edge && key < number_as_key(highest_)) p.moved_at_edge = true;
    if (at < p.index || (at == p.index && p.where == side::on)) {
        ++p.index;
    } else if (at == p.index) {
        if (!p.saved) {
            p.moved_at_edge = true;
        } else if (key < *p.saved) {
            ++p.index;
        } else if (key == *p.saved && (is_unique(k) || p.searched || p.where != side::high_edge)) {
            // A record came back under the key that left the gap: behind or before it, both can be argued.
            p.uncertain = true;
        }
    }
    if (p.where == side::low_edge && !p.saved) p.index = 0;
}

void model::remove(size_t k, size_t index)
{
    file_position &p = position_;
    if (p.key == k) {
        if (index < p.index) {
            --p.index;
        } else if (index == p.index && p.where == side::on) {
            p.where = side::gap;
            p.started = false;
        }
    }
    order_[k].erase(order_[k].begin() + static_cast<std::ptrdiff_t>(index));
}

// ---- Outcomes --------------------------------------------------------------------------------------------------

// A failed operation that leaves the position alone.
expectation model::fail(int error)
{
    last_ = {};
    return {.value = -1, .error = error};
}

// A failed read or start: the position is re-established from what was there, but a start that found a record and
// was not read from is not told apart any more. It ends a browse.
expectation model::fail_reading(int error)
{
    if (position_.started) position_.uncertain = true;
    position_.browse = false;
    return fail(error);
}

expectation model::ended()
{
    last_ = {};
    return {.value = 0, .error = ESPIPE, .at_end = true};
}

bool model::duplicated(size_t k, size_t index, bool forward, bool backward) const
{
    if (is_unique(k)) return false;
    const auto &order = order_[k];
    const auto seen = [&](size_t i) { return !position_.browse || order[i].stamp <= position_.stamp; };
    for (size_t i = index + 1; forward && i < order.size() && order[i].key == order[index].key; ++i)
        if (seen(i)) return true;
    for (size_t i = index; backward && i-- > 0 && order[i].key == order[index].key;)
        if (seen(i)) return true;
    return false;
}

// The position comes to an entry, and its record is read.
expectation model::deliver(size_t k, size_t index, bool forward_only, bool backward_only)
{
    file_position &p = position_;
    const entry &found = order_[k][index];
    p = {.key = k, .where = side::on, .index = index, .saved = found.key, .browse = p.browse, .stamp = p.stamp};
    if (!p.browse) p.stamp = tsn_[k];
    last_ = {.id = found.id, .key = k};
    const record &which = records_[found.id];
    return {.value = static_cast<int64_t>(which.bytes.size()),
            .bytes = which.bytes,
            .rrn = static_cast<uint64_t>(which.rrn),
            .duplicate = duplicated(k, index, !backward_only, !forward_only),
            .at_end = false};
}

// ---- Read and start --------------------------------------------------------------------------------------------

std::optional<expectation> model::step_read(bool forward)
{
    file_position &p = position_;
    const auto &order = order_[p.key];
    if (p.uncertain) return {};
    const bool same_edge = p.where == (forward ? side::high_edge : side::low_edge);
    if (same_edge && p.moved_at_edge) return {};
    const auto seen = [&](size_t i) { return !p.browse || is_flat() || order[i].stamp <= p.stamp; };
    // The first entry to look at; going backward, one above it.
    size_t at = p.index;
    if (p.where == side::low_edge && forward) at = 0;
    if (p.where == side::high_edge && !forward) at = order.size();
    if (p.where == side::on) at = p.started ? (forward ? p.index : p.index + 1) : (forward ? p.index + 1 : p.index);
    if (same_edge && !p.saved) at = forward ? order.size() : 0;
    if (forward) {
        while (at < order.size() && !seen(at)) ++at;
        if (at < order.size()) return deliver(p.key, at, true, false);
    } else {
        while (at > 0 && !seen(at - 1)) --at;
        if (at > 0) return deliver(p.key, at - 1, false, true);
    }
    // At the end: what the browse passed over may or may not be found by a later step.
    for (size_t i = 0; i < order.size(); ++i)
        if (!seen(i)) p.uncertain = true;
    if (!(same_edge && p.saved)) p.index = forward ? order.size() : 0;
    p.where = forward ? side::high_edge : side::low_edge;
    p.started = p.browse = false;
    p.stamp = tsn_[p.key];
    return ended();
}

// The order key of the record number that a text key names; nothing when it is no number.
std::optional<std::string> model::number_key(const place &where) const
{
    if (where.mode == VFS_POS_RRN) return number_as_key(where.number);
    if (where.mode != VFS_POS_KEY || !where.key || where.key->empty() || where.key->size() > 18) return {};
    if (where.key->find_first_not_of("0123456789") != std::string::npos) return {};
    return number_as_key(std::stoll(*where.key));
}

std::optional<expectation> model::read(const place &where)
{
    const bool reversed = (spec_.options & VFS_OPT_REVERSED) != 0;
    file_position &p = position_;
    switch (where.mode) {
    case VFS_POS_NEXT: return step_read(!reversed);
    case VFS_POS_PREV: return step_read(reversed);
    case VFS_POS_FIRST:
    case VFS_POS_LAST: {
        const auto k = static_cast<size_t>(where.number);
        if (k >= keys()) return fail_reading(EINVAL);
        p.browse = false;
        if (order_[k].empty()) {
            p = {.key = k, .saved = {}, .uncertain = true};
            return ended();
        }
        const bool low = (where.mode == VFS_POS_FIRST) != reversed;
        return deliver(k, low ? 0 : order_[k].size() - 1, false, false);
    }
    case VFS_POS_CURRENT: {
        if (p.browse) return {};
        if (!last_.id) return fail_reading(EINVAL);
        if (!records_[*last_.id].live) return fail_reading(ESPIPE);
        const size_t id = *last_.id;
        const bool known = last_.key.has_value();
        const size_t k = known ? *last_.key : 0;
        expectation expected = deliver(k, index_of(k, id), false, false);
        expected.duplicate.reset();
        p.uncertain = !known;
        if (!known) last_.key.reset();
        return expected;
    }
    case VFS_POS_RRN:
    case VFS_POS_KEY: break;
    default: return {};
    }
    if (is_indexed()) {
        if (where.mode == VFS_POS_RRN || !where.key) return {};
        const auto k = static_cast<size_t>(where.number);
        if (k >= keys()) return fail_reading(EINVAL);
        std::string key = *where.key;
        key.resize(static_cast<size_t>(spec_.keys[k].length()), '\0');
        const auto [low, high] = equal_range(k, key);
        p.browse = false;
        if (low < high) return deliver(k, low, false, false);
        p = {.key = k, .where = side::gap, .index = low, .saved = key, .searched = true, .stamp = tsn_[k]};
        return ended();
    }
    const std::optional<std::string> number = number_key(where);
    if (!number) return {};
    const auto [low, high] = equal_range(0, *number);
    p.browse = low < high ? false : p.browse;
    if (low < high) return deliver(0, low, false, false);
    if (where.mode == VFS_POS_RRN) return fail_reading(ESPIPE);
    p = {.key = 0, .where = side::gap, .index = low, .saved = *number, .stamp = tsn_[0], .uncertain = is_flat()};
    return ended();
}

std::optional<size_t> model::find_relation(size_t k, const std::string &key, int32_t relation) const
{
    const auto [low, high] = equal_range(k, key);
    size_t at = order_[k].size();
    switch (relation) {
    case VFS_LESS: at = low - 1; break;
    case VFS_LESS_EQUAL: at = high - 1; break;
    case VFS_EQUAL: at = low < high ? low : order_[k].size(); break;
    case VFS_GREATER_EQUAL: at = low; break;
    default: at = high;
    }
    return at < order_[k].size() ? std::optional{at} : std::nullopt;
}

std::optional<size_t> model::find_start(const place &where, bool &leave_out) const
{
    const auto &order = order_[is_indexed() ? static_cast<size_t>(where.number) : 0];
    if (is_indexed()) {
        const auto k = static_cast<size_t>(where.number);
        const auto full = static_cast<size_t>(spec_.keys[k].length());
        std::string key = where.key->substr(0, full);
        if (key.empty()) {
            if (order.empty()) return {};
            return where.relation == VFS_LESS || where.relation == VFS_LESS_EQUAL ? order.size() - 1 : 0;
        }
        if (key.size() == full || where.relation != VFS_EQUAL) {
            const bool high_fill = where.relation == VFS_GREATER || where.relation == VFS_LESS_EQUAL;
            key.resize(full, high_fill ? '\xff' : '\0');
            return find_relation(k, key, where.relation);
        }
        const std::string leading = key;
        key.resize(full, '\0');
        const std::optional<size_t> at = find_relation(k, key, VFS_GREATER_EQUAL);
        return at && order[*at].key.starts_with(leading) ? at : std::nullopt;
    }
    const std::optional<std::string> number = number_key(where);
    if (!number || order.empty()) {
        leave_out = !number;
        return {};
    }
    if (is_flat()) {
        const bool beyond = *number > number_as_key(highest_);
        leave_out = beyond && where.relation < VFS_EQUAL;
        return beyond ? std::nullopt : find_relation(0, *number, where.relation);
    }
    if (where.relation == VFS_GREATER_EQUAL && *number == number_as_key(0)) return 0;
    if (*number < order.front().key || *number > order.back().key) return {};
    return find_relation(0, *number, where.relation);
}

std::optional<expectation> model::start(const place &where)
{
    file_position &p = position_;
    const bool by_value = where.mode == VFS_POS_KEY || where.mode == VFS_POS_RRN;
    if (is_indexed() && where.mode == VFS_POS_RRN) return {};
    if (is_indexed() && where.mode == VFS_POS_KEY && !where.key) return {};
    const auto k = is_indexed() || !by_value ? static_cast<size_t>(where.number) : 0;
    if (where.mode != VFS_POS_END && k >= keys()) return fail_reading(EINVAL);
    std::optional<size_t> at;
    // A key without bytes means the first or last record, which begins a browse.
    bool browse = where.relation != VFS_EQUAL || (is_indexed() && where.key && where.key->empty());
    bool empty_ends = false; // an empty file gives 0 at the end instead of a failure
    bool leave_out = false;
    switch (where.mode) {
    case VFS_POS_FIRST:
    case VFS_POS_LAST:
        browse = empty_ends = true;
        if (!order_[k].empty()) at = where.mode == VFS_POS_FIRST ? 0 : order_[k].size() - 1;
        break;
    case VFS_POS_END:
        // Which key of reference holds: that of the position, or of the last operation?
        if (is_indexed() && (p.uncertain || last_.key != p.key)) return {};
        p = {.key = p.key, .where = side::high_edge, .index = 0, .saved = {}, .moved_at_edge = true};
        p.index = order_[p.key].size();
        p.stamp = tsn_[p.key];
        last_ = {};
        return expectation{.value = 0, .error = ESPIPE, .at_end = true};
    case VFS_POS_RRN:
    case VFS_POS_KEY:
        at = find_start(where, leave_out);
        // A file that starts at number 0, or a key without bytes, means the first or the last record.
        if (order_[k].empty()) return {};
        break;
    default: return {};
    }
    if (leave_out) return {};
    if (!at) {
        if (!empty_ends) return fail_reading(ESPIPE);
        p = {.key = k, .saved = {}, .uncertain = true};
        return ended();
    }
    const entry &found = order_[k][*at];
    p = {.key = k,
         .where = side::on,
         .index = *at,
         .saved = found.key,
         .started = true,
         .browse = browse,
         .stamp = tsn_[k]};
    last_ = {.id = found.id, .key = k};
    const record &which = records_[found.id];
    return expectation{
        .value = static_cast<int64_t>(which.bytes.size()), .rrn = static_cast<uint64_t>(which.rrn), .at_end = false};
}

// ---- Changes ---------------------------------------------------------------------------------------------------

std::optional<expectation> model::write(const place &where, const std::string &bytes)
{
    if (spec_.format == VFS_FORMAT_FIXED && bytes.size() != static_cast<size_t>(spec_.max_length)) return fail(ERANGE);
    record added{.bytes = bytes, .rrn = highest_ + 1};
    std::optional<bool> duplicate{false};
    std::optional<size_t> key_known;
    if (is_indexed()) {
        if (where.mode == VFS_POS_RRN) return {};
        if (where.mode == VFS_POS_KEY) key_known = static_cast<size_t>(where.number);
        for (size_t k = 0; k < keys(); ++k) {
            const auto [low, high] = equal_range(k, key_of(k, added));
            if (low < high && is_unique(k)) return fail(EADDRINUSE);
            if (low < high) duplicate = true;
        }
        if (position_.browse) duplicate.reset();
    } else {
        key_known = 0;
        if (where.mode != VFS_POS_END) {
            const std::optional<std::string> number = number_key(where);
            if (!number) return {};
            added.rrn = where.mode == VFS_POS_RRN ? where.number : std::stoll(*where.key);
            if (id_of_rrn(added.rrn)) return fail(EADDRINUSE);
        }
    }
    size_t id = records_.size();
    const uint64_t bytes_needed = slot_bytes(bytes.size());
    added.home = bytes_needed;
    if (is_flat()) {
        const auto same = [&](size_t other) { return records_[other].rrn == added.rrn; };
        const auto old = std::find_if(layout_.begin(), layout_.end(), same);
        if (old != layout_.end()) {
            // The slot keeps its length; a record that does not fit moves to the end.
            added.home = records_[*old].home;
            *old = id;
            if (bytes_needed > added.home) added.target = bytes_needed;
        } else {
            const uint64_t filler = std::max(largest_slot_, slot_bytes(static_cast<size_t>(spec_.max_length)));
            for (int64_t gap = highest_ + 1; gap < added.rrn; ++gap) {
                layout_.push_back(records_.size());
                slots_end_ += filler;
                records_.push_back({.bytes = {}, .rrn = gap, .live = false, .home = filler, .target = 0});
            }
            id = records_.size();
            layout_.push_back(id);
            slots_end_ += added.home;
        }
        if (added.target != 0) layout_.push_back(id);
        slots_end_ += added.target;
    }
    records_.push_back(added);
    largest_slot_ = std::max(largest_slot_, bytes_needed);
    highest_ = std::max(highest_, added.rrn);
    for (size_t k = 0; k < keys(); ++k) insert(k, key_of(k, added), id);
    last_ = {.id = id, .key = key_known};
    return expectation{
        .value = static_cast<int64_t>(bytes.size()), .rrn = static_cast<uint64_t>(added.rrn), .duplicate = duplicate};
}

model::target model::find_target(const place &where, const std::string &bytes)
{
    switch (where.mode) {
    case VFS_POS_CURRENT:
        if (!last_.id) return {{}, fail(EINVAL)};
        if (!records_[*last_.id].live) return {{}, fail(ESPIPE)};
        return {last_.id, {}};
    case VFS_POS_RRN:
    case VFS_POS_KEY: break;
    default: return {{}, {}};
    }
    if (is_indexed()) {
        const auto k = static_cast<size_t>(where.number);
        if (where.mode == VFS_POS_RRN) return {{}, {}};
        if (k >= keys() || !is_unique(k)) return {{}, fail(EINVAL)};
        std::string key = where.key ? *where.key : spec_.keys[k].of(bytes);
        key.resize(static_cast<size_t>(spec_.keys[k].length()), '\0');
        const auto [low, high] = equal_range(k, key);
        if (low == high) return {{}, fail(ESPIPE)};
        last_.key = k;
        return {order_[k][low].id, {}};
    }
    const std::optional<std::string> number = number_key(where);
    if (!number) return {{}, {}};
    const auto [low, high] = equal_range(0, *number);
    if (low == high) return {{}, fail(ESPIPE)};
    last_.key = 0;
    return {order_[0][low].id, {}};
}

std::optional<expectation> model::rewrite(const place &where, const std::string &bytes)
{
    const bool wrong_length = spec_.format == VFS_FORMAT_FIXED && bytes.size() != static_cast<size_t>(spec_.max_length);
    const last_operation before = last_;
    const target found = find_target(where, bytes);
    if (!found.id) {
        if (!wrong_length) return found.failure;
        last_ = before; // two reasons to fail: which is told is not fixed
        return {};
    }
    if (wrong_length) return fail(ERANGE);
    const size_t id = *found.id;
    record changed = records_[id];
    changed.bytes = bytes;
    bool duplicate = false;
    for (size_t k = 0; is_indexed() && k < keys(); ++k) {
        const std::string key = key_of(k, changed);
        const bool same = key == key_of(k, records_[id]);
        const auto [low, high] = equal_range(k, key);
        const size_t others = high - low - (same ? 1 : 0);
        if (others > 0 && is_unique(k)) return fail(EADDRINUSE);
        duplicate |= others > 0;
    }
    for (size_t k = 0; is_indexed() && k < keys(); ++k) {
        const std::string key = key_of(k, changed);
        const std::string old = key_of(k, records_[id]);
        if (key == old) continue;
        const file_position &p = position_;
        if (p.key == k && p.where == side::on && p.started && order_[k][p.index].id == id) position_.uncertain = true;
        const size_t at = index_of(k, id);
        insert(k, key, id);
        remove(k, at + (key < old ? 1 : 0));
    }
    if (is_flat()) {
        const uint64_t needed = slot_bytes(bytes.size());
        const uint64_t room = changed.target != 0 ? changed.target : changed.home;
        if (needed > room) {
            changed.target = needed;
            largest_slot_ = std::max(largest_slot_, needed);
            layout_.push_back(id);
            slots_end_ += needed;
        }
    }
    records_[id] = changed;
    last_.id = id;
    std::optional<bool> told{duplicate};
    if (position_.browse) told.reset();
    return expectation{
        .value = static_cast<int64_t>(bytes.size()), .rrn = static_cast<uint64_t>(changed.rrn), .duplicate = told};
}

std::optional<expectation> model::erase(const place &where)
{
    if (where.mode == VFS_POS_KEY && !where.key) return {};
    const target found = find_target(where, "");
    if (!found.id) return found.failure;
    const size_t id = *found.id;
    record &which = records_[id];
    for (size_t k = 0; k < keys(); ++k) remove(k, index_of(k, id));
    which.live = false;
    if (is_flat() && !shared_ && which.target == 0 && layout_.back() == id) {
        layout_.pop_back();
        slots_end_ -= which.home;
        highest_ = which.rrn - 1;
        // What the position saved may lie behind the new end.
        if (position_.where != side::on && position_.index >= order_[0].size()) position_.uncertain = true;
    }
    last_.id = id;
    return expectation{.value = 0, .rrn = static_cast<uint64_t>(which.rrn)};
}

std::optional<expectation> model::check_position(const place &where)
{
    bool there = false;
    switch (where.mode) {
    case VFS_POS_FIRST:
    case VFS_POS_LAST: there = !order_[0].empty(); break;
    case VFS_POS_RRN:
        if (is_indexed()) return {};
        there = id_of_rrn(where.number).has_value();
        break;
    case VFS_POS_KEY: {
        if (!is_indexed() || !where.key) return {};
        const auto k = static_cast<size_t>(where.number);
        std::string key = *where.key;
        key.resize(static_cast<size_t>(spec_.keys[k].length()), '\0');
        const auto [low, high] = equal_range(k, key);
        there = low < high;
        break;
    }
    default: return {};
    }
    return there ? expectation{} : fail(ESPIPE);
}

std::optional<expectation> model::apply(const step &next_step)
{
    const bool changes = next_step.which == operation::write || next_step.which == operation::rewrite ||
                         next_step.which == operation::erase;
    if (changes && (spec_.flags & (O_RDWR | O_WRONLY | O_CREAT | O_TRUNC | O_APPEND)) == 0) return fail(EROFS);
    switch (next_step.which) {
    case operation::read: return read(next_step.where);
    case operation::start: return start(next_step.where);
    case operation::write: return write(next_step.where, next_step.record);
    case operation::rewrite: return rewrite(next_step.where, next_step.record);
    case operation::erase: return erase(next_step.where);
    case operation::position: return check_position(next_step.where);
    default: return {};
    }
}

} // namespace host
