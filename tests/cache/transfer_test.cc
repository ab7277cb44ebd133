// Transfers that fail, are bounded or mapped, and the extension of the file ahead of need. Calls are made to fail with
// descriptors of the wrong kind and with limits of the process.
#include "cache_fixture.h"

#include <sys/resource.h>

class Transfer : public CacheTest {
protected:
    void TearDown() override
    {
        if (wrong != -1) close(wrong);
        CacheTest::TearDown();
    }
    int wrong_descriptor(int flags) { return wrong = open(path.c_str(), flags | O_CLOEXEC); }
    int wrong = -1;
};

TEST_F(Transfer, FailedReadLeavesNothingBehind)
{
    fill(4);
    set_up(&data, 2, 2);
    ASSERT_NE(cache_fetch_at(&data, 0), nullptr);
    vfs_buffer *idle = cache_fetch_at(&data, block);
    idle->rfd = data.lru_tail->rfd = wrong_descriptor(O_WRONLY);
    cache_prefetch(&data, 3 * block);
    check();
    EXPECT_EQ(file.error, 0U) << "what is read ahead fails in silence";
    EXPECT_FALSE(cached(&data, 3 * block));
    EXPECT_EQ(cache_fetch_at(&data, 2 * block), nullptr);
    EXPECT_EQ(errno, EBADF);
    check();
    EXPECT_FALSE(cached(&data, 2 * block));
    EXPECT_EQ(file.error, static_cast<uint32_t>(EBADF));
    EXPECT_EQ(data.first_error, static_cast<uint32_t>(EBADF));
    for (vfs_buffer *buffer = data.idle_head; buffer != nullptr; buffer = buffer->next) buffer->rfd = file.fd;
    vfs_buffer *mended = cache_fetch_at(&data, 2 * block);
    ASSERT_NE(mended, nullptr);
    EXPECT_EQ(static_cast<char>(mended->data[0]), 'c');
}

TEST_F(Transfer, FailedWriteKeepsTheChangeUntilOneSucceeds)
{
    fill(4);
    set_up(&data, 1, 1);
    ASSERT_EQ(write(7, "change"), 6);
    vfs_buffer *buffer = data.curr;
    buffer->wfd = wrong_descriptor(O_RDONLY);
    EXPECT_EQ(cache_fetch_at(&data, block), nullptr) << "the only buffer cannot be evicted";
    EXPECT_EQ(errno, EBADF);
    check();
    EXPECT_TRUE(is_dirty(buffer));
    EXPECT_EQ(cache_write_out(&data, 0, none), -1);
    EXPECT_EQ(errno, EBADF);
    check();
    ASSERT_EQ(write(20, "more"), 4);
    buffer->wfd = file.fd;
    ASSERT_EQ(cache_write_out(&data, 0, none), 0);
    EXPECT_EQ(on_disk(6, 20), "achangeaaaaaaamoreaa");
    EXPECT_EQ(file.error, static_cast<uint32_t>(EBADF)) << "the first error stays";
}

TEST_F(Transfer, CloseTriesOnceMoreThenDropsAndReports)
{
    fill(2);
    set_up(&data, 2, 2);
    set_up(&meta, 2, 2);
    ASSERT_EQ(cache_header_create(&meta, 4096), 0);
    dirty_add(meta.hdrb);
    meta.hdrb->wfd = data.wfd = wrong_descriptor(O_RDONLY);
    ASSERT_EQ(write(0, "lost"), 4);
    data.curr->wfd = wrong;
    EXPECT_EQ(cache_close(&data), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(cache_close(&meta), -1);
    check();
    EXPECT_EQ(data.count, 0U);
    EXPECT_EQ(meta.hdrb, nullptr);
    EXPECT_EQ(on_disk(0, 4), "aaaa");
}

TEST_F(Transfer, WritePastTheFileSizeLimitFailsBeforeTheSignal)
{
    fill(1);
    set_up(&data, 2, 2);
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit lower{2 * block, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &lower), 0);
    EXPECT_EQ(write(block, std::string(block + 1, 'x')), static_cast<int64_t>(block + 1));
    EXPECT_EQ(cache_write_out(&data, 0, none), -1);
    EXPECT_EQ(errno, EFBIG);
    check();
    EXPECT_EQ(size_on_disk(), 2 * block) << "what is below the limit is written";
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_EQ(cache_close(&data), -1);
    EXPECT_EQ(errno, EFBIG);
}

TEST_F(Transfer, MappedBlocksPointIntoTheFileAndOthersAreRead)
{
    fill(2);
    change_on_disk(2 * block, "tail");
    file.end_of_file += 4;
    map();
    set_up(&data, 4, 4);
    EXPECT_EQ(data.hash, nullptr);
    EXPECT_EQ(read(block - 1, 3), "abb");
    EXPECT_EQ(data.curr->data, file.map_base + block);
    EXPECT_EQ(read(2 * block, 9), "tail");
    EXPECT_EQ(data.curr->data, data.curr->area) << "this block is not wholly in the mapping";
    ASSERT_EQ(write(block + 1, "MAP"), 3);
    EXPECT_EQ(on_disk(block, 5), "bMAPb") << "the mapping is the file";
    ASSERT_EQ(write(2 * block + 4, "grown"), 5);
    file.end_of_file += 5;
    ASSERT_EQ(cache_write_out(&data, 0, none), 0);
    EXPECT_TRUE(file.positioned_writes);
    EXPECT_EQ(on_disk(2 * block, 9), "tailgrown");
    EXPECT_EQ(cache_flush(&data, 0, none), 0);
    EXPECT_FALSE(file.positioned_writes);
}

TEST_F(Transfer, DirectTransferThatIsRefusedGoesThroughThePageCache)
{
    fill(2);
    const int direct = open(path.c_str(), O_RDWR | O_CLOEXEC | O_DIRECT);
    if (direct == -1) GTEST_SKIP() << "no direct I/O here";
    close(file.fd);
    file.fd = direct;
    file.mode_flags |= mode_direct;
    set_up(&data, 2, 2);
    EXPECT_EQ(read(block + 1, 3), "bbb");
    ASSERT_EQ(write(3, "direct"), 6);
    ASSERT_EQ(cache_flush(&data, 0, none), 0);
    EXPECT_EQ(on_disk(2, 8), "adirecta");
    set_up(&meta, 2, 2, 1000); // no file system takes this directly
    ASSERT_NE(cache_fetch_at(&meta, 500), nullptr);
    check();
    EXPECT_EQ(meta.curr->bytes, 1000U);
    if ((fcntl(file.fd, F_GETFL) & O_DIRECT) == 0) {
        EXPECT_EQ(file.mode_flags & mode_direct, 0);
    }
}

class Preallocation : public CacheTest, public testing::WithParamInterface<const char *> {
protected:
    void SetUp() override
    {
        make_file(GetParam());
        file.preallocates = true;
        data.flags |= cache_preallocates;
        data.state |= cache_fallocate_usable;
    }
};

INSTANTIATE_TEST_SUITE_P(OnDiskAndInMemory, Preallocation, testing::Values("/tmp", "/dev/shm"));

TEST_P(Preallocation, FirstAppendExtendsTheFileInOneStep)
{
    set_up(&data, 2, 2);
    ASSERT_EQ(write(0, "first"), 5);
    EXPECT_EQ(data.stats.extend, 1U);
    const uint64_t extended = size_on_disk();
    EXPECT_GT(extended, block);
    EXPECT_LE(extended, uint64_t{0x40000000});
    EXPECT_EQ(file.allocated_size, extended);
    ASSERT_EQ(write(block, "second"), 6);
    EXPECT_EQ(data.stats.extend, 1U);
    file.end_of_file = block + 6;
    uint8_t flags = 0;
    EXPECT_EQ(read(block + 6, 10, &flags), "") << "a preallocated tail holds no records";
    EXPECT_NE(flags & VFS_FLAG_AT_END, 0);
    ASSERT_EQ(ftruncate(other, static_cast<off_t>(extended + 5)), 0);
    file.allocated_size = 0;
    ASSERT_EQ(write(2 * block, "third"), 5);
    EXPECT_EQ(size_on_disk(), extended + 5) << "never shrinks what is there";
}

TEST_P(Preallocation, StaysBelowTheFileSizeLimit)
{
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit lower{5 * block, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &lower), 0);
    set_up(&data, 2, 2);
    EXPECT_EQ(write(0, "x"), 1);
    EXPECT_EQ(size_on_disk(), 5 * block);
    EXPECT_EQ(write(4 * block, std::string(block, 'y')), static_cast<int64_t>(block));
    EXPECT_EQ(cache_close(&data), 0);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_EQ(on_disk(5 * block - 1, 2), "y");
}
