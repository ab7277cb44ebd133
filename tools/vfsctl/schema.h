// A description of a file's records and keys, as JSON: the shape that the options of the command line also say.
// Throws usage_error, which names the description and the place in it.
//
//   {
//     "fields": [
//       {"name": "number", "type": "digits", "bytes": 6},
//       {"name": "name", "bytes": 30},
//       {"name": "balance", "type": "packed", "bytes": 5, "decimals": 2},
//       {"name": "visits", "type": "natural", "bytes": 4, "order": "little", "at": 50},
//       {"name": "note"}
//     ],
//     "keys": ["number", "name,dup", "name+number"],
//     "min": 54, "max": 500
//   }
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "layout.h"

struct record_shape {
    std::optional<layout> columns;
    std::vector<std::string> keys; // as on the command line; they may name columns
    uint64_t fixed = 0;            // 0: records have different lengths
    uint64_t min = 0;
    uint64_t max = 0;     // 0: not said
    bool latin_1 = false; // JSON: the records' text is ISO 8859-1, not UTF-8
};

record_shape parse_schema(const std::string &text, const std::string &name);

// The options --schema and --layout of a command, which exclude each other.
struct shape_options {
    std::string schema;
    std::string layout_text;

    bool given() const { return !schema.empty() || !layout_text.empty(); }
    record_shape read(bool automatic_widths = false) const; // automatic: the layout may wait for data
};
CLI::Option *declare_layout(CLI::App &command, shape_options &options, const std::string &help);
