// The bytes of an open file, read in blocks of which the last few megabytes are kept; pieces of it may be replaced by
// other pieces, so that a file can be seen as it will be when a pending change is in it.
// Calls only pread and lseek; knows nothing of what the bytes mean.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

class file_image {
public:
    explicit file_image(int descriptor); // borrowed; the size is the one of now
    uint64_t size() const { return size_; }

    // False when not all of it can be read: it reaches beyond the end, or the storage failed.
    [[nodiscard]] bool read(uint64_t offset, std::span<std::byte> into);
    template <typename T> [[nodiscard]] bool get(uint64_t offset, T *value)
    {
        return read(offset, std::as_writable_bytes(std::span{value, 1}));
    }
    uint64_t word(uint64_t offset); // 0 where nothing can be read

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
    static constexpr uint64_t block_count = 512;

    struct block {
        uint64_t number = UINT64_MAX;
        std::vector<std::byte> bytes; // shorter than a block at the end of the file
    };
    struct piece {
        uint64_t end, source; // source: of the piece's first byte
    };

    const block &fetch(uint64_t number);
    void fill(block &target, uint64_t number);
    bool read_raw(uint64_t offset, std::span<std::byte> into);

    int descriptor_;
    uint64_t size_ = 0;
    int storage_error_ = 0;
    std::vector<block> blocks_;
    std::map<uint64_t, piece> replaced_; // by the offset of the first byte; none overlap
};
