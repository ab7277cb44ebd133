// The bytes of an open file, read in blocks of which the last ones are kept; pieces of it may be replaced by
// other pieces, so that a file can be seen as it will be when a pending change is in it.
// Calls only pread and lseek; knows nothing of what the bytes mean.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <span>
#include <vector>

class file_image {
public:
    explicit file_image(int descriptor); // borrowed; the size is the one of now
    uint64_t size() const { return size_; }

    // The bytes where they lie, until the next call of anything else here; null when they are not all in one block that
    // is held.
    const std::byte *peek(uint64_t offset, uint64_t length) const
    {
        const block &held = blocks_[offset / block_bytes % block_count];
        const uint64_t at = offset % block_bytes;
        if (held.number != offset / block_bytes || length > held.size || at > held.size - length) return nullptr;
        return arena_[offset / block_bytes % block_count].bytes + at;
    }
    // False when not all of it can be read: it reaches beyond the end, or the storage failed.
    [[nodiscard]] bool read(uint64_t offset, std::span<std::byte> into)
    {
        const std::byte *bytes = peek(offset, into.size());
        if (bytes == nullptr) return read_blocks(offset, into);
        std::memcpy(into.data(), bytes, into.size());
        return true;
    }
    template <typename T> [[nodiscard]] bool get(uint64_t offset, T *value)
    {
        return read(offset, std::as_writable_bytes(std::span{value, 1}));
    }
    uint64_t word(uint64_t offset) // 0 where nothing can be read
    {
        uint64_t value = 0;
        return get(offset, &value) ? value : 0;
    }

    // From now on the bytes at `source`, inverted as a pending change has them, are also those at `offset`. A later call
    // wins over an earlier one.
    void replace_inverted(uint64_t offset, uint64_t length, uint64_t source);

    // The first byte at or behind `offset` that is not in a hole of the file system; size() when there is none.
    uint64_t next_data(uint64_t offset) const;
    // Offset of the first byte of a range that is not zero; the range's end when all are, or cannot be read.
    uint64_t first_nonzero(uint64_t from, uint64_t to);

    int storage_error() const { return storage_error_; } // of the first read that failed inside the file; 0: none

private:
    static constexpr uint64_t block_bytes = 16 * 1024;
    static constexpr uint64_t block_count = 16; // together they stay in a processor's cache
    static constexpr uint64_t run_blocks = 8;   // read in one call where so many followed each other already
    struct alignas(4096) block_place {          // the system copies to the begin of a page faster
        std::byte bytes[block_bytes];
    };

    struct block {
        uint64_t number = UINT64_MAX;
        uint64_t size = 0; // shorter than a block at the end of the file; 0: it cannot be read
    };
    struct piece {
        uint64_t end, source; // source: of the piece's first byte
    };

    std::span<const std::byte> fetch(uint64_t number); // the block, empty when it cannot be read
    std::span<std::byte> place_of(uint64_t number) { return arena_[number % block_count].bytes; }
    bool fill(uint64_t number, uint64_t count);
    bool replace_in(uint64_t number, std::span<std::byte> bytes);
    bool read_blocks(uint64_t offset, std::span<std::byte> into);
    bool read_raw(uint64_t offset, std::span<std::byte> into);

    int descriptor_;
    uint64_t size_ = 0;
    int storage_error_ = 0;
    std::vector<block> blocks_;
    std::vector<block_place> arena_; // block n of the file lies in place n modulo the number of places
    uint64_t last_filled_ = UINT64_MAX, in_a_row_ = 0;
    std::map<uint64_t, piece> replaced_; // by the offset of the first byte; none overlap
};
