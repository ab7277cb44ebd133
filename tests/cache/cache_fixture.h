// A file, the facts of it that the lower floors know, and caches on it, as an open would set them up. Every step of a
// test ends in `check`, and what reached the file is looked at through a second descriptor.
#ifndef TESTS_CACHE_CACHE_FIXTURE_H
#define TESTS_CACHE_CACHE_FIXTURE_H

#include "cache/cache.h"
#include "io/io.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

class CacheTest : public testing::Test {
protected:
    static constexpr uint64_t block = 8192;

    void SetUp() override { make_file("/tmp"); }

    void TearDown() override
    {
        for (vfs_cache *cache : {&data, &index, &meta}) (void)cache_close(cache);
        if (file.map_base != nullptr) munmap(file.map_base, file.map_length);
        close_file();
    }

    void make_file(const std::string &folder)
    {
        path = folder + "/cache_test.XXXXXX";
        other = mkstemp(path.data());
        ASSERT_NE(other, -1);
        file = {};
        file.path = path.c_str();
        file.fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_NE(file.fd, -1);
        file.kind_flags = kind_regular;
        file.mode_flags = mode_readable;
        file.access_mode = VFS_ACCESS_DYNAMIC;
        file.lock_defaults.lock_mode = VFS_LOCK_FILE;
        file.settings.hashing = true;
        cache_reset(&data, &file, cache_data);
        cache_reset(&index, &file, cache_index);
        cache_reset(&meta, &file, cache_meta);
    }

    void close_file()
    {
        close(file.fd);
        close(other);
        unlink(path.c_str());
    }

    // Fills the file with `count` blocks; every byte of block k is 'a' + k.
    void fill(uint64_t count, uint64_t bytes = block)
    {
        for (uint64_t k = 0; k < count; ++k) {
            const std::string image(bytes, static_cast<char>('a' + k));
            ASSERT_EQ(pwrite(other, image.data(), bytes, static_cast<off_t>(k * bytes)), static_cast<ssize_t>(bytes));
        }
        file.end_of_file = file.size_at_open = file.allocated_size = count * bytes;
    }

    void set_up(vfs_cache *cache, uint32_t min, uint32_t max, uint64_t block_size = block)
    {
        cache->block_size = block_size;
        cache->block_mask = cache->bufftype == cache_data ? -block_size : none;
        cache->min = min;
        cache->max = max;
        cache->rfd = cache->wfd = file.fd;
        cache->filesize = file.end_of_file;
        cache->flags |= cache_zero_fill;
        if (file.map_base != nullptr) cache->engine |= engine_mmap;
        ASSERT_EQ(cache_init(cache), 0);
        check();
    }

    void map()
    {
        struct stat facts;
        ASSERT_EQ(fstat(file.fd, &facts), 0);
        file.map_length = static_cast<uint64_t>(facts.st_size);
        file.map_base =
            static_cast<std::byte *>(mmap(nullptr, file.map_length, PROT_READ | PROT_WRITE, MAP_SHARED, file.fd, 0));
        ASSERT_NE(file.map_base, MAP_FAILED);
        file.mode_flags |= mode_mapped;
    }

    void check() const
    {
        for (const vfs_cache *cache : {&data, &index, &meta}) cache_check(cache);
    }

    int64_t write(uint64_t position, std::string text)
    {
        vfs_segment segment{text.size(), text.data()};
        vfs_request request{};
        request.record_offset = position;
        request.segment_count = 1;
        request.segments = &segment;
        const int64_t count = cache_write_bytes(&data, &request);
        check();
        return count;
    }

    std::string read(uint64_t position, uint64_t length, uint8_t *flags = nullptr, uint8_t mode = VFS_POS_RRN)
    {
        std::string text(length, '?');
        vfs_segment segment{length, text.data()};
        vfs_request request{};
        request.record_offset = position;
        request.mode = mode;
        request.segment_count = 1;
        request.segments = &segment;
        const int64_t count = cache_read_bytes(&data, &request);
        check();
        if (flags != nullptr) *flags = request.flags;
        if (count < 0) return "error " + std::to_string(errno);
        return text.substr(0, static_cast<size_t>(count));
    }

    std::string on_disk(uint64_t position, uint64_t length) const
    {
        std::string text(length, '?');
        const ssize_t count = pread(other, text.data(), length, static_cast<off_t>(position));
        return text.substr(0, count < 0 ? 0 : static_cast<size_t>(count));
    }

    void change_on_disk(uint64_t position, const std::string &text) const
    {
        ASSERT_EQ(pwrite(other, text.data(), text.size(), static_cast<off_t>(position)),
                  static_cast<ssize_t>(text.size()));
    }

    uint64_t size_on_disk() const
    {
        struct stat facts;
        return fstat(other, &facts) == 0 ? static_cast<uint64_t>(facts.st_size) : none;
    }

    static bool cached(vfs_cache *cache, uint64_t position) { return cache_lookup(cache, position) == 1; }

    file_state file{};
    vfs_cache data{}, index{}, meta{};
    std::string path;
    int other = -1;
};

#endif
