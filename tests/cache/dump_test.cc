// The text of a cache, letter by letter, in a locale that groups thousands and in C. Addresses are masked.
#include "../grouping.h"
#include "cache_fixture.h"

#include <clocale>
#include <cstdio>
#include <regex>

class Dump : public CacheTest {
protected:
    void TearDown() override
    {
        setlocale(LC_ALL, "C");
        CacheTest::TearDown();
    }

    std::string dump(const vfs_cache &cache, bool with_buffers)
    {
        testing::internal::CaptureStderr();
        cache_dump(&cache, with_buffers);
        return std::regex_replace(testing::internal::GetCapturedStderr(), std::regex{"0x[0-9a-f]{9,13}(?![0-9a-f])"},
                                  "ADDRESS");
    }

    void count_much()
    {
        data.stats = {.bytes_read = 1047552,
                      .bytes_written = 1536,
                      .use = 4000000,
                      .spill = 1002,
                      .stall = 1003,
                      .wait = 1004,
                      .invalidate = 1005,
                      .flush = 1006,
                      .prefetch = 1007,
                      .cancel = 1008,
                      .abscond = 1009,
                      .lock = 1010,
                      .retries = 1011,
                      .redundant = 0,
                      .async = 1012,
                      .random = 0,
                      .extend = 1013};
        data.miss = 1000000;
        data.readahead = 1014;
        data.writebehind = 1015;
        data.first_error = 5;
        data.name = "orders";
        data.block_size = block;
    }
};

TEST_F(Dump, CountersInALocaleThatGroups)
{
    ASSERT_TRUE(group_thousands()) << "localedef, with the character maps of Debian's package `locales`, makes it";
    count_much();
    EXPECT_EQ(dump(data, false),
              "A PIO Data  0 0:0-0 @8.00KiB  file: orders\n"
              "\tuse=4,000,000 hit=3,000,000(75.00%) miss=1,000,000(25.00%)\n"
              "\tasync=1,012 random=0 stall=1,003 spill=1,002 wait=1,004 prefetch=1,007 abscond=1,009\n"
              "\tflush=1,006 invalidate=1,005 cancel=1,008 lock=1,010 retries=1,011\n"
              "\textend=1,013 redundant=0 readahead=1,014 writebehind=1,015 errno=5\n"
              "\tread=1,023.00KiB write=1.50KiB\n");
}

TEST_F(Dump, EnginesAndKindsHaveTheirWords)
{
    const auto head = [&](const vfs_cache &cache) {
        const std::string text = dump(cache, false);
        return text.substr(0, text.find(" 0 "));
    };
    fill(1);
    for (vfs_cache *cache : {&data, &index, &meta}) set_up(cache, 4, 4);
    EXPECT_EQ(head(data) + "|" + head(index) + "|" + head(meta), "H PIO Data |H PIO Index|H PIO Meta ");
    data.engine = engine_aio;
    EXPECT_EQ(head(data), "H AIO Data ");
    data.engine = engine_aio | engine_direct;
    EXPECT_EQ(head(data), "H DIO Data ");
    data.engine = engine_mmap | engine_direct;
    EXPECT_EQ(head(data), "H MMAP Data ");
    data.engine = engine_fifo;
    EXPECT_EQ(head(data), "H  IO Data ");
    data.engine = 0;
    data.mode = cache_threads;
    EXPECT_EQ(head(data), "HT PIO Data ");
    data.mode = 0;
    EXPECT_EQ(head(data), "HA PIO Data ");
}
