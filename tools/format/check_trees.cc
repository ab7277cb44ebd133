// The trees: every node's fields, its neighbours and its parent, the order of all keys, and that each record is reached
// exactly once by every key, under the value that its bytes give. For that the entries are summed up and compared with
// the sum over the records; only when the sums differ are they looked at one by one. A node is gone into once, so that
// damage cannot lead in circles; at most one node of each level is held.
#include "format/check_parts.h"

#include <algorithm>
#include <cstring>

namespace {

using enum finding_area;
using value = std::vector<std::byte>;

class tree_check {
public:
    // `nodes`: how many of all trees there are, as the keys' entries count them.
    tree_check(check_state &state, const file_key &key, offset_set &visited, uint64_t nodes)
        : state_(state), key_(key), visited_(visited), all_nodes_(nodes)
    {
    }
    void run();     // gone through once
    void compare(); // with the records
    const pair_sum &pairs() const { return pairs_; }

private:
    struct level { // what is known of one level, from left to right
        uint64_t first = 0, previous = 0, expected = 0, nodes = 0, entries = 0;
        bool linked = true; // the node gone through last tells the next one's address
        value last_key;
    };

    uint64_t entry(field<uint64_t> at) const { return state_.facts.get(key_, at); }
    const std::byte *key_at(const value &node, bool leaf, uint64_t i) const
    {
        const node_geometry &g = key_.geometry;
        return node.data() + (leaf ? g.leaf_key_array : g.branch_key_array) + i * g.width;
    }
    void node(uint64_t depth, uint64_t address, uint64_t parent, uint64_t from, const std::byte *separator);
    bool is_node(uint64_t address, bool leaf) const;
    bool enter(uint64_t address, bool leaf, uint64_t from);
    bool fields(const value &node, uint64_t address, bool leaf, uint64_t parent);
    void links(const value &node, uint64_t address, level &here);
    void order(const value &node, uint64_t address, bool leaf, level &here, const std::byte *separator);
    void leaf_entries(const value &node, uint64_t address);
    bool may_be_slot(uint64_t record) const;
    void record_of(const offset_set &slots, uint64_t at, uint64_t record, const std::byte *key);
    void pair_by_pair();
    void ends();
    void edges();
    void unreached(const offset_set &slots);

    check_state &state_;
    const file_key &key_;
    offset_set &visited_; // nodes of all trees
    uint64_t all_nodes_;
    pair_sum pairs_;
    std::vector<uint64_t> leaves_; // from left to right, those that can be read
    offset_set reached_;
    std::vector<level> levels_;
    uint64_t entries_ = 0;
    bool whole_ = true; // all nodes could be gone through
    value lowest_, scratch_;
};

// Whether a node of the kind is at an address: as the walk over the items found it, or as its frame says.
bool tree_check::is_node(uint64_t address, bool leaf) const
{
    if (state_.items_known) return (leaf ? state_.leaves : state_.branches).contains(address);
    frame found;
    return address % metadata_unit == 0 && address >= state_.facts.metadata_size &&
           read_frame(state_.image, address, state_.end, &found) == frame_fault::none &&
           found.type == (leaf ? item_leaf : item_branch);
}

bool tree_check::enter(uint64_t address, bool leaf, uint64_t from)
{
    if (!is_node(address, leaf)) {
        state_.report.problem(trees, from,
                              "key {}: a {} is expected at 0x{:x}, which is none: what lies below it is not "
                              "found by this key",
                              key_.number, leaf ? "leaf" : "branch", address);
        return false;
    }
    if (!visited_.insert(address)) {
        state_.report.problem(trees, from, "key {}: the node at 0x{:x} is led to a second time", key_.number, address);
        return false;
    }
    return true;
}

bool tree_check::fields(const value &node, uint64_t address, bool leaf, uint64_t parent)
{
    const node_geometry &g = key_.geometry;
    const auto same = [&](field<uint64_t> at, uint64_t wanted, const char *what) {
        state_.expect(trees, address + at.offset, image_get(node, at), wanted, "node at 0x{:x}, {}", address, what);
    };
    const uint64_t max = leaf ? g.leaf_capacity : g.branch_capacity;
    same(node_address, address, "its address");
    same(node_key_entry, key_.entry, "its key entry");
    same(node_key_number, key_.number, "its key number");
    same(node_parent, parent, "its parent");
    same(node_max, max, "its capacity");
    same(node_half, max / 2, "half of its capacity");
    same(node_stamp_array, leaf ? g.leaf_stamp_array : 0, "its stamp array");
    same(node_key_array, leaf ? g.leaf_key_array : g.branch_key_array, "its key array");
    same(node_key_width, g.width, "its key width");
    const uint64_t ent = image_get(node, node_ent), act = image_get(node, node_act);
    if (ent > max || act > ent || (ent == 0 && parent != 0)) {
        state_.report.problem(trees, address + node_ent.offset,
                              "the node at 0x{:x} is said to have {} entries, {} of "
                              "them in use, in room for {}",
                              address, ent, act, max);
        return ent <= max && ent != 0;
    }
    uint64_t in_use = 0;
    for (uint64_t i = 0; i < ent; ++i) in_use += load_u64(node.data() + node_head_bytes + 8 * i) != UINT64_MAX ? 1 : 0;
    same(node_act, in_use, "its entries in use");
    return true;
}

void tree_check::links(const value &node, uint64_t address, level &here)
{
    const uint64_t left = image_get(node, node_left);
    if (here.linked) {
        state_.expect(trees, address + node_left.offset, left, here.previous, "node at 0x{:x}, its left neighbour",
                      address);
        if (here.nodes != 0)
            state_.expect(trees, here.previous + node_right.offset, here.expected, address,
                          "node at 0x{:x}, its right neighbour", here.previous);
    }
    if (here.nodes == 0) here.first = address;
    here.linked = true;
    here.previous = address;
    here.expected = image_get(node, node_right);
    ++here.nodes;
}

void tree_check::order(const value &node, uint64_t address, bool leaf, level &here, const std::byte *separator)
{
    const node_geometry &g = key_.geometry;
    const uint64_t ent = image_get(node, node_ent);
    if (ent == 0) return;
    if (separator != nullptr && compare_keys(key_, separator, key_at(node, leaf, 0)) > 0)
        state_.report.problem(trees, address,
                              "key {}: the branch above leads here from a higher key than the first one: "
                              "some keys are not found",
                              key_.number);
    if (separator != nullptr && !here.last_key.empty() && compare_keys(key_, here.last_key.data(), separator) > 0)
        state_.report.problem(trees, address,
                              "key {}: the branch above leads here from a lower key than the last one of "
                              "the left neighbour: some keys are not found",
                              key_.number);
    const bool equal_allowed = !leaf || (state_.facts.get(key_, key_entry_flags) & 3) == 3;
    const std::byte *before = here.last_key.empty() ? nullptr : here.last_key.data();
    for (uint64_t i = 0; i < ent; ++i) {
        const std::byte *key = key_at(node, leaf, i);
        const uint64_t at = address + static_cast<uint64_t>(key - node.data());
        const int against = before == nullptr ? -1 : compare_keys(key_, before, key);
        if (against > 0)
            state_.report.problem(trees, at, "key {}, node at 0x{:x}: entry {} is lower than the one before it",
                                  key_.number, address, i);
        if (against == 0 && !equal_allowed)
            state_.report.problem(trees, at,
                                  "key {}, node at 0x{:x}: entry {} has the value of the one before it, which "
                                  "this key does not allow",
                                  key_.number, address, i);
        for (uint64_t pad = key_.length; pad < g.width; ++pad)
            if (key[pad] != std::byte{0}) {
                state_.report.problem(trees, at + pad, "key {}: a value is not filled up with zeros", key_.number);
                break;
            }
        before = key;
    }
    here.last_key.assign(before, before + g.width);
}

bool tree_check::may_be_slot(uint64_t record) const
{
    return record % 8 == 0 && record >= state_.facts.data_start && record < state_.end;
}

// One entry, when the sums say that something is wrong.
void tree_check::record_of(const offset_set &slots, uint64_t at, uint64_t record, const std::byte *key)
{
    if (!slots.contains(record)) {
        state_.report.problem(trees, at, "key {}: an entry leads to 0x{:x}, where no record is", key_.number, record);
        return;
    }
    if (!reached_.insert(record)) {
        state_.report.problem(trees, at, "key {}: a second entry leads to the record at 0x{:x}", key_.number, record);
        return;
    }
    if (!key_of_record(state_.image, key_, record, &scratch_) ||
        std::memcmp(scratch_.data(), key, key_.geometry.width) != 0)
        state_.report.problem(trees, at,
                              "key {}: the record at 0x{:x} has another value than the entry that leads to it: "
                              "it is found under the wrong key",
                              key_.number, record);
}

void tree_check::leaf_entries(const value &node, uint64_t address)
{
    const node_geometry &g = key_.geometry;
    const auto newest = static_cast<uint64_t>(state_.facts.get(key_, key_entry_tsn));
    const uint64_t ent = image_get(node, node_ent);
    for (uint64_t i = 0; i < ent; ++i) {
        const uint64_t stamp_at = g.leaf_stamp_array + 8 * i;
        if (load_u64(node.data() + stamp_at) > newest)
            state_.report.problem(trees, address + stamp_at,
                                  "key {}: an entry has a stamp above the tree's {}: a program "
                                  "that reads in order may pass it over",
                                  key_.number, static_cast<int64_t>(newest));
        const uint64_t record = load_u64(node.data() + node_head_bytes + 8 * i);
        if (record == UINT64_MAX) continue;
        ++entries_;
        if (!state_.options.fast)
            pairs_.add(record, {key_at(node, true, i), g.width});
        else if (!may_be_slot(record))
            state_.report.problem(trees, address + node_head_bytes + 8 * i,
                                  "key {}: an entry leads to 0x{:x}, where no record can be", key_.number, record);
    }
}

void tree_check::pair_by_pair()
{
    const offset_set slots = record_slots(state_);
    value node(index_block_bytes);
    for (const uint64_t address : leaves_) {
        if (!state_.go_on("entries", reached_.count(), slots.count())) return;
        if (!state_.image.read(address, node)) continue;
        const uint64_t ent = std::min(image_get(node, node_ent), key_.geometry.leaf_capacity);
        for (uint64_t i = 0; i < ent; ++i) {
            const uint64_t at = node_head_bytes + 8 * i, record = load_u64(node.data() + at);
            if (record != UINT64_MAX) record_of(slots, address + at, record, key_at(node, true, i));
        }
    }
    unreached(slots);
    if (state_.report.problem_count() == 0) // nothing else may explain it, and nothing may hide it
        state_.report.problem(trees, key_.entry, "key {}: its entries and the records do not agree", key_.number);
}

// Goes through the node at `address`, to which the word at `from` leads, and all below it.
void tree_check::node(uint64_t depth, uint64_t address, uint64_t parent, uint64_t from, const std::byte *separator)
{
    level &here = levels_[depth];
    const bool leaf = depth + 1 == levels_.size();
    value bytes(index_block_bytes);
    if (!state_.go_on("trees", visited_.count(), all_nodes_) || !enter(address, leaf, from) ||
        !state_.image.read(address, bytes) || !fields(bytes, address, leaf, parent)) {
        whole_ = false;
        for (uint64_t below = depth; below < levels_.size(); ++below) levels_[below].linked = false;
        return;
    }
    links(bytes, address, here);
    order(bytes, address, leaf, here, separator);
    const uint64_t ent = image_get(bytes, node_ent);
    here.entries += ent;
    if (leaf) {
        leaves_.push_back(address);
        if (lowest_.empty() && ent != 0)
            lowest_.assign(key_at(bytes, true, 0), key_at(bytes, true, 0) + key_.geometry.width);
        leaf_entries(bytes, address);
        return;
    }
    if (ent == 0) {
        state_.report.problem(trees, address, "key {}: a branch without entries", key_.number);
        whole_ = false;
    }
    for (uint64_t i = 0; i < ent; ++i) {
        const uint64_t at = node_head_bytes + 8 * i;
        node(depth + 1, load_u64(bytes.data() + at), address, address + at, key_at(bytes, false, i));
    }
}

// What the key's entry counts, once all nodes were gone through.
void tree_check::ends()
{
    uint64_t branches = 0, branch_entries = 0;
    for (size_t i = 0; i < levels_.size(); ++i) {
        const level &here = levels_[i];
        if (here.linked && here.nodes != 0)
            state_.expect(trees, here.previous + node_right.offset, here.expected, 0,
                          "node at 0x{:x}, the last of its level, its right neighbour", here.previous);
        if (i + 1 == levels_.size()) break;
        branches += here.nodes;
        branch_entries += here.entries;
    }
    const auto same = [&](field<uint64_t> at, uint64_t wanted, const char *what) {
        state_.expect(trees, key_.entry + at.offset, entry(at), wanted, "key {}, {}", key_.number, what);
    };
    same(key_entry_first_leaf, levels_.back().first, "its first leaf");
    same(key_entry_last_leaf, levels_.back().previous, "its last leaf");
    same(key_entry_leaves, levels_.back().nodes, "its leaves");
    same(key_entry_branches, branches, "its branches");
    same(key_entry_branch_entries, branch_entries, "its branch entries");
    same(key_entry_entries, entries_, "its entries");
}

void tree_check::edges()
{
    const node_geometry &g = key_.geometry;
    const uint64_t low_at = key_.entry + entry(key_entry_low_area), high_at = key_.entry + entry(key_entry_high_area);
    value low(g.width), high(g.width), lowest(g.width), highest(g.width);
    if (entries_ == 0) {
        // What fills the value up is zero in a new tree and 0xff in one that was emptied.
        std::memset(lowest.data(), 0xff, key_.length);
        lowest.resize(key_.length);
    } else {
        lowest = lowest_;
        highest = levels_.back().last_key;
    }
    const bool empty_leaf = entries_ == 0 && !levels_.back().last_key.empty(); // entries that lead nowhere are left
    if (!state_.image.read(low_at, low) || !state_.image.read(high_at, high)) return; // its place was complained about
    low.resize(lowest.size());
    if (!empty_leaf && low != lowest)
        state_.report.problem(trees, low_at, "key {}: what is kept as its lowest value is not the first one",
                              key_.number);
    if (!empty_leaf && high != highest)
        state_.report.problem(trees, high_at,
                              "key {}: what is kept as its highest value is not the last one: an append "
                              "would go to the wrong place",
                              key_.number);
}

void tree_check::unreached(const offset_set &slots)
{
    if (slots.count() == reached_.count()) return;
    if (!whole_) {
        state_.report.problem(trees, key_.entry, "key {} is damaged: {} of {} records are not found by it", key_.number,
                              slots.count() - reached_.count(), slots.count());
        return;
    }
    slots.each_not_in(reached_, [&](uint64_t at) {
        state_.report.problem(trees, at, "key {}: no entry leads to this record: it is not found by this key",
                              key_.number);
        return true;
    });
}

void tree_check::run()
{
    const uint64_t depth = entry(key_entry_depth);
    if (depth == 0 || depth > 64) {
        state_.report.problem(trees, key_.entry + key_entry_depth.offset, "key {}: {} levels", key_.number, depth);
        whole_ = false;
    } else {
        levels_.resize(depth);
        node(0, entry(key_entry_root), 0, key_.entry + key_entry_root.offset, nullptr);
    }
    if (!state_.result.complete) return;
    if (whole_) {
        ends();
        edges();
    }
}

void tree_check::compare()
{
    if (state_.options.fast)
        state_.expect(trees, key_.entry + key_entry_entries.offset, entries_, state_.result.records,
                      "key {}, records that it leads to", key_.number);
    else if (pairs_ != state_.pairs[key_.number])
        pair_by_pair();
}

} // namespace

void sum_tree(check_state &state, const file_key &key, offset_set &visited, pair_sum *sum)
{
    tree_check tree{state, key, visited,
                    state.facts.get(key, key_entry_leaves) + state.facts.get(key, key_entry_branches)};
    tree.run();
    *sum = tree.pairs();
}

void check_trees(check_state &state)
{
    offset_set visited{metadata_unit};
    uint64_t nodes = 0;
    for (const file_key &key : state.facts.keys)
        nodes += state.facts.get(key, key_entry_leaves) + state.facts.get(key, key_entry_branches);
    for (const file_key &key : state.facts.keys) {
        tree_check tree{state, key, visited, nodes};
        tree.run();
        if (state.result.complete) tree.compare();
        if (!state.result.complete) return;
    }
    // The nodes below a damaged one are in no tree then.
    if (state.options.fast || state.report.count(trees) != 0) return;
    for (const offset_set *kind : {&state.leaves, &state.branches})
        kind->each_not_in(visited, [&](uint64_t at) {
            state.report.problem(trees, at, "this node belongs to no tree");
            return true;
        });
}

void each_in_tree(file_image &image, const file_facts &facts, const file_key &key,
                  const std::function<bool(uint64_t slot)> &call)
{
    std::vector<std::byte> node(index_block_bytes);
    uint64_t address = facts.get(key, key_entry_first_leaf);
    for (uint64_t left = facts.get(key, key_entry_leaves); address != 0 && left != 0; --left) {
        if (!image.read(address, node)) return;
        const uint64_t ent = std::min(image_get(node, node_ent), key.geometry.leaf_capacity);
        for (uint64_t i = 0; i < ent; ++i) {
            const uint64_t slot = load_u64(node.data() + node_head_bytes + 8 * i);
            if (slot != UINT64_MAX && !call(slot)) return;
        }
        address = image_get(node, node_right);
    }
}
