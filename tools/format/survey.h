// What a file is made of, counted: its items by kind, its trees level by level, its duplicates and its waste. For
// pictures and statistics; whether all of it is right is the check's to say, and what cannot be read is passed over.
// Reads only; knows nothing of the command line or of the driver.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <vector>

#include "format/facts.h"
#include "format/image.h"

enum class space : uint8_t { header, record, deleted, moved, branch, leaf, list, free_block, hole, damage, behind };
inline constexpr size_t spaces = 11;
const char *space_name(space kind);

struct space_count {
    uint64_t items = 0;
    uint64_t bytes = 0;
};

// Fill of nodes in tenths: the first counts those up to 10 % full.
using fill_histogram = std::array<uint64_t, 10>;

struct level_survey { // of a tree, the root first
    uint64_t nodes = 0, entries = 0, capacity = 0;
    fill_histogram fill{};
};

struct tree_survey {
    std::vector<level_survey> levels;
    uint64_t entries = 0;     // that lead to records
    uint64_t left_behind = 0; // entries of leaves that lead nowhere any more
    uint64_t equal = 0;       // entries with the value of the one before
    uint64_t longest_run = 0; // the most entries with one value; 1: all differ
    bool whole = true;        // all nodes could be gone through
};

struct file_survey {
    file_facts facts;
    uint64_t size = 0; // bytes of the file
    uint64_t end = 0;  // of what is used: the header's end of file, or the file's when that is shorter
    std::array<space_count, spaces> by_kind{};
    uint64_t data_bytes = 0;                     // of records
    uint64_t frame_bytes = 0;                    // of records' frames
    uint64_t pad_bytes = 0;                      // behind records' data, up to their frames' ends
    uint64_t longest = 0, shortest = UINT64_MAX; // records
    std::vector<tree_survey> trees;
    bool complete = true; // false: it was stopped

    const space_count &of(space kind) const { return by_kind[static_cast<size_t>(kind)]; }
};

// A node of a tree, as the walk from its root comes to it.
struct node_seen {
    const file_key &key;
    uint64_t level, levels; // level 0: the root
    uint64_t address, entries;
    std::span<const std::byte> bytes; // of the whole block, until the call returns

    bool is_leaf() const { return level + 1 == levels; }
    uint64_t capacity() const { return is_leaf() ? key.geometry.leaf_capacity : key.geometry.branch_capacity; }
    uint64_t target(uint64_t i) const { return load_u64(bytes.data() + node_head_bytes + 8 * i); }
    std::span<const std::byte> value(uint64_t i) const // of the key, with what pads it
    {
        const node_geometry &g = key.geometry;
        return bytes.subspan((is_leaf() ? g.leaf_key_array : g.branch_key_array) + i * g.width, g.width);
    }
};

struct survey_options {
    // Told of every piece of the file in the order of its bytes.
    std::function<void(space kind, uint64_t offset, uint64_t length)> item;
    // Told of every node before those below it.
    std::function<void(const node_seen &node)> node;
    std::function<bool(std::string_view what, uint64_t done, uint64_t total)> progress; // false: stop
    bool items = true, trees = true;                                                    // which walks are made
};

file_survey survey_file(file_image &image, const survey_options &options = {});
