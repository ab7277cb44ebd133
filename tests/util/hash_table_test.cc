// The hash table: sizing, growth, hooks, order of use, parents, recycling, and statistics that stay consistent.
// Method: small tables driven by hand, and one random run against std::map with the counters recomputed from the chains.
#include "util/hash_table.h"

#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <random>
#include <string>

namespace {

using table_pointer = std::unique_ptr<HashTable, decltype(&HashTable_Destroy)>;
table_pointer make(const HashTable_Params &params)
{
    return {HashTable_Create(&params), HashTable_Destroy};
}

HashTable_Entry *insert(HashTable *table, const std::string &key, const std::string &value, bool unchecked = false)
{
    return HashTable_Insert(table, key.data(), key.size(), const_cast<char *>(value.data()), value.size(), unchecked,
                            false);
}

// What every table must satisfy between two calls.
void expect_consistent(const HashTable *table)
{
    uint32_t entries = 0, used = 0, chains = 0;
    for (uint32_t slot = 0; slot < table->slot_count; ++slot) {
        const HashTable_Entry *previous = nullptr;
        uint32_t length = 0;
        for (const HashTable_Entry *entry = table->slots[slot]; entry != nullptr; entry = entry->next, ++length) {
            EXPECT_EQ(entry->hash & table->mask, slot);
            EXPECT_EQ(entry->previous, previous);
            previous = entry;
        }
        entries += length;
        used += length > 0;
        chains += length > 1;
    }
    EXPECT_EQ(table->entries, entries);
    EXPECT_EQ(table->used_slots, used);
    EXPECT_EQ(table->free_slots, table->slot_count - used);
    EXPECT_EQ(table->collisions, entries - used);
    EXPECT_EQ(table->chains, chains);
    EXPECT_EQ(table->entries, table->inserts - table->removes);
}

uint32_t always_equal(HashTable *, const void *, uint64_t)
{
    return 7;
}

TEST(HashTable, SlotsAndThresholdFollowSizeAndLoad)
{
    const struct {
        uint32_t size, load, slots, threshold;
    } rows[] = {
        {0, 0, 64, 48}, {65, 75, 128, 96}, {64, 93, 64, 60}, {64, 87, 64, 56}, {64, 50, 64, 64}, {1, 75, 64, 48},
    };
    for (const auto &row : rows) {
        HashTable_Params params{};
        params.size = row.size;
        params.load = row.load;
        const table_pointer table = make(params);
        EXPECT_EQ(table->slot_count, row.slots);
        EXPECT_EQ(table->threshold, row.threshold) << row.load;
    }
}

TEST(HashTable, EqualHashesDoNotDoubleItForEver)
{
    HashTable_Params params{};
    params.hash = always_equal;
    const table_pointer table = make(params);
    for (int i = 0; i < 40; ++i) ASSERT_NE(insert(table.get(), std::to_string(i), "v"), nullptr);
    EXPECT_LE(table->slot_count, 2u * 1024 * 40);
    EXPECT_EQ(table->chains, 1u);
    EXPECT_EQ(table->collisions, 39u);
    expect_consistent(table.get());
}

TEST(HashTable, StringHashIsLookup3)
{
    const table_pointer table = make({});
    EXPECT_EQ(table->hash(table.get(), "", 0), 0xdeadbeefu); // vectors published with the function
    EXPECT_EQ(table->hash(table.get(), "Four score and seven years ago", 30), 0x17770551u);
}

TEST(HashTable, IntegerKeysAreSpreadAndFound)
{
    for (const uint32_t flags : {HashTable_Key32, HashTable_Key64}) {
        HashTable_Params params{};
        params.flags = flags;
        const table_pointer table = make(params);
        const size_t bytes = flags == HashTable_Key32 ? 4 : 8;
        for (uint64_t i = 0; i < 2000; ++i) { // as offsets of blocks are
            const uint64_t key = i * 32768;
            HashTable_Insert(table.get(), &key, bytes, nullptr, HashTable_KeyOnly, false, false);
        }
        EXPECT_EQ(table->entries, 2000u);
        EXPECT_GT(table->used_slots, table->slot_count / 4);
        for (uint64_t i = 0; i < 2000; ++i) {
            const uint64_t key = i * 32768, other = key + 1;
            EXPECT_NE(HashTable_Lookup(table.get(), nullptr, &key, bytes, 2, false), nullptr);
            EXPECT_EQ(HashTable_Lookup(table.get(), nullptr, &other, bytes, 2, false), nullptr);
        }
        expect_consistent(table.get());
    }
}

TEST(HashTable, DuplicateCheckReturnsTheFirstEntry)
{
    const table_pointer table = make({});
    HashTable_Entry *first = insert(table.get(), "key", "one");
    EXPECT_EQ(insert(table.get(), "key", "two"), first);
    EXPECT_NE(insert(table.get(), "key", "two", true), first);
    EXPECT_EQ(table->entries, 2u);
}

TEST(HashTable, ClearedEntriesAreReused)
{
    const table_pointer table = make({});
    for (int i = 0; i < 20; ++i) insert(table.get(), "key" + std::to_string(i), "some value");
    HashTable_Clear(table.get());
    EXPECT_EQ(table->entries + table->collisions + table->chains, 0u);
    EXPECT_EQ(table->slot_count, 64u);
    for (int i = 0; i < 10; ++i) insert(table.get(), "k" + std::to_string(i), "value");
    EXPECT_EQ(table->reuses, 10u);
    insert(table.get(), std::string(200, 'k'), "too big for the one that is free");
    EXPECT_EQ(table->evicts, 1u);
    expect_consistent(table.get());
}

struct embedded { // as a buffer holds its entry
    HashTable_Entry entry;
    uint64_t offset;
    bool released;
};

TEST(HashTable, EntriesInsideTheirOwnersStayThere)
{
    static embedded *assigning;
    std::vector<embedded> buffers(500);
    HashTable_Params params{};
    params.flags = HashTable_Key64;
    params.allocate = [](uint64_t size, void *) -> void * {
        EXPECT_EQ(size, sizeof(HashTable_Entry));
        return &assigning->entry;
    };
    params.release = [](HashTable_Entry *entry) {
        reinterpret_cast<embedded *>(entry)->released = true;
        std::memset(static_cast<void *>(entry), 0, sizeof *entry); // the links as well
    };
    const table_pointer table = make(params);
    HashTable_Pos pos{};
    for (size_t i = 0; i < buffers.size(); ++i) {
        assigning = &buffers[i];
        buffers[i].offset = i * 32768;
        ASSERT_EQ(HashTable_Lookup64(table.get(), &pos, buffers[i].offset), nullptr);
        HashTable_Insert(table.get(), &buffers[i].offset, 8, nullptr, 0, true, false);
    }
    expect_consistent(table.get());
    for (size_t i = 0; i < buffers.size(); ++i) {
        ASSERT_EQ(HashTable_Lookup64(table.get(), &pos, buffers[i].offset), &buffers[i].entry);
        ASSERT_EQ(HashTable_Lookup(table.get(), nullptr, &buffers[i].offset, 8, 0, false), &buffers[i].entry);
        if (i % 2 == 0) HashTable_Delete(table.get(), &pos, &buffers[i].offset, 8);
    }
    expect_consistent(table.get());
    HashTable_Clear(table.get());
    for (const embedded &buffer : buffers) EXPECT_TRUE(buffer.released);
}

TEST(HashTable, OrderOfUseSurvivesGrowth)
{
    HashTable_Params params{};
    params.flags = HashTable_KeepMru;
    const table_pointer table = make(params);
    for (int i = 0; i < 100; ++i) insert(table.get(), std::to_string(i), "v");
    HashTable_Lookup(table.get(), nullptr, "17", 2, 2, false);
    EXPECT_GT(table->grows, 0u);
    std::vector<std::string> order;
    for (const HashTable_MruEntry *entry = table->mru_head; entry != nullptr; entry = entry->mru_next)
        order.emplace_back(static_cast<const char *>(entry->key));
    ASSERT_EQ(order.size(), 100u);
    EXPECT_EQ(order[0], "17");
    EXPECT_EQ(order[1], "99");
    EXPECT_EQ(order[99], "0");
}

TEST(HashTable, DumpShowsSlotsAndTheOrderOfUse)
{
    HashTable_Params params{};
    params.flags = HashTable_KeepMru;
    const table_pointer table = make(params);
    testing::internal::CaptureStderr();
    HashTable_Dump(table.get());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), ""); // nothing in it
    insert(table.get(), "first", "1");
    insert(table.get(), "second", "2");
    testing::internal::CaptureStderr();
    HashTable_Dump(table.get());
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_NE(text.find(" contents:\nEntries: 2\nState:   0x"), std::string::npos) << text;
    EXPECT_NE(text.find("\nSlot # "), std::string::npos) << text;
    const size_t order = text.find("MRU ordering:\n");
    ASSERT_NE(order, std::string::npos) << text;
    EXPECT_LT(text.find(" second value=(1)@", order), text.find(" first value=(1)@", order)) << text;
}

TEST(HashTable, MissIsSatisfiedFromTheParentByAMirror)
{
    const table_pointer parent = make({});
    HashTable_Params params{};
    params.parent = parent.get();
    const table_pointer table = make(params);
    HashTable_Entry *original = insert(parent.get(), "key", "value");
    EXPECT_EQ(HashTable_Lookup(table.get(), nullptr, "key", 3, 2, false), nullptr);
    const HashTable_Entry *mirror = HashTable_Lookup(table.get(), nullptr, "key", 3, 2, true);
    ASSERT_NE(mirror, nullptr);
    EXPECT_EQ(mirror->parent, original);
    EXPECT_EQ(HashTable_Lookup(table.get(), HashTable_Scratch(), "key", 3, 1, false), mirror);
    HashTable_Delete(table.get(), HashTable_Scratch(), "key", 3);
    EXPECT_EQ(table->free_mirror, mirror);
    EXPECT_EQ(parent->entries, 1u);
}

TEST(HashTable, RandomRunAgreesWithAMap)
{
    std::mt19937 random(20261124);
    const table_pointer table = make({});
    std::map<std::string, std::string> model;
    for (int step = 0; step < 20000; ++step) {
        const std::string key = std::to_string(random() % 900);
        HashTable_Pos pos{};
        const HashTable_Entry *found =
            HashTable_Lookup(table.get(), &pos, key.data(), key.size(), int(random() % 3), false);
        ASSERT_EQ(found != nullptr, model.count(key) != 0) << step;
        if (found != nullptr) {
            ASSERT_EQ(std::string(static_cast<const char *>(found->value), found->storage), model[key]);
        }
        if (random() % 2 == 0) {
            HashTable_Delete(table.get(), &pos, key.data(), key.size());
            model.erase(key);
        } else if (found == nullptr) {
            const std::string value(1 + random() % 60, 'v');
            ASSERT_NE(insert(table.get(), key, value), nullptr);
            model[key] = value;
        }
        if (step % 3000 == 2999) HashTable_Resize(table.get(), step % 2 == 0 ? 0 : 64, 0);
    }
    expect_consistent(table.get());
    size_t walked = 0;
    for (const HashTable_Entry *entry = HashTable_Next(table.get(), nullptr); entry != nullptr;
         entry = HashTable_Next(table.get(), entry))
        ++walked;
    EXPECT_EQ(walked, model.size());
    testing::internal::CaptureStderr();
    HashTable_Stats(table.get());
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_NE(text.find("Bad stats:      0\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("bad..."), std::string::npos);
}

} // namespace
