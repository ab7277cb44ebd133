// Nodes of the index trees: access to their bytes, fetching and changing them, binary search, entries put in, taken
// out and moved. Owns what a node means; which node to change, and in which order, is decided by the tree_*.cc files.
// May use cache/ and header.h; must not know record slots or operations.
//
// A node pointer (vfs_buffer *) is good until the next fetch from the same cache unless the buffer is pinned.
#ifndef VFS_STORE_NODE_H
#define VFS_STORE_NODE_H

#include "store/header.h"
#include "store/vfs_file.h"

#include <bit>

// No tree grows deeper than this; a file that claims to is damaged.
inline constexpr uint64_t tree_depth_limit = 64;

// One tree, for the length of one call: its context and the constants of its geometry.
struct index_tree {
    vfs_file *file;
    index_context *context;
    uint64_t key;    // key number
    uint64_t entry;  // offset of the key entry in the header
    uint64_t length; // of a key: what is compared
    uint64_t width;  // of a key in a node: zero-padded
    bool numbers;    // keys are relative record numbers, compared as u64

    vfs_cache *cache() const { return &context->cache; }
    template <typename T> T get(field<T> at) const
    {
        return header_get(file, field<T>{static_cast<uint32_t>(entry) + at.offset});
    }
    template <typename T> void put(field<T> at, T value) const
    {
        header_put(file, field<T>{static_cast<uint32_t>(entry) + at.offset}, value);
    }
    bool held_duplicates() const { return (get(key_entry_flags) & key_flag_held_duplicate) != 0; }
    bool allows_duplicates() const { return (get(key_entry_flags) & key_flag_duplicates) != 0; }
    const std::byte *low() const { return file->meta.hdrb->data + entry + get(key_entry_low_area); }
    const std::byte *high() const { return file->meta.hdrb->data + entry + get(key_entry_high_area); }
};

// Selects the tree and fills `tree`. -1 with ERANGE, or when its context cannot be opened.
[[nodiscard]] int tree_open(vfs_file *file, uint64_t key, index_tree *tree);

// ---- Bytes of a node ----

template <typename T> T node_get(const vfs_buffer *node, field<T> at)
{
    return image_get(buffer_bytes(node), at);
}
template <typename T> void node_put(vfs_buffer *node, field<T> at, T value)
{
    image_put(buffer_bytes_for_update(node), at, value);
}
inline bool is_leaf(const vfs_buffer *node)
{
    return node_get(node, node_type) == item_leaf;
}
inline uint64_t node_entries(const vfs_buffer *node)
{
    return node_get(node, node_ent);
}
inline bool is_full(const vfs_buffer *node)
{
    return node_get(node, node_ent) >= node_get(node, node_max);
}

inline std::byte *address_place(const vfs_buffer *node, uint64_t item)
{
    return node->data + node_head_bytes + 8 * item;
}
inline std::byte *stamp_place(const vfs_buffer *node, uint64_t item)
{
    return node->data + node_get(node, node_stamp_array) + 8 * item;
}
inline std::byte *key_place(const vfs_buffer *node, uint64_t item)
{
    return node->data + node_get(node, node_key_array) + item * node_get(node, node_key_width);
}
inline uint64_t entry_address(const vfs_buffer *node, uint64_t item)
{
    return load_u64(address_place(node, item));
}
inline uint64_t entry_stamp(const vfs_buffer *node, uint64_t item)
{
    return load_u64(stamp_place(node, item));
}

// An entry that a step may stop at: it has a record, and is not newer than the cursor's stamp.
inline bool acceptable(const vfs_buffer *leaf, uint64_t item, uint64_t stamp)
{
    return entry_address(leaf, item) != none && (stamp == none || stamp >= entry_stamp(leaf, item));
}

// ---- Comparing and searching ----

// A key with its first 8 bytes as a number that compares like them. Most comparisons end there.
struct search_key {
    const std::byte *bytes;
    uint64_t length;
    uint64_t prefix;
    uint32_t shift; // drops what lies behind a key shorter than 8 bytes
    bool numbers;

    uint64_t prefix_at(const std::byte *at) const
    {
        const uint64_t word = load_u64(at);
        if (numbers) return word;
        return (std::endian::native == std::endian::little ? __builtin_bswap64(word) : word) >> shift;
    }
    // Below, at or above zero as this key is below, equal to or above the one at `at`.
    int compare(const std::byte *at) const
    {
        const uint64_t other = prefix_at(at);
        if (prefix != other) return prefix < other ? -1 : 1;
        return length <= 8 ? 0 : std::memcmp(bytes + 8, at + 8, length - 8);
    }
};

// `bytes` are `length` bytes at least; for numbers the u64 in memory.
search_key search_key_of(const index_tree &tree, const std::byte *bytes);
// The key that a request carries: its buffer, or its rrn.
search_key request_key(const index_tree &tree, const vfs_request *request);

uint64_t node_lower_bound(const vfs_buffer *node, const search_key &key); // first item not below the key
uint64_t node_upper_bound(const vfs_buffer *node, const search_key &key); // first item above the key

// ---- Fetching and changing ----

// The node at an address, read, and checked when it enters the cache; null with errno (ENOEXEC: not a node of this
// tree).
[[nodiscard]] vfs_buffer *node_fetch_slow(const index_tree &tree, uint64_t address);
[[nodiscard]] inline vfs_buffer *node_fetch(const index_tree &tree, uint64_t address)
{
    vfs_buffer *curr = tree.cache()->curr;
    if (curr != nullptr && curr->offset == address && curr->checked) [[likely]]
        return cache_fetch_at(tree.cache(), address);
    return node_fetch_slow(tree, address);
}
[[nodiscard]] vfs_buffer *leaf_fetch(const index_tree &tree, uint64_t address); // and it is a leaf
// The same, dirty.
[[nodiscard]] vfs_buffer *node_edit(const index_tree &tree, uint64_t address);

// Makes the freshly allocated block in `node` (dirty) an empty node of the tree.
void node_format(const index_tree &tree, vfs_buffer *node, item_type type);

// A cursor inside a tree.
struct tree_place {
    uint64_t node, item;
};

// ---- Entries. The nodes are dirty. All keep the file position's cursor right. ----

// Puts (key, address) in at `item`, with the tree's stamp, and counts it. The node has room.
void entry_insert(const index_tree &tree, vfs_buffer *node, uint64_t item, const std::byte *key, uint64_t address);
// Takes the entry out and counts that.
void entry_remove(const index_tree &tree, vfs_buffer *node, uint64_t item);
void entry_move_right(const index_tree &tree, vfs_buffer *from, vfs_buffer *to); // the last one becomes item 0
void entry_move_left(const index_tree &tree, vfs_buffer *from, vfs_buffer *to);  // the first one becomes the last

// ---- Branches ----

// The item of `parent` that leads to `child`, whose lowest key is `lowest`: identified by key and address. none, with
// the message, a dump and ENOEXEC, when the tree is damaged. `verb` begins the message.
[[nodiscard]] uint64_t child_item(const index_tree &tree, const vfs_buffer *parent, uint64_t child,
                                  const std::byte *lowest, const char *verb);
// Gives the entries that lead to `child` the new lowest key, up to the level where the child is not the first one.
// `child`, `from` and `to` stay where they are meanwhile (pinned). `hint`: it is the first node of its level.
[[nodiscard]] int separator_update(const index_tree &tree, const vfs_buffer *child, const std::byte *from,
                                   const std::byte *to, bool hint);

// Nodes held in the cache while a change that needs them all is prepared and made.
class node_pins {
public:
    node_pins() {} // the array is filled as far as `count_` says
    node_pins(const node_pins &) = delete;
    node_pins &operator=(const node_pins &) = delete;
    ~node_pins() { release(); }
    [[nodiscard]] int hold(vfs_buffer *node); // -1 when there are more than any tree needs
    void release();

private:
    vfs_buffer *pins_[8 * tree_depth_limit];
    uint32_t count_ = 0;
};

// Holds every ancestor of the node, after checking that each leads down to it.
[[nodiscard]] int hold_path(const index_tree &tree, const vfs_buffer *node, node_pins *pins, const char *verb);

// ---- Search (tree_search.cc) ----

// The leaf reached by the last branch entries not above (upper) or below (lower) the key; null with errno.
[[nodiscard]] vfs_buffer *tree_descend(const index_tree &tree, const search_key &key, bool upper);
// First entry not below the key (lower) or above it (upper): leaf and item, which may be the leaf's end. The leaf is
// current in the cache. 0 or -1.
[[nodiscard]] int tree_bound(const index_tree &tree, const search_key &key, bool upper, tree_place *place);
// The entry of exactly this key and record: 0, 1 (ESPIPE) or -1.
[[nodiscard]] int tree_seek(const index_tree &tree, const search_key &key, uint64_t offset, tree_place *place);

// ---- Steps (tree_step.cc) ----

// The next (previous) acceptable entry from the cursor: 0, 1 at the end (cursor unchanged), -1.
[[nodiscard]] int tree_next(const index_tree &tree, tree_place *place, uint64_t stamp);
[[nodiscard]] int tree_prev(const index_tree &tree, tree_place *place, uint64_t stamp);
// Record offset, key or rrn, and the cursor of the entry into the request. -1 with errno.
[[nodiscard]] int tree_fill(const index_tree &tree, vfs_request *request, tree_place place, uint64_t stamp);
// Takes the low and the high key area from the first and the last entry of the tree.
[[nodiscard]] int edge_keys_update(const index_tree &tree, bool low, bool high);

// ---- Reports (tree_dump.cc) ----

// Prints nothing itself: dumps the tree and reports damage. Returns -1 with ENOEXEC.
[[nodiscard]] int tree_damaged(const index_tree &tree);

#endif
