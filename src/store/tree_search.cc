// Finding a key with a relation, and finding the entry of one record among equal keys. See tree.h.
#include "store/node.h"
#include "store/tree.h"
#include "util/errors.h"

#include <cstdio>

namespace {

vfs_buffer *bad_node(const index_tree &tree, uint64_t address)
{
    const vfs_buffer *curr = tree.cache()->curr;
    const unsigned type = curr != nullptr && curr->offset == address ? node_get(curr, node_type) : 0;
    std::fprintf(stderr, "Bad node 0x%x @0x%lx cursor 0x%lx\n", type, address, tree.context->node);
    cache_dump(tree.cache(), true);
    (void)tree_damaged(tree);
    return nullptr;
}

// The node that a branch, or the root pointer, at `level` + 1 names: a leaf exactly at level 1.
vfs_buffer *descend_to(const index_tree &tree, uint64_t address, uint64_t level)
{
    vfs_buffer *node = node_fetch(tree, address);
    if (node == nullptr) return errno == ENOEXEC ? bad_node(tree, address) : nullptr;
    return is_leaf(node) == (level == 1) ? node : bad_node(tree, address);
}

// The leaf of the last search, when it settles the bound and is the block at hand; else null.
vfs_buffer *hinted_leaf(const index_tree &tree, const search_key &key, bool upper)
{
    vfs_buffer *leaf = tree.cache()->curr;
    if (leaf == nullptr || leaf->offset != tree.context->node || !leaf->checked || leaf->done == 0) return nullptr;
    const uint64_t ent = node_entries(leaf);
    if (!is_leaf(leaf) || ent == 0) return nullptr;
    const int first = key.compare(key_place(leaf, 0)), last = key.compare(key_place(leaf, ent - 1));
    const bool inside_left = node_get(leaf, node_left) == 0 || (upper ? first >= 0 : first > 0);
    const bool inside_right = node_get(leaf, node_right) == 0 || (upper ? last < 0 : last <= 0);
    return inside_left && inside_right ? leaf : nullptr;
}

bool same_key(const vfs_buffer *node, uint64_t item, const search_key &key)
{
    return key.compare(key_place(node, item)) == 0;
}

// Is the entry at the place the one of this key and record?
int names_record(const index_tree &tree, tree_place place, const search_key &key, uint64_t offset)
{
    if (place.node == none) return 0;
    const vfs_buffer *leaf = leaf_fetch(tree, place.node);
    if (leaf == nullptr) return errno == ENOEXEC ? 0 : -1;
    return place.item < node_entries(leaf) && entry_address(leaf, place.item) == offset &&
                   same_key(leaf, place.item, key)
               ? 1
               : 0;
}

// Looks for the record among the entries of this key in the leaf: 1 found, 0 not here but the run may go on, 2 the
// run ends here.
int scan_leaf(const vfs_buffer *leaf, const search_key &key, uint64_t offset, tree_place *place)
{
    const uint64_t ent = node_entries(leaf), end = node_upper_bound(leaf, key);
    for (uint64_t item = node_lower_bound(leaf, key); item < end; ++item) {
        if (entry_address(leaf, item) != offset) continue;
        *place = {leaf->offset, item};
        return 1;
    }
    return end < ent ? 2 : 0;
}

// Address of entry 0 of the first leaf below a node. -1 with errno.
int first_address(const index_tree &tree, uint64_t node, uint64_t level, uint64_t *address)
{
    for (;; --level) {
        const vfs_buffer *at = descend_to(tree, node, level);
        if (at == nullptr) return -1;
        if (node_entries(at) == 0) return damaged();
        if (level == 1) {
            *address = entry_address(at, 0);
            return 0;
        }
        node = entry_address(at, 0);
    }
}

// In a run of equal keys that was filled in the order of record offsets: the leaf that would hold this one. Null with
// errno.
vfs_buffer *descend_by_offset(const index_tree &tree, const search_key &key, uint64_t offset)
{
    uint64_t address = tree.get(key_entry_root);
    for (uint64_t level = tree.get(key_entry_depth);; --level) {
        vfs_buffer *node = descend_to(tree, address, level);
        if (node == nullptr || level == 1) return node;
        uint64_t low = node_lower_bound(node, key), high = node_upper_bound(node, key);
        if (low != 0) --low; // its last entries may begin the run
        const pinned_buffer pin(node);
        while (high - low > 1) {
            const uint64_t middle = low + (high - low) / 2;
            uint64_t begins = 0;
            if (first_address(tree, entry_address(node, middle), level - 1, &begins) == -1) return nullptr;
            (begins <= offset ? low : high) = middle;
        }
        address = entry_address(node, low < node_entries(node) ? low : node_entries(node) - 1);
    }
}

// The whole run, leaf by leaf.
int scan_run(const index_tree &tree, const search_key &key, uint64_t offset, tree_place *place)
{
    if (tree_bound(tree, key, false, place) == -1) return -1;
    uint64_t address = place->node;
    for (uint64_t left = tree.get(key_entry_leaves); address != 0; --left) {
        const vfs_buffer *leaf = leaf_fetch(tree, address);
        if (leaf == nullptr) return -1;
        if (left == 0) return tree_damaged(tree);
        const int found = scan_leaf(leaf, key, offset, place);
        if (found == 1) return 0;
        if (found == 2) break;
        address = node_get(leaf, node_right);
    }
    errno = ESPIPE;
    return 1;
}

int not_found(vfs_request *request)
{
    request->record_offset = none;
    errno = ESPIPE;
    return 1;
}

// The step that a relation asks for, from the bound that it begins with.
int locate(const index_tree &tree, vfs_request *request, const search_key &key)
{
    const uint8_t relation = request->relation;
    const bool upper = relation == VFS_LESS_EQUAL || relation == VFS_GREATER;
    tree_place place;
    if (tree_bound(tree, key, upper, &place) == -1) return -1;
    int result;
    if (relation == VFS_LESS || relation == VFS_LESS_EQUAL) {
        result = tree_prev(tree, &place, none);
    } else {
        --place.item; // the step comes back to it, unless it is empty or the leaf's end
        result = tree_next(tree, &place, none);
    }
    if (result == -1) return -1;
    if (result == 1) return not_found(request);
    const vfs_buffer *leaf = node_fetch(tree, place.node);
    if (leaf == nullptr) return -1;
    if (relation == VFS_EQUAL && !same_key(leaf, place.item, key)) return not_found(request);
    tree.context->node = place.node;
    tree.context->item = place.item;
    return tree_fill(tree, request, place, static_cast<uint64_t>(tree.get(key_entry_tsn)));
}

} // namespace

vfs_buffer *tree_descend(const index_tree &tree, const search_key &key, bool upper)
{
    uint64_t address = tree.get(key_entry_root);
    for (uint64_t level = tree.get(key_entry_depth);; --level) {
        vfs_buffer *node = descend_to(tree, address, level);
        if (node == nullptr || level == 1) return node;
        const uint64_t item = upper ? node_upper_bound(node, key) : node_lower_bound(node, key);
        address = entry_address(node, item == 0 ? 0 : item - 1);
    }
}

int tree_bound(const index_tree &tree, const search_key &key, bool upper, tree_place *place)
{
    vfs_buffer *leaf = hinted_leaf(tree, key, upper);
    // Without equal keys the last separator not above the key leads to it; among them, a run may begin further left.
    if (leaf == nullptr) leaf = tree_descend(tree, key, upper || !tree.held_duplicates());
    if (leaf == nullptr) return -1;
    *place = {leaf->offset, upper ? node_upper_bound(leaf, key) : node_lower_bound(leaf, key)};
    tree.context->node = place->node;
    tree.context->item = place->item;
    return 0;
}

int tree_seek(const index_tree &tree, const search_key &key, uint64_t offset, tree_place *place)
{
    const auto not_there = [] {
        errno = ESPIPE;
        return 1;
    };
    if (tree.get(key_entry_entries) == 0 || offset == none) return not_there();
    // Where the file position or the last search was, as a rule.
    const file_position &position = tree.file->position;
    const tree_place guesses[] = {{position.key_number == tree.key ? position.node : none, position.item},
                                  {tree.context->node, tree.context->item}};
    for (const tree_place &guess : guesses) {
        const int named = names_record(tree, guess, key, offset);
        if (named == -1) return -1;
        if (named == 0) continue;
        *place = guess;
        return 0;
    }
    if (key.compare(tree.low()) < 0 || key.compare(tree.high()) > 0) return not_there();
    const bool run = tree.held_duplicates();
    const vfs_buffer *leaf = run ? descend_by_offset(tree, key, offset) : tree_descend(tree, key, true);
    if (leaf == nullptr) return -1;
    if (scan_leaf(leaf, key, offset, place) != 1) {
        if (!run) return not_there();
        const int scanned = scan_run(tree, key, offset, place);
        if (scanned != 0) return scanned;
    }
    tree.context->node = place->node;
    tree.context->item = place->item;
    return 0;
}

int key_locate(vfs_file *file, vfs_request *request)
{
    index_tree tree;
    if (tree_open(file, request->key_number, &tree) == -1) return -1;
    const uint8_t relation = request->relation;
    if (relation > VFS_GREATER || tree.get(key_entry_entries) == 0) return not_found(request);
    const search_key key = request_key(tree, request);
    if (key.compare(tree.low()) < 0) {
        if (relation <= VFS_EQUAL) return not_found(request);
        return tree_first(file, request);
    }
    if (key.compare(tree.high()) > 0) {
        if (relation >= VFS_EQUAL) return not_found(request);
        return tree_last(file, request);
    }
    return locate(tree, request, key);
}

int rrn_locate(vfs_file *file, vfs_request *request)
{
    index_tree tree;
    if (tree_open(file, request->key_number, &tree) == -1) return -1;
    if (request->relation > VFS_GREATER || tree.get(key_entry_entries) == 0) return not_found(request);
    const search_key key = request_key(tree, request);
    if (key.compare(tree.low()) < 0 || key.compare(tree.high()) > 0) return not_found(request);
    return locate(tree, request, key);
}

int tree_seek_record(vfs_file *file, vfs_request *request)
{
    index_tree tree;
    if (tree_open(file, request->key_number, &tree) == -1) return -1;
    tree_place place;
    const int found = tree_seek(tree, request_key(tree, request), request->record_offset, &place);
    if (found != 0) return found;
    request->node = place.node;
    request->item = place.item;
    request->stamp = static_cast<uint64_t>(tree.get(key_entry_tsn));
    return 0;
}

int run_edge(vfs_file *file, vfs_request *request, bool behind)
{
    index_tree tree;
    if (tree_open(file, request->key_number, &tree) == -1) return -1;
    tree_place place;
    if (tree_bound(tree, request_key(tree, request), behind, &place) == -1) return -1;
    request->node = place.node;
    request->item = place.item;
    return 0;
}

int entry_set_address(vfs_file *file, vfs_request *request, uint64_t offset)
{
    index_tree tree;
    if (tree_open(file, request->key_number, &tree) == -1) return -1;
    tree_place place;
    if (tree_seek(tree, request_key(tree, request), request->record_offset, &place) != 0) return -1;
    vfs_buffer *leaf = node_edit(tree, place.node);
    if (leaf == nullptr) return -1;
    store_u64(address_place(leaf, place.item), offset);
    file->tsn += 1;
    request->node = place.node;
    request->item = place.item;
    file_position &position = file->position;
    if (position.side == position_side::entry && position.key_number == tree.key &&
        position.record_offset == request->record_offset)
        position.record_offset = offset;
    return 0;
}
