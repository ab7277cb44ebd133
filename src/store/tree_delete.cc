// Taking an entry out of a tree. Nodes are never merged: a node leaves the tree when its last entry goes, and when
// the last entry of the tree goes, its leaf alone remains. See tree.h.
//
// As with insertions, whatever will change is read, checked and held first.
#include "store/node.h"
#include "store/tree.h"
#include "util/errors.h"

namespace {

// The nodes that become empty with an entry: the leaf and every branch above it that leads nowhere else.
struct removal {
    const index_tree &tree;
    node_pins pins;
    uint64_t emptied[tree_depth_limit];
    uint64_t count;
    uint64_t parent, item; // the branch that stays, and its entry that goes
};

// Both neighbours of a node that is held. It has one, since the tree has other entries, and they know of it.
int hold_neighbours(removal &op, const vfs_buffer *node)
{
    const uint64_t left = node_get(node, node_left), right = node_get(node, node_right);
    if (left == 0 && right == 0) return tree_damaged(op.tree);
    for (const bool forward : {true, false}) {
        const uint64_t address = forward ? right : left;
        if (address == 0) continue;
        vfs_buffer *neighbour = node_fetch(op.tree, address);
        if (neighbour == nullptr) return -1;
        if (node_get(neighbour, node_type) != node_get(node, node_type) ||
            node_get(neighbour, forward ? node_left : node_right) != node->offset)
            return tree_damaged(op.tree);
        if (op.pins.hold(neighbour) == -1) return -1;
    }
    return 0;
}

int prepare(removal &op, uint64_t leaf)
{
    const index_tree &tree = op.tree;
    uint64_t address = leaf;
    for (;;) {
        vfs_buffer *node = node_fetch(tree, address);
        if (node == nullptr || op.pins.hold(node) == -1) return -1;
        if (op.count == tree_depth_limit) return tree_damaged(tree);
        op.emptied[op.count++] = address;
        if (hold_neighbours(op, node) == -1) return -1;
        const uint64_t parent = node_get(node, node_parent);
        vfs_buffer *branch = node_fetch(tree, parent);
        if (branch == nullptr || op.pins.hold(branch) == -1) return -1;
        op.item = child_item(tree, branch, address, key_place(node, 0), "Delete");
        if (op.item == none) return -1;
        op.parent = parent;
        if (node_entries(branch) > 1) return hold_path(tree, branch, &op.pins, "Delete");
        if (node_get(branch, node_parent) == 0) return tree_damaged(tree); // the tree has other entries
        address = parent;
    }
}

// A freed leaf hands the position to its right neighbour, else to the end of its left one.
void position_leave(const index_tree &tree, const vfs_buffer *leaf)
{
    file_position &position = tree.file->position;
    if (position.node != leaf->offset || position.key_number != tree.key) return;
    const uint64_t left = node_get(leaf, node_left), right = node_get(leaf, node_right);
    if (position.side == position_side::entry) position.side = position_side::gap;
    if (right != 0) {
        position.node = right;
        position.item = 0;
    } else if (const vfs_buffer *node = left == 0 ? nullptr : node_fetch(tree, left)) {
        position.node = left;
        position.item = node_entries(node);
    } else {
        position.node = none;
    }
}

int unlink_node(const index_tree &tree, uint64_t address)
{
    const vfs_buffer *node = node_fetch(tree, address);
    if (node == nullptr) return -1;
    const bool leaf = is_leaf(node);
    const uint64_t left = node_get(node, node_left), right = node_get(node, node_right);
    if (leaf) position_leave(tree, node);
    for (const bool forward : {true, false}) {
        const uint64_t side = forward ? right : left, other = forward ? left : right;
        if (side != 0) {
            vfs_buffer *neighbour = node_edit(tree, side);
            if (neighbour == nullptr) return -1;
            node_put(neighbour, forward ? node_left : node_right, other);
        } else if (leaf) {
            tree.put(forward ? key_entry_last_leaf : key_entry_first_leaf, other);
        }
    }
    const field<uint64_t> count = leaf ? key_entry_leaves : key_entry_branches;
    tree.put(count, tree.get(count) - 1);
    return 0;
}

void free_blocks(const index_tree &tree, const uint64_t *blocks, uint64_t count)
{
    for (uint64_t i = 0; i < count; ++i) {
        if (tree.context->node == blocks[i]) tree.context->node = none;
        // A block that cannot be listed is lost space, no damage: the key is gone already.
        if (index_block_free(tree.file, tree.cache(), blocks[i]) == -1) store_error(tree.file, errno);
    }
}

// What fails in the middle leaves no tree: the handle does nothing more.
int all_or_error(const index_tree &tree, int result)
{
    if (result == -1) store_error(tree.file, errno);
    return result;
}

int unlink_emptied(const removal &op)
{
    const index_tree &tree = op.tree;
    vfs_buffer *branch = node_edit(tree, op.parent);
    if (branch == nullptr) return -1;
    if (op.item == 0 && separator_update(tree, branch, key_place(branch, 0), key_place(branch, 1), false) == -1)
        return -1;
    entry_remove(tree, branch, op.item);
    for (uint64_t i = 0; i < op.count; ++i) {
        vfs_buffer *node = node_edit(tree, op.emptied[i]);
        if (node == nullptr) return -1;
        entry_remove(tree, node, 0);
        if (unlink_node(tree, op.emptied[i]) == -1) return -1;
    }
    return 0;
}

// The only entry of a leaf goes, and the leaf with it.
int remove_leaf(const index_tree &tree, uint64_t leaf)
{
    removal op{.tree = tree, .pins = {}, .emptied = {}, .count = 0, .parent = 0, .item = 0};
    if (prepare(op, leaf) == -1 || all_or_error(tree, unlink_emptied(op)) == -1) return -1;
    op.pins.release();
    free_blocks(tree, op.emptied, op.count);
    return 0;
}

// The last entry of the tree goes: its leaf becomes the root of an empty tree.
int remove_last(const index_tree &tree, tree_place place)
{
    uint64_t branches[tree_depth_limit], count = 0;
    vfs_buffer *leaf = node_edit(tree, place.node);
    if (leaf == nullptr) return -1;
    node_pins pins;
    if (pins.hold(leaf) == -1) return -1;
    for (uint64_t parent = node_get(leaf, node_parent); parent != 0;) {
        vfs_buffer *branch = node_fetch(tree, parent);
        if (branch == nullptr || pins.hold(branch) == -1) return -1;
        if (count == tree_depth_limit || is_leaf(branch)) return tree_damaged(tree);
        branches[count++] = parent;
        parent = node_get(branch, node_parent);
    }
    entry_remove(tree, leaf, place.item);
    for (const field<uint64_t> link : {node_parent, node_left, node_right}) node_put(leaf, link, uint64_t{0});
    for (const field<uint64_t> root : {key_entry_root, key_entry_first_leaf, key_entry_last_leaf})
        tree.put(root, place.node);
    for (const field<uint64_t> one : {key_entry_depth, key_entry_leaves}) tree.put(one, uint64_t{1});
    for (const field<uint64_t> nil : {key_entry_branches, key_entry_branch_entries}) tree.put(nil, uint64_t{0});
    pins.release();
    free_blocks(tree, branches, count);
    return 0;
}

int remove_entry(const index_tree &tree, tree_place place)
{
    const vfs_buffer *leaf = leaf_fetch(tree, place.node);
    if (leaf == nullptr) return -1;
    const bool in_branch = node_get(leaf, node_parent) != 0;
    if (in_branch && tree.get(key_entry_entries) == 1) return remove_last(tree, place);
    if (in_branch && node_entries(leaf) == 1) return remove_leaf(tree, place.node);
    vfs_buffer *changed = cache_update_at(tree.cache(), place.node);
    if (changed == nullptr) return -1;
    if (in_branch && place.item == 0) {
        node_pins pins;
        if (pins.hold(changed) == -1 || hold_path(tree, changed, &pins, "Update") == -1) return -1;
        const std::byte *first = key_place(changed, 0), *next = key_place(changed, 1);
        if (all_or_error(tree, separator_update(tree, changed, first, next, false)) == -1) return -1;
        entry_remove(tree, changed, 0);
        return 0;
    }
    entry_remove(tree, changed, place.item);
    return 0;
}

// Does the removal of this entry take the record away from under the file position?
bool position_loses(const index_tree &tree, const vfs_request *request)
{
    const file_position &position = tree.file->position;
    if (position.key_number != tree.key || position.record_offset != request->record_offset) return false;
    return position.side == position_side::entry;
}

int delete_request(vfs_file *file, vfs_request *request)
{
    index_tree tree;
    if (tree_open(file, request->key_number, &tree) == -1) return -1;
    const search_key key = request_key(tree, request);
    tree_place place;
    if (tree_seek(tree, key, request->record_offset, &place) != 0) return -1;
    const bool low = key.compare(tree.low()) <= 0, high = key.compare(tree.high()) >= 0;
    const bool loses = position_loses(tree, request);
    if (remove_entry(tree, place) == -1) return -1;
    tree.context->item = none; // the place beside the removed entry is a hint no more
    if (loses && file->position.side == position_side::entry) file->position.side = position_side::gap;
    if (loses && tree.numbers) file->current.flags2 |= VFS_FLAG2_REREAD;
    file->tsn += 1;
    request->node = none;
    return low || high || tree.get(key_entry_entries) == 0 ? edge_keys_update(tree, low, high) : 0;
}

} // namespace

int tree_delete_key(vfs_file *file, vfs_request *request)
{
    return delete_request(file, request);
}
int rrn_delete(vfs_file *file, vfs_request *request)
{
    return delete_request(file, request);
}
