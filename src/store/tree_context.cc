// The contexts of the trees: one Index cache per key, opened when its tree is first used. See tree.h.
#include "store/node.h"
#include "store/tree.h"
#include "util/errors.h"

namespace {

uint64_t nodes_of(const vfs_file *file, uint64_t key)
{
    return key_entry_get(file, key, key_entry_leaves) + key_entry_get(file, key, key_entry_branches);
}

// How many nodes the context may hold: a path with its neighbours at least; with a memory budget, all of the tree.
void size_context(vfs_file *file, uint64_t key, vfs_cache *cache)
{
    const bool sequential = file->access_mode == VFS_ACCESS_SEQUENTIAL;
    uint64_t least = 3;
    if (!is_read_only(file) || !sequential) {
        least += key_entry_get(file, key, key_entry_depth);
        if (!is_read_only(file)) least += 7;
        if (!sequential) least += 10;
    }
    uint64_t most = least < 32 ? 32 : least;
    if (file->settings.cache_size != 0) {
        const uint64_t budget = file->settings.cache_size / index_block_bytes;
        const uint64_t wanted = nodes_of(file, key) + least;
        if (most < wanted) most = wanted < budget ? wanted : most < budget ? budget : most;
    }
    cache->min = static_cast<uint32_t>(least);
    cache->max = static_cast<uint32_t>(most);
}

int context_open(vfs_file *file, uint64_t key)
{
    index_context &context = file->contexts[key];
    vfs_cache *cache = &context.cache;
    const vfs_cache &meta = file->meta;
    cache_reset(cache, file, cache_index);
    cache->name = meta.name;
    cache->rfd = meta.rfd;
    cache->wfd = meta.wfd;
    cache->engine = meta.engine;
    cache->mode = meta.mode;
    cache->mmap_base = meta.mmap_base;
    cache->flags |= meta.flags & (cache_preallocates | cache_zero_fill | cache_drop_behind);
    cache->state |= meta.state & cache_fallocate_usable;
    cache->block_size = index_block_bytes;
    cache->block_mask = none; // nodes lie at any multiple of 4096
    cache->readahead = cache->writebehind = 0;
    cache->filesize = file->end_of_file;
    size_context(file, key, cache);
    if (cache_init(cache) == -1) return -1;
    context.node = context.item = none;
    context.open = true;
    // Every search begins here. A failure is the failure of the search.
    const uint64_t root = key_entry_get(file, key, key_entry_root);
    if (root != 0) cache_prefetch(cache, root, awaited::at_once);
    return 0;
}

// The records around the position that have its key: should its own be gone when the place is looked for again, the
// nearest of these that is still there tells where the position was in the run.
void remember_neighbours(vfs_file *file)
{
    file_position &position = file->position;
    if (position.node == none || position.key_number >= file->tree_count || !file->indexed()) return;
    index_context &context = file->contexts[position.key_number];
    if (!context.open || cache_lookup(&context.cache, position.node) != 1) return;
    const vfs_buffer *leaf = context.cache.last_found;
    if (leaf->offset != position.node || !leaf->checked || leaf->done == 0 || !is_leaf(leaf)) return;
    const uint64_t ent = node_entries(leaf), width = node_get(leaf, node_key_width);
    const auto equal = [&](uint64_t item) { return std::memcmp(key_place(leaf, item), position.key, width) == 0; };
    for (uint64_t &address : position.before) address = none;
    for (uint64_t &address : position.after) address = none;
    if (position.item > ent || (position.side == position_side::entry && position.item == ent)) return;
    uint64_t item = position.item;
    for (uint64_t &address : position.before) {
        if (item == 0 || !equal(--item)) break;
        address = entry_address(leaf, item);
    }
    item = position.item + (position.side == position_side::entry ? 1 : 0);
    for (uint64_t &address : position.after) {
        if (item >= ent || !equal(item)) break;
        address = entry_address(leaf, item++);
    }
}

} // namespace

int tree_select(vfs_file *file, uint64_t key)
{
    if (key >= file->tree_count) return fail(ERANGE);
    if (!file->contexts[key].open && context_open(file, key) == -1) return -1;
    file->current_key = key;
    return 0;
}

int tree_open(vfs_file *file, uint64_t key, index_tree *tree)
{
    if (tree_select(file, key) == -1) return -1;
    tree->file = file;
    tree->context = &file->contexts[key];
    tree->key = key;
    tree->entry = key_entry_at(file, key);
    tree->length = tree->get(key_entry_length);
    tree->width = tree->get(key_entry_leaf_width);
    tree->numbers = !file->indexed();
    return 0;
}

void contexts_close(vfs_file *file)
{
    if (file->contexts == nullptr) return;
    for (uint64_t key = 0; key < file->tree_count; ++key) {
        index_context &context = file->contexts[key];
        if (context.open && cache_close(&context.cache) == -1 && errno != 0) store_error(file, errno);
        context.open = false;
    }
    std::free(file->contexts);
    file->contexts = nullptr;
    file->current_key = none;
}

void contexts_discard(vfs_file *file)
{
    if (file->contexts == nullptr) return;
    remember_neighbours(file);
    for (uint64_t key = 0; key < file->tree_count; ++key) {
        index_context &context = file->contexts[key];
        if (!context.open) continue;
        cache_discard(&context.cache);
        context.cache.filesize = file->end_of_file;
        context.node = context.item = none;
    }
    file->position.node = file->position.item = none;
    file->current.node = file->current.item = none;
    file->last.node = file->last.item = none;
}

void contexts_discard_changes(vfs_file *file)
{
    if (file->contexts == nullptr) return;
    for (uint64_t key = 0; key < file->tree_count; ++key) {
        index_context &context = file->contexts[key];
        if (!context.open) continue;
        cache_discard_changes(&context.cache);
        context.cache.filesize = file->acquired_end;
        context.node = context.item = none;
    }
    file->current.node = file->current.item = none;
    file->last.node = file->last.item = none;
}

int leaf_create_root(vfs_file *file, uint64_t key)
{
    index_tree tree;
    if (tree_open(file, key, &tree) == -1) return -1;
    uint64_t address;
    if (index_block_alloc(file, tree.cache(), &address) == -1) return -1;
    vfs_buffer *leaf = cache_update_at(tree.cache(), address);
    if (leaf == nullptr) return -1;
    node_format(tree, leaf, item_leaf);
    tree.put(key_entry_root, address);
    tree.put(key_entry_first_leaf, address);
    tree.put(key_entry_last_leaf, address);
    tree.put(key_entry_depth, uint64_t{1});
    tree.put(key_entry_leaves, uint64_t{1});
    return 0;
}
