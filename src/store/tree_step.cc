// Stepping through the leaves in key order, and the step of a sequential read from the file position. See tree.h.
#include "store/node.h"
#include "store/slots.h"
#include "store/tree.h"
#include "util/errors.h"

#include <cstdio>

namespace {

int at_end(vfs_request *request)
{
    request->flags |= VFS_FLAG_AT_END;
    errno = ESPIPE;
    return 1;
}

void key_copy_out(const vfs_buffer *leaf, uint64_t item, vfs_request *request, bool numbers)
{
    const std::byte *key = key_place(leaf, item);
    const uint64_t width = node_get(leaf, node_key_width);
    if (numbers)
        request->rrn = load_u64(key);
    else if (width == 8) // as one word
        std::memcpy(request->key, key, 8);
    else
        std::memcpy(request->key, key, width);
}

// Starts reading the leaf behind the one just entered. Only where a read can go on while the caller works.
void read_ahead(const index_tree &tree, uint64_t from, tree_place place, bool forward)
{
    if (place.node == from || (tree.cache()->mode & cache_synchronous) != 0) return;
    const vfs_buffer *leaf = node_fetch(tree, place.node);
    if (leaf == nullptr) return;
    const uint64_t beyond = node_get(leaf, forward ? node_right : node_left);
    const bool aligned = beyond % metadata_unit == 0;
    if (beyond != 0 && aligned && address_check(tree.file, beyond, index_block_bytes) == 0)
        cache_prefetch(tree.cache(), beyond);
}

// The cursor of the file position, when it still stands where its identity says: node none when it does not.
tree_place position_cursor(const index_tree &tree)
{
    const file_position &position = tree.file->position;
    const tree_place lost{none, none};
    if (position.node == none || position.key_number != tree.key) return lost;
    if (position.side == position_side::gap) return {position.node, position.item};
    const vfs_buffer *leaf = leaf_fetch(tree, position.node);
    if (leaf == nullptr || position.item >= node_entries(leaf) ||
        entry_address(leaf, position.item) != position.record_offset)
        return lost;
    return {position.node, position.item};
}

// The place in front of the entry of a record that stood behind the position, or behind the one of a record that stood
// before it: 0, 1 when there is no such record any more, -1.
int beside_record(const index_tree &tree, const search_key &key, uint64_t offset, bool stood_behind, bool forward,
                  tree_place *place)
{
    if (offset == none || offset == 0) return 1;
    const int found = tree_seek(tree, key, offset, place);
    // A step forward begins on the entry before the place, a step backward on the one behind it.
    if (found == 0 && stood_behind == forward) place->item += forward ? none : 1;
    return found;
}

// Among equal keys whose own record is gone: the place to step from is beside the nearest record that stood on the
// wanted side. When that one is not found (it may have moved) the other neighbour tells as well; after both, the next
// ones on the wanted side, else the first record with a higher number, which was written later (the last one with a
// lower number).
int beside_neighbour(const index_tree &tree, const search_key &key, bool forward, tree_place *place)
{
    const file_position &position = tree.file->position;
    const uint64_t *const ahead = forward ? position.after : position.before;
    const uint64_t *const passed = forward ? position.before : position.after;
    int found = beside_record(tree, key, ahead[0], forward, forward, place);
    if (found == 1) found = beside_record(tree, key, passed[0], !forward, forward, place);
    for (uint64_t i = 1; found == 1 && i < std::size(position.after) && ahead[i - 1] != none; ++i)
        found = beside_record(tree, key, ahead[i], forward, forward, place);
    if (found != 1) return found;
    if (tree_bound(tree, key, !forward, place) == -1) return -1;
    tree_place at = *place;
    if (forward) --at.item;
    for (;;) {
        const int step = forward ? tree_next(tree, &at, none) : tree_prev(tree, &at, none);
        if (step == -1) return -1;
        const vfs_buffer *leaf = step == 0 ? node_fetch(tree, at.node) : nullptr;
        if (step == 0 && leaf == nullptr) return -1;
        if (step == 1 || key.compare(key_place(leaf, at.item)) != 0) {
            if (tree_bound(tree, key, forward, place) == -1) return -1;
            if (forward) --place->item;
            return 0;
        }
        slot_head head;
        if (slot_head_read(tree.file, entry_address(leaf, at.item), &head) == -1) return -1;
        if (forward ? head.rrn > position.rrn : head.rrn < position.rrn) {
            *place = {at.node, forward ? at.item - 1 : at.item + 1};
            return 0;
        }
    }
}

// The cursor to step from, found again by what the position is: its record, or the place where that record was.
int find_again(const index_tree &tree, bool forward, tree_place *place)
{
    const file_position &position = tree.file->position;
    const search_key key =
        search_key_of(tree, tree.numbers ? reinterpret_cast<const std::byte *>(&position.rrn) : position.key);
    if (tree.held_duplicates()) {
        const bool stands = position.side == position_side::entry;
        const int untouched = errno;
        int found = stands ? tree_seek(tree, key, position.record_offset, place) : 1;
        if (found == 1) found = beside_neighbour(tree, key, forward, place);
        if (found != -1) errno = untouched; // who is gone is no failure
        return found;
    }
    // At a gap, an equal key came in after the record had gone: before the gap, or behind it where equal keys may be.
    const bool behind = position.side == position_side::gap ? !tree.allows_duplicates() : forward;
    if (tree_bound(tree, key, behind, place) == -1) return -1;
    if (forward) --place->item;
    return 0;
}

// Where the step begins: 0, 1 when there is nothing on that side, -1.
int step_origin(const index_tree &tree, bool forward, tree_place *place)
{
    const file_position &position = tree.file->position;
    switch (position.side) {
    case position_side::before_first: *place = {tree.get(key_entry_first_leaf), none}; return forward ? 0 : 1;
    case position_side::after_last: *place = {tree.get(key_entry_last_leaf), none - 1}; return forward ? 1 : 0;
    case position_side::entry:
    case position_side::gap: break;
    }
    *place = position_cursor(tree);
    if (place->node == none) {
        const bool known = position.identified && position.key_number == tree.key;
        return known ? find_again(tree, forward, place) : fail(EINVAL);
    }
    if (forward && position.side == position_side::gap) --place->item;
    return 0;
}

// After a deletion of the current record the forward step takes the entry now in its place, and says so.
void report_reread(const index_tree &tree, vfs_request *request)
{
    vfs_file *file = tree.file;
    const file_position &position = file->position;
    file->current.flags2 &= static_cast<uint8_t>(~VFS_FLAG2_REREAD);
    request->flags2 &= static_cast<uint8_t>(~VFS_FLAG2_REREAD);
    uint64_t stamp = 0;
    if (position.node != none && position.key_number == tree.key) {
        const vfs_buffer *leaf = leaf_fetch(tree, position.node);
        if (leaf != nullptr && position.item < node_entries(leaf)) stamp = entry_stamp(leaf, position.item);
    }
    std::fprintf(stderr, "re-reading current item %ld browse %d tsn %ld vs %ld\n", static_cast<long>(position.item),
                 (request->flags & VFS_FLAG_BROWSE) != 0 ? 1 : 0, static_cast<long>(position.stamp),
                 static_cast<long>(stamp));
}

int read_step(vfs_file *file, vfs_request *request, bool forward)
{
    index_tree tree;
    if (tree_open(file, request->key_number, &tree) == -1) return -1;
    const uint8_t reread = VFS_FLAG2_REREAD;
    if (forward && ((file->current.flags2 | request->flags2) & reread) != 0) report_reread(tree, request);
    file->current.flags2 &= static_cast<uint8_t>(~reread);
    request->flags2 &= static_cast<uint8_t>(~reread);
    if (tree.get(key_entry_entries) == 0) return at_end(request);
    const file_position &position = file->position;
    const bool browse = (request->flags & VFS_FLAG_BROWSE) != 0;
    const uint64_t filter = browse ? position.stamp : none; // only a browse passes over what came in since it began
    tree_place place{none, none};
    int result = step_origin(tree, forward, &place);
    if (result == 0) {
        const uint64_t from = place.node;
        result = forward ? tree_next(tree, &place, filter) : tree_prev(tree, &place, filter);
        if (result == 0) {
            const uint64_t stamp = browse ? position.stamp : static_cast<uint64_t>(tree.get(key_entry_tsn));
            result = tree_fill(tree, request, place, stamp);
            if (result == 0) read_ahead(tree, from, place, forward);
            return result;
        }
    }
    return result == 1 ? at_end(request) : -1;
}

// The item beside the position in the leaf at hand, for a request that steps in the position's tree and has nothing
// to re-read. Null when the step takes more than looking.
inline const vfs_buffer *neighbour_at_hand(const vfs_file *file, const vfs_request *request, bool forward,
                                           uint64_t *item)
{
    const file_position &position = file->position;
    if (position.key_number != request->key_number ||
        ((file->current.flags2 | request->flags2) & VFS_FLAG2_REREAD) != 0)
        return nullptr;
    const vfs_buffer *leaf = tree_leaf_at_hand(file);
    if (leaf == nullptr) return nullptr;
    *item = forward ? position.item + 1 : position.item - 1;
    const uint64_t filter = (request->flags & VFS_FLAG_BROWSE) != 0 ? position.stamp : none;
    return *item < node_entries(leaf) && acceptable(leaf, *item, filter) ? leaf : nullptr;
}

inline int take_neighbour(const vfs_file *file, vfs_request *request, const vfs_buffer *leaf, uint64_t item)
{
    request->record_offset = entry_address(leaf, item);
    key_copy_out(leaf, item, request, !file->indexed());
    request->node = leaf->offset;
    request->item = item;
    request->stamp = (request->flags & VFS_FLAG_BROWSE) != 0
                         ? file->position.stamp
                         : static_cast<uint64_t>(key_entry_get(file, request->key_number, key_entry_tsn));
    return 0;
}

int edge(vfs_file *file, vfs_request *request, bool first)
{
    index_tree tree;
    if (tree_open(file, request->key_number, &tree) == -1) return -1;
    if (tree.get(key_entry_entries) == 0) return at_end(request);
    tree_place place =
        first ? tree_place{tree.get(key_entry_first_leaf), none} : tree_place{tree.get(key_entry_last_leaf), none - 1};
    const int result = first ? tree_next(tree, &place, none) : tree_prev(tree, &place, none);
    if (result == 1) return at_end(request);
    if (result == -1) return -1;
    return tree_fill(tree, request, place, static_cast<uint64_t>(tree.get(key_entry_tsn)));
}

// Has the acceptable entry beside the cursor the same key as the entry at the cursor?
int neighbour_is_equal(const index_tree &tree, const search_key &key, tree_place place, uint64_t stamp, bool forward)
{
    const int step = forward ? tree_next(tree, &place, stamp) : tree_prev(tree, &place, stamp);
    if (step != 0) return step == 1 ? 0 : -1;
    const vfs_buffer *leaf = node_fetch(tree, place.node);
    if (leaf == nullptr) return -1;
    return key.compare(key_place(leaf, place.item)) == 0 ? 1 : 0;
}

} // namespace

int tree_next(const index_tree &tree, tree_place *place, uint64_t stamp)
{
    uint64_t item = place->item + 1; // from before item 0 (none) to item 0
    uint64_t address = place->node, from = none;
    for (uint64_t left = tree.get(key_entry_leaves);; --left) {
        const vfs_buffer *leaf = leaf_fetch(tree, address);
        if (leaf == nullptr) return -1;
        if (left == 0 || (from != none && node_get(leaf, node_left) != from)) return tree_damaged(tree);
        for (const uint64_t ent = node_entries(leaf); item < ent; ++item) {
            if (!acceptable(leaf, item, stamp)) continue;
            *place = {address, item};
            return 0;
        }
        from = address;
        address = node_get(leaf, node_right);
        if (address == 0) return 1;
        item = 0;
    }
}

int tree_prev(const index_tree &tree, tree_place *place, uint64_t stamp)
{
    uint64_t item = place->item == none ? 0 : place->item; // entries below it are before the cursor
    uint64_t address = place->node, from = none;
    for (uint64_t left = tree.get(key_entry_leaves);; --left) {
        const vfs_buffer *leaf = leaf_fetch(tree, address);
        if (leaf == nullptr) return -1;
        if (left == 0 || (from != none && node_get(leaf, node_right) != from)) return tree_damaged(tree);
        const uint64_t ent = node_entries(leaf);
        for (item = item < ent ? item : ent; item != 0;) {
            if (!acceptable(leaf, --item, stamp)) continue;
            *place = {address, item};
            return 0;
        }
        from = address;
        address = node_get(leaf, node_left);
        if (address == 0) return 1;
        item = none;
    }
}

int tree_fill(const index_tree &tree, vfs_request *request, tree_place place, uint64_t stamp)
{
    const vfs_buffer *leaf = node_fetch(tree, place.node);
    if (leaf == nullptr) return -1;
    request->record_offset = entry_address(leaf, place.item);
    key_copy_out(leaf, place.item, request, tree.numbers);
    request->node = place.node;
    request->item = place.item;
    request->stamp = stamp;
    return 0;
}

int tree_first(vfs_file *file, vfs_request *request)
{
    return edge(file, request, true);
}
int tree_last(vfs_file *file, vfs_request *request)
{
    return edge(file, request, false);
}

const vfs_buffer *tree_leaf_at_hand(const vfs_file *file)
{
    const file_position &position = file->position;
    if (position.side != position_side::entry || position.node == none) return nullptr;
    const vfs_buffer *leaf = file->contexts[position.key_number].cache.curr;
    if (leaf == nullptr || leaf->offset != position.node || !leaf->checked || leaf->done == 0 || !is_leaf(leaf))
        return nullptr;
    const bool there =
        position.item < node_entries(leaf) && entry_address(leaf, position.item) == position.record_offset;
    return there ? leaf : nullptr;
}

int tree_read_next(vfs_file *file, vfs_request *request)
{
    uint64_t item;
    const vfs_buffer *leaf = neighbour_at_hand(file, request, true, &item);
    return leaf != nullptr ? take_neighbour(file, request, leaf, item) : read_step(file, request, true);
}

int tree_read_prev(vfs_file *file, vfs_request *request)
{
    uint64_t item;
    const vfs_buffer *leaf = neighbour_at_hand(file, request, false, &item);
    return leaf != nullptr ? take_neighbour(file, request, leaf, item) : read_step(file, request, false);
}

int tree_has_duplicate(vfs_file *file, const vfs_request *request)
{
    index_tree tree;
    if (tree_open(file, request->key_number, &tree) == -1) return -1;
    if (!tree.held_duplicates()) return 0;
    if (tree.get(key_entry_entries) == 0 || request->node == none) return fail(ESPIPE);
    const tree_place place{request->node, request->item};
    vfs_buffer *leaf = leaf_fetch(tree, place.node);
    if (leaf == nullptr) return -1;
    if (place.item >= node_entries(leaf)) return fail(ESPIPE);
    const pinned_buffer pin(leaf);
    const search_key key = search_key_of(tree, key_place(leaf, place.item));
    if (request->mode != VFS_POS_PREV) {
        const int next = neighbour_is_equal(tree, key, place, request->stamp, true);
        if (next != 0 || request->mode == VFS_POS_NEXT) return next;
    }
    return neighbour_is_equal(tree, key, place, request->stamp, false);
}

int edge_keys_update(const index_tree &tree, bool low, bool high)
{
    if (tree.get(key_entry_entries) == 0) {
        const uint64_t above_all = none, below_all = 0;
        for (uint64_t at = tree.entry; at < tree.entry + tree.width; at += 8) {
            header_change(tree.file, at + tree.get(key_entry_low_area), &above_all, 8);
            header_change(tree.file, at + tree.get(key_entry_high_area), &below_all, 8);
        }
        return 0;
    }
    for (const bool first : {true, false}) {
        if (first ? !low : !high) continue;
        tree_place place = first ? tree_place{tree.get(key_entry_first_leaf), none}
                                 : tree_place{tree.get(key_entry_last_leaf), none - 1};
        const int step = first ? tree_next(tree, &place, none) : tree_prev(tree, &place, none);
        const vfs_buffer *leaf = step == 0 ? node_fetch(tree, place.node) : nullptr;
        if (leaf == nullptr) return step == 1 ? tree_damaged(tree) : -1;
        if (first)
            low_key_put(tree.file, tree.key, key_place(leaf, place.item), tree.width);
        else
            high_key_put(tree.file, tree.key, key_place(leaf, place.item), tree.width);
    }
    return 0;
}
