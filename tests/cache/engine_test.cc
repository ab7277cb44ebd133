// Transfers that go on while the caller does something else: read ahead, written behind and flushed through the
// kernel's queue, by server threads, and by threads that use the queue, through the page cache and past it.
#include "cache_fixture.h"
#include "util/process.h"

#include <dirent.h>
#include <sys/wait.h>
#include <thread>

namespace {

struct engine_choice {
    const char *name;
    uint8_t modes;
    bool queue; // asked for
    const io_engine *expected;
};

const engine_choice choices[] = {{"Unset", mode_asynchronous, false, &announce_engine},
                                 {"Queue", mode_asynchronous, true, &kernel_engine},
                                 {"Threads", mode_threads, false, &server_engine},
                                 {"ThreadsWithQueue", mode_asynchronous | mode_threads, true, &server_engine}};

size_t threads_of_process()
{
    size_t count = 0;
    DIR *folder = opendir("/proc/self/task");
    while (const dirent *entry = readdir(folder)) count += entry->d_name[0] != '.' ? 1 : 0;
    closedir(folder);
    return count;
}

// A thread that has been joined may be listed for a moment longer.
size_t threads_settled(size_t wanted)
{
    for (int tries = 0; tries < 2000 && threads_of_process() != wanted; ++tries) usleep(1000);
    return threads_of_process();
}

// A sanitizer starts a thread of its own with the first one.
size_t threads_before()
{
    std::thread{[] {}}.join();
    usleep(1000);
    return threads_of_process();
}

} // namespace

class Engine : public CacheTest, public testing::WithParamInterface<std::tuple<engine_choice, bool>> {
protected:
    void SetUp() override
    {
        CacheTest::SetUp();
        file.mode_flags |= std::get<0>(GetParam()).modes;
        file.settings.queue_asked = std::get<0>(GetParam()).queue;
        if (!std::get<1>(GetParam())) return;
        const int direct = open(path.c_str(), O_RDWR | O_CLOEXEC | O_DIRECT);
        if (direct == -1) GTEST_SKIP() << "no direct I/O here";
        close(file.fd);
        file.fd = direct;
        file.mode_flags |= mode_direct;
    }
    // Past the page cache only the queue can read while the caller goes on.
    const io_engine *expected() const
    {
        const io_engine *engine = std::get<0>(GetParam()).expected;
        return engine == &announce_engine && std::get<1>(GetParam()) ? &kernel_engine : engine;
    }
    // Whether writes can be left under way: to the page cache they are copied at once.
    uint32_t left_under_way(uint32_t count) const { return expected() == &announce_engine ? 0 : count; }
};

INSTANTIATE_TEST_SUITE_P(All, Engine, testing::Combine(testing::ValuesIn(choices), testing::Bool()),
                         [](const auto &chosen) {
                             return std::string{std::get<0>(chosen.param).name} +
                                    (std::get<1>(chosen.param) ? "Direct" : "Cached");
                         });

TEST_P(Engine, BlocksReadAheadAreUnderWayAndThenRight)
{
    fill(10);
    set_up(&data, 4, 4);
    data.readahead = 3;
    vfs_request request{};
    request.mode = VFS_POS_NEXT;
    request.operation = VFS_OP_READ;
    ASSERT_EQ(cache_fetch_ahead(&data, &request), 0);
    check();
    EXPECT_EQ(data.stats.async, 3U) << "the block asked for is awaited at once, the others are not";
    if (expected() != &announce_engine) {
        EXPECT_EQ(data.pending_reads, 3U);
    }
    for (const vfs_buffer *buffer = data.read_queue.head; buffer != nullptr; buffer = buffer->qnext)
        EXPECT_EQ(buffer->at_work, expected());
    for (uint64_t k = 0; k < 10; ++k) {
        request.record_offset = k * block + 1;
        ASSERT_EQ(cache_fetch_ahead(&data, &request), 0);
        check();
        EXPECT_EQ(static_cast<char>(data.curr->data[block - 1]), static_cast<char>('a' + k));
        EXPECT_EQ(data.curr->bytes, block);
    }
    EXPECT_EQ(data.miss, 10U);
    EXPECT_EQ(data.stats.prefetch, 9U);
    EXPECT_EQ(data.stats.bytes_read, 10 * block);
}

TEST_P(Engine, FullBlockIsWrittenBehindTheWriterOnce)
{
    set_up(&data, 4, 4);
    data.writebehind = 3;
    ASSERT_EQ(write(0, std::string(3 * block, 'w')), static_cast<int64_t>(3 * block));
    EXPECT_EQ(data.stats.async, 3U);
    file.end_of_file = 3 * block;
    EXPECT_EQ(read(10, 4), "wwww") << "the image of a block is good while it is being written";
    ASSERT_EQ(write(5, "again"), 5) << "changed only when the write is over";
    EXPECT_EQ(on_disk(0, 12), "wwwwwwwwwwww");
    ASSERT_EQ(write(block - 1, "x"), 1);
    EXPECT_EQ(data.stats.async, 3U) << "written behind once, whatever comes later";
    ASSERT_EQ(cache_write_out(&data, 0, none), 0);
    check();
    EXPECT_EQ(data.pending_writes, 0U);
    EXPECT_EQ(on_disk(0, 12), "wwwwwagainww");
    EXPECT_EQ(data.stats.spill, 0U);
    EXPECT_EQ(on_disk(3 * block - 1, 5).substr(0, 1), "w");
}

TEST_P(Engine, CancelledReadsCountAsNothingReadAndCloseWaits)
{
    fill(6);
    set_up(&data, 4, 4);
    cache_prefetch(&data, 0);
    cache_prefetch(&data, block);
    const bool under_way = data.pending_reads != 0;
    EXPECT_EQ(cache_invalidate(&data, 5 * block, none), 0) << "reads anywhere are given up";
    check();
    EXPECT_EQ(data.pending_reads, 0U);
    EXPECT_EQ(cached(&data, 0), !under_way);
    EXPECT_EQ(read(0, 3), "aaa");
    cache_prefetch(&data, 3 * block);
    EXPECT_EQ(cache_close(&data), 0);
    EXPECT_EQ(data.count, 0U);
}

TEST_P(Engine, FailedReadAheadIsReportedByTheFetchThatNeedsIt)
{
    fill(4);
    set_up(&data, 2, 2);
    const int wrong = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    data.idle_head->rfd = wrong;
    cache_prefetch(&data, block);
    check();
    EXPECT_EQ(file.error, 0U);
    EXPECT_EQ(cache_fetch_at(&data, block), nullptr);
    EXPECT_EQ(errno, EBADF);
    check();
    EXPECT_EQ(file.error, static_cast<uint32_t>(EBADF));
    close(wrong);
}

TEST_P(Engine, FailedWriteBehindIsKeptAndReported)
{
    fill(2);
    set_up(&data, 2, 2);
    data.writebehind = 1;
    const int wrong = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    data.idle_head->wfd = wrong;
    testing::internal::CaptureStderr();
    (void)write(0, std::string(block, 'f'));
    EXPECT_EQ(cache_write_out(&data, 0, none), -1);
    (void)testing::internal::GetCapturedStderr();
    check();
    EXPECT_EQ(file.error, static_cast<uint32_t>(EBADF));
    vfs_buffer *buffer = data.dirty_queue.head;
    ASSERT_NE(buffer, nullptr) << "the change is not lost";
    buffer->wfd = file.fd;
    EXPECT_EQ(cache_write_out(&data, 0, none), 0);
    EXPECT_EQ(on_disk(0, 3), "fff");
    close(wrong);
}

TEST_P(Engine, ForkedChildLeavesTransfersToItsParent)
{
    ASSERT_EQ(process_generation_watch(), 0);
    fill(4);
    set_up(&data, 4, 4);
    cache_prefetch(&data, block);
    ASSERT_EQ(write(0, std::string(block, 'p')), static_cast<int64_t>(block));
    ASSERT_EQ(cache_write_dirty(&data, 0, none), 1);
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        cache_forget_transfers(&data);
        cache_discard(&data);
        _exit(cache_close(&data) == 0 && data.count == 0 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read(block, 1), "b");
    EXPECT_EQ(cache_write_out(&data, 0, none), 0);
    EXPECT_EQ(on_disk(block - 1, 2), "pb");
}

class Servers : public CacheTest {};

TEST_F(Servers, EachDataBufferHasAThreadAndNoneOutlivesItsBuffer)
{
    const size_t before = threads_before();
    fill(8);
    file.mode_flags |= mode_threads;
    set_up(&data, 4, 4);
    set_up(&index, 4, 4);
    for (uint64_t k = 0; k < 4; ++k) ASSERT_NE(cache_fetch_at(&data, k * block), nullptr);
    ASSERT_NE(cache_fetch_at(&index, 0), nullptr);
    EXPECT_EQ(threads_settled(before + 4), before + 4) << "index blocks come one at a time";
    {
        std::vector<pinned_buffer> pins;
        for (vfs_buffer *buffer = data.lru_head; buffer != nullptr; buffer = buffer->next) pins.emplace_back(buffer);
        ASSERT_NE(cache_fetch_at(&data, 6 * block), nullptr);
        EXPECT_EQ(data.count, 5U);
        EXPECT_EQ(threads_settled(before + 4), before + 4) << "a buffer above the maximum has none";
    }
    ASSERT_EQ(cache_close(&data), 0);
    EXPECT_EQ(threads_settled(before), before);
}
