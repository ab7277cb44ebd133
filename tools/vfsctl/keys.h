// Keys as the command line writes them, and the block that describes them to the driver.
// Knows the host interface's key records; must not know files or commands.
//
//   0:12            12 bytes from offset 0
//   12:30,dup       several records may have the same value
//   60:4+70:2       two parts laid end to end
//   Name,dup        a column of the layout, when there is one
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <vfs.h>

struct layout;

constexpr uint64_t longest_record = uint64_t{1} << 31; // a larger number in a description is a typing error

struct key_part {
    uint64_t offset;
    uint64_t length;
};

struct key_spec {
    std::vector<key_part> parts;
    bool duplicates = false;

    uint64_t length() const;
    uint64_t end() const; // one past the last byte of the record that the key covers
};

// Throws tool_error. Column names are looked up in `columns` when it is not null.
key_spec parse_key(std::string_view text, const layout *columns);
std::string key_text(const key_spec &key);

// The contiguous block that open takes; the first key is the primary one.
class key_description {
public:
    explicit key_description(const std::vector<key_spec> &keys);
    const vfs_key_desc *get() const { return reinterpret_cast<const vfs_key_desc *>(block_.data()); }

private:
    std::vector<uint64_t> block_; // words, for alignment
};

// The keys that a block of the driver describes.
std::vector<key_spec> keys_of(const vfs_key_desc *block);

struct chosen_key {
    key_spec spec;
    int64_t number;
};

// The key of a file that `text` means: its number, or the column that is the key's only part. Throws tool_error.
chosen_key choose_key(std::string_view text, const vfs_key_desc *block, const layout *columns);

// The key's value in a record; parts that the record does not reach are zero bytes, as in the driver.
std::string key_value(const key_spec &key, std::string_view record);

// A key value typed by a person: padded with blanks to `length`. Throws tool_error when it is longer.
std::string padded_key(std::string_view text, uint64_t length);

// "4142" -> "AB". Throws tool_error.
std::string bytes_of_hex(std::string_view text);
