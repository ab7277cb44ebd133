// What the metadata region says of a file, decoded, with the word whether it can be believed. Each part of it is judged
// for itself, so that a damaged counter does not hide the keys.
// Knows the format's offsets; must not know items, trees or what is reported.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "format/image.h"
#include "store/format.h"

struct file_key {
    struct part {
        uint64_t offset, length;
    };
    uint64_t number = 0;
    uint64_t entry = 0;  // address of its entry in the key table
    uint64_t length = 8; // bytes of a value
    bool duplicates = false;
    std::vector<part> parts; // none: the key is the record number
    node_geometry geometry{};
};

struct file_facts {
    // ---- what can be believed
    bool identified = false;         // tag, stamp and byte order
    bool region_known = false;       // metadata_size
    bool organization_known = false; // flat, indexed
    bool lengths_known = false;      // minimum_record, maximum_record, maximum_slot
    bool keys_known = false;         // keys, description, primary

    bool flat = false, fixed = false, indexed = false;
    uint64_t metadata_size = 0, data_start = 0, end = 0; // end: as the header says
    uint64_t minimum_record = 0, maximum_record = 0, maximum_slot = 0;
    uint64_t block = 0;
    uint32_t logical = 0;
    uint64_t primary = 0;
    std::vector<std::byte> region;      // the metadata region, or its first 4096 bytes; shorter in a shorter file
    std::vector<std::byte> description; // the key description as it stands there; empty: none is stored
    std::string description_fault;      // why it cannot be believed
    std::vector<file_key> keys;         // one for each tree

    template <typename T> T get(field<T> at) const { return image_get(std::span{region}, at); }
    // 0 when the region ends before the key's entry does: its size may be wrong while the description is not.
    template <typename T> T get(const file_key &key, field<T> at) const
    {
        if (key.entry + key_entry_bytes > region.size()) return 0;
        return image_get(std::span{region}.subspan(key.entry), at);
    }
};

// Everything is read with its bounds checked; nothing is reported.
file_facts read_facts(file_image &image);

// The keys of a description block; `fault` says why there are none.
std::vector<file_key> keys_of_description(std::span<const std::byte> block, uint64_t *primary, std::string *fault);

// Values of a key, W bytes each: -1, 0 or 1.
int compare_keys(const file_key &key, const std::byte *left, const std::byte *right);

// The value that a record's bytes give a key, W bytes. False when they cannot be read.
bool key_of_record(file_image &image, const file_key &key, uint64_t slot, std::vector<std::byte> *value);
