// Putting a key into a tree. A full node gives one entry to a neighbour or to a new sibling; nodes are never halved.
// See tree.h.
//
// An insertion that changes more than one leaf is first prepared: every node that will change is read, checked and
// held, and the blocks it needs are allocated. What fails, fails there, with the tree as it was.
#include "store/node.h"
#include "store/tree.h"
#include "util/errors.h"

#include <cstdio>

namespace {

// How a full node makes room for an entry.
struct room {
    bool right;
    uint64_t target; // the neighbour that takes an entry; 0: a new sibling
};

struct insertion {
    const index_tree &tree;
    bool at_edge; // a new lowest or highest key of the tree
    node_pins pins;
    uint64_t fresh[tree_depth_limit + 1]; // allocated blocks
    uint64_t fresh_count, fresh_used;
    tree_place leaf_entry; // where the new leaf entry went
};

int room_choice(const index_tree &tree, const vfs_buffer *node, uint64_t item, node_pins *pins, room *choice)
{
    const uint64_t left = node_get(node, node_left), right = node_get(node, node_right);
    const uint64_t max = node_get(node, node_max), half = node_get(node, node_half);
    const uint8_t type = node_get(node, node_type);
    uint64_t left_active = none, right_active = none; // none: no such neighbour, or a full one
    const auto look = [&](uint64_t address, uint64_t *active) {
        if (address == 0) return 0;
        vfs_buffer *neighbour = node_fetch(tree, address);
        if (neighbour == nullptr || pins->hold(neighbour) == -1) return -1;
        if (node_get(neighbour, node_type) != type) return tree_damaged(tree);
        if (!is_full(neighbour)) *active = node_get(neighbour, node_act);
        return 0;
    };
    // At either end of the node the side is settled, and the neighbour on the other one is not touched.
    if (item != max && look(left, &left_active) == -1) return -1;
    if (item != 0 && look(right, &right_active) == -1) return -1;
    if (item == 0)
        choice->right = false;
    else if (item == max)
        choice->right = true;
    else if (left_active != none || right_active != none)
        choice->right = left_active == none || (right_active != none && right_active < left_active);
    else
        choice->right = item >= half;
    choice->target = choice->right ? (right_active != none ? right : 0) : (left_active != none ? left : 0);
    return 0;
}

// The child that goes along when the node makes room: its parent field will change.
int hold_moving_child(insertion &op, const vfs_buffer *node, uint64_t item, const room &choice)
{
    if (is_leaf(node) || item == (choice.right ? node_get(node, node_max) : 0)) return 0;
    vfs_buffer *child = node_fetch(op.tree, entry_address(node, choice.right ? node_entries(node) - 1 : 0));
    return child == nullptr ? -1 : op.pins.hold(child);
}

int give_back(insertion &op)
{
    const int cause = errno;
    op.pins.release();
    while (op.fresh_count != 0)
        if (index_block_free(op.tree.file, op.tree.cache(), op.fresh[--op.fresh_count]) == -1)
            store_error(op.tree.file, errno);
    return fail(cause);
}

int allocate(insertion &op, uint64_t count)
{
    if (count > std::size(op.fresh)) return fail(EFBIG);
    for (; op.fresh_count < count; ++op.fresh_count)
        if (index_block_alloc(op.tree.file, op.tree.cache(), &op.fresh[op.fresh_count]) == -1) return give_back(op);
    for (uint64_t i = 0; i < count; ++i) {
        vfs_buffer *block = cache_update_at(op.tree.cache(), op.fresh[i]);
        if (block == nullptr || op.pins.hold(block) == -1) return give_back(op);
    }
    return 0;
}

// Reads and holds what an insertion at `item` of the leaf will change, level by level, and allocates what it needs.
int prepare(insertion &op, uint64_t address, uint64_t item)
{
    const index_tree &tree = op.tree;
    uint64_t needed = 0;
    for (uint64_t level = 0;; ++level) {
        vfs_buffer *node = node_fetch(tree, address);
        if (node == nullptr || op.pins.hold(node) == -1) return -1;
        if (level == tree_depth_limit) return tree_damaged(tree);
        if (!is_full(node) && (item != 0 || node_get(node, node_parent) == 0)) break;
        if (level == 0 && hold_path(tree, node, &op.pins, "Update") == -1) return -1;
        if (!is_full(node)) break;
        room choice;
        if (room_choice(tree, node, item, &op.pins, &choice) == -1) return -1;
        if (hold_moving_child(op, node, item, choice) == -1) return -1;
        if (choice.target != 0) {
            const vfs_buffer *target = node_fetch(tree, choice.target);
            if (target == nullptr || hold_path(tree, target, &op.pins, "Update") == -1) return -1;
            break;
        }
        ++needed;
        const uint64_t parent = node_get(node, node_parent);
        if (parent == 0) {
            ++needed;
            if (tree.get(key_entry_depth) >= tree_depth_limit) return fail(EFBIG);
            break;
        }
        const vfs_buffer *branch = node_fetch(tree, parent);
        if (branch == nullptr) return -1;
        item = child_item(tree, branch, address, key_place(node, 0), "Update");
        if (item == none) return -1;
        if (choice.right) ++item;
        address = parent;
    }
    return needed == 0 ? 0 : allocate(op, needed);
}

// With a memory budget a context grows with its tree.
void context_grow(const index_tree &tree)
{
    vfs_file *file = tree.file;
    if (file->settings.cache_size == 0) return;
    const uint64_t budget = file->settings.cache_size / index_block_bytes;
    uint64_t held = 0;
    for (uint64_t key = 0; key < file->tree_count; ++key)
        if (file->contexts[key].open) held += file->contexts[key].cache.max;
    const uint64_t nodes = tree.get(key_entry_leaves) + tree.get(key_entry_branches);
    if (held < budget && tree.cache()->max < nodes + tree.cache()->min) ++tree.cache()->max;
}

vfs_buffer *fresh_node(insertion &op, item_type type)
{
    assert(op.fresh_used < op.fresh_count);
    if (op.fresh_used >= op.fresh_count) {
        errno = ENOSPC;
        return nullptr;
    }
    vfs_buffer *node = cache_update_at(op.tree.cache(), op.fresh[op.fresh_used]);
    if (node == nullptr) return nullptr;
    ++op.fresh_used;
    node_format(op.tree, node, type);
    const field<uint64_t> count = type == item_leaf ? key_entry_leaves : key_entry_branches;
    op.tree.put(count, op.tree.get(count) + 1);
    context_grow(op.tree);
    return node;
}

vfs_buffer *create_sibling(insertion &op, vfs_buffer *node, bool right)
{
    const index_tree &tree = op.tree;
    const field<uint64_t> ahead = right ? node_right : node_left, back = right ? node_left : node_right;
    const uint64_t beyond = node_get(node, ahead);
    vfs_buffer *created = fresh_node(op, is_leaf(node) ? item_leaf : item_branch);
    if (created == nullptr) return nullptr;
    node_put(created, node_parent, node_get(node, node_parent));
    node_put(created, back, node->offset);
    node_put(created, ahead, beyond);
    node_put(node, ahead, created->offset);
    if (beyond != 0) {
        vfs_buffer *neighbour = node_edit(tree, beyond);
        if (neighbour == nullptr) return nullptr;
        node_put(neighbour, back, created->offset);
    } else if (is_leaf(node)) {
        tree.put(right ? key_entry_last_leaf : key_entry_first_leaf, created->offset);
    }
    return created;
}

int set_parent(const index_tree &tree, uint64_t child, uint64_t parent)
{
    vfs_buffer *node = node_edit(tree, child);
    if (node == nullptr) return -1;
    node_put(node, node_parent, parent);
    return 0;
}

int root_create(insertion &op, const vfs_buffer *left, const vfs_buffer *right)
{
    const index_tree &tree = op.tree;
    vfs_buffer *root = fresh_node(op, item_branch);
    if (root == nullptr) return -1;
    entry_insert(tree, root, 0, key_place(left, 0), left->offset);
    entry_insert(tree, root, 1, key_place(right, 0), right->offset);
    tree.put(key_entry_root, root->offset);
    tree.put(key_entry_depth, tree.get(key_entry_depth) + 1);
    ++tree.cache()->min;
    ++tree.cache()->max;
    return set_parent(tree, left->offset, root->offset) == -1 ? -1 : set_parent(tree, right->offset, root->offset);
}

int node_insert(insertion &op, uint64_t address, uint64_t item, const std::byte *key, uint64_t value);

// The new sibling's entry goes beside its neighbour's.
int insert_separator(insertion &op, const vfs_buffer *node, const vfs_buffer *sibling, bool right)
{
    const uint64_t parent = node_get(node, node_parent);
    if (parent == 0) return right ? root_create(op, node, sibling) : root_create(op, sibling, node);
    const vfs_buffer *branch = node_fetch(op.tree, parent);
    if (branch == nullptr) return -1;
    const uint64_t item = child_item(op.tree, branch, node->offset, key_place(node, 0), "Update");
    if (item == none) return -1;
    return node_insert(op, parent, right ? item + 1 : item, key_place(sibling, 0), sibling->offset);
}

// Into a node with room.
int place_entry(insertion &op, vfs_buffer *node, uint64_t item, const std::byte *key, uint64_t value)
{
    const index_tree &tree = op.tree;
    entry_insert(tree, node, item, key, value);
    if (is_leaf(node))
        op.leaf_entry = {node->offset, item};
    else if (set_parent(tree, value, node->offset) == -1)
        return -1;
    return 0;
}

int place_and_update(insertion &op, vfs_buffer *node, uint64_t item, const std::byte *key, uint64_t value)
{
    if (place_entry(op, node, item, key, value) == -1) return -1;
    if (item != 0 || node_get(node, node_parent) == 0) return 0;
    const bool hint = op.at_edge && node_get(node, node_left) == 0;
    return separator_update(op.tree, node, key_place(node, 1), key_place(node, 0), hint);
}

int shift_right(insertion &op, vfs_buffer *node, vfs_buffer *target, bool created)
{
    const index_tree &tree = op.tree;
    entry_move_right(tree, node, target);
    if (!is_leaf(target) && set_parent(tree, entry_address(target, 0), target->offset) == -1) return -1;
    if (created) return insert_separator(op, node, target, true);
    return separator_update(tree, target, key_place(target, 1), key_place(target, 0), false);
}

// The first entry goes left, the new one in, one item lower; then the node's lowest key is another one.
int shift_left(insertion &op, vfs_buffer *node, vfs_buffer *target, bool created, uint64_t item, const std::byte *key,
               uint64_t value)
{
    const index_tree &tree = op.tree;
    entry_move_left(tree, node, target);
    const uint64_t moved = node_entries(target) - 1;
    if (!is_leaf(target) && set_parent(tree, entry_address(target, moved), target->offset) == -1) return -1;
    if (place_entry(op, node, item - 1, key, value) == -1) return -1;
    if (node_get(node, node_parent) != 0 &&
        separator_update(tree, node, key_place(target, moved), key_place(node, 0), false) == -1)
        return -1;
    return created ? insert_separator(op, node, target, false) : 0;
}

// Puts (key, value) in at `item` of the node, wherever room for it is made. What it touches was prepared.
int node_insert(insertion &op, uint64_t address, uint64_t item, const std::byte *key, uint64_t value)
{
    const index_tree &tree = op.tree;
    vfs_buffer *node = node_edit(tree, address);
    if (node == nullptr) return -1;
    if (!is_full(node)) return place_and_update(op, node, item, key, value);

    room choice;
    if (room_choice(tree, node, item, &op.pins, &choice) == -1) return -1;
    const bool created = choice.target == 0;
    vfs_buffer *target = created ? create_sibling(op, node, choice.right) : node_edit(tree, choice.target);
    if (target == nullptr) return -1;
    if (item == 0 || item == node_get(node, node_max)) { // nothing moves: the new entry is the target's
        const uint64_t at = choice.right ? 0 : node_entries(target);
        if (!created) return place_and_update(op, target, at, key, value);
        if (place_entry(op, target, at, key, value) == -1) return -1;
        return insert_separator(op, node, target, choice.right);
    }
    if (!choice.right) return shift_left(op, node, target, created, item, key, value);
    if (shift_right(op, node, target, created) == -1) return -1;
    return place_entry(op, node, item, key, value);
}

// Where the key goes: behind the last equal one. Loads at either edge of the tree need no search.
int find_place(const index_tree &tree, const search_key &key, bool empty, tree_place *place, bool *low, bool *high)
{
    *low = empty || key.compare(tree.low()) < 0;
    const int order = empty ? 1 : key.compare(tree.high());
    *high = empty || order > 0;
    if (*low || order >= 0) {
        const vfs_buffer *leaf = leaf_fetch(tree, tree.get(*low ? key_entry_first_leaf : key_entry_last_leaf));
        if (leaf == nullptr) return -1;
        const uint64_t ent = node_entries(leaf);
        // Empty entries may lie beyond the edge keys.
        const bool beyond =
            ent == 0 || (*low ? key.compare(key_place(leaf, 0)) < 0 : key.compare(key_place(leaf, ent - 1)) >= 0);
        *place = {leaf->offset, *low ? 0 : ent};
        if (beyond) return 0;
    }
    return tree_bound(tree, key, true, place);
}

// The stamp of the entry to come: above that of the browse under way, so that this browse does not meet it.
void raise_stamp(const index_tree &tree, const vfs_request *request)
{
    if ((request->flags & VFS_FLAG_BROWSE) == 0) return;
    const auto now = static_cast<uint64_t>(tree.get(key_entry_tsn));
    const uint64_t browse = tree.file->position.stamp == none ? now : tree.file->position.stamp;
    if (browse + 1 > now) tree.put(key_entry_tsn, static_cast<int64_t>(browse + 1));
}

int fill_empty_entry(const index_tree &tree, tree_place place, const search_key &key, uint64_t address)
{
    vfs_buffer *leaf = node_edit(tree, place.node);
    if (leaf == nullptr) return -1;
    store_u64(address_place(leaf, place.item), address);
    std::memcpy(key_place(leaf, place.item), key.bytes, tree.length);
    store_u64(stamp_place(leaf, place.item), static_cast<uint64_t>(tree.get(key_entry_tsn)));
    node_put(leaf, node_act, node_get(leaf, node_act) + 1);
    tree.put(key_entry_entries, tree.get(key_entry_entries) + 1);
    return 0;
}

void widen_edges(const index_tree &tree, const search_key &key, bool low, bool high)
{
    const uint64_t entry = tree.entry;
    if (low) header_change(tree.file, entry + tree.get(key_entry_low_area), key.bytes, tree.length);
    if (high) header_change(tree.file, entry + tree.get(key_entry_high_area), key.bytes, tree.length);
    if (tree.length == tree.width) return;
    static constexpr std::byte zeros[8] = {};
    const uint64_t pad = tree.width - tree.length;
    if (low) header_change(tree.file, entry + tree.get(key_entry_low_area) + tree.length, zeros, pad);
    if (high) header_change(tree.file, entry + tree.get(key_entry_high_area) + tree.length, zeros, pad);
}

int insert(const index_tree &tree, vfs_request *request, const search_key &key)
{
    const bool empty = tree.get(key_entry_entries) == 0;
    tree_place place;
    bool low, high;
    if (find_place(tree, key, empty, &place, &low, &high) == -1) return -1;
    const vfs_buffer *leaf = leaf_fetch(tree, place.node);
    if (leaf == nullptr) return -1;

    const bool equal = place.item != 0 && key.compare(key_place(leaf, place.item - 1)) == 0;
    const bool vacant = equal && entry_address(leaf, place.item - 1) == none;
    const bool duplicate = equal && !vacant && !empty;
    if (duplicate && !tree.allows_duplicates()) return fail(EADDRINUSE);

    const bool edge = low || high;
    if (edge) request->flags |= VFS_FLAG_SEQUENTIAL;
    if (vacant) {
        raise_stamp(tree, request);
        --place.item;
        if (fill_empty_entry(tree, place, key, request->record_offset) == -1) return -1;
    } else if (!is_full(leaf) && (place.item != 0 || node_get(leaf, node_parent) == 0)) {
        vfs_buffer *changed = cache_update_at(tree.cache(), place.node);
        if (changed == nullptr) return -1;
        raise_stamp(tree, request);
        entry_insert(tree, changed, place.item, key.bytes, request->record_offset);
    } else {
        insertion op{.tree = tree,
                     .at_edge = edge,
                     .pins = {},
                     .fresh = {},
                     .fresh_count = 0,
                     .fresh_used = 0,
                     .leaf_entry = place};
        if (prepare(op, place.node, place.item) == -1) return -1;
        raise_stamp(tree, request);
        if (node_insert(op, place.node, place.item, key.bytes, request->record_offset) == -1) {
            store_error(tree.file, errno);
            return -1;
        }
        assert(op.fresh_used == op.fresh_count);
        place = op.leaf_entry;
    }
    if (duplicate) tree.put<uint8_t>(key_entry_flags, tree.get(key_entry_flags) | key_flag_held_duplicate);
    widen_edges(tree, key, low, high);
    tree.file->tsn += 1;
    tree.context->node = request->node = place.node;
    tree.context->item = request->item = place.item;
    request->stamp = static_cast<uint64_t>(tree.get(key_entry_tsn));
    return 0;
}

int insert_request(vfs_file *file, vfs_request *request)
{
    index_tree tree;
    if (tree_open(file, request->key_number, &tree) == -1) return -1;
    request->flags &= static_cast<uint8_t>(~VFS_FLAG_SEQUENTIAL);
    if ((request->flags & VFS_FLAG_BROWSE) == 0 && tree.get(key_entry_tsn) < 0 && tsn_renumber(file) == -1) return -1;
    return insert(tree, request, request_key(tree, request));
}

} // namespace

int tree_insert_key(vfs_file *file, vfs_request *request)
{
    return insert_request(file, request);
}
int rrn_insert(vfs_file *file, vfs_request *request)
{
    return insert_request(file, request);
}
