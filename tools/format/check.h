// The check of a whole file: everything that the format promises, compared with the bytes.
// Reads only; knows nothing of locks, of the command line or of the driver.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string_view>
#include <thread>

#include "format/facts.h"
#include "format/image.h"
#include "format/report.h"
#include "format/words.h"

inline unsigned all_processors()
{
    return std::max(1U, std::thread::hardware_concurrency());
}

struct check_options {
    uint64_t line_limit = 40;        // problems whose text is kept, and notes
    bool fast = false;               // header and trees alone: neither records nor free space are looked at
    unsigned threads = 1;            // at most; more than one for files that are several pieces long
    uint64_t piece_bytes = 16 << 20; // of the file, for each thread at a time
    // Told what is being done and how far it is; returns false when the check is to stop.
    std::function<bool(std::string_view what, uint64_t done, uint64_t total)> progress;
};

struct check_result {
    explicit check_result(uint64_t line_limit) : report(line_limit) {}

    check_report report;
    session words;
    file_facts facts;
    items_behind behind;
    uint64_t records = 0; // that were found; of a fast check those that the header counts
    uint64_t pieces = 1;  // in which the items were walked
    bool complete = true; // false: it was stopped
    // Items and trees were gone through: not behind a header that says nothing, nor in a fast check.
    bool walked = false;
    bool sound() const { return complete && report.problem_count() == 0; }
    // The trees lead to every record that the walk finds, so that they can be read by their order.
    bool trees_sound() const;
};

// Puts a pending change of the file into `image`, so that it is checked as the next open will make it.
// Memory: a bit for each record number, and for each eight bytes where slots are free; when a tree does not agree with
// the records also two bits for each eight bytes of the file. By several threads up to twice that.
check_result check_image(file_image &image, const check_options &options = {});

// The slots of the records in the order of a sound tree, until the call returns false.
void each_in_tree(file_image &image, const file_facts &facts, const file_key &key,
                  const std::function<bool(uint64_t slot)> &call);
