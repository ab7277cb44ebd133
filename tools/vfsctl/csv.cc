// The CSV reader: one line at a time, more when a quoted field goes on behind it.
#include "csv.h"

#include <algorithm>
#include <string_view>

#include <fmt/format.h>

#include "errors.h"

csv_reader::csv_reader(text_input &text) : text_(&text) {}

// The line's end: nothing, or the carriage return of a CRLF.
bool csv_reader::at_line_end() const
{
    return at_ == row_.size() || (row_[at_] == '\r' && at_ + 1 == row_.size());
}

bool csv_reader::next_line()
{
    ++line_;
    return text_->line(row_);
}

void csv_reader::read_quoted(std::string &field)
{
    const size_t opened = line_;
    ++at_; // the opening quote
    for (;;) {
        const size_t quote = row_.find('"', at_);
        field.append(row_, at_, quote - at_);
        if (quote == std::string::npos) { // the field goes on behind the newline
            if (!next_line()) throw tool_error(fmt::format("line {}: a quoted field is not closed", opened));
            field += '\n';
            at_ = 0;
            continue;
        }
        at_ = quote + 1;
        if (at_ >= row_.size() || row_[at_] != '"') break;
        field += '"';
        ++at_;
    }
    if (!at_line_end() && row_[at_] != ',')
        throw tool_error(fmt::format("line {}: text follows a closing quote", line_));
}

void csv_reader::read_plain(std::string &field)
{
    const size_t start = at_;
    while (!at_line_end() && row_[at_] != ',') ++at_;
    field.assign(row_, start, at_ - start);
}

bool csv_reader::next(csv_row &row)
{
    constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
    do {
        const bool first = line_ == 0;
        if (!next_line()) return false;
        at_ = first && std::string_view{row_}.starts_with(byte_order_mark) ? byte_order_mark.size() : 0;
    } while (at_line_end());
    row.line = line_;
    for (size_t count = 1;; ++count, ++at_) {
        row.fields.resize(std::max(row.fields.size(), count));
        std::string &field = row.fields[count - 1];
        field.clear();
        if (at_ < row_.size() && row_[at_] == '"')
            read_quoted(field);
        else
            read_plain(field);
        if (at_line_end()) {
            row.fields.resize(count);
            return true;
        }
    }
}

std::string csv_text(const std::vector<std::string> &fields)
{
    if (fields.size() == 1 && fields[0].empty()) return "\"\""; // an empty line would be no row
    std::string text;
    for (size_t i = 0; i < fields.size(); ++i) {
        if (i > 0) text += ',';
        if (fields[i].find_first_of(",\"\r\n") == std::string::npos) {
            text += fields[i];
            continue;
        }
        text += '"';
        for (const char c : fields[i]) text.append(c == '"' ? 2 : 1, c);
        text += '"';
    }
    return text;
}
