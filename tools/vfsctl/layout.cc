// Column layouts: parsing, widths, and the way from fields to a record and back.
#include "layout.h"

#include <algorithm>
#include <charconv>

#include <fmt/format.h>

#include "errors.h"

namespace {

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

layout_column parse_column(std::string_view text)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos || colon == 0)
        throw usage_error(fmt::format("layout column '{}': write name:width, name:auto or name:*", text));
    const std::string name{text.substr(0, colon)};
    const std::string_view width = text.substr(colon + 1);
    if (width == "auto") return {.name = name, .kind = column_kind::automatic, .width = 0, .offset = 0};
    if (width == "*") return {.name = name, .kind = column_kind::rest, .width = 0, .offset = 0};
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(width.data(), width.data() + width.size(), value);
    if (error != std::errc{} || end != width.data() + width.size() || value == 0 || value > UINT32_MAX)
        throw usage_error(fmt::format("layout column '{}': the width is a number of bytes, auto or *", text));
    return {.name = name, .kind = column_kind::fixed, .width = value, .offset = 0};
}

} // namespace

bool same_name(std::string_view left, std::string_view right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return lower(a) == lower(b); });
}

std::optional<layout_column> layout::find(std::string_view name) const
{
    for (const layout_column &column : columns)
        if (column.kind == column_kind::fixed && same_name(column.name, name)) return column;
    return std::nullopt;
}

void layout::widen(size_t column, std::string_view value)
{
    layout_column &target = columns[column];
    if (target.kind == column_kind::automatic) target.width = std::max<uint64_t>(target.width, value.size());
}

void layout::settle()
{
    uint64_t offset = 0;
    for (layout_column &column : columns) {
        if (column.kind == column_kind::automatic) {
            column.kind = column_kind::fixed;
            column.width = std::max<uint64_t>(column.width, 1);
        }
        column.offset = offset;
        offset += column.width;
    }
}

bool layout::is_settled() const
{
    return std::none_of(columns.begin(), columns.end(),
                        [](const layout_column &column) { return column.kind == column_kind::automatic; });
}

std::string layout::text() const
{
    std::string text;
    for (const layout_column &column : columns) {
        const std::string width = column.kind == column_kind::fixed  ? std::to_string(column.width)
                                  : column.kind == column_kind::rest ? "*"
                                                                     : "auto";
        text += fmt::format("{}{}:{}", text.empty() ? "" : ",", column.name, width);
    }
    return text;
}

layout parse_layout(std::string_view text)
{
    layout result;
    for (;;) {
        const size_t comma = text.find(',');
        layout_column column = parse_column(text.substr(0, comma));
        for (const layout_column &earlier : result.columns) {
            if (earlier.kind == column_kind::rest)
                throw usage_error(fmt::format("layout: only the last column may be '*', not '{}'", earlier.name));
            if (same_name(earlier.name, column.name))
                throw usage_error(fmt::format("layout: column '{}' stands there twice", column.name));
        }
        result.columns.push_back(std::move(column));
        if (comma == std::string_view::npos) break;
        text.remove_prefix(comma + 1);
    }
    if (result.is_settled()) result.settle();
    return result;
}

layout parse_settled_layout(std::string_view text)
{
    layout result = parse_layout(text);
    if (!result.is_settled())
        throw usage_error(
            "layout: 'auto' has a meaning only when data are loaded; give the widths that 'load' printed");
    return result;
}

layout layout_of_header(const std::vector<std::string> &names)
{
    layout result;
    for (const std::string &name : names)
        result.columns.push_back({.name = name, .kind = column_kind::automatic, .width = 0, .offset = 0});
    if (!result.columns.empty()) result.columns.back().kind = column_kind::rest;
    return result;
}

std::optional<std::string> record_of_fields(const layout &columns, const std::vector<std::string_view> &fields,
                                            std::string *reason)
{
    std::string record;
    for (size_t i = 0; i < columns.columns.size(); ++i) {
        const layout_column &column = columns.columns[i];
        record.resize(column.offset, ' ');
        if (column.kind == column_kind::rest) {
            record += fields[i];
            continue;
        }
        const auto bytes = field_bytes(column.type, fields[i], column.width, reason);
        if (!bytes) {
            *reason = fmt::format("column '{}': {}", column.name, *reason);
            return std::nullopt;
        }
        record += *bytes;
    }
    return record;
}

std::vector<std::string> fields_of_record(const layout &columns, std::string_view record)
{
    std::vector<std::string> fields;
    for (const layout_column &column : columns.columns) {
        std::string_view field = column.offset < record.size() ? record.substr(column.offset) : std::string_view{};
        if (column.kind == column_kind::rest)
            fields.emplace_back(field);
        else if (column.type.is_number() && field.size() < column.width)
            fields.emplace_back();
        else
            fields.push_back(field_text(column.type, field.substr(0, column.width)));
    }
    return fields;
}
