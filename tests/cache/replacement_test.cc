// Which block stays in a cache and which goes: LRU order, pins, growth, blocks made anew, moved, dropped.
#include "cache_fixture.h"

class Replacement : public CacheTest, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override
    {
        CacheTest::SetUp();
        file.settings.hashing = GetParam();
    }
    vfs_buffer *fetch(uint64_t number)
    {
        vfs_buffer *buffer = cache_fetch_at(&data, number * block + 5);
        check();
        return buffer;
    }
    std::string cached_blocks()
    {
        std::string numbers;
        for (uint64_t k = 0; k < 12; ++k)
            if (cached(&data, k * block)) numbers += std::to_string(k);
        return numbers;
    }
};

INSTANTIATE_TEST_SUITE_P(ByTableAndByList, Replacement, testing::Bool());

TEST_P(Replacement, FifthBlockEvictsTheLeastRecentlyUsed)
{
    fill(8);
    set_up(&data, 4, 4);
    EXPECT_EQ(data.hash != nullptr, GetParam());
    for (uint64_t k : {0, 1, 2, 3, 0, 4, 5}) {
        vfs_buffer *buffer = fetch(k);
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(buffer->offset, k * block);
        EXPECT_EQ(static_cast<char>(buffer->data[block - 1]), static_cast<char>('a' + k));
    }
    EXPECT_EQ(cached_blocks(), "0345");
    EXPECT_EQ(data.miss, 6U);
    EXPECT_EQ(data.count, 4U);
    EXPECT_EQ(data.stats.bytes_read, 6 * block) << "one read per block";
}

TEST_P(Replacement, PinnedBlocksStayAndTheSurplusGoesWhenTheyAreReleased)
{
    fill(8);
    set_up(&data, 2, 2);
    {
        pinned_buffer first{fetch(0)}, second{fetch(1)};
        const std::byte *bytes = first->data;
        ASSERT_NE(fetch(2), nullptr) << "everything is pinned: the cache grows";
        ASSERT_NE(fetch(3), nullptr);
        EXPECT_EQ(data.count, 3U);
        EXPECT_EQ(cached_blocks(), "013");
        EXPECT_EQ(first->data, bytes);
        cache_prefetch(&data, 4 * block);
        EXPECT_EQ(cached_blocks(), "013") << "reading ahead takes nothing that is in use";
    }
    ASSERT_NE(fetch(5), nullptr);
    EXPECT_EQ(data.count, 2U);
}

TEST_P(Replacement, DirtyTailMakesTheCacheGrowUpToItsMaximum)
{
    fill(8);
    set_up(&data, 2, 3);
    ASSERT_EQ(write(0, "x"), 1);
    fetch(1);
    fetch(2);
    EXPECT_EQ(data.count, 3U);
    EXPECT_EQ(on_disk(0, 1), "a");
    fetch(3);
    EXPECT_EQ(on_disk(0, 1), "x") << "at the maximum the tail is written";
    EXPECT_EQ(data.stats.spill, 1U);
    fetch(4);
    EXPECT_EQ(data.count, 3U);
}

TEST_P(Replacement, ManyBlocksShrinkAndGrowAgain)
{
    constexpr uint64_t many = 600; // more than come one by one, and more than one slab has
    fill(26);
    ASSERT_EQ(ftruncate(other, many * block), 0);
    file.end_of_file = file.size_at_open = many * block;
    file.settings.cache_size = many * block;
    set_up(&data, 2, many);
    for (int round = 0; round < 3; ++round) {
        data.max = many;
        for (uint64_t k = many; k-- > 0;) {
            const vfs_buffer *buffer = cache_fetch_at(&data, k * block);
            ASSERT_NE(buffer, nullptr);
            for (const uint64_t at : {uint64_t{0}, block - 1})
                ASSERT_EQ(static_cast<char>(buffer->data[at]), k < 26 ? static_cast<char>('a' + k) : '\0') << k;
        }
        EXPECT_EQ(data.count, many);
        data.max = 20;
        ASSERT_EQ(write(700 * block, "beyond"), 6);
        check();
        EXPECT_EQ(data.count, 20U);
        cache_discard(&data);
    }
}

TEST_P(Replacement, SharedFileKeepsWhatIsDirtyUntilItIsCommitted)
{
    fill(8);
    file.lock_defaults.lock_mode = VFS_LOCK_RECORD;
    set_up(&data, 2, 2);
    for (uint64_t k = 0; k < 4; ++k) ASSERT_EQ(write(k * block + 10, "new"), 3);
    EXPECT_EQ(data.count, 4U);
    EXPECT_EQ(data.stats.bytes_written, 0U);
    ASSERT_EQ(cache_write_out(&data, 0, none), 0);
    EXPECT_EQ(data.stats.bytes_written, 12U) << "exactly the changed bytes";
    fetch(5);
    EXPECT_EQ(data.count, 2U);
}

TEST_P(Replacement, ReadAheadFollowsTheModeAndStopsAtTheEnds)
{
    fill(10);
    set_up(&data, 8, 8);
    data.readahead = 3;
    vfs_request request{};
    request.mode = VFS_POS_NEXT;
    request.operation = VFS_OP_READ;
    request.record_offset = block;
    ASSERT_EQ(cache_fetch_ahead(&data, &request), 0);
    check();
    EXPECT_EQ(cached_blocks(), "1234");
    EXPECT_EQ(data.stats.prefetch, 3U);
    request.record_offset = 9 * block;
    ASSERT_EQ(cache_fetch_ahead(&data, &request), 0);
    EXPECT_EQ(cached_blocks(), "12349") << "nothing lies behind the end of file";
    cache_discard(&data);
    file.data_start = 2 * block;
    request.mode = VFS_POS_PREV;
    request.record_offset = 4 * block;
    ASSERT_EQ(cache_fetch_ahead(&data, &request), 0);
    EXPECT_EQ(cached_blocks(), "234") << "nothing lies before the data";
    cache_discard(&data);
    request.operation = VFS_OP_NONE;
    request.mode = VFS_POS_LAST;
    ASSERT_EQ(cache_fetch_ahead(&data, &request), 0);
    EXPECT_EQ(cached_blocks(), "4");
    check();
}

TEST_P(Replacement, NewBlockIsZeroedAndNotRead)
{
    fill(2);
    set_up(&data, 2, 2);
    fetch(0);
    fetch(1);
    vfs_buffer *buffer = cache_update_at(&data, 2 * block);
    ASSERT_NE(buffer, nullptr);
    check();
    EXPECT_TRUE(file.modified);
    EXPECT_EQ(data.filesize, 3 * block);
    EXPECT_EQ(data.miss, 2U);
    EXPECT_EQ(buffer->bytes, 0U);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(buffer->data), block), std::string(block, '\0'));
    ASSERT_EQ(cache_write_out(&data, 0, none), 0);
    EXPECT_EQ(size_on_disk(), 2 * block) << "nothing of it was written to";
    ASSERT_EQ(write(2 * block + 100, "z"), 1);
    ASSERT_EQ(cache_write_out(&data, 0, none), 0);
    EXPECT_EQ(on_disk(2 * block, block), std::string(100, '\0') + "z" + std::string(4096 - 101, '\0'));
}

TEST_P(Replacement, IndexBlockIsWrittenWholeAndMovesWithItsChange)
{
    fill(4);
    set_up(&index, 2, 2);
    set_up(&meta, 2, 2);
    vfs_buffer *node = cache_update_at(&index, 4096 + block);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->offset, 4096 + block) << "index blocks begin anywhere";
    std::memset(node->data, 'N', block);
    check();
    ASSERT_NE(cache_fetch_at(&meta, 4096 + block), nullptr);
    vfs_buffer *moved = cache_copy_block(&meta, &index, 4096 + block);
    ASSERT_NE(moved, nullptr);
    check();
    EXPECT_EQ(meta.curr, moved);
    EXPECT_FALSE(cached(&index, 4096 + block));
    EXPECT_EQ(meta.lru_count, 1U) << "the older image is gone";
    EXPECT_EQ(index.stats.abscond, 1U);
    EXPECT_EQ(on_disk(4096 + block, 1), "b");
    ASSERT_EQ(cache_write_out(&index, 0, none), 0);
    ASSERT_EQ(cache_write_out(&meta, 0, none), 0);
    check();
    EXPECT_EQ(on_disk(4096 + block, block), std::string(block, 'N'));
    EXPECT_EQ(meta.stats.bytes_written, block);
}

TEST_P(Replacement, OfBlocksThatLieAcrossEachOtherTheFirstOneClaimedStays)
{
    fill(8);
    set_up(&index, 4, 4);
    set_up(&meta, 4, 4);
    const auto fetch = [](vfs_cache *cache, uint64_t offset) {
        EXPECT_NE(cache_fetch_at(cache, 6 * block), nullptr); // else a block around the offset might serve
        return cache_fetch_at(cache, offset);
    };
    ASSERT_NE(fetch(&index, 0), nullptr); // verified by nobody
    vfs_buffer *node = fetch(&index, 4096);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(cache_claim(node, 4096), 0);
    node->checked = true;
    EXPECT_FALSE(cached(&index, 0));
    EXPECT_EQ(cache_claim(node, 8192), -1) << "the block around it";
    for (const uint64_t offset : {0, 8192}) {
        EXPECT_EQ(cache_claim(fetch(&index, offset), offset), -1);
        EXPECT_EQ(errno, ENOEXEC);
    }
    EXPECT_EQ(cache_copy_block(&index, &meta, 8192), nullptr) << "fetched";
    ASSERT_NE(fetch(&meta, 0), nullptr);
    EXPECT_EQ(cache_copy_block(&index, &meta, 0), nullptr) << "moved";
    EXPECT_EQ(errno, ENOEXEC);
    EXPECT_TRUE(cached(&meta, 0));
    EXPECT_TRUE(cached(&index, 4096));
    check();
}

TEST_P(Replacement, InvalidateWritesAndDiscardDoesNot)
{
    fill(6);
    set_up(&data, 6, 6);
    for (uint64_t k = 0; k < 6; ++k) ASSERT_EQ(write(k * block, "n"), 1);
    EXPECT_EQ(cache_invalidate(&data, block, 3 * block - 1), 2);
    check();
    EXPECT_EQ(cached_blocks(), "0345");
    EXPECT_EQ(on_disk(block, 1) + on_disk(2 * block, 1) + on_disk(3 * block, 1), "nnd");
    cache_drop_block(&data, 5 * block);
    check();
    EXPECT_EQ(on_disk(5 * block, 1), "f");
    EXPECT_EQ(cache_invalidate(&data, 3 * block, 3 * block), 1);
    cache_discard(&data);
    check();
    EXPECT_EQ(data.idle_count, data.count);
    EXPECT_EQ(data.dirty_queue.count, 0U);
    EXPECT_EQ(on_disk(0, 1) + on_disk(3 * block, 1) + on_disk(4 * block, 1), "ane");
    EXPECT_EQ(cache_invalidate(&data, 0, none), 0);
    EXPECT_EQ(errno, ENOENT);
}

TEST_P(Replacement, HeaderBufferIsRefreshedInPlaceAndWrittenWhole)
{
    fill(4, 4096);
    set_up(&meta, 1, 1);
    ASSERT_EQ(cache_header_create(&meta, 3 * 4096), 0);
    check();
    ASSERT_EQ(cache_header_refresh(&meta), 0);
    vfs_buffer *header = meta.hdrb;
    const std::byte *image = header->data;
    EXPECT_EQ(static_cast<char>(image[8192]), 'c');
    for (uint64_t k : {0, 1}) ASSERT_NE(cache_fetch_at(&meta, 4 * 4096 + k * block), nullptr);
    dirty_add(header);
    header->data[0] = std::byte{'H'};
    check();
    cache_discard(&meta);
    EXPECT_TRUE(is_dirty(header));
    ASSERT_EQ(cache_write_out(&meta, 0, none), 0);
    check();
    EXPECT_EQ(on_disk(0, 1) + on_disk(4095, 2), "Hab");
    EXPECT_EQ(meta.stats.bytes_written, 3 * 4096U);
    change_on_disk(4096, "Q");
    ASSERT_EQ(cache_header_refresh(&meta), 0);
    EXPECT_EQ(meta.hdrb->data, image);
    EXPECT_EQ(static_cast<char>(image[4096]), 'Q');
    ASSERT_EQ(ftruncate(other, 4096), 0);
    EXPECT_EQ(cache_header_refresh(&meta), -1);
    EXPECT_EQ(errno, EINVAL);
}
