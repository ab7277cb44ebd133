// Reads schemas.
#include "schema.h"

#include <algorithm>

#include <fmt/format.h>

#include "errors.h"
#include "json.h"
#include "keys.h"
#include "text_input.h"

namespace {

// An object of the description: members are taken one by one, and what is left at the end is a mistake.
class description {
public:
    description(const json_value &object, std::string place) : object_(object), place_(std::move(place))
    {
        if (!object_.is_object()) fail("a JSON object belongs here");
    }

    const json_value *take(const char *member)
    {
        taken_.emplace_back(member);
        const auto found = object_.find(member);
        return found == object_.end() ? nullptr : &*found;
    }
    std::string text(const char *member, const std::string &otherwise)
    {
        const json_value *found = take(member);
        if (found == nullptr) return otherwise;
        if (!found->is_string()) fail(fmt::format("'{}' is a text", member));
        return found->get<std::string>();
    }
    std::optional<uint64_t> number(const char *member)
    {
        const json_value *found = take(member);
        if (found == nullptr) return std::nullopt;
        if (!found->is_number_unsigned() || found->get<uint64_t>() > longest_record)
            fail(fmt::format("'{}' is a whole number of at most {}", member, longest_record));
        return found->get<uint64_t>();
    }
    const json_value &list(const char *member)
    {
        static const json_value none = json_value::array();
        const json_value *found = take(member);
        if (found != nullptr && !found->is_array()) fail(fmt::format("'{}' is a list", member));
        return found == nullptr ? none : *found;
    }
    void nothing_else() const
    {
        for (const auto &[name, value] : object_.items())
            if (std::find(taken_.begin(), taken_.end(), name) == taken_.end())
                fail(fmt::format("'{}' is not known here", name));
    }
    [[noreturn]] void fail(const std::string &what) const { throw usage_error(fmt::format("{}: {}", place_, what)); }

private:
    const json_value &object_;
    std::string place_;
    std::vector<std::string> taken_;
};

field_type type_of(description &field)
{
    field_type type;
    const std::string name = field.text("type", "text");
    const auto kind = field_kind_named(name);
    if (!kind)
        field.fail(fmt::format("type '{}' is not known; text, hex, digits, zoned, packed, packed-natural, integer and "
                               "natural are",
                               name));
    type.kind = *kind;
    const std::string order = field.text("order", "big");
    if (order != "big" && order != "little") field.fail("'order' is big or little");
    type.little_endian = order == "little";
    type.decimals = static_cast<uint32_t>(field.number("decimals").value_or(0));
    if (type.decimals > 0 && !type.is_number()) field.fail("only numbers have decimals");
    return type;
}

layout_column column_of(description field, uint64_t next, bool last)
{
    layout_column column{.name = field.text("name", ""), .kind = column_kind::fixed, .width = 0, .offset = 0};
    if (column.name.empty()) field.fail("it has no 'name'");
    column.type = type_of(field);
    const auto bytes = field.number("bytes");
    column.offset = field.number("at").value_or(next);
    field.nothing_else();
    if (column.offset < next)
        field.fail(
            fmt::format("it begins at byte {}, inside the field before it, which ends at {}", column.offset, next));
    column.width = bytes.value_or(0);
    if (!bytes && last && column.type.kind == field_kind::text)
        column.kind = column_kind::rest;
    else if (!bytes)
        field.fail("it has no 'bytes'; only a text at the end takes what is left");
    else if (!width_fits(column.type.kind, column.width))
        field.fail(fmt::format("a {} cannot have {} bytes", field_kind_name(column.type.kind), column.width));
    return column;
}

layout columns_of(const json_value &fields, const std::string &name)
{
    layout result;
    uint64_t next = 0;
    for (const json_value &field : fields) {
        const std::string place = fmt::format("{}: field {}", name, result.columns.size() + 1);
        layout_column column = column_of(description{field, place}, next, result.columns.size() + 1 == fields.size());
        for (const layout_column &earlier : result.columns)
            if (same_name(earlier.name, column.name))
                throw usage_error(fmt::format("{}: the name '{}' stands there twice", place, column.name));
        next = column.offset + column.width;
        result.columns.push_back(std::move(column));
    }
    return result;
}

} // namespace

record_shape parse_schema(const std::string &text, const std::string &name)
{
    json_value whole;
    try {
        whole = json_value::parse(text);
    } catch (const json_value::exception &error) { // a number may be beyond all numbers
        throw usage_error(fmt::format("{}: it is no JSON: {}", name, error.what()));
    }
    description schema{whole, name};
    record_shape shape;
    const json_value &fields = schema.list("fields");
    if (!fields.empty()) shape.columns = columns_of(fields, name);
    for (const json_value &key : schema.list("keys")) {
        if (!key.is_string()) schema.fail("a key is a text as for --key");
        shape.keys.push_back(key.get<std::string>());
    }
    shape.fixed = schema.number("fixed").value_or(0);
    shape.min = schema.number("min").value_or(0);
    shape.max = schema.number("max").value_or(0);
    if (shape.fixed > 0 && shape.min + shape.max > 0) schema.fail("'fixed' excludes 'min' and 'max'");
    const std::string encoding = schema.text("encoding", "utf-8");
    if (encoding != "utf-8" && encoding != "latin-1") schema.fail("'encoding' is utf-8 or latin-1");
    shape.latin_1 = encoding == "latin-1";
    schema.nothing_else();
    return shape;
}

record_shape shape_options::read(bool automatic_widths) const
{
    if (!schema.empty()) {
        text_input input{schema};
        std::string text, line;
        while (input.line(line)) text += line + "\n";
        return parse_schema(text, schema);
    }
    record_shape shape;
    if (!layout_text.empty())
        shape.columns = automatic_widths ? parse_layout(layout_text) : parse_settled_layout(layout_text);
    return shape;
}

CLI::Option *declare_layout(CLI::App &command, shape_options &options, const std::string &help)
{
    auto *layout = command.add_option("--layout", options.layout_text, help);
    command.add_option("--schema", options.schema, "A file that describes fields and keys as JSON")->excludes(layout);
    return layout;
}
