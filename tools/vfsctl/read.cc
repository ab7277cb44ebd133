// vfsctl get and scan: both walk the records whose key lies in a range.
#include <algorithm>
#include <cstdio>
#include <limits>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <fmt/format.h>

#include "commands.h"
#include "driver.h"
#include "errors.h"
#include "keys.h"
#include "output.h"
#include "progress.h"
#include "schema.h"

namespace {

struct read_options {
    std::string file;
    std::string key; // get
    std::string from;
    std::string to;
    std::string prefix;
    std::string by = "0";
    shape_options shape;
    uint64_t limit = std::numeric_limits<uint64_t>::max();
    bool reverse = false;
    bool count_only = false;
    bool raw = false;
    bool json = false;
    bool hex = false;
};

// Both ends belong to the range and count as leading parts: "A" to "B" takes in every key that begins with B.
struct key_range {
    std::string from; // empty: from the first record
    std::string to;   // empty: to the last record
};

// Calls act(record) for the records in the range, in key order or against it, until it returns false.
template <typename action>
void walk(record_file &file, const chosen_key &key, const key_range &range, bool reverse, action act)
{
    const std::string &begin = reverse ? range.to : range.from;
    const std::string &end = reverse ? range.from : range.to;
    const int32_t step = reverse ? VFS_POS_PREV : VFS_POS_NEXT;
    std::optional<std::string_view> record;
    if (begin.empty())
        record = file.read(reverse ? VFS_POS_LAST : VFS_POS_FIRST, key.number);
    else if (file.start(reverse ? VFS_LESS_EQUAL : VFS_GREATER_EQUAL, begin, key.number))
        record = file.read(step);
    for (; record && !interrupted(); record = file.read(step)) {
        if (!end.empty()) {
            const int side = key_value(key.spec, *record).substr(0, end.size()).compare(end);
            if (reverse ? side < 0 : side > 0) return;
        }
        if (!act(*record)) return;
    }
}

key_range range_of(const read_options &options, const chosen_key &key)
{
    if (!options.key.empty()) {
        const std::string exact = options.hex ? bytes_of_hex(options.key) : padded_key(options.key, key.spec.length());
        return {exact, exact};
    }
    key_range range{options.from, options.to};
    if (!options.prefix.empty()) range = {options.prefix, options.prefix};
    if (options.hex) range = {bytes_of_hex(range.from), bytes_of_hex(range.to)};
    for (const std::string &end : {range.from, range.to})
        if (end.size() > key.spec.length())
            throw usage_error(fmt::format("'{}' is longer than the key, which has {} bytes", end, key.spec.length()));
    return range;
}

output_format format_of(const read_options &options, const record_shape &shape)
{
    if (options.raw) return output_format::raw;
    if (options.json) return output_format::json;
    return shape.columns ? output_format::csv : output_format::lines;
}

int show(const read_options &options)
{
    watch_for_interruption();
    const record_shape shape = options.shape.read();
    const bool whole = options.key.empty() && options.from.empty() && options.to.empty() && options.prefix.empty();
    // Sequential access lets the driver read ahead; only a pass over everything in primary order gains from it.
    const bool sequential = whole && options.by == "0" && !options.reverse;
    record_file file{{.path = options.file, .flags = O_RDONLY, .sequential = sequential}};
    const vfs_open_block block = file.info();
    const chosen_key key = choose_key(options.by, block.keys, shape.columns ? &*shape.columns : nullptr);
    const key_range range = range_of(options, key);

    record_printer printer{shape, format_of(options, shape)};
    progress bar{"reading", whole ? static_cast<uint64_t>(std::max<int64_t>(block.record_count, 0)) : 0};
    uint64_t count = 0;
    if (options.limit > 0)
        walk(file, key, range, options.reverse, [&](std::string_view record) {
            if (!options.count_only) printer.print(record);
            bar.step();
            return ++count < options.limit;
        });
    file.close();
    if (interrupted()) return exit_interrupted;
    if (options.count_only) fmt::print("{}\n", count);
    return count > 0 ? exit_good : exit_nothing_found;
}

void declare_common(CLI::App &command, read_options &options)
{
    command.add_option("file", options.file, "The file")->required();
    command.add_option("--by", options.by, "Key: its number, 0 is the primary one, or a column of the layout");
    declare_layout(command, options.shape, "Print CSV with these columns instead of lines");
    auto *raw = command.add_flag("--raw", options.raw, "Print the records' bytes and nothing between them");
    command.add_flag("--json", options.json, "Print a JSON object for each record, on a line")->excludes(raw);
    command.add_flag("--hex", options.hex, "Key values are given in hexadecimal");
    command.add_option("--limit", options.limit, "At most so many records");
    command.add_flag("--count", options.count_only, "Print only how many there are");
    command.add_flag("--reverse", options.reverse, "From the last to the first");
}

} // namespace

command_body declare_get(CLI::App &command)
{
    auto options = std::make_shared<read_options>();
    declare_common(command, *options);
    command.add_option("key", options->key, "The whole key value; a shorter one is padded with blanks")->required();
    return [options] {
        if (options->key.empty()) throw usage_error("get: the key value is empty");
        const int status = show(*options);
        if (status == exit_nothing_found)
            fmt::print(stderr, "vfsctl: {}: no record with the key '{}'\n", options->file, options->key);
        return status;
    };
}

command_body declare_scan(CLI::App &command)
{
    auto options = std::make_shared<read_options>();
    declare_common(command, *options);
    command.add_option("--from", options->from, "First key value, or how it begins");
    command.add_option("--to", options->to, "Last key value, or how it begins");
    command.add_option("--prefix", options->prefix, "Only keys that begin so")->excludes("--from")->excludes("--to");
    return [options] { return show(*options); };
}
