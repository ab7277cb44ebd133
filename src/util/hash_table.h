// A chained hash table over byte-string keys: power-of-two slot counts, growth, recycled entries, hooks for hashing,
// storage and release. The caches find their buffers through it, with entries that live inside the buffers.
// May use libc only; knows nothing of buffers or files. A table has no lock: its user serialises access.
//
// Chains. A slot points to the head of a doubly linked list of entries; an entry is on exactly one chain while it is
// in the table, and on one free list or in its owner's hands otherwise. `used_slots` counts the slots whose chain is
// not empty, `collisions` the entries that are not a head, `chains` the chains of two or more entries.
#ifndef VFS_UTIL_HASH_TABLE_H
#define VFS_UTIL_HASH_TABLE_H

#include <cstddef>
#include <cstdint>
#include <cstring>

struct HashTable;

struct HashTable_Entry {
    HashTable_Entry *parent;          // the parent table's entry that this one mirrors, or null
    HashTable_Entry *previous, *next; // in the slot's chain; the head has no previous
    const void *key;
    void *value;
    uint64_t key_length; // bytes
    uint64_t storage;    // value size or allocation size (HashTable_Insert); all ones: holds a copy of its key only
    uint32_t hash;       // in full; the slot is hash & mask
    uint32_t reserved;
};
static_assert(sizeof(HashTable_Entry) == 64);

struct HashTable_MruEntry : HashTable_Entry { // what tables with most-recently-used ordering allocate
    HashTable_MruEntry *mru_next, *mru_previous;
};
static_assert(sizeof(HashTable_MruEntry) == 80);

struct HashTable_Pos {
    uint32_t hash, slot;
    HashTable_Entry *entry;
};

using HashTable_HashHook = uint32_t (*)(HashTable *table, const void *key, uint64_t length);
using HashTable_DumpHook = void (*)(const HashTable *table, const HashTable_Entry *entry);
using HashTable_AllocateHook = void *(*)(uint64_t size, void *context); // zero-filled storage for an entry
using HashTable_ReleaseHook = void (*)(HashTable_Entry *entry);
using HashTable_RehashHook = void (*)(void *context, HashTable_Entry **old_slots, uint32_t old_mask);

enum : uint32_t { // HashTable_Params::flags
    HashTable_KeepMru = 1,
    HashTable_Key32 = 4, // built-in hash for 32-bit integer keys
    HashTable_Key64 = 8, // built-in hash for 64-bit integer keys; neither: for byte strings
};

struct HashTable_Params { // zero the whole block and set what is needed
    HashTable *parent;    // borrowed: lookups may fall back on it
    void *context;        // for the allocate and rehash hooks
    HashTable_HashHook hash;
    HashTable_DumpHook dump;
    HashTable_AllocateHook allocate; // null: the table's own storage
    HashTable_ReleaseHook release;   // null: released entries stay on the table's free lists
    HashTable_RehashHook rehash;     // moves all entries with HashTable_Link after a resize; null: the built-in one
    uint32_t size;                   // slots wanted; 0: 64
    uint32_t load;                   // fill percentage that makes it grow: 93, 87, 75; 0: 75; any other: full
    uint32_t flags;
};

enum : uint32_t { // HashTable::flags
    HashTable_Created = 1,
    HashTable_Inconsistent = 2, // the statistics were found wrong
    HashTable_Resizing = 4,     // also suppresses further growth
    HashTable_MruOrder = 8,
};

struct HashTable {
    HashTable *parent;
    HashTable_Entry **slots; // owned
    HashTable_MruEntry *mru_head, *mru_tail;
    HashTable_Entry *free_own;    // owned: released entries that hold their storage
    HashTable_Entry *free_mirror; // owned: released entries that mirrored a parent's
    HashTable_Pos scratch;        // stands for the all-ones position
    uint32_t slot_count, load, threshold, used_slots, entries, mask;
    uint32_t grows, shrinks, free_slots, searches, inserts, deletes, removes;
    uint32_t collisions, chains, collisions_total, chains_total, longest_chain_count;
    uint32_t reuses, evicts, entry_bytes;
    uint32_t flags;
    HashTable_HashHook hash;
    HashTable_DumpHook dump;
    HashTable_AllocateHook allocate;
    HashTable_ReleaseHook release;
    HashTable_RehashHook rehash;
    void *context;
};

inline constexpr uint64_t HashTable_KeyOnly = ~uint64_t{0}; // as value_size: only the key is copied

// The position that stands for the table's own scratch position.
inline HashTable_Pos *HashTable_Scratch()
{
    return reinterpret_cast<HashTable_Pos *>(~uintptr_t{0});
}

// Null when an allocation fails.
[[nodiscard]] HashTable *HashTable_Create(const HashTable_Params *params);
// Releases every entry and frees what the table owns. Null is ignored.
void HashTable_Destroy(HashTable *table);

// The entry, or null. `pos` may be null or HashTable_Scratch(). Mode 0 only finds; any other moves the entry to the
// front of its chain (and of the MRU order); mode 1 touches the parent's copy as well. `fallback`: a miss may be
// satisfied from the parent table.
HashTable_Entry *HashTable_Lookup(HashTable *table, HashTable_Pos *pos, const void *key, uint64_t length, int mode,
                                  bool fallback);

// The entry (an equal one that exists, unless `no_duplicate_check`), or null when there is no storage. A value_size of
// 0 keeps key and value by reference, HashTable_KeyOnly copies the key, any other size copies both.
HashTable_Entry *HashTable_Insert(HashTable *table, const void *key, uint64_t length, void *value, uint64_t value_size,
                                  bool no_duplicate_check, bool to_parent);

// Delete and remove do not hash the key: they take the hash from `pos`, filled by a lookup or insert of that key.
int HashTable_Delete(HashTable *table, HashTable_Pos *pos, const void *key, uint64_t length); // always 0
// Unlinks the entry and hands it to the caller, null when absent; a `pos` that names it moves to its successor.
HashTable_Entry *HashTable_Remove(HashTable *table, HashTable_Pos *pos, const void *key, uint64_t length);
void HashTable_Clear(HashTable *table); // the slot array keeps its size

HashTable_Entry *HashTable_Next(const HashTable *table, const HashTable_Entry *entry); // null starts and ends
void HashTable_Resize(HashTable *table, uint64_t size, uint32_t load); // size 0: to fit; load 0: as it was
void HashTable_Link(HashTable *table, HashTable_Entry *entry);         // for rehash hooks: into its chain by its hash

void HashTable_Stats(HashTable *table);      // to standard error, after a self-check that mends the counters
void HashTable_Dump(const HashTable *table); // likewise, every entry

// ---- The built-in hash of 64-bit keys, and its lookup without calls ----

inline uint32_t HashTable_Hash64(uint64_t key)
{
    const auto shift = [](uint64_t value, int bits) {
        return static_cast<uint64_t>(static_cast<int64_t>(value) >> bits); // arithmetic: the sign comes in
    };
    uint64_t a = ~key + (key << 18);
    a ^= shift(a, 31);
    a *= 21;
    a ^= shift(a, 11);
    a += a << 6;
    a ^= shift(a, 22);
    return static_cast<uint32_t>(a);
}

// Puts a linked entry, not the head of its chain, at the head.
inline void HashTable_ToFront(HashTable *table, HashTable_Entry *entry)
{
    HashTable_Entry *&head = table->slots[entry->hash & table->mask];
    entry->previous->next = entry->next;
    if (entry->next != nullptr) entry->next->previous = entry->previous;
    entry->previous = nullptr;
    entry->next = head;
    head->previous = entry;
    head = entry;
}

// HashTable_Lookup with mode 2 and no fallback, for tables made with HashTable_Key64, whose keys are all 8 bytes, and
// without MRU order. The position is left as a lookup leaves it: good for a delete, remove or insert of this key.
inline HashTable_Entry *HashTable_Lookup64(HashTable *table, HashTable_Pos *pos, uint64_t key)
{
    const uint32_t hash = HashTable_Hash64(key);
    ++table->searches;
    pos->hash = hash;
    pos->slot = hash & table->mask;
    for (HashTable_Entry *entry = table->slots[pos->slot]; entry != nullptr; entry = entry->next) {
        uint64_t found;
        if (entry->hash != hash) continue;
        std::memcpy(&found, entry->key, sizeof found);
        if (found != key) continue;
        if (entry->previous != nullptr) HashTable_ToFront(table, entry);
        return pos->entry = entry;
    }
    return pos->entry = nullptr;
}

#endif
