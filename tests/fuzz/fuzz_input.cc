// Whatever stands in a file of CSV, JSON, lines or another store's text, in a schema, a layout or a key, it is read or
// refused with a message.
#include "scratch.h"

#include <cstdint>
#include <string>

#include "errors.h"
#include "input.h"
#include "json_record.h"
#include "keys.h"
#include "schema.h"

namespace {

void read_all(const std::string &path, input_format format, const std::optional<layout> &columns)
{
    record_input input{{.paths = {path}, .format = format, .fixed = 7, .columns = columns, .database = {}}};
    for (int pass = 0; pass < 2; ++pass)
        input.each(
            [&](input_record &record) {
                if (columns && format != input_format::dump)
                    (void)json_of_record({.columns = input.columns(), .latin_1 = true}, record.bytes);
                return true;
            },
            [](refused_row &&) {});
}

template <typename Call> void or_refused(Call call)
{
    try {
        call();
    } catch (const tool_error &) { // what a user would be told
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) return 0;
    const std::string text{reinterpret_cast<const char *>(data + 1), size - 1};
    const std::string &path = put_scratch(data + 1, size - 1);
    switch (data[0] % 6) {
    case 0:
        or_refused([&] { read_all(path, input_format::csv, std::nullopt); });
        or_refused([&] { read_all(path, input_format::csv, parse_layout("a:3,b:auto,c:*")); });
        break;
    case 1:
        or_refused([&] { read_all(path, input_format::json, std::nullopt); });
        or_refused([&] { read_all(path, input_format::json, parse_layout("a:3,b:5,c:*")); });
        break;
    case 2: or_refused([&] { read_all(path, input_format::dump, std::nullopt); }); break;
    case 3:
        or_refused([&] { read_all(path, input_format::lines, std::nullopt); });
        or_refused([&] { read_all(path, input_format::fixed, std::nullopt); });
        break;
    case 4:
        or_refused([&] {
            const record_shape shape = parse_schema(text, "schema");
            for (const std::string &key : shape.keys) (void)parse_key(key, shape.columns ? &*shape.columns : nullptr);
            std::string reason;
            const json_shape as_json{.columns = shape.columns ? &*shape.columns : nullptr, .latin_1 = true};
            (void)record_of_json(as_json, json_of_record(as_json, text.substr(0, 200)), &reason);
        });
        break;
    default:
        or_refused([&] { (void)parse_key(text, nullptr); });
        or_refused([&] { (void)parse_layout(text); });
        or_refused([&] { (void)bytes_of_hex(text); });
    }
    remove_scratch();
    return 0;
}
