// The quick-lookup table of a cache: buffers by block offset, with entries that live inside the buffers, so that a
// warm cache allocates nothing. Without memory for it a cache goes on by walking its LRU list.
#include "cache/internal.h"

#include <cstdio>
#include <cstdlib>

namespace {

void *hand_out_entry(uint64_t, void *context)
{
    vfs_buffer *buffer = static_cast<vfs_cache *>(context)->assigning;
    buffer->hash_entry = {};
    return &buffer->hash_entry;
}

void take_back_entry(HashTable_Entry *entry)
{
    *entry = {};
}

void print_entry(const HashTable *, const HashTable_Entry *entry)
{
    const auto *buffer = static_cast<const vfs_buffer *>(entry->value);
    fprintf(stderr, "\tOffset 0x%lx  Buffer %p;  size %d Hash 0x%x\n", buffer->offset,
            static_cast<const void *>(buffer), static_cast<int>(buffer->size), entry->hash);
}

} // namespace

void hash_open(vfs_cache *cache)
{
    if ((cache->flags & cache_hash_lookup) == 0 || cache->hash != nullptr) return;
    HashTable_Params params{};
    params.context = cache;
    params.dump = print_entry;
    params.allocate = hand_out_entry;
    params.release = take_back_entry;
    params.size = cache->max > 512 ? 2 * cache->max : 1024;
    params.flags = HashTable_Key64;
    cache->hash = HashTable_Create(&params);
    if (cache->hash != nullptr) return;
    fprintf(stderr, "No ht memory for quick lookups, it is now disabled\n");
    cache->flags &= static_cast<uint8_t>(~cache_hash_lookup);
}

void hash_close(vfs_cache *cache)
{
    HashTable_Destroy(cache->hash);
    cache->hash = nullptr;
    cache->flags &= static_cast<uint8_t>(~cache_hash_lookup);
    for (vfs_buffer *buffer = cache->lru_head; buffer != nullptr; buffer = buffer->next)
        buffer->flags2 &= static_cast<uint8_t>(~buffer_hashed);
}

void hash_enter(vfs_buffer *buffer)
{
    vfs_cache *cache = buffer->cache;
    if ((cache->flags & cache_hash_lookup) == 0) return;
    cache->assigning = buffer;
    const HashTable_Entry *entry =
        HashTable_Insert(cache->hash, &buffer->offset, sizeof buffer->offset, buffer, 0, true, false);
    cache->assigning = nullptr;
    if (entry != nullptr) {
        buffer->flags2 |= buffer_hashed;
        return;
    }
    if (cache->file->debug) fprintf(stderr, "No hi memory for quick lookups, it is now disabled\n");
    hash_close(cache);
}

void hash_leave(vfs_buffer *buffer)
{
    if ((buffer->flags2 & buffer_hashed) == 0) return;
    HashTable *table = buffer->cache->hash;
    HashTable_Entry *entry = &buffer->hash_entry;
    HashTable_Pos pos{.hash = entry->hash, .slot = entry->hash & table->mask, .entry = entry};
    if (HashTable_Remove(table, &pos, &buffer->offset, sizeof buffer->offset) != entry) {
        fprintf(stderr, "Hash remove error on buffer %p - 0x%lx  hash %p\n", static_cast<void *>(buffer),
                buffer->offset, static_cast<void *>(table));
        cache_dump(buffer->cache, true);
        HashTable_Dump(table);
        std::abort(); // lookups would find a block in a buffer that holds another
    }
    take_back_entry(entry);
    buffer->flags2 &= static_cast<uint8_t>(~buffer_hashed);
}
