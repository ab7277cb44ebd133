// Records as lines of JSON: an object with a member for each column, or without columns the whole record as "record"
// (text) or "hex".
// Knows layouts; must not know files.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "layout.h"

struct json_shape {
    const layout *columns = nullptr; // borrowed; null: the whole record
    bool latin_1 = false;            // the records' text is ISO 8859-1
};

// Throws tool_error when a text is not in the encoding that is said.
std::string json_of_record(const json_shape &shape, std::string_view record);

// Empty when the line makes no record; then `reason` says why.
std::optional<std::string> record_of_json(const json_shape &shape, std::string_view line, std::string *reason);
