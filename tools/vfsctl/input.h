// Input files as records, each with the place it came from: CSV, lines, bytes of fixed length, lines of JSON, dumps of
// other stores. They are read as often as they are asked for, one record in memory at a time.
// Knows layouts and the text formats; must not know the driver.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "layout.h"
#include "text_input.h"

enum class input_format { csv, lines, fixed, json, dump };

struct input_request {
    std::vector<std::string> paths; // "-" is standard input
    input_format format = input_format::csv;
    uint64_t fixed = 0;            // fixed: bytes of a record
    std::optional<layout> columns; // CSV: empty takes all columns of the header; JSON: empty takes whole records
    bool latin_1 = false;          // JSON: see json_record.h
    bool join_key = false;         // dump: the record is the key and then the data, not the data alone
    std::string database;          // dump: which one; empty: there is only one
};

struct input_record {
    std::string bytes;
    size_t source = 0; // index into the paths
    size_t line = 0;   // from 1; for bytes of fixed length the number of the record
    std::string key;   // dump: the key that came with the record; empty: none did
};

struct refused_row {
    size_t source;
    size_t line;
    std::string reason;
    std::string text; // the row as it came
};

class record_input {
public:
    // Throws tool_error when a file cannot be read or makes no sense as a whole.
    explicit record_input(input_request request);

    // Reads everything from the beginning. A row that makes no record goes to `refused`; `record` returns false when
    // it wants no more.
    void each(const std::function<bool(input_record &)> &record, const std::function<void(refused_row &&)> &refused);

    const std::string &name(size_t source) const { return request_.paths[source]; }
    input_format format() const { return request_.format; }
    // The columns of CSV and JSON, their widths settled; null: none.
    const layout *columns() const { return request_.columns ? &*request_.columns : nullptr; }

private:
    struct csv_places {
        std::vector<size_t> places; // for each column of the layout the position of its field
        size_t header_fields = 0;
    };
    struct receiver {
        const std::function<bool(input_record &)> &record;
        const std::function<void(refused_row &&)> &refused;
    };

    void read_header(size_t source);
    void settle_widths();
    bool each_of(size_t source, const receiver &to); // false: no more is wanted, of the next source neither
    bool each_csv(size_t source, const receiver &to);
    bool each_line(size_t source, const receiver &to);
    bool each_fixed(size_t source, const receiver &to);
    bool each_json(size_t source, const receiver &to);
    bool each_dump(size_t source, const receiver &to);

    input_request request_;
    std::vector<text_input> inputs_;
    std::vector<csv_places> headers_;
};
