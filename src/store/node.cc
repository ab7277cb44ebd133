// Nodes: the check of what comes from the file, fetching, the entry primitives, and the file position that follows
// every change of the entries around it. See node.h.
#include "store/node.h"

#include "store/tree.h"
#include "util/errors.h"

#include <cstdio>

namespace {

// The border: everything that later code relies on, once per block as it enters the cache.
bool node_sound(const index_tree &tree, const vfs_buffer *node, uint64_t address)
{
    if (node->size < index_block_bytes || node->bytes < index_block_bytes) return false;
    const uint8_t type = node_get(node, node_type);
    if (type != item_leaf && type != item_branch) return false;
    const bool leaf = type == item_leaf;
    if (node_get(node, node_length) != index_block_bytes || node_get(node, node_address) != address ||
        node_get(node, field<uint64_t>{index_block_bytes - trailer_bytes}) != index_block_bytes)
        return false;
    if (node_get(node, node_key_entry) != tree.entry || node_get(node, node_key_number) != tree.key) return false;
    if (node_get(node, node_max) != tree.get(leaf ? key_entry_leaf_capacity : key_entry_branch_capacity) ||
        node_get(node, node_half) != tree.get(leaf ? key_entry_leaf_half : key_entry_branch_half) ||
        node_get(node, node_stamp_array) != (leaf ? tree.get(key_entry_leaf_stamp_array) : 0) ||
        node_get(node, node_key_array) != tree.get(leaf ? key_entry_leaf_key_array : key_entry_branch_key_array) ||
        node_get(node, node_key_width) != tree.width)
        return false;
    const uint64_t ent = node_entries(node);
    return ent <= node_get(node, node_max) && node_get(node, node_act) <= ent && (leaf || ent != 0);
}

// Is the position's cursor in this node, on an entry or in a gap?
bool position_in(const index_tree &tree, uint64_t address)
{
    const file_position &position = tree.file->position;
    return position.node == address && position.key_number == tree.key && position.item != none &&
           (position.side == position_side::entry || position.side == position_side::gap);
}

// Does a new entry of this key belong before the gap at which the position stands?
bool belongs_before_gap(const index_tree &tree, const std::byte *key)
{
    const file_position &position = tree.file->position;
    const search_key added = search_key_of(tree, key);
    const auto *saved = tree.numbers ? reinterpret_cast<const std::byte *>(&position.rrn) : position.key;
    const int order = added.compare(saved);
    return order < 0 || (order == 0 && !tree.allows_duplicates());
}

// An entry was put in at `item` of a leaf that had `ent` entries. A gap at the border of two leaves stands in either
// of them: when the new entry is on its other side, the gap moves over.
void position_follow_insert(const index_tree &tree, const vfs_buffer *leaf, uint64_t item, uint64_t ent,
                            const std::byte *key)
{
    file_position &position = tree.file->position;
    if (position.node == none || position.key_number != tree.key) return;
    const uint64_t address = leaf->offset;
    if (position_in(tree, address)) {
        if (item < position.item ||
            (item == position.item && (position.side == position_side::entry || belongs_before_gap(tree, key))))
            ++position.item;
        return;
    }
    if (position.side != position_side::gap) return;
    if (item == ent && position.node == node_get(leaf, node_right) && position.item == 0 &&
        !belongs_before_gap(tree, key)) {
        position.node = address;
        position.item = item;
    } else if (item == 0 && position.node == node_get(leaf, node_left) && belongs_before_gap(tree, key)) {
        const vfs_buffer *left = node_fetch(tree, position.node);
        if (left == nullptr) {
            position.node = none; // found again by its identity
        } else if (position.item >= node_entries(left)) {
            position.node = address;
            position.item = 1;
        }
    }
}

void position_follow_remove(const index_tree &tree, const vfs_buffer *leaf, uint64_t item)
{
    file_position &position = tree.file->position;
    if (!position_in(tree, leaf->offset)) return;
    if (item < position.item)
        --position.item;
    else if (item == position.item)
        position.side = position_side::gap;
}

// Moves the entries from `from` on to `to` on; `count` of them, in all arrays.
void shift_entries(vfs_buffer *node, uint64_t from, uint64_t to, uint64_t count)
{
    const uint64_t width = node_get(node, node_key_width);
    std::memmove(address_place(node, to), address_place(node, from), 8 * count);
    std::memmove(key_place(node, to), key_place(node, from), width * count);
    if (is_leaf(node)) std::memmove(stamp_place(node, to), stamp_place(node, from), 8 * count);
}

void copy_entry(const vfs_buffer *from, uint64_t from_item, vfs_buffer *to, uint64_t to_item)
{
    std::memcpy(address_place(to, to_item), address_place(from, from_item), 8);
    std::memcpy(key_place(to, to_item), key_place(from, from_item), node_get(to, node_key_width));
    if (is_leaf(to)) std::memcpy(stamp_place(to, to_item), stamp_place(from, from_item), 8);
}

void add_counts(vfs_buffer *node, int64_t entries, int64_t active)
{
    node_put(node, node_ent, node_get(node, node_ent) + static_cast<uint64_t>(entries));
    node_put(node, node_act, node_get(node, node_act) + static_cast<uint64_t>(active));
}

template <typename Below> uint64_t partition_point(uint64_t count, Below below)
{
    uint64_t base = 0;
    while (count > 1) {
        const uint64_t half = count / 2;
        base += below(base + half - 1) ? half : 0;
        count -= half;
    }
    return count == 1 && below(base) ? base + 1 : base;
}

void print_key(const index_tree &tree, const std::byte *key)
{
    if (tree.numbers)
        std::fprintf(stderr, "%ld", static_cast<long>(load_u64(key)));
    else
        std::fprintf(stderr, "%.*s", static_cast<int>(tree.length), reinterpret_cast<const char *>(key));
}

} // namespace

search_key search_key_of(const index_tree &tree, const std::byte *bytes)
{
    search_key key{.bytes = bytes, .length = tree.length, .prefix = 0, .shift = 0, .numbers = tree.numbers};
    if (tree.length < 8) {
        key.shift = static_cast<uint32_t>(8 * (8 - tree.length));
        std::byte padded[8] = {};
        std::memcpy(padded, bytes, tree.length);
        key.prefix = key.prefix_at(padded);
    } else {
        key.prefix = key.prefix_at(bytes);
    }
    return key;
}

search_key request_key(const index_tree &tree, const vfs_request *request)
{
    return search_key_of(tree, tree.numbers ? reinterpret_cast<const std::byte *>(&request->rrn)
                                            : static_cast<const std::byte *>(request->key));
}

uint64_t node_lower_bound(const vfs_buffer *node, const search_key &key)
{
    const std::byte *keys = key_place(node, 0);
    const uint64_t width = node_get(node, node_key_width);
    if (key.length <= 8)
        return partition_point(node_entries(node),
                               [&](uint64_t item) { return key.prefix_at(keys + item * width) < key.prefix; });
    return partition_point(node_entries(node), [&](uint64_t item) { return key.compare(keys + item * width) > 0; });
}

uint64_t node_upper_bound(const vfs_buffer *node, const search_key &key)
{
    const std::byte *keys = key_place(node, 0);
    const uint64_t width = node_get(node, node_key_width);
    if (key.length <= 8)
        return partition_point(node_entries(node),
                               [&](uint64_t item) { return key.prefix_at(keys + item * width) <= key.prefix; });
    return partition_point(node_entries(node), [&](uint64_t item) { return key.compare(keys + item * width) >= 0; });
}

vfs_buffer *node_fetch_slow(const index_tree &tree, uint64_t address)
{
    if (address_check(tree.file, address, index_block_bytes) == -1) return nullptr;
    vfs_buffer *node = address % metadata_unit == 0 ? cache_fetch_at(tree.cache(), address) : nullptr;
    if (node == nullptr) {
        if (address % metadata_unit != 0) (void)damaged();
        return nullptr;
    }
    if (node->offset == address && node->checked) return node;
    if (node->offset == address && node_sound(tree, node, address) && cache_claim(node, address) == 0) {
        node->checked = true;
        return node;
    }
    // A block that is no node of this tree may overlap one that is: it must not stay cached.
    if (node->offset == address && node->pins == 0 && !is_dirty(node)) cache_drop_block(tree.cache(), address);
    (void)damaged();
    return nullptr;
}

vfs_buffer *leaf_fetch(const index_tree &tree, uint64_t address)
{
    vfs_buffer *node = node_fetch(tree, address);
    if (node != nullptr && !is_leaf(node)) {
        (void)damaged();
        return nullptr;
    }
    return node;
}

vfs_buffer *node_edit(const index_tree &tree, uint64_t address)
{
    if (node_fetch(tree, address) == nullptr) return nullptr;
    return cache_update_at(tree.cache(), address);
}

void node_format(const index_tree &tree, vfs_buffer *node, item_type type)
{
    const bool leaf = type == item_leaf;
    node_put<uint8_t>(node, node_type, type);
    node_put(node, node_key_entry, tree.entry);
    node_put(node, node_key_number, tree.key);
    node_put(node, node_max, tree.get(leaf ? key_entry_leaf_capacity : key_entry_branch_capacity));
    node_put(node, node_half, tree.get(leaf ? key_entry_leaf_half : key_entry_branch_half));
    node_put(node, node_stamp_array, leaf ? tree.get(key_entry_leaf_stamp_array) : 0);
    node_put(node, node_key_array, tree.get(leaf ? key_entry_leaf_key_array : key_entry_branch_key_array));
    node_put(node, node_key_width, tree.width);
    node->checked = true;
}

void entry_insert(const index_tree &tree, vfs_buffer *node, uint64_t item, const std::byte *key, uint64_t address)
{
    const uint64_t ent = node_entries(node);
    assert(ent < node_get(node, node_max) && item <= ent);
    const bool leaf = is_leaf(node);
    if (item != ent) shift_entries(node, item, item + 1, ent - item);
    store_u64(address_place(node, item), address);
    std::byte *place = key_place(node, item);
    std::memcpy(place, key, tree.length);
    if (tree.length != tree.width) std::memset(place + tree.length, 0, tree.width - tree.length);
    add_counts(node, 1, 1);
    if (leaf) {
        store_u64(stamp_place(node, item), static_cast<uint64_t>(tree.get(key_entry_tsn)));
        tree.put(key_entry_entries, tree.get(key_entry_entries) + 1);
        position_follow_insert(tree, node, item, ent, key);
    } else {
        tree.put(key_entry_branch_entries, tree.get(key_entry_branch_entries) + 1);
    }
}

void entry_remove(const index_tree &tree, vfs_buffer *node, uint64_t item)
{
    const uint64_t ent = node_entries(node);
    assert(item < ent);
    const bool active = entry_address(node, item) != none;
    shift_entries(node, item + 1, item, ent - item - 1);
    add_counts(node, -1, active ? -1 : 0);
    const field<uint64_t> count = is_leaf(node) ? key_entry_entries : key_entry_branch_entries;
    const uint64_t counted = tree.get(count);
    if (active && counted != 0) tree.put(count, counted - 1);
    if (is_leaf(node)) position_follow_remove(tree, node, item);
}

void entry_move_right(const index_tree &tree, vfs_buffer *from, vfs_buffer *to)
{
    const uint64_t last = node_entries(from) - 1;
    const int64_t active = entry_address(from, last) != none ? 1 : 0;
    shift_entries(to, 0, 1, node_entries(to));
    copy_entry(from, last, to, 0);
    add_counts(to, 1, active);
    add_counts(from, -1, -active);
    if (!is_leaf(to)) return;
    file_position &position = tree.file->position;
    if (position_in(tree, to->offset)) {
        ++position.item;
    } else if (position_in(tree, from->offset) && position.item >= last) {
        // On the moved entry, or in the gap before it or behind it.
        position.item = position.item > last ? 1 : 0;
        position.node = to->offset;
    }
}

void entry_move_left(const index_tree &tree, vfs_buffer *from, vfs_buffer *to)
{
    const uint64_t end = node_entries(to);
    const int64_t active = entry_address(from, 0) != none ? 1 : 0;
    copy_entry(from, 0, to, end);
    add_counts(to, 1, active);
    shift_entries(from, 1, 0, node_entries(from) - 1);
    add_counts(from, -1, -active);
    if (!is_leaf(to) || !position_in(tree, from->offset)) return;
    file_position &position = tree.file->position;
    if (position.item != 0) {
        --position.item;
    } else {
        position.node = to->offset;
        position.item = end;
    }
}

uint64_t child_item(const index_tree &tree, const vfs_buffer *parent, uint64_t child, const std::byte *lowest,
                    const char *verb)
{
    const uint64_t ent = node_entries(parent);
    uint64_t item = ent;
    if (!is_leaf(parent) && ent != 0) {
        // Loads at either edge of the tree need no search.
        item = entry_address(parent, ent - 1) == child ? ent - 1 : entry_address(parent, 0) == child ? 0 : ent;
        if (item == ent) {
            const uint64_t first = node_lower_bound(parent, search_key_of(tree, lowest));
            for (uint64_t i = 0; i < ent && item == ent; ++i) {
                const uint64_t at = first + i < ent ? first + i : first + i - ent;
                if (entry_address(parent, at) == child) item = at;
            }
        }
    }
    if (item == ent) {
        std::fprintf(stderr, "Eh? %s key ", verb);
        print_key(tree, lowest);
        std::fprintf(stderr, " from child 0x%lx not in parent 0x%lx\n", child, parent->offset);
        caches_dump(tree.file);
    } else if (search_key_of(tree, lowest).compare(key_place(parent, item)) != 0) {
        std::fprintf(stderr, "old key miss-match @0x%lx:%ld\n", parent->offset, static_cast<long>(item));
    } else {
        return item;
    }
    (void)tree_damaged(tree);
    return none;
}

int separator_update(const index_tree &tree, const vfs_buffer *child, const std::byte *from, const std::byte *to,
                     bool hint)
{
    if (std::memcmp(from, to, tree.width) == 0) return 0;
    uint64_t address = child->offset, parent = node_get(child, node_parent);
    while (parent != 0) {
        vfs_buffer *branch = node_edit(tree, parent);
        if (branch == nullptr) return -1;
        const uint64_t item = child_item(tree, branch, address, from, "Update");
        if (item == none) return -1;
        if (hint) std::fprintf(stderr, "seq update %ld\n", static_cast<long>(item));
        std::memcpy(key_place(branch, item), to, tree.width);
        if (item != 0) return 0;
        address = parent;
        parent = node_get(branch, node_parent);
    }
    return 0;
}

int node_pins::hold(vfs_buffer *node)
{
    if (count_ == std::size(pins_)) return damaged();
    ++node->pins;
    pins_[count_++] = node;
    return 0;
}

void node_pins::release()
{
    while (count_ != 0) --pins_[--count_]->pins;
}

int hold_path(const index_tree &tree, const vfs_buffer *node, node_pins *pins, const char *verb)
{
    for (uint64_t levels = 0; node_get(node, node_parent) != 0; ++levels) {
        const uint64_t address = node->offset;
        vfs_buffer *parent = node_fetch(tree, node_get(node, node_parent));
        if (parent == nullptr || pins->hold(parent) == -1) return -1;
        if (levels == tree_depth_limit || node_entries(node) == 0) return tree_damaged(tree);
        if (child_item(tree, parent, address, key_place(node, 0), verb) == none) return -1;
        node = parent;
    }
    return 0;
}
