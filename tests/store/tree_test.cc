// The index trees against an ordered list of what they should hold: structure, search with every relation, edges, runs of
// equal keys, and trees whose bytes were damaged. Long keys make small nodes, so that a few thousand entries give four
// levels. What a position does beside changes is seen through the driver, in the model test.
#include "tree_fixture.h"

#include <algorithm>
#include <random>

namespace {

constexpr uint64_t long_key = 1600; // 20 entries a node

uint64_t offset_of(uint64_t number)
{
    return 1000000 + 8 * number;
}

entry_list listed(const std::multimap<std::string, uint64_t> &model)
{
    return {model.begin(), model.end()};
}

// What a relation finds among the entries.
uint64_t expected(const std::multimap<std::string, uint64_t> &model, const std::string &key, uint8_t relation)
{
    const auto lower = model.lower_bound(key), upper = model.upper_bound(key);
    switch (relation) {
    case VFS_LESS: return lower == model.begin() ? none : std::prev(lower)->second;
    case VFS_LESS_EQUAL: return upper == model.begin() ? none : std::prev(upper)->second;
    case VFS_EQUAL: return lower == upper ? none : lower->second;
    case VFS_GREATER_EQUAL: return lower == model.end() ? none : lower->second;
    default: return upper == model.end() ? none : upper->second;
    }
}

void random_work(tree_file &file, uint64_t keys, unsigned operations, bool duplicates, unsigned seed)
{
    std::mt19937 random(seed);
    std::multimap<std::string, uint64_t> model;
    uint64_t next = 0;
    for (unsigned i = 0; i < operations; ++i) {
        // It fills, then shrinks to little, again and again.
        const bool growing = (i / (operations / 4)) % 2 == 0;
        const uint64_t number = random() % keys;
        const std::string key = file.relative ? rrn_key(number) : key_number(number, file.length);
        if (random() % 10 < (growing ? 8u : 2u)) {
            const bool refused = !duplicates && model.contains(key);
            ASSERT_EQ(file.insert(key, offset_of(next)), refused ? -1 : 0) << i;
            if (refused) {
                ASSERT_EQ(errno, EADDRINUSE);
            } else {
                model.emplace(key, offset_of(next));
            }
            ++next;
        } else if (!model.empty()) {
            auto victim = model.lower_bound(key);
            if (victim == model.end()) victim = model.begin();
            for (unsigned steps = random() % 4; steps != 0 && std::next(victim) != model.end(); --steps) ++victim;
            ASSERT_EQ(file.remove(victim->first, victim->second), 0) << i << std::strerror(errno);
            ASSERT_EQ(file.remove(victim->first, victim->second), -1);
            ASSERT_EQ(errno, ESPIPE);
            model.erase(victim);
        }
        if (i % 997 == 0) {
            ASSERT_EQ(file.differs(listed(model)), "") << "after " << i;
        }
        if (i % 7 == 0 && !file.relative) {
            const uint8_t relation = static_cast<uint8_t>(random() % 5);
            const std::string sought = key_number(random() % (keys + 2), file.length);
            ASSERT_EQ(file.find(sought, relation), expected(model, sought, relation)) << i << ' ' << int(relation);
        }
    }
    ASSERT_EQ(file.differs(listed(model)), "");
    while (!model.empty()) {
        const auto victim = std::next(model.begin(), static_cast<long>(random() % std::min<size_t>(model.size(), 50)));
        ASSERT_EQ(file.remove(victim->first, victim->second), 0);
        model.erase(victim);
    }
    ASSERT_EQ(file.differs({}), "");
    EXPECT_EQ(file.tree().get(key_entry_depth), 1u);
}

TEST(Tree, RandomWorkOnUniqueKeysAgreesWithTheModel)
{
    tree_file file(long_key);
    random_work(file, 20000, 24000, false, 1);
}

TEST(Tree, RandomWorkOnEqualKeysAgreesWithTheModel)
{
    tree_file few(long_key, true); // runs longer than leaves and than the children of a branch
    random_work(few, 6, 8000, true, 2);
    tree_file many(long_key, true);
    random_work(many, 500, 12000, true, 3);
}

TEST(Tree, RandomWorkOnRecordNumbersAgreesWithTheModel)
{
    tree_file file(0);
    random_work(file, 30000, 24000, false, 4);
}

TEST(Tree, KeysShorterThanAWordAreComparedAlone)
{
    tree_file file(5);
    random_work(file, 99999, 12000, false, 5);
}

TEST(Tree, AscendingLoadFillsLeavesAndDescendingLoadToo)
{
    for (const bool ascending : {true, false}) {
        tree_file file(long_key);
        entry_list wanted;
        testing::internal::CaptureStderr();
        for (uint64_t i = 0; i < 1000; ++i) {
            const uint64_t number = ascending ? i : 999 - i;
            ASSERT_EQ(file.insert(key_number(number, long_key), offset_of(number)), 0);
            wanted.emplace_back(key_number(number, long_key), offset_of(number));
        }
        testing::internal::GetCapturedStderr();
        std::sort(wanted.begin(), wanted.end());
        EXPECT_EQ(file.differs(wanted), "");
        EXPECT_EQ(file.leaf_sizes(), std::vector<uint64_t>(50, 20));
        EXPECT_EQ(file.tree().get(key_entry_depth), 3u);
    }
}

// Three full leaves of even numbers 0..118; then entries are taken out and one is put in.
struct room_case {
    const char *name;
    std::vector<uint64_t> removed;
    uint64_t added;
    std::vector<uint64_t> sizes;
};

TEST(Tree, FullNodeGivesOneEntryToTheNeighbourWithLess)
{
    const room_case cases[] = {
        {"both have room, left on a tie", {0, 80}, 61, {20, 20, 19}},
        {"both have room, right has less", {0, 80, 82}, 61, {19, 20, 19}},
        {"only right", {80}, 61, {20, 20, 20}},
        {"only left", {0}, 61, {20, 20, 20}},
        {"neither, lower half: new left sibling", {}, 45, {20, 1, 20, 20}},
        {"neither, upper half: new right sibling", {}, 75, {20, 20, 1, 20}},
        {"behind the last entry, right has room", {90}, 79, {20, 20, 20}},
        {"behind the last entry, right is full", {0}, 79, {19, 20, 1, 20}},
        {"behind the last entry of the tree", {}, 119, {20, 20, 20, 1}},
        {"before the first entry of the tree", {0}, 0, {20, 20, 20}},
    };
    for (const room_case &c : cases) {
        tree_file file(long_key);
        std::multimap<std::string, uint64_t> model;
        const auto add = [&](uint64_t number) {
            ASSERT_EQ(file.insert(key_number(number, long_key), offset_of(number)), 0);
            model.emplace(key_number(number, long_key), offset_of(number));
        };
        for (uint64_t i = 0; i < 60; ++i) add(2 * i);
        for (const uint64_t number : c.removed) {
            ASSERT_EQ(file.remove(key_number(number, long_key), offset_of(number)), 0);
            model.erase(key_number(number, long_key));
        }
        add(c.added);
        EXPECT_EQ(file.leaf_sizes(), c.sizes) << c.name;
        EXPECT_EQ(file.differs(listed(model)), "") << c.name;
    }
}

// Three full leaves of 0, 4 ... 236; the position's record is the first or last one of a leaf, and mostly gone.
TEST(TreePosition, AtTheBorderOfTwoLeavesAGapStaysWhereItsKeyBelongs)
{
    struct border_case {
        const char *name;
        std::vector<uint64_t> removed_before;
        uint64_t stand;
        bool removed;
        std::vector<uint64_t> added;
        uint64_t previous, next;
    };
    const border_case cases[] = {
        {"behind the gap, into the leaf before it", {0}, 80, true, {81}, 76, 81},
        {"before the gap, into the leaf before it", {0}, 80, true, {79}, 79, 84},
        {"before the gap, into the leaf behind it", {100}, 76, true, {73, 75}, 75, 80},
        {"behind the gap, into the leaf behind it", {100}, 76, true, {73, 77}, 73, 77},
        {"the position's entry moves to the leaf before it", {0}, 80, false, {121}, 76, 84},
    };
    for (const border_case &c : cases) {
        tree_file file(long_key);
        const auto key = [](uint64_t number) { return key_number(number, long_key); };
        for (uint64_t i = 0; i < 60; ++i) ASSERT_EQ(file.insert(key(4 * i), offset_of(4 * i)), 0);
        for (const uint64_t number : c.removed_before) ASSERT_EQ(file.remove(key(number), offset_of(number)), 0);
        file.stand_at(key(c.stand), offset_of(c.stand));
        if (c.removed) {
            ASSERT_EQ(file.remove(key(c.stand), offset_of(c.stand)), 0);
        }
        for (const uint64_t number : c.added) ASSERT_EQ(file.insert(key(number), offset_of(number)), 0);
        file.handle.current.flags2 = 0; // no line about the re-reading here
        EXPECT_EQ(file.peek(false), offset_of(c.previous)) << c.name;
        EXPECT_EQ(file.peek(true), offset_of(c.next)) << c.name;
    }
}

TEST(TreePosition, IsFoundAgainByItsKeyAndEndsAtTheEnds)
{
    tree_file file(long_key);
    for (uint64_t i = 0; i < 60; ++i) ASSERT_EQ(file.insert(key_number(i, long_key), offset_of(i)), 0);
    EXPECT_EQ(file.peek(false), none); // before the first
    file.stand_at(key_number(5, long_key), offset_of(5));
    file.handle.position.item += 7; // as where another handle has taken records away
    EXPECT_EQ(file.peek(true), offset_of(6));
    EXPECT_EQ(file.peek(false), offset_of(4));
}

TEST(Tree, RenumberingMakesEveryEntryVisible)
{
    {
        tree_file empty(8); // an empty tree is renumbered too, without a word
        empty.tree().put(key_entry_tsn, int64_t{-5});
        testing::internal::CaptureStderr();
        ASSERT_EQ(empty.insert(key_number(1, 8), offset_of(1)), 0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(empty.find(key_number(1, 8), VFS_EQUAL), offset_of(1));
        EXPECT_EQ(empty.tree().get(key_entry_tsn), 0);
    }
    tree_file file(long_key);
    for (uint64_t i = 0; i < 100; ++i)
        ASSERT_EQ(file.insert(key_number(i, long_key), offset_of(i), VFS_FLAG_BROWSE), 0);
    file.tree().put(key_entry_tsn, int64_t{-5});
    testing::internal::CaptureStderr();
    ASSERT_EQ(file.insert(key_number(100, long_key), offset_of(100)), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Please be patient, we are renumbering the indices for " + file.path +
                  "\nThank you for your patience.\nWe now return you to your regularly scheduled programming.\n");
    EXPECT_EQ(file.tree().get(key_entry_tsn), 0);
    EXPECT_EQ(file.handle.tsn, 2); // 1, and the insertion
    const index_tree t = file.tree();
    for (uint64_t at = t.get(key_entry_first_leaf); at != 0;) {
        const vfs_buffer *leaf = node_fetch(t, at);
        for (uint64_t i = 0; i < node_entries(leaf); ++i) ASSERT_EQ(entry_stamp(leaf, i), 0u);
        at = node_get(leaf, node_right);
    }
}

TEST(Tree, EmptyEntriesAreSkippedAndFilledAgain)
{
    tree_file file(long_key);
    for (uint64_t i = 1; i <= 5; ++i) ASSERT_EQ(file.insert(key_number(i, long_key), offset_of(i)), 0);
    const index_tree t = file.tree();
    vfs_buffer *leaf = node_edit(t, t.get(key_entry_first_leaf));
    store_u64(address_place(leaf, 2), none);
    node_put(leaf, node_act, uint64_t{4});
    t.put(key_entry_entries, uint64_t{4});
    EXPECT_EQ(file.find(key_number(3, long_key), VFS_EQUAL), none);
    EXPECT_EQ(file.find(key_number(3, long_key), VFS_GREATER_EQUAL), offset_of(4));
    EXPECT_EQ(file.find(key_number(3, long_key), VFS_LESS_EQUAL), offset_of(2));
    file.stand_at(key_number(2, long_key), offset_of(2));
    EXPECT_EQ(file.peek(true), offset_of(4));
    ASSERT_EQ(file.insert(key_number(3, long_key), 8), 0);
    EXPECT_EQ(file.find(key_number(3, long_key), VFS_EQUAL), 8u);
    EXPECT_EQ(file.tree().get(key_entry_entries), 5u);
}

TEST(Tree, AllocationThatFailsLeavesTheTreeAsItWas)
{
    tree_file file(long_key);
    std::multimap<std::string, uint64_t> model;
    for (uint64_t i = 0; i < 400; ++i) { // 20 full leaves, and a full root over them
        ASSERT_EQ(file.insert(key_number(2 * i, long_key), offset_of(i)), 0);
        model.emplace(key_number(2 * i, long_key), offset_of(i));
    }
    const uint64_t list = header_get(&file.handle, header_free_index_list);
    const int64_t tsn = file.handle.tsn;
    header_put(&file.handle, header_free_index_list, uint64_t{8}); // a damaged free list: no block to be had
    for (const uint64_t number : {41, 79, 399, 801}) {
        EXPECT_EQ(file.insert(key_number(number, long_key), 8), -1);
        EXPECT_EQ(errno, ENOEXEC);
        EXPECT_EQ(file.differs(listed(model)), "");
    }
    EXPECT_EQ(file.handle.tsn, tsn);
    header_put(&file.handle, header_free_index_list, list);
    ASSERT_EQ(file.insert(key_number(41, long_key), 8), 0);
    model.emplace(key_number(41, long_key), 8);
    EXPECT_EQ(file.differs(listed(model)), "");
    EXPECT_EQ(file.tree().get(key_entry_depth), 3u);
    EXPECT_EQ(file.handle.error, 0u);
}

// What a host does with the blocks of a cache that it has come to know.
TEST(SharedEntries, ServeTheBlocksOfAFileThatIsNobodyElses)
{
    tree_file file(8);
    ASSERT_EQ(file.insert(key_number(1, 8), offset_of(1)), 0);
    const vfs_shared_entries &entries = *vfs()->shared;
    vfs_cache *cache = file.tree().cache();
    vfs_request r = file.request();
    r.record_offset = file.tree().get(key_entry_first_leaf);
    ASSERT_EQ(changes_write_out(&file.handle), 0);
    EXPECT_EQ(entries.fetch_ahead(cache, &r), 0);
    EXPECT_EQ(cache->curr->offset, r.record_offset);
    EXPECT_EQ(r.flags & VFS_FLAG_AT_END, 0);
    EXPECT_EQ(entries.write_block(cache, &r), 0); // nothing to write
    EXPECT_EQ(entries.get_for_write(cache, &r), 0);
    EXPECT_TRUE(is_dirty(cache->curr));
    cache->curr->data[index_block_bytes - 9] = std::byte{0x5a}; // no entry reaches so far
    EXPECT_EQ(entries.write_block(cache, &r), 0);
    ASSERT_EQ(changes_write_out(&file.handle), 0);
    char written = 0;
    ASSERT_EQ(pread(file.handle.fd, &written, 1, static_cast<off_t>(r.record_offset + index_block_bytes - 9)), 1);
    EXPECT_EQ(written, 0x5a);

    file.handle.lock_defaults.share_mode = VFS_SHARE_ALL;
    file.handle.lock_defaults.lock_mode = VFS_LOCK_RECORD; // another process may be changing them
    EXPECT_EQ(entries.get_for_write(cache, &r), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(entries.write_block(cache, &r), -1);
    EXPECT_EQ(errno, EINVAL);
    file.handle.lock_defaults.lock_mode = VFS_LOCK_NONE;
    file.handle.mode_flags |= mode_read_only;
    EXPECT_EQ(entries.get_for_write(cache, &r), -1);
    EXPECT_EQ(errno, EBADF);
    file.handle.mode_flags &= static_cast<uint8_t>(~mode_read_only);
}

// Damage: the bytes of one node are changed in the file; every operation ends, and none succeeds by luck.
class TreeDamage : public testing::Test {
protected:
    void SetUp() override
    {
        for (uint64_t i = 0; i < 500; ++i) ASSERT_EQ(file.insert(key_number(2 * i, long_key), offset_of(i)), 0);
        file.stand_at(key_number(0, long_key), offset_of(0));
        file.forget_cache();
        const index_tree t = file.tree();
        first = t.get(key_entry_first_leaf);
        last = t.get(key_entry_last_leaf);
        root = t.get(key_entry_root);
    }
    void write(uint64_t address, uint64_t offset, uint64_t value)
    {
        ASSERT_EQ(pwrite(file.handle.fd, &value, 8, static_cast<off_t>(address + offset)), 8);
        file.forget_cache();
    }
    void expect_damage(const char *what)
    {
        testing::internal::CaptureStderr();
        vfs_request r = file.request();
        r.relation = VFS_EQUAL;
        file.put_key(&r, key_number(2, long_key));
        EXPECT_EQ(key_locate(&file.handle, &r), -1) << what;
        EXPECT_EQ(errno, ENOEXEC) << what;
        EXPECT_EQ(file.insert(key_number(1, long_key), 8), -1) << what;
        EXPECT_EQ(errno, ENOEXEC) << what;
        EXPECT_EQ(file.remove(key_number(2, long_key), offset_of(1)), -1) << what;
        EXPECT_EQ(errno, ENOEXEC) << what;
        const std::string text = testing::internal::GetCapturedStderr();
        EXPECT_NE(text.find("Bad node 0x"), std::string::npos) << what;
    }
    tree_file file{long_key};
    uint64_t first = 0, last = 0, root = 0;
};

TEST_F(TreeDamage, NodeWithABadHeadIsRefused)
{
    const struct {
        const char *what;
        uint64_t offset, value;
    } cases[] = {
        {"entry count", node_ent.offset, 21},
        {"active count", node_act.offset, 21},
        {"own address", node_address.offset, 0},
        {"type", node_type.offset, item_live},
        {"key number", node_key_number.offset, 1},
        {"key entry", node_key_entry.offset, 8},
        {"capacity", node_max.offset, 2000},
        {"key array", node_key_array.offset, 32000},
        {"key width", node_key_width.offset, 8},
        {"stamp array", node_stamp_array.offset, 1u << 30},
        {"length", 0, 40},
        {"trailer", index_block_bytes - 8, 40},
    };
    for (const auto &c : cases) {
        uint64_t before;
        ASSERT_EQ(pread(file.handle.fd, &before, 8, static_cast<off_t>(first + c.offset)), 8);
        write(first, c.offset, c.value);
        expect_damage(c.what);
        write(first, c.offset, before);
    }
    EXPECT_EQ(file.find(key_number(2, long_key), VFS_EQUAL), offset_of(1));
}

TEST_F(TreeDamage, LinksThatNoNeighbourAnswersAreNeverFollowed)
{
    vfs_request step = file.request();
    for (uint64_t i = 1; i < 20; ++i) ASSERT_EQ(file.remove(key_number(2 * i, long_key), offset_of(i)), 0);
    ASSERT_EQ(changes_write_out(&file.handle), 0);
    const uint64_t right = node_get(leaf_fetch(file.tree(), first), node_right);
    testing::internal::CaptureStderr();
    for (const uint64_t wrong : {root, last, uint64_t{0}}) { // a branch, a leaf elsewhere, none beside the only one
        write(first, node_right.offset, wrong);
        file.stand_at(key_number(0, long_key), offset_of(0));
        if (wrong != 0) {
            EXPECT_EQ(tree_read_next(&file.handle, &step), -1);
            EXPECT_EQ(errno, ENOEXEC);
        }
        EXPECT_EQ(file.remove(key_number(0, long_key), offset_of(0)), -1);
        EXPECT_EQ(errno, ENOEXEC);
    }
    write(first, node_right.offset, right);
    EXPECT_EQ(file.remove(key_number(0, long_key), offset_of(0)), 0);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(file.tree().get(key_entry_first_leaf), right);
}

TEST(Tree, ParentWithoutTheChildIsReportedBeforeAnythingChanges)
{
    for (const uint64_t length : {long_key, uint64_t{0}}) {
        tree_file file(length);
        const auto key = [&](uint64_t n) { return file.relative ? rrn_key(n) : key_number(n, length); };
        for (uint64_t i = 0; i < 3000; ++i) ASSERT_EQ(file.insert(key(i), offset_of(i)), 0);
        const uint64_t first = file.tree().get(key_entry_first_leaf), last = file.tree().get(key_entry_last_leaf);
        const vfs_buffer *leaf = node_fetch(file.tree(), first);
        const uint64_t parent = node_get(leaf, node_parent), entries = node_entries(leaf);
        ASSERT_EQ(changes_write_out(&file.handle), 0);
        // Entry 0 of the branch leads to a wrong leaf of the right kind.
        ASSERT_EQ(pwrite(file.handle.fd, &last, 8, static_cast<off_t>(parent + node_head_bytes)), 8);
        file.forget_cache();
        file.handle.position.node = first; // by way of the position: the descent would not come here
        file.handle.position.item = 0;
        testing::internal::CaptureStderr();
        EXPECT_EQ(file.remove(key(0), offset_of(0)), -1);
        EXPECT_EQ(errno, ENOEXEC);
        const std::string text = testing::internal::GetCapturedStderr();
        EXPECT_EQ(text.rfind(file.relative ? "Eh? Update key 0 from child 0x" : "Eh? Update key 00000000", 0), 0U);
        EXPECT_NE(text.find(" not in parent 0x"), std::string::npos);
        EXPECT_NE(text.find("\nTree information for key #0:\n"), std::string::npos);
        EXPECT_EQ(node_entries(node_fetch(file.tree(), first)), entries);
    }
}

} // namespace
