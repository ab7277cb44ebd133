// Input files as records, each with the place it came from: CSV, lines, bytes of fixed length.
// Knows layouts and CSV; must not know the driver. The whole input is held in memory, since widths and order are
// looked at before the first record is written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "layout.h"

struct input_record {
    std::string bytes;
    size_t source; // index into input_set::sources
    size_t line;   // from 1; for bytes of fixed length the number of the record
};

struct refused_row {
    size_t source;
    size_t line;
    std::string reason;
    std::string text; // the row as it came
};

struct input_set {
    std::vector<std::string> sources; // names, "-" is standard input
    std::vector<input_record> records;
    std::vector<refused_row> refused; // rows that make no record
    std::optional<layout> columns;    // CSV: the layout, its widths settled
};

// Each throws tool_error when a file cannot be read or makes no sense as a whole.
input_set read_csv(const std::vector<std::string> &paths, std::optional<layout> wanted);
input_set read_lines(const std::vector<std::string> &paths);
input_set read_fixed(const std::vector<std::string> &paths, uint64_t length);
