// Comma-separated values (RFC 4180): fields, quotes, quoted newlines. Knows text only.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "text_input.h"

struct csv_row {
    size_t line = 0; // on which the row begins, from 1
    std::vector<std::string> fields;
};

// Reads rows from a text that outlives the reader. A byte-order mark in front, CRLF line ends and a missing newline at
// the end are fine; lines without any character are skipped. A broken quote cannot be skipped safely (every later row
// could be read wrongly), so it throws tool_error with the line.
class csv_reader {
public:
    explicit csv_reader(text_input &text); // from where it stands
    bool next(csv_row &row);               // false at the end

private:
    bool next_line();
    bool at_line_end() const;
    void read_quoted(std::string &field);
    void read_plain(std::string &field);

    text_input *text_;
    std::string row_; // the line that is being read, without its newline
    size_t at_ = 0;   // in row_
    size_t line_ = 0; // the number of that line, from 1
};

// The row as text, quoted where it has to be, without a line end.
std::string csv_text(const std::vector<std::string> &fields);
