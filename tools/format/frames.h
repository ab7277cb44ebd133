// Items of a file by their frames: reading one, judging it, finding the next one behind damage.
// Knows the format's offsets; must not know what a whole file has to look like.
#pragma once

#include <cstdint>

#include "format/image.h"

struct frame {
    uint64_t offset = 0;
    uint64_t length = 0;
    uint64_t link = 0; // the second word: of a record its data length, of a moved slot where the record is
    uint64_t rrn = 0;  // of a slot
    uint8_t type = 0;
    bool reserved_zero = true;

    bool is_block() const;  // an index block: free, branch, leaf, list of free slots
    bool is_slot() const;   // a record slot of any type
    bool is_record() const; // a slot with a record in it
};

enum class frame_fault {
    none,
    head,    // type or length cannot be: nothing says where the next item begins
    trailer, // the length at the end is another one
};

// Reads the frame at `offset`; `limit` is the end of what may belong to it.
frame_fault read_frame(file_image &image, uint64_t offset, uint64_t limit, frame *found);

// Everything that a frame says of itself agrees: what looks so between damaged bytes is taken for an item.
bool frame_holds(file_image &image, uint64_t offset, uint64_t limit, frame *found);

// The first place behind `from` (a multiple of 8) where a frame holds; `limit` when there is none.
uint64_t next_frame(file_image &image, uint64_t from, uint64_t limit, frame *found);
