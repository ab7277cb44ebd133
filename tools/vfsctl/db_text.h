// The text format of db5.3_dump and mdb_dump, version 3: a header of name=value lines, then two lines for each record,
// its key and its data, each behind a blank; "bytevalue" has all bytes as hexadecimal digits, "print" only those that
// cannot be printed. With type=recno keys are record numbers from 1, their decimal digits; they are there when the header
// has keys=1. (db5.3_load reads such keys only as bytevalue.)
// Knows text only. Throws tool_error with the line.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "text_input.h"

enum class db_text_form { print, bytevalue };

struct db_text_header {
    db_text_form form = db_text_form::bytevalue;
    std::string type;     // "btree", "hash", "recno", "queue"; empty: not said
    std::string database; // name inside the store; empty: the only one
    bool keys = true;     // false: only data lines
};

std::string db_text_line(std::string_view bytes, db_text_form form); // with its blank, without a newline
std::string db_text_head(const db_text_header &header, bool duplicates);
inline constexpr std::string_view db_text_end = "DATA=END\n";

class db_text_reader {
public:
    explicit db_text_reader(text_input &input) : input_(&input) {}

    bool next_database(db_text_header &header);     // false: there is none left
    bool next(std::string &key, std::string &data); // false: the database ends here; the key is empty without keys
    size_t line() const { return line_; }           // of the last record's data

private:
    bool next_line();
    void bytes_of_line(std::string &into) const;
    [[noreturn]] void fail(const std::string &what) const;

    text_input *input_;
    std::string text_;
    size_t line_ = 0;
    db_text_header header_;
};
