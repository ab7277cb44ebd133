// Converts between records and JSON.
#include "json_record.h"

#include <cstdlib>

#include <fmt/format.h>

#include "errors.h"
#include "json.h"

namespace {

constexpr size_t exact_digits = 15; // a double keeps so many

std::string utf_8_of(std::string_view latin_1)
{
    std::string text;
    for (const char c : latin_1) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80) {
            text += c;
        } else {
            text += static_cast<char>(0xC0 | byte >> 6);
            text += static_cast<char>(0x80 | (byte & 0x3F));
        }
    }
    return text;
}

std::optional<std::string> latin_1_of(std::string_view text)
{
    std::string bytes;
    for (size_t at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if (byte < 0x80) {
            bytes += text[at];
        } else if (byte <= 0xC3 && at + 1 < text.size()) {
            bytes += static_cast<char>(byte << 6 | (text[++at] & 0x3F));
        } else {
            return std::nullopt;
        }
    }
    return bytes;
}

bool is_utf_8(const std::string &text)
{
    try {
        json_value(text).dump();
        return true;
    } catch (const json_value::type_error &) {
        return false;
    }
}

// A number that every reader of JSON keeps exactly is a number, another one a string of its digits.
json_value number_value(const field_type &type, const std::string &text)
{
    if (text.empty()) return nullptr;
    if (text.starts_with("0x") || text.size() > exact_digits) return text;
    if (type.decimals > 0) return std::strtod(text.c_str(), nullptr);
    return std::strtoll(text.c_str(), nullptr, 10);
}

json_value text_value(const json_shape &shape, const std::string &name, std::string text)
{
    if (shape.latin_1) return utf_8_of(text);
    if (!is_utf_8(text))
        throw tool_error(
            fmt::format("column '{}' has bytes that are no UTF-8; a schema with \"encoding\": \"latin-1\", or "
                        "with \"type\": \"hex\" for the column, takes them",
                        name));
    return text;
}

std::optional<std::string> text_of_value(const json_shape &shape, const json_value &value)
{
    if (value.is_null()) return std::string{};
    if (value.is_number()) return value.dump();
    if (!value.is_string()) return std::nullopt;
    const auto &text = value.get_ref<const std::string &>();
    return shape.latin_1 ? latin_1_of(text) : text;
}

std::optional<std::string> fail(std::string *reason, std::string text)
{
    *reason = std::move(text);
    return std::nullopt;
}

std::optional<std::string> whole_record(const json_shape &shape, const json_value &object, std::string *reason)
{
    const bool hex = object.contains("hex");
    if (object.size() != 1 || (!hex && !object.contains("record")))
        return fail(reason, "without --schema or --layout an object has one member, \"record\" or \"hex\"");
    const auto text = text_of_value(shape, object[hex ? "hex" : "record"]);
    if (!text) return fail(reason, "its member is no text");
    return hex ? field_bytes({.kind = field_kind::hex}, *text, text->size() / 2, reason) : text;
}

} // namespace

std::string json_of_record(const json_shape &shape, std::string_view record)
{
    json_value object = json_value::object();
    if (shape.columns == nullptr) {
        const std::string text{record};
        if (is_utf_8(text))
            object["record"] = text;
        else
            object["hex"] = field_text({.kind = field_kind::hex}, record);
        return object.dump();
    }
    const std::vector<std::string> fields = fields_of_record(*shape.columns, record);
    for (size_t i = 0; i < fields.size(); ++i) {
        const layout_column &column = shape.columns->columns[i];
        object[column.name] =
            column.type.is_number() ? number_value(column.type, fields[i]) : text_value(shape, column.name, fields[i]);
    }
    return object.dump();
}

std::optional<std::string> record_of_json(const json_shape &shape, std::string_view line, std::string *reason)
{
    const json_value object = json_value::parse(line, nullptr, false);
    if (!object.is_object()) return fail(reason, "it is no JSON object");
    if (shape.columns == nullptr) return whole_record(shape, object, reason);
    std::vector<std::string> texts(shape.columns->columns.size());
    for (const auto &[name, value] : object.items()) {
        size_t place = 0;
        while (place < texts.size() && !same_name(shape.columns->columns[place].name, name)) ++place;
        if (place == texts.size()) return fail(reason, fmt::format("there is no column '{}'", name));
        auto text = text_of_value(shape, value);
        if (!text)
            return fail(reason,
                        fmt::format("'{}' is neither a text in the encoding of the records nor a number", name));
        texts[place] = std::move(*text);
    }
    return record_of_fields(*shape.columns, {texts.begin(), texts.end()}, reason);
}
