// Reads and writes the text format.
#include "db_text.h"

#include <fmt/format.h>

#include "errors.h"

namespace {

int digit_of(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The byte of two hexadecimal digits at `at`; -1 when they are none.
int byte_at(std::string_view text, size_t at)
{
    if (at + 2 > text.size()) return -1;
    const int high = digit_of(text[at]), low = digit_of(text[at + 1]);
    return high < 0 || low < 0 ? -1 : high << 4 | low;
}

void put_hex(std::string &text, char c)
{
    constexpr const char *digits = "0123456789abcdef";
    text += digits[static_cast<unsigned char>(c) >> 4];
    text += digits[c & 15];
}

bool is_numbered(const db_text_header &header)
{
    return header.type == "recno" || header.type == "queue";
}

} // namespace

std::string db_text_line(std::string_view bytes, db_text_form form)
{
    std::string text = " ";
    for (const char c : bytes) {
        const bool printable = form == db_text_form::print && c >= ' ' && c <= '~';
        if (printable && c != '\\') {
            text += c;
        } else if (printable) {
            text += "\\\\";
        } else {
            if (form == db_text_form::print) text += '\\';
            put_hex(text, c);
        }
    }
    return text;
}

std::string db_text_head(const db_text_header &header, bool duplicates)
{
    return fmt::format("VERSION=3\nformat={}\ntype={}\n{}{}HEADER=END\n",
                       header.form == db_text_form::print ? "print" : "bytevalue", header.type,
                       is_numbered(header) && header.keys ? "keys=1\n" : "", duplicates ? "duplicates=1\n" : "");
}

void db_text_reader::fail(const std::string &what) const
{
    throw tool_error(fmt::format("{}: line {}: {}", input_->path(), line_, what));
}

bool db_text_reader::next_line()
{
    ++line_;
    return input_->line(text_);
}

bool db_text_reader::next_database(db_text_header &header)
{
    header_ = {};
    bool first = true, says_keys = false;
    for (;; first = false) {
        if (!next_line()) {
            if (!first) fail("the header has no end; is the file cut off?");
            return false;
        }
        if (text_ == "HEADER=END") break;
        const size_t equals = text_.find('=');
        if (equals == std::string::npos) fail("this is no line name=value of the header of a dump");
        const std::string name = text_.substr(0, equals);
        const std::string value = text_.substr(equals + 1);
        if (first && (name != "VERSION" || value != "3"))
            fail("a dump begins with VERSION=3; db5.3_dump, mdb_dump and 'vfsctl dump' write it");
        if (name == "format" && value != "print" && value != "bytevalue")
            fail(fmt::format("format '{}' is neither print nor bytevalue", value));
        if (name == "format") header_.form = value == "print" ? db_text_form::print : db_text_form::bytevalue;
        if (name == "type") header_.type = value;
        if (name == "database" || name == "subdatabase") header_.database = value;
        if (name == "keys") {
            says_keys = true;
            header_.keys = value != "0";
        }
    }
    if (!says_keys) header_.keys = !is_numbered(header_);
    header = header_;
    return true;
}

void db_text_reader::bytes_of_line(std::string &into) const
{
    into.clear();
    if (text_.empty() || text_.front() != ' ') fail("a line of data begins with a blank; DATA=END ends them");
    const bool print = header_.form == db_text_form::print;
    for (size_t at = 1; at < text_.size(); ++at) {
        if (print && text_[at] != '\\') {
            into += text_[at];
            continue;
        }
        if (print) ++at; // the backslash
        if (print && at < text_.size() && text_[at] == '\\') {
            into += '\\';
            continue;
        }
        const int byte = byte_at(text_, at);
        if (byte < 0) fail("two hexadecimal digits belong here");
        into += static_cast<char>(byte);
        ++at;
    }
}

bool db_text_reader::next(std::string &key, std::string &data)
{
    key.clear();
    if (!next_line()) fail("DATA=END is missing; is the file cut off?");
    if (text_ == "DATA=END") return false;
    if (header_.keys) {
        bytes_of_line(key);
        if (!next_line() || text_ == "DATA=END") fail("a key without data; is the file cut off?");
    }
    bytes_of_line(data);
    return true;
}
