// A committed change that was not finished: the bytes that its process wrote behind the end of the file, and the places
// where they belong. Knows its layout; must not know what the bytes mean.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "format/image.h"

struct redo_range {
    uint64_t offset, length; // where the bytes belong
    uint64_t source;         // where they stand now, inverted
};

struct redo_area {
    std::string fault; // why it cannot be used; empty: it is whole
    std::vector<redo_range> ranges;
};

redo_area read_redo(file_image &image, uint64_t at);

// The bytes of an area that begins at `at`, as its head says; 0 when there is none.
uint64_t redo_bytes(file_image &image, uint64_t at);
