// The CSV reader: one pass over the text, one field at a time.
#include "csv.h"

#include <algorithm>

#include <fmt/format.h>

#include "errors.h"

csv_reader::csv_reader(std::string_view text) : text_(text)
{
    constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
    if (text_.substr(0, byte_order_mark.size()) == byte_order_mark) at_ = byte_order_mark.size();
}

bool csv_reader::at_line_end() const
{
    return text_[at_] == '\n' || (text_[at_] == '\r' && (at_ + 1 == text_.size() || text_[at_ + 1] == '\n'));
}

void csv_reader::skip_line_end()
{
    at_ = std::min(at_ + (text_[at_] == '\r' ? 2 : 1), text_.size());
    ++line_;
}

std::string csv_reader::quoted_field()
{
    const size_t opened = line_;
    std::string field;
    ++at_; // the opening quote
    for (;;) {
        const size_t quote = text_.find('"', at_);
        if (quote == std::string_view::npos)
            throw tool_error(fmt::format("line {}: a quoted field is not closed", opened));
        const std::string_view piece = text_.substr(at_, quote - at_);
        line_ += static_cast<size_t>(std::count(piece.begin(), piece.end(), '\n'));
        field += piece;
        at_ = quote + 1;
        if (at_ >= text_.size() || text_[at_] != '"') break;
        field += '"';
        ++at_;
    }
    if (at_ < text_.size() && text_[at_] != ',' && !at_line_end())
        throw tool_error(fmt::format("line {}: text follows a closing quote", line_));
    return field;
}

std::string csv_reader::plain_field()
{
    const size_t start = at_;
    while (at_ < text_.size() && text_[at_] != ',' && !at_line_end()) ++at_;
    return std::string{text_.substr(start, at_ - start)};
}

bool csv_reader::next(csv_row &row)
{
    while (at_ < text_.size() && at_line_end()) skip_line_end();
    if (at_ >= text_.size()) return false;
    row.line = line_;
    row.fields.clear();
    for (;;) {
        const bool quoted = at_ < text_.size() && text_[at_] == '"';
        row.fields.push_back(quoted ? quoted_field() : plain_field());
        if (at_ >= text_.size()) return true;
        if (text_[at_] != ',') break;
        ++at_;
    }
    skip_line_end();
    return true;
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
