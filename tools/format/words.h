// What the two words of a header say: whether the file was closed, and what is pending in it.
// Knows the words, the bytes behind the end and the boot of this machine; must not know the rest of a file.
#pragma once

#include <cstdint>
#include <optional>

#include "format/image.h"
#include "format/redo.h"

enum class session_state {
    closed,
    finished_changes, // of this boot: every finished change is in the file, perhaps not yet on the disk
    other_boot,       // not closed before the machine stopped
    unflushed,        // a program keeps changes in memory, or did when it died
    pending_redo,     // a committed change is to be finished
    bad_redo,         // the state word leads to no whole pending change
};

struct session {
    session_state state = session_state::closed;
    uint64_t state_word = 0, boot_word = 0;
    redo_area redo; // pending_redo, bad_redo
};

uint64_t boot_word_now();
session read_session(file_image &image);

// Items that hold behind the end of the file, where the words make them more than the rest of a dropped operation.
struct items_behind {
    uint64_t first = 0;   // offset of the first one
    uint64_t records = 0; // how many of them are records
    uint64_t items = 0;
};
items_behind find_behind(file_image &image, uint64_t end, const session &words);
