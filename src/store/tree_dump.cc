// Reports about the trees: the dump of one tree, the statistics of all, and the renumbering of their stamps.
// See tree.h. Everything goes to standard error.
#include "store/node.h"
#include "store/tree.h"
#include "util/errors.h"

#include <cstdio>

#pragma GCC diagnostic ignored "-Wformat" // the grouping flag ' is POSIX, which -Wpedantic does not know

namespace {

double percent(uint64_t part, uint64_t capacity, uint64_t nodes)
{
    return 100.0 * static_cast<double>(part) / (static_cast<double>(capacity) * static_cast<double>(nodes));
}
double leaf_fill(const index_tree &tree)
{
    return percent(tree.get(key_entry_entries), tree.get(key_entry_leaf_capacity), tree.get(key_entry_leaves));
}
double branch_fill(const index_tree &tree)
{
    return percent(tree.get(key_entry_branch_entries), tree.get(key_entry_branch_capacity),
                   tree.get(key_entry_branches));
}

long word(uint64_t value)
{
    return static_cast<long>(value);
}
long long count_of(uint64_t value)
{
    return static_cast<long long>(value);
}

void print_summary(const index_tree &tree)
{
    const auto get = [&](field<uint64_t> at) { return word(tree.get(at)); };
    const auto many = [&](field<uint64_t> at) { return count_of(tree.get(at)); };
    std::fprintf(stderr, "\nTree information for key #%ld:\n", word(tree.key));
    std::fprintf(stderr, "  depth          %ld\n", get(key_entry_depth));
    std::fprintf(stderr, "  branches       %ld entries %'lld %2.2f%%\n", get(key_entry_branches),
                 many(key_entry_branch_entries), branch_fill(tree));
    std::fprintf(stderr, "  leaves         %ld entries %'lld %2.2f%%\n", get(key_entry_leaves), many(key_entry_entries),
                 leaf_fill(tree));
    std::fprintf(stderr, "  branch keys    %ld - %ld\n", get(key_entry_branch_half), get(key_entry_branch_capacity));
    std::fprintf(stderr, "  leaf   keys    %ld - %ld\n", get(key_entry_leaf_half), get(key_entry_leaf_capacity));
    std::fprintf(stderr, "  root           @0x%lx\n", tree.get(key_entry_root));
    std::fprintf(stderr, "  first leaf     @0x%lx\n", tree.get(key_entry_first_leaf));
    std::fprintf(stderr, "  last leaf      @0x%lx\n", tree.get(key_entry_last_leaf));
    std::fprintf(stderr, "  tsn            %'lld\n", static_cast<long long>(tree.get(key_entry_tsn)));
    std::fprintf(stderr, "  keylen         %ld\n", word(tree.length));
    std::fprintf(stderr, "  dirty          %d\n", is_dirty(tree.file->meta.hdrb) ? 1 : 0);
}

void print_text_key(const index_tree &tree, const char *label, const std::byte *key)
{
    const int width = static_cast<int>(tree.length);
    std::fprintf(stderr, "%s%*.*s\n", label, width, width, reinterpret_cast<const char *>(key));
}

void print_edges(const index_tree &tree)
{
    if (tree.numbers) {
        std::fprintf(stderr, "  low  rrn       %ld\n", word(load_u64(tree.low())));
        std::fprintf(stderr, "  high rrn       %ld\n", word(load_u64(tree.high())));
        return;
    }
    print_text_key(tree, "  low  key       ", tree.low());
    print_text_key(tree, "  high key       ", tree.high());
}

void print_node(const index_tree &tree, const vfs_buffer *node)
{
    const bool leaf = is_leaf(node);
    const auto get = [&](field<uint64_t> at) { return word(node_get(node, at)); };
    std::fprintf(stderr,
                 "%s 0x%lx:  left 0x%lx  right 0x%lx  parent 0x%lx  ent %ld act %ld max %ld  length %ld  offset "
                 "0x%lx  dirty %d\n",
                 leaf ? "Leaf" : "Branch", node->offset, node_get(node, node_left), node_get(node, node_right),
                 node_get(node, node_parent), get(node_ent), get(node_act), get(node_max), word(tree.length),
                 node_get(node, node_key_array), is_dirty(node) ? 1 : 0);
    for (uint64_t i = 0; i < node_entries(node); ++i) {
        std::fprintf(stderr, "   %ld: 0x%lx ", word(i), entry_address(node, i));
        if (leaf) std::fprintf(stderr, "tsn 0x%lx ", entry_stamp(node, i));
        if (tree.numbers)
            std::fprintf(stderr, "key %ld\n", word(load_u64(key_place(node, i))));
        else
            print_text_key(tree, "key ", key_place(node, i));
    }
}

// Null after saying why: the dump ends there.
const vfs_buffer *dump_fetch(const index_tree &tree, uint64_t address)
{
    const vfs_buffer *node = node_fetch(tree, address);
    if (node != nullptr) return node;
    if (errno == ENOEXEC) {
        std::fprintf(stderr, "Oops bad node @0x%lx...\n", address);
        cache_dump(tree.cache(), true);
    } else {
        std::fprintf(stderr, "obtain(0x%lx)=%d\n", address, -1);
    }
    return nullptr;
}

// First node of each level from the root down; `budget`: nodes that the tree may have. -1 when one is not there.
int find_levels(const index_tree &tree, uint64_t *first, int *levels, uint64_t budget)
{
    uint64_t address = tree.get(key_entry_root);
    for (*levels = 0; static_cast<uint64_t>(*levels) < tree_depth_limit;) {
        const vfs_buffer *node = dump_fetch(tree, address);
        while (node != nullptr && node_get(node, node_left) != 0 && budget-- != 0)
            node = dump_fetch(tree, node_get(node, node_left));
        if (node == nullptr) return -1;
        first[(*levels)++] = node->offset;
        if (is_leaf(node)) return 0;
        address = entry_address(node, 0);
    }
    return 0;
}

// Renumbers one tree: every entry visible to every cursor.
int renumber_tree(vfs_file *file, uint64_t key)
{
    index_tree tree;
    if (tree_open(file, key, &tree) == -1) return -1;
    tree.put(key_entry_tsn, int64_t{0});
    uint64_t address = tree.get(key_entry_first_leaf);
    for (uint64_t left = tree.get(key_entry_leaves); address != 0; --left) {
        if (left == 0) return tree_damaged(tree);
        if (leaf_fetch(tree, address) == nullptr) return -1;
        vfs_buffer *leaf = node_edit(tree, address);
        if (leaf == nullptr) return -1;
        std::memset(stamp_place(leaf, 0), 0, 8 * node_get(leaf, node_max));
        address = node_get(leaf, node_right);
    }
    return 0;
}

// Blocks found on a list of index blocks in the Meta cache, as far as it makes sense.
uint64_t list_length(vfs_file *file, uint64_t address)
{
    const uint64_t most = file->end_of_file / index_block_bytes;
    uint64_t found = 0;
    while (address != 0 && found < most && address_check(file, address, index_block_bytes) == 0) {
        const vfs_buffer *block = cache_fetch_at(&file->meta, address);
        if (block == nullptr || block->offset != address) break;
        address = image_get(buffer_bytes(block), frame_link);
        ++found;
    }
    return found;
}

} // namespace

int tree_damaged(const index_tree &tree)
{
    vfs_request request{};
    request.key_number = tree.key;
    static thread_local bool dumping; // a dump that meets the damage is not dumped again
    if (!dumping) {
        dumping = true;
        tree_dump(tree.file, &request);
        dumping = false;
    }
    return damaged();
}

int tree_dump(vfs_file *file, vfs_request *request)
{
    index_tree tree;
    if (tree_open(file, request->key_number, &tree) == -1) return -1;
    print_summary(tree);
    if (tree.get(key_entry_entries) == 0 || tree.get(key_entry_root) == 0) {
        std::fprintf(stderr, "The tree is empty!\n");
        return 0;
    }
    print_edges(tree);
    uint64_t budget = tree.get(key_entry_leaves) + tree.get(key_entry_branches);
    uint64_t first[tree_depth_limit], printed = 0;
    int levels;
    if (find_levels(tree, first, &levels, budget) == -1) return -1;
    std::fprintf(stderr, "  levels         %d\n", levels);
    for (int level = 0; level < levels; ++level) {
        std::fprintf(stderr, "\nTree level %d of %d\n", level + 1, levels);
        for (uint64_t address = first[level]; address != 0 && budget != 0; --budget) {
            const vfs_buffer *node = dump_fetch(tree, address);
            if (node == nullptr) return -1;
            print_node(tree, node);
            if (is_leaf(node)) printed += node_entries(node);
            address = node_get(node, node_right);
        }
    }
    std::fprintf(stderr, "Tree done... %'lld entries fill rate %3.2f %3.2f %%\n", count_of(printed), leaf_fill(tree),
                 branch_fill(tree));
    return 0;
}

void header_statistics(vfs_file *file)
{
    if (!file->trees()) return;
    const uint64_t selected = file->current_key;
    std::fprintf(stderr, "tsn %'lld\n", static_cast<long long>(file->tsn));
    std::fprintf(stderr, "dsn %'lld\n", count_of(file->dsn));
    std::fprintf(stderr, "asn %'lld\n", count_of(file->asn));
    std::fprintf(stderr, "records %'lld deleted %ld\n", count_of(file->records), word(file->deleted));
    std::fprintf(stderr, "holes %'lld @0x%lx\n", count_of(header_get(file, header_holes)),
                 header_get(file, header_first_hole));
    std::fprintf(stderr, "pad bytes %'lld\n", count_of(header_get(file, header_pad_bytes)));
    std::fprintf(stderr, "Free Index blocks %'lld %'lld\n", count_of(header_get(file, header_free_index_blocks)),
                 count_of(list_length(file, header_get(file, header_free_index_list))));
    std::fprintf(stderr, "Free Data  blocks %'lld %'lld\n", count_of(header_get(file, header_free_slot_blocks)),
                 count_of(list_length(file, header_get(file, header_free_slot_list))));
    for (uint64_t key = 0; key < file->tree_count; ++key) {
        index_tree tree;
        if (tree_open(file, key, &tree) == -1) continue;
        std::fprintf(stderr,
                     "tree %ld: entries %'lld depth %ld leaves %'lld branches %'lld  tsn %'lld fill %3.2f %3.2f %%\n",
                     word(key), count_of(tree.get(key_entry_entries)), word(tree.get(key_entry_depth)),
                     count_of(tree.get(key_entry_leaves)), count_of(tree.get(key_entry_branches)),
                     static_cast<long long>(tree.get(key_entry_tsn)), leaf_fill(tree), branch_fill(tree));
        vfs_request request{};
        request.key_number = key;
        tree_dump(file, &request);
    }
    file->current_key = selected;
}

int tsn_renumber(vfs_file *file)
{
    bool entries = false;
    for (uint64_t key = 0; key < file->tree_count; ++key)
        entries = entries || key_entry_get(file, key, key_entry_entries) != 0;
    if (change_begin(file) == -1) return -1;
    const uint64_t selected = file->current_key;
    if (entries) std::fprintf(stderr, "Please be patient, we are renumbering the indices for %s\n", file->path);
    // Empty trees too: a sequence number left negative would call for this at every insertion.
    for (uint64_t key = 0; key < file->tree_count; ++key)
        if (renumber_tree(file, key) == -1) return -1;
    if (file->position.stamp != none) file->position.stamp = 0;
    file->tsn = 1;
    header_put(file, header_tsn, file->tsn);
    file->current_key = selected;
    if (!entries) {
        errno = ESPIPE;
        return 1;
    }
    std::fprintf(stderr, "Thank you for your patience.\n"
                         "We now return you to your regularly scheduled programming.\n");
    return 0;
}
