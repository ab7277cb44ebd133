// The records of a damaged file: the items are gone through by their lengths, from place to place where a frame holds,
// and of several slots with one record number one is chosen. Relies on nothing in the file but what holds.
// Reads only; must not know the driver.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "format/check.h"

struct found_record {
    uint64_t rrn;
    uint64_t slot;   // offset of the slot with the record in it
    uint64_t length; // bytes of the record
};

// What is not among the records that were found.
struct rejected_bytes {
    uint64_t offset = 0, length = 0; // of the bytes; of a record they are the record's
    std::string_view reason;
    std::optional<uint64_t> rrn = {}; // of a record
};

struct salvage_options {
    std::function<void(const rejected_bytes &)> reject; // zeros are not reported
    std::function<bool(std::string_view what, uint64_t done, uint64_t total)> progress;
};

// In the order of the record numbers. `facts` as far as they are known; `words` decides how far behind the end of file
// is looked.
std::vector<found_record> salvage_records(file_image &image, const file_facts &facts, const session &words,
                                          const salvage_options &options);
