// vfsctl put and delete: one record each.
#include <cstdio>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <fmt/format.h>

#include "commands.h"
#include "csv.h"
#include "driver.h"
#include "errors.h"
#include "json.h"
#include "json_record.h"
#include "keys.h"
#include "output.h"
#include "schema.h"

namespace {

struct change_options {
    std::string file;
    std::string text; // put: the record; delete: the key value
    shape_options shape;
    bool json = false;        // put: the record is
    bool json_result = false; // what was done is said so
    std::string by = "0";
    bool only_add = false;
    bool only_replace = false;
    bool hex = false;
};

std::string record_of_csv(const std::string &text, const layout &columns)
{
    text_input input = text_input::of_text(text);
    csv_row row;
    csv_reader{input}.next(row);
    if (row.fields.size() != columns.columns.size())
        throw usage_error(
            fmt::format("the record has {} fields, the layout {}", row.fields.size(), columns.columns.size()));
    std::string reason;
    const auto record = record_of_fields(columns, {row.fields.begin(), row.fields.end()}, &reason);
    if (!record) throw usage_error("the record does not fit the layout: " + reason);
    return *record;
}

std::string record_of_object(const std::string &text, const record_shape &shape)
{
    std::string reason;
    const auto record =
        record_of_json({.columns = shape.columns ? &*shape.columns : nullptr, .latin_1 = shape.latin_1}, text, &reason);
    if (!record) throw usage_error("the record cannot be taken: " + reason);
    return *record;
}

std::string bytes_given(const change_options &options)
{
    const record_shape shape = options.shape.read();
    if (options.json) return record_of_object(options.text, shape);
    if (options.hex) return bytes_of_hex(options.text);
    return shape.columns ? record_of_csv(options.text, *shape.columns) : options.text;
}

std::string record_of(const change_options &options, const vfs_open_block &block)
{
    std::string record = bytes_given(options);
    const auto least = static_cast<size_t>(block.record_format == VFS_FORMAT_FIXED ? block.max_record_length
                                                                                   : block.min_record_length);
    if (record.size() < least) record.resize(least, ' ');
    return record;
}

void report(const change_options &options, const char *done)
{
    if (options.json_result)
        put_json({{"file", options.file}, {"result", done}});
    else
        fmt::print("{}: {}\n", options.file, done);
}

int put(const change_options &options)
{
    record_file file{{.path = options.file, .flags = O_RDWR}};
    const vfs_open_block block = file.info();
    const std::string record = record_of(options, block);
    const chosen_key primary = choose_key("0", block.keys, nullptr);

    const char *done = "replaced";
    outcome result = outcome::not_found;
    if (!options.only_add) {
        if (primary.spec.duplicates)
            throw usage_error(options.file +
                              ": its primary key allows duplicates and names no single record; use --add");
        result = file.rewrite(record, key_value(primary.spec, record));
    }
    if (result == outcome::not_found && !options.only_replace) {
        result = file.write(record);
        done = "added";
    }
    const int error = file.last_error();
    const std::string text = file.error_text(error);
    file.close();
    if (result == outcome::refused) throw tool_error(failure_message(options.file, "refused", error, text));
    if (result == outcome::not_found) {
        fmt::print(stderr, "vfsctl: {}: no record with this primary key\n", options.file);
        return exit_nothing_found;
    }
    report(options, done);
    return exit_good;
}

int remove_record(const change_options &options)
{
    record_file file{{.path = options.file, .flags = O_RDWR}};
    const chosen_key key = choose_key(options.by, file.info().keys, nullptr);
    if (key.spec.duplicates)
        throw usage_error(fmt::format("{}: key {} allows duplicates and names no single record; delete by another key",
                                      options.file, key.number));
    const std::string value = options.hex ? bytes_of_hex(options.text) : padded_key(options.text, key.spec.length());
    const outcome result = file.remove(value, key.number);
    file.close();
    if (result == outcome::not_found) {
        fmt::print(stderr, "vfsctl: {}: no record with the key '{}'\n", options.file, options.text);
        return exit_nothing_found;
    }
    report(options, "deleted");
    return exit_good;
}

} // namespace

command_body declare_put(CLI::App &command)
{
    auto options = std::make_shared<change_options>();
    command.add_option("file", options->file, "The file")->required();
    command.add_option("record", options->text, "The record; a short one is padded with blanks to the shortest length")
        ->required();
    auto *layout = declare_layout(command, options->shape, "The record is a CSV row with these columns");
    auto *json = command.add_flag("--json", options->json, "The record is a JSON object");
    command.add_flag("--hex", options->hex, "The record is given in hexadecimal")->excludes(layout)->excludes(json);
    auto *add = command.add_flag("--add", options->only_add, "Only add; an existing record is an error");
    command.add_flag("--replace", options->only_replace, "Only replace; a missing record is an error")->excludes(add);
    command.add_flag("--json-result", options->json_result, "Print as JSON what was done");
    return [options] { return put(*options); };
}

command_body declare_delete(CLI::App &command)
{
    auto options = std::make_shared<change_options>();
    command.add_option("file", options->file, "The file")->required();
    command.add_option("key", options->text, "The whole key value; a shorter one is padded with blanks")->required();
    command.add_option("--by", options->by, "Number of the key, 0 is the primary one");
    command.add_flag("--hex", options->hex, "The key value is given in hexadecimal");
    command.add_flag("--json", options->json_result, "Print JSON");
    return [options] { return remove_record(*options); };
}
