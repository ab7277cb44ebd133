// Byte runs through the Data cache: what is copied, where it ends, and which bytes of the file are written.
#include "cache_fixture.h"

#include <random>

class Bytes : public CacheTest {};

TEST_F(Bytes, RunsCrossBlocksAndPiecesMayBeSkippedOrZero)
{
    fill(3);
    set_up(&data, 2, 2);
    std::string head = "HEAD", tail(5000, 't');
    vfs_segment pieces[] = {{4, head.data()}, {6000, nullptr}, {5000, tail.data()}};
    vfs_request request{};
    request.record_offset = block - 2;
    request.segment_count = 3;
    request.segments = pieces;
    ASSERT_EQ(cache_write_bytes(&data, &request), 11004);
    check();
    EXPECT_EQ(request.record_offset, block - 2);
    ASSERT_EQ(cache_write_out(&data, 0, none), 0);
    const std::string whole = head + std::string(6000, '\0') + tail;
    EXPECT_EQ(on_disk(block - 3, 11006), "a" + whole + "c");
    head = tail = std::string(5000, '?');
    pieces[0].address = head.data();
    pieces[2].address = tail.data();
    ASSERT_EQ(cache_read_bytes(&data, &request), 11004);
    EXPECT_EQ(head.substr(0, 4) + tail.substr(0, 2), "HEADtt");
}

TEST_F(Bytes, EndOfFileEndsARead)
{
    fill(2);
    file.end_of_file = block + 100; // what lies behind is preallocated
    set_up(&data, 4, 4);
    uint8_t flags = 0;
    EXPECT_EQ(read(block + 90, 50, &flags), std::string(10, 'b'));
    EXPECT_EQ(flags & VFS_FLAG_AT_END, 0);
    EXPECT_EQ(read(block + 100, 50, &flags), "");
    EXPECT_NE(flags & VFS_FLAG_AT_END, 0);
    EXPECT_EQ(read(9 * block, 1, &flags), "");
    EXPECT_NE(flags & VFS_FLAG_AT_END, 0);
    EXPECT_EQ(read(block + 99, 1, &flags), "b");
}

TEST_F(Bytes, ShortReadClearsTheRestAndAGrownFileIsReadAgain)
{
    fill(1);
    change_on_disk(block, "12345");
    file.end_of_file = block + 5;
    set_up(&data, 2, 2);
    ASSERT_NE(cache_fetch_at(&data, 0), nullptr);
    ASSERT_NE(cache_fetch_at(&data, block), nullptr);
    EXPECT_EQ(data.curr->bytes, 5U);
    EXPECT_EQ(static_cast<char>(data.curr->data[5]), '\0');
    change_on_disk(block, "abcdefgh");
    file.end_of_file = block + 8;
    EXPECT_EQ(read(block + 6, 2), "gh");
    EXPECT_EQ(read(block, 8), "abcdefgh") << "a clean block is read again as a whole";
    ASSERT_EQ(write(block, "X"), 1);
    change_on_disk(block, "........ij");
    file.end_of_file = block + 10;
    EXPECT_EQ(read(block + 8, 2), "ij");
    EXPECT_EQ(read(block, 10), "Xbcdefghij") << "a dirty one only behind its valid bytes";
    file.end_of_file = block + 20;
    EXPECT_EQ(read(block + 12, 2), "error " + std::to_string(ENOEXEC));
}

TEST_F(Bytes, OnlyThePagesOfAChangeAreWritten)
{
    fill(4);
    file.data_start = 4096;
    set_up(&data, 4, 4, 4 * block);
    ASSERT_EQ(write(block + 10, "new"), 3);
    EXPECT_EQ(data.curr->offset, 0U);
    for (uint64_t at : {block - 1, block + 4096}) change_on_disk(at, "*");
    ASSERT_EQ(write(4096 + 3, "first"), 5);
    change_on_disk(4095, "!");
    ASSERT_EQ(cache_write_out(&data, 0, none), 0);
    check();
    EXPECT_EQ(on_disk(4095, 1) + on_disk(4096 + 3, 5) + on_disk(block + 10, 3), "!firstnew");
    EXPECT_EQ(on_disk(block + 4096, 1), "*");
    EXPECT_EQ(data.stats.bytes_written, 8192U);
}

TEST_F(Bytes, ChangesOnBothSidesOfAnIndexBlockStayApart)
{
    fill(4);
    set_up(&data, 4, 4, 4 * block);
    data.flags |= cache_split_changes;
    ASSERT_EQ(write(10, "one"), 3);
    change_on_disk(block, "index block");
    ASSERT_EQ(write(3 * block, "two"), 3);
    EXPECT_EQ(on_disk(10, 3), "one") << "the earlier change is written first";
    ASSERT_EQ(write(3 * block + 3, "three"), 5);
    ASSERT_EQ(cache_write_out(&data, 0, none), 0);
    EXPECT_EQ(on_disk(block, 11) + on_disk(3 * block, 8), "index blocktwothree");
}

TEST_F(Bytes, UnalignedBufferServesAnyPositionAndWritesExactly)
{
    fill(1, 1000);
    data.block_size = 100;
    data.block_mask = none;
    data.min = data.max = 1;
    data.rfd = data.wfd = file.fd;
    data.filesize = file.end_of_file;
    ASSERT_EQ(cache_init(&data), 0);
    EXPECT_EQ(read(250, 300), std::string(300, 'a'));
    ASSERT_EQ(write(990, std::string(25, 'w')), 25);
    EXPECT_EQ(read(10, 5), "aaaaa");
    EXPECT_EQ(data.count, 1U);
    EXPECT_EQ(size_on_disk(), 1015U) << "never rounded";
    EXPECT_EQ(on_disk(988, 40), "aa" + std::string(25, 'w'));
}
