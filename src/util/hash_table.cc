// The hash table behind hash_table.h. May use libc only.
//
// Every entry that is linked has gone through HashTable_Link and leaves through unlink_entry (or, all at once, through
// HashTable_Clear): these three are the only code that changes chains and the counters that describe them.
#include "util/hash_table.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sys/types.h>

namespace {

constexpr uint32_t slots_at_least = 64;
constexpr uint64_t slots_at_most = uint64_t{1} << 31;
// Equal hashes would make a table double with every entry; beyond this many slots per entry it is left alone.
constexpr uint64_t slots_per_entry_at_most = 1024;

static_assert(alignof(std::max_align_t) >= 16, "calloc hands out 16-byte aligned storage");

uint32_t rotate(uint32_t value, int bits)
{
    return value << bits | value >> (32 - bits);
}

// Bob Jenkins' lookup3, `hashlittle` with initial value 0: 12 bytes a round, the last round padded with zeros.
uint32_t hash_bytes(HashTable *, const void *key, uint64_t length)
{
    uint32_t a = 0xdeadbeefU + static_cast<uint32_t>(length);
    uint32_t b = a, c = a;
    if (length == 0) return c;
    const auto *bytes = static_cast<const unsigned char *>(key);
    const auto absorb = [&](uint64_t count) {
        uint32_t words[3] = {};
        for (uint64_t i = 0; i < count; ++i) words[i / 4] |= static_cast<uint32_t>(bytes[i]) << (i % 4 * 8);
        a += words[0], b += words[1], c += words[2];
    };
    for (; length > 12; length -= 12, bytes += 12) {
        absorb(12);
        a -= c, a ^= rotate(c, 4), c += b;
        b -= a, b ^= rotate(a, 6), a += c;
        c -= b, c ^= rotate(b, 8), b += a;
        a -= c, a ^= rotate(c, 16), c += b;
        b -= a, b ^= rotate(a, 19), a += c;
        c -= b, c ^= rotate(b, 4), b += a;
    }
    absorb(length);
    c ^= b, c -= rotate(b, 14);
    a ^= c, a -= rotate(c, 11);
    b ^= a, b -= rotate(a, 25);
    c ^= b, c -= rotate(b, 16);
    a ^= c, a -= rotate(c, 4);
    b ^= a, b -= rotate(a, 14);
    c ^= b, c -= rotate(b, 24);
    return c;
}

uint32_t hash_32(HashTable *, const void *key, uint64_t)
{
    uint32_t k;
    std::memcpy(&k, key, sizeof k);
    const auto shift = [](uint64_t value, int bits) {
        return static_cast<uint64_t>(static_cast<int64_t>(value) >> bits);
    };
    uint64_t a = (uint64_t{k} >> 16) ^ (uint64_t{k} ^ 61);
    a *= 9;
    a ^= shift(a, 4);
    a *= 0x27d4eb2d;
    a ^= shift(a, 15);
    return static_cast<uint32_t>(a);
}

uint32_t hash_64(HashTable *, const void *key, uint64_t)
{
    uint64_t k;
    std::memcpy(&k, key, sizeof k);
    return HashTable_Hash64(k);
}

uint64_t power_of_two(uint64_t size)
{
    uint64_t power = 1;
    while (power < size && power < slots_at_most) power <<= 1;
    return power;
}

uint32_t threshold_of(uint32_t slots, uint32_t load)
{
    switch (load) {
    case 93: return slots < 16 ? slots * 15 / 16 : slots - slots / 16;
    case 87: return slots < 8 ? slots * 7 / 8 : slots - slots / 8;
    case 75: return slots < 8 ? slots * 6 / 8 : slots - (slots / 4 & ~1U);
    default: return slots;
    }
}

HashTable_Pos *position_of(HashTable *table, HashTable_Pos *pos, HashTable_Pos *local)
{
    if (pos == nullptr) return local;
    return pos == HashTable_Scratch() ? &table->scratch : pos;
}

void hash_key(HashTable *table, HashTable_Pos *pos, const void *key, uint64_t length)
{
    pos->hash = table->hash(table, key, length);
    pos->slot = pos->hash & table->mask;
    ++table->searches;
}

bool matches(const HashTable_Entry *entry, uint32_t hash, const void *key, uint64_t length)
{
    return entry->hash == hash && entry->key_length == length &&
           (entry->key == key || std::memcmp(entry->key, key, length) == 0);
}

HashTable_Entry *find(const HashTable *table, uint32_t hash, const void *key, uint64_t length)
{
    HashTable_Entry *entry = table->slots[hash & table->mask];
    while (entry != nullptr && !matches(entry, hash, key, length)) entry = entry->next;
    return entry;
}

// ---- Most-recently-used order ----

bool keeps_mru(const HashTable *table)
{
    return (table->flags & HashTable_MruOrder) != 0;
}

void mru_unlink(HashTable *table, HashTable_MruEntry *entry)
{
    (entry->mru_previous != nullptr ? entry->mru_previous->mru_next : table->mru_head) = entry->mru_next;
    (entry->mru_next != nullptr ? entry->mru_next->mru_previous : table->mru_tail) = entry->mru_previous;
    entry->mru_next = entry->mru_previous = nullptr;
}

void mru_push(HashTable *table, HashTable_MruEntry *entry)
{
    entry->mru_previous = nullptr;
    entry->mru_next = table->mru_head;
    (table->mru_head != nullptr ? table->mru_head->mru_previous : table->mru_tail) = entry;
    table->mru_head = entry;
}

// ---- Storage of entries ----

uint64_t header_bytes(const HashTable *table)
{
    return keeps_mru(table) ? sizeof(HashTable_MruEntry) : sizeof(HashTable_Entry);
}

uint64_t round_up_16(uint64_t bytes)
{
    return (bytes + 15) & ~uint64_t{15};
}

uint64_t value_bytes(uint64_t value_size)
{
    return value_size == HashTable_KeyOnly ? 0 : round_up_16(value_size);
}

// What an entry occupies: all ones when it cannot be had.
uint64_t entry_bytes(const HashTable *table, uint64_t key_length, uint64_t value_size, bool mirror)
{
    const uint64_t header = header_bytes(table);
    if (value_size == 0 || mirror) return header;
    constexpr uint64_t limit = uint64_t{1} << 48;
    if (key_length > limit || (value_size != HashTable_KeyOnly && value_size > limit)) return ~uint64_t{0};
    return (header + value_bytes(value_size) + key_length + 16) & ~uint64_t{15};
}

// The head of the free list when it is big enough; one that is too small is freed. Null: nothing to reuse.
HashTable_Entry *reuse_entry(HashTable *table, uint64_t bytes, uint64_t key_length, uint64_t value_size, bool mirror)
{
    HashTable_Entry *&list = mirror ? table->free_mirror : table->free_own;
    HashTable_Entry *entry = list;
    if (entry == nullptr) return nullptr;
    list = entry->next;
    const uint64_t capacity = entry_bytes(table, entry->key_length, entry->storage, entry->parent != nullptr);
    const bool key_fits = value_size != HashTable_KeyOnly || key_length <= entry->key_length;
    if (bytes > capacity || !key_fits) {
        ++table->evicts;
        std::free(entry);
        return nullptr;
    }
    ++table->reuses;
    std::memset(static_cast<void *>(entry), 0, bytes);
    return entry;
}

HashTable_Entry *obtain_entry(HashTable *table, uint64_t key_length, uint64_t value_size, bool mirror)
{
    const uint64_t bytes = entry_bytes(table, key_length, value_size, mirror);
    if (table->allocate != nullptr) return static_cast<HashTable_Entry *>(table->allocate(bytes, table->context));
    HashTable_Entry *entry = reuse_entry(table, bytes, key_length, value_size, mirror);
    if (entry != nullptr) return entry;
    if (bytes == ~uint64_t{0}) {
        errno = ENOMEM;
        return nullptr;
    }
    return static_cast<HashTable_Entry *>(std::calloc(1, bytes));
}

// To the owner's hook, else onto the free list of its sort. The parent pointer stays: it says which sort it is.
void release_entry(HashTable *table, HashTable_Entry *entry)
{
    if (table->release != nullptr) {
        table->release(entry);
        return;
    }
    HashTable_Entry *&list = entry->parent != nullptr ? table->free_mirror : table->free_own;
    entry->previous = nullptr;
    entry->next = list;
    list = entry;
}

void free_list(HashTable_Entry *entry)
{
    while (entry != nullptr) {
        HashTable_Entry *next = entry->next;
        std::free(entry);
        entry = next;
    }
}

void fill_entry(const HashTable *table, HashTable_Entry *entry, const void *key, void *value, uint64_t value_size)
{
    entry->storage = value_size;
    if (value_size == 0) {
        entry->key = key;
        entry->value = value;
        return;
    }
    auto *copied_value = reinterpret_cast<std::byte *>(entry) + header_bytes(table);
    std::byte *copied_key = copied_value + value_bytes(value_size);
    if (value_size != HashTable_KeyOnly) std::memcpy(copied_value, value, value_size);
    if (entry->key_length != 0) std::memcpy(copied_key, key, entry->key_length);
    entry->key = copied_key;
    entry->value = value_size == HashTable_KeyOnly ? copied_key : copied_value;
}

// Links a new entry for a key that `pos` names; `parent` makes it a mirror. Null: no storage.
HashTable_Entry *insert_entry(HashTable *table, HashTable_Pos *pos, const void *key, uint64_t length, void *value,
                              uint64_t value_size, HashTable_Entry *parent)
{
    if (parent != nullptr) value_size = 0;
    HashTable_Entry *entry = obtain_entry(table, length, value_size, parent != nullptr);
    if (entry == nullptr) return nullptr;
    entry->hash = pos->hash;
    entry->key_length = length;
    entry->parent = parent;
    fill_entry(table, entry, parent != nullptr ? parent->key : key, value, value_size);
    if (keeps_mru(table)) mru_push(table, static_cast<HashTable_MruEntry *>(entry));
    HashTable_Link(table, entry);
    ++table->inserts;
    pos->slot = pos->hash & table->mask; // the table may have grown
    return pos->entry = entry;
}

void touch(HashTable *table, HashTable_Entry *entry, int mode)
{
    if (mode == 0) return;
    if (entry->previous != nullptr) HashTable_ToFront(table, entry);
    if (keeps_mru(table)) {
        mru_unlink(table, static_cast<HashTable_MruEntry *>(entry));
        mru_push(table, static_cast<HashTable_MruEntry *>(entry));
    }
}

// Takes a linked entry out of its chain and the MRU order.
void unlink_entry(HashTable *table, HashTable_Entry *entry)
{
    HashTable_Entry *&head = table->slots[entry->hash & table->mask];
    ++table->removes;
    --table->entries;
    if (entry->previous == nullptr && entry->next == nullptr) {
        assert(head == entry);
        --table->used_slots;
        ++table->free_slots;
    } else {
        --table->collisions;
    }
    (entry->previous != nullptr ? entry->previous->next : head) = entry->next;
    if (entry->next != nullptr) entry->next->previous = entry->previous;
    const bool had_company = entry->previous != nullptr || entry->next != nullptr;
    if (had_company && head->next == nullptr) --table->chains;
    entry->previous = entry->next = nullptr;
    if (keeps_mru(table)) mru_unlink(table, static_cast<HashTable_MruEntry *>(entry));
}

bool due_to_grow(const HashTable *table)
{
    if ((table->flags & HashTable_Resizing) != 0 || table->slot_count >= slots_at_most) return false;
    if (table->entries >= table->threshold) return true;
    return table->entries >= uint64_t{4} * table->used_slots &&
           table->slot_count < slots_per_entry_at_most * table->entries;
}

void rehash_chains(HashTable *table, HashTable_Entry **old_slots, uint32_t old_mask)
{
    for (uint64_t slot = 0; slot <= old_mask; ++slot) {
        HashTable_Entry *entry = old_slots[slot];
        while (entry != nullptr && entry->next != nullptr) entry = entry->next;
        while (entry != nullptr) { // from the tail: each chain keeps its order
            HashTable_Entry *previous = entry->previous;
            HashTable_Link(table, entry);
            entry = previous;
        }
    }
}

void rehash_mru(HashTable *table) // the MRU order itself stays as it is
{
    for (HashTable_MruEntry *entry = table->mru_tail; entry != nullptr; entry = entry->mru_previous)
        HashTable_Link(table, entry);
}

void dump_entry(const HashTable *table, const HashTable_Entry *entry)
{
    std::fprintf(stderr, "  %lu:0x%p key=(%ld)@0x%p %.*s value=(%ld)@0x%p parent=0x%p\n",
                 static_cast<unsigned long>(entry->hash & table->mask), static_cast<const void *>(entry),
                 static_cast<long>(entry->key_length), entry->key, static_cast<int>(entry->key_length),
                 static_cast<const char *>(entry->key), static_cast<long>(entry->storage), entry->value,
                 static_cast<void *>(entry->parent));
}

HashTable_HashHook built_in_hash(uint32_t flags)
{
    if ((flags & HashTable_Key64) != 0) return hash_64;
    return (flags & HashTable_Key32) != 0 ? hash_32 : hash_bytes;
}

} // namespace

HashTable *HashTable_Create(const HashTable_Params *params)
{
    auto *table = static_cast<HashTable *>(std::calloc(1, sizeof(HashTable)));
    if (table == nullptr) return nullptr;
    table->slot_count = static_cast<uint32_t>(power_of_two(std::max(params->size, slots_at_least)));
    table->slots = static_cast<HashTable_Entry **>(std::calloc(table->slot_count, sizeof(HashTable_Entry *)));
    if (table->slots == nullptr) {
        std::free(table);
        return nullptr;
    }
    table->parent = params->parent;
    table->context = params->context;
    table->load = params->load == 0 ? 75 : params->load;
    table->threshold = threshold_of(table->slot_count, table->load);
    table->mask = table->slot_count - 1;
    table->free_slots = table->slot_count;
    table->flags = HashTable_Created;
    if ((params->flags & HashTable_KeepMru) != 0) table->flags |= HashTable_MruOrder;
    table->hash = params->hash != nullptr ? params->hash : built_in_hash(params->flags);
    table->dump = params->dump != nullptr ? params->dump : dump_entry;
    table->allocate = params->allocate;
    table->release = params->release;
    table->rehash = params->rehash;
    return table;
}

void HashTable_Destroy(HashTable *table)
{
    if (table == nullptr) return;
    HashTable_Clear(table);
    free_list(table->free_own);
    free_list(table->free_mirror);
    std::free(table->slots);
    table->free_own = table->free_mirror = nullptr;
    table->slots = nullptr;
    if ((table->flags & HashTable_Created) != 0) std::free(table);
}

HashTable_Entry *HashTable_Lookup(HashTable *table, HashTable_Pos *pos, const void *key, uint64_t length, int mode,
                                  bool fallback)
{
    HashTable_Pos local;
    pos = position_of(table, pos, &local);
    hash_key(table, pos, key, length);
    HashTable *parent = table->parent;
    pos->entry = find(table, pos->hash, key, length);
    if (pos->entry != nullptr) {
        touch(table, pos->entry, mode);
        if (mode == 1 && parent != nullptr) HashTable_Lookup(parent, nullptr, key, length, mode, false);
        return pos->entry;
    }
    if (!fallback || parent == nullptr) return nullptr;
    HashTable_Entry *original = HashTable_Lookup(parent, nullptr, key, length, mode, false);
    if (original == nullptr) return nullptr;
    return insert_entry(table, pos, key, length, nullptr, 0, original);
}

HashTable_Entry *HashTable_Insert(HashTable *table, const void *key, uint64_t length, void *value, uint64_t value_size,
                                  bool no_duplicate_check, bool to_parent)
{
    HashTable_Pos pos;
    hash_key(table, &pos, key, length);
    HashTable_Entry *original = nullptr;
    if (to_parent && table->parent != nullptr) {
        original = HashTable_Insert(table->parent, key, length, value, value_size, no_duplicate_check, false);
        if (original == nullptr) return nullptr;
        value = nullptr;
    }
    if (!no_duplicate_check) {
        HashTable_Entry *equal = find(table, pos.hash, key, length);
        if (equal != nullptr) return equal;
    }
    return insert_entry(table, &pos, key, length, value, value_size, original);
}

void HashTable_Link(HashTable *table, HashTable_Entry *entry)
{
    HashTable_Entry *&head = table->slots[entry->hash & table->mask];
    ++table->entries;
    if (head != nullptr) {
        ++table->collisions;
        ++table->collisions_total;
        if (head->next == nullptr) {
            ++table->chains;
            ++table->chains_total;
            table->longest_chain_count = std::max(table->longest_chain_count, table->chains);
        }
        head->previous = entry;
    } else {
        ++table->used_slots;
        --table->free_slots;
    }
    entry->previous = nullptr;
    entry->next = head;
    head = entry;
    if (due_to_grow(table)) HashTable_Resize(table, uint64_t{2} * table->slot_count, 0);
}

HashTable_Entry *HashTable_Remove(HashTable *table, HashTable_Pos *pos, const void *key, uint64_t length)
{
    HashTable_Pos local{};
    if (pos == nullptr) hash_key(table, &local, key, length);
    pos = position_of(table, pos, &local);
    HashTable_Entry *entry = find(table, pos->hash, key, length);
    if (entry == nullptr) return nullptr;
    if (pos->entry == entry) pos->entry = entry->next;
    unlink_entry(table, entry);
    return entry;
}

int HashTable_Delete(HashTable *table, HashTable_Pos *pos, const void *key, uint64_t length)
{
    HashTable_Entry *entry = HashTable_Remove(table, pos, key, length);
    if (entry == nullptr) return 0;
    ++table->deletes;
    release_entry(table, entry);
    return 0;
}

void HashTable_Clear(HashTable *table)
{
    for (uint32_t slot = 0; slot < table->slot_count; ++slot) {
        HashTable_Entry *entry = table->slots[slot];
        if (entry == nullptr) continue;
        table->slots[slot] = nullptr;
        --table->used_slots;
        ++table->free_slots;
        while (entry != nullptr) {
            HashTable_Entry *next = entry->next; // before the owner takes the entry back
            ++table->removes;
            --table->entries;
            release_entry(table, entry);
            entry = next;
        }
    }
    table->mru_head = table->mru_tail = nullptr;
    table->collisions = table->chains = 0;
}

HashTable_Entry *HashTable_Next(const HashTable *table, const HashTable_Entry *entry)
{
    if (table->entries == 0) return nullptr;
    if (entry != nullptr && entry->next != nullptr) return entry->next;
    uint64_t slot = entry == nullptr ? 0 : uint64_t{entry->hash & table->mask} + 1;
    while (slot < table->slot_count && table->slots[slot] == nullptr) ++slot;
    return slot < table->slot_count ? table->slots[slot] : nullptr;
}

void HashTable_Resize(HashTable *table, uint64_t size, uint32_t load)
{
    if ((table->flags & HashTable_Resizing) != 0) return;
    table->flags |= HashTable_Resizing;
    if (size == 0) size = uint64_t{2} * std::max(table->entries, 16U);
    const auto slot_count = static_cast<uint32_t>(power_of_two(size));
    auto **slots = static_cast<HashTable_Entry **>(std::calloc(slot_count, sizeof(HashTable_Entry *)));
    if (slots == nullptr) {
        std::fputs("HashTable_Resize alloc error, continuing\n", stderr);
        table->flags &= ~uint32_t{HashTable_Resizing};
        return;
    }
    HashTable_Entry **old_slots = table->slots;
    const uint32_t old_mask = table->mask;
    ++(slot_count > table->slot_count ? table->grows : table->shrinks);
    table->slots = slots;
    table->slot_count = table->free_slots = slot_count;
    table->mask = slot_count - 1;
    if (load != 0) table->load = load;
    table->threshold = threshold_of(slot_count, table->load);
    table->used_slots = table->entries = table->collisions = table->chains = 0;
    if (table->rehash != nullptr) {
        table->rehash(table->context, old_slots, old_mask);
    } else if (keeps_mru(table)) {
        rehash_mru(table);
    } else {
        rehash_chains(table, old_slots, old_mask);
    }
    std::free(old_slots);
    table->flags &= ~uint32_t{HashTable_Resizing};
}

// ---- Dumps ----

namespace {

struct chain_shape {
    uint32_t collisions, chains, shortest, longest;
    const HashTable_Entry *longest_head;
};

chain_shape measure_chains(const HashTable *table)
{
    chain_shape shape{};
    for (uint32_t slot = 0; slot < table->slot_count; ++slot) {
        uint32_t length = 0;
        for (const HashTable_Entry *entry = table->slots[slot]; entry != nullptr; entry = entry->next) ++length;
        if (length < 2) continue;
        ++shape.chains;
        shape.collisions += length - 1;
        if (shape.shortest == 0 || length < shape.shortest) shape.shortest = length;
        if (length <= shape.longest) continue;
        shape.longest = length;
        shape.longest_head = table->slots[slot];
    }
    return shape;
}

// Compares the counters with the chains, reports and mends differences; returns the value for "Bad stats".
int check_statistics(HashTable *table, const chain_shape &actual)
{
    const auto z = [](uint32_t count) { return static_cast<ssize_t>(count); };
    if (table->collisions != actual.collisions || table->chains != actual.chains) {
        if ((table->flags & HashTable_Inconsistent) == 0) {
            std::fprintf(stderr,
                         "Hash stats bad...\n  Collisions = %zd vs %zd (actual)\n  Chains     = %zd vs %zd (actual)\n",
                         z(table->collisions), z(actual.collisions), z(table->chains), z(actual.chains));
            table->flags |= HashTable_Inconsistent;
        }
        table->collisions = actual.collisions;
        table->chains = actual.chains;
        table->free_slots = table->slot_count - table->used_slots;
    }
    if (table->entries != table->inserts - table->removes) {
        std::fputs("Hash entry counts bad...\n", stderr);
        table->flags ^= HashTable_Inconsistent;
    }
    return (table->flags & HashTable_Inconsistent) != 0;
}

void print_statistics(const HashTable *table, const chain_shape &shape, int bad)
{
    const auto z = [](uint32_t count) { return static_cast<ssize_t>(count); };
    const auto ratio = [](double value, double divisor) { return value / (divisor == 0 ? 1 : divisor); };
    const auto percent = [&](double value, double divisor) { return 100 * ratio(value, divisor); };
    const HashTable *t = table;
    const ssize_t lookups = z(t->searches) - (z(t->deletes) + z(t->removes)) - z(t->inserts);
    std::fprintf(
        stderr,
        "Hash table at: %p\n\tParent at:  %p\n\tSlots at:   %p\n\tSize:       %zd\n\t  Mask:       %zx\n"
        "\t  Avail:      %zd (%.0f%%)\n\t    Used:        %zd (%.0f%% of Avail, %.0f%% of Size)\n"
        "\t    Free:        %zd (%.0f%% of Avail, %.0f%% of Size)\n\tResizes:    %d %c, +%zd -%zd\n"
        "\tSearches:   %zd\n\t  Lookups:    %zd (%0.f%%)\n\t  Inserts:    %zd (%.0f%%)\n"
        "\t  Deletes:    %zd (%.0f%%)\n\t  Removes:    %zd (%.0f%%)\n\t  Reuses:     %zd (%.0f%%)\n"
        "\t  Evicts:     %zd (%.0f%%)\n\tEntries:    %zd\n"
        "\tCollisions: %zd (%.0f%% of Entries, %0.f%% of Used)\n\t  Total:      %zd (%.0f%% of Inserts)\n"
        "\t  Chains:     %zd (%.0f%% of Used)\n\t    Total:      %zd\n\t    Max:        %zd\n"
        "\t    Min len:    %zd\n\t    Max len:    %zd\n\t    Avg len:    %0.2f\n"
        "\tAvg Search len: %.2f of Used, %.2f of Avail, %.2f of Size\n\tAvg entry size: %0.2f\n"
        "\tBad stats:      %d\n",
        static_cast<const void *>(t), static_cast<const void *>(t->parent), static_cast<const void *>(t->slots),
        z(t->slot_count), static_cast<size_t>(t->mask), z(t->threshold), percent(t->threshold, t->slot_count),
        z(t->used_slots), percent(t->used_slots, t->threshold), percent(t->used_slots, t->slot_count), z(t->free_slots),
        percent(t->free_slots, t->threshold), percent(t->free_slots, t->slot_count),
        static_cast<int>(t->grows + t->shrinks), (t->flags & HashTable_Resizing) != 0 ? 'A' : ' ', z(t->grows),
        z(t->shrinks), z(t->searches), lookups, percent(static_cast<double>(lookups), t->searches), z(t->inserts),
        percent(t->inserts, t->searches), z(t->deletes), percent(t->deletes, t->searches), z(t->removes),
        percent(t->removes, t->searches), z(t->reuses), percent(t->reuses, t->inserts), z(t->evicts),
        percent(t->evicts, t->inserts), z(t->entries), z(t->collisions), percent(t->collisions, t->entries),
        percent(t->collisions, t->used_slots), z(t->collisions_total), percent(t->collisions_total, t->inserts),
        z(t->chains), percent(t->chains, t->used_slots), z(t->chains_total), z(t->longest_chain_count),
        z(shape.shortest), z(shape.longest), ratio(t->collisions, t->chains), ratio(t->entries, t->used_slots),
        ratio(t->entries, t->threshold), ratio(t->entries, t->slot_count), ratio(t->entry_bytes, t->entries), bad);
}

} // namespace

void HashTable_Stats(HashTable *table)
{
    const chain_shape actual = measure_chains(table);
    if (actual.chains != 0) {
        std::fputs("Largest hash chain: ", stderr);
        for (const HashTable_Entry *entry = actual.longest_head; entry != nullptr; entry = entry->next) {
            const int length = static_cast<int>(entry->key_length);
            std::fprintf(stderr, "%*.*s,", length, length, static_cast<const char *>(entry->key));
        }
        std::fputc('\n', stderr);
    }
    const int bad = check_statistics(table, actual);
    print_statistics(table, actual, bad);
}

void HashTable_Dump(const HashTable *table)
{
    if (table->entries == 0) return;
    std::fprintf(stderr, "Hash table @0x%p contents:\n", static_cast<const void *>(table));
    std::fprintf(stderr, "Entries: %d\n", static_cast<int>(table->entries));
    std::fprintf(stderr, "State:   0x%x %d 0x%p\n", table->scratch.hash, static_cast<int>(table->scratch.slot),
                 static_cast<const void *>(table->scratch.entry));
    int64_t slot = -1;
    for (const HashTable_Entry *entry = HashTable_Next(table, nullptr); entry != nullptr;
         entry = HashTable_Next(table, entry)) {
        if (slot != (entry->hash & table->mask)) {
            slot = entry->hash & table->mask;
            std::fprintf(stderr, "Slot # %d\n", static_cast<int>(slot));
        }
        table->dump(table, entry);
    }
    if (!keeps_mru(table)) return;
    std::fputs("MRU ordering:\n", stderr);
    for (const HashTable_MruEntry *entry = table->mru_head; entry != nullptr; entry = entry->mru_next)
        table->dump(table, entry);
}
