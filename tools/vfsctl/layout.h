// How named columns lie in a record: fixed ones, the last one possibly of any length. The command line knows columns of
// text one behind the other; a schema (schema.h) also numbers, and places.
// Knows nothing of files and of the driver.
//
//   "assignment:9,organization:auto,address:*"    width in bytes, auto: the widest value found, *: the rest (last only)
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "field_type.h"

enum class column_kind { fixed, automatic, rest };

struct layout_column {
    std::string name;
    column_kind kind;
    uint64_t width;  // bytes; an automatic column begins with 0 and grows
    uint64_t offset; // in the record, once the widths are settled
    field_type type{};
};

struct layout {
    std::vector<layout_column> columns;

    // The column of that name (letter case ignored) when it has a fixed place and width.
    std::optional<layout_column> find(std::string_view name) const;
    void widen(size_t column, std::string_view value); // an automatic column takes in the value
    void settle();                                     // automatic columns become fixed; offsets are assigned
    bool is_settled() const;                           // it has no automatic columns
    std::string text() const;
};

// Both throw tool_error. A settled layout has no automatic columns: records of a file are read by it.
layout parse_layout(std::string_view text);
layout parse_settled_layout(std::string_view text);

// The layout for a header when none was given: every column as wide as its values, the last one free.
layout layout_of_header(const std::vector<std::string> &names);

bool same_name(std::string_view left, std::string_view right); // letter case ignored (ASCII)

// The record of a row whose fields stand in the layout's order. Nothing is ever cut: on a value that is too wide the
// result is empty and `reason` says which.
std::optional<std::string> record_of_fields(const layout &columns, const std::vector<std::string_view> &fields,
                                            std::string *reason);

// The fields of a record, padding taken off; a number that the record does not reach is empty.
std::vector<std::string> fields_of_record(const layout &columns, std::string_view record);
