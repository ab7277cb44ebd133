// vfsctl create
#include <algorithm>
#include <memory>

#include <fcntl.h>
#include <fmt/format.h>

#include "commands.h"
#include "driver.h"
#include "errors.h"
#include "json.h"
#include "keys.h"
#include "output.h"
#include "replace.h"
#include "schema.h"

namespace {

struct create_options {
    std::string file;
    std::vector<std::string> keys;
    shape_options shape;
    uint64_t min = 0;
    uint64_t max = 0;
    uint64_t fixed = 0;
    bool force = false;
    bool json = false;
};

int create(const create_options &options)
{
    record_shape shape = options.shape.read();
    if (!options.keys.empty()) shape.keys = options.keys;
    if (options.fixed + options.max > 0) shape.fixed = options.fixed;
    if (options.max > 0) shape.max = options.max;
    if (options.min > 0) shape.min = options.min;
    if (shape.keys.empty()) throw usage_error("create: give --key, or a schema with keys");
    if (shape.max == 0 && shape.fixed == 0)
        throw usage_error("create: give --max or --fixed, or a schema with one of them");
    std::vector<key_spec> keys;
    uint64_t end = 0;
    for (const std::string &text : shape.keys) {
        keys.push_back(parse_key(text, shape.columns ? &*shape.columns : nullptr));
        end = std::max(end, keys.back().end());
    }
    const bool fixed = shape.fixed > 0;
    const uint64_t max = fixed ? shape.fixed : shape.max;
    const uint64_t min = fixed ? shape.fixed : std::max(shape.min, end);
    if (max < min || max < end)
        throw usage_error(
            fmt::format("records of at most {} bytes do not hold the keys, which end at byte {}", max, end));

    const key_description description{keys};
    const std::string path = publishable_path(options.file, options.force);
    new_file made{path};
    record_file file{{.path = made.path(),
                      .flags = O_RDWR | O_CREAT | O_EXCL,
                      .keys = description.get(),
                      .min_record_length = static_cast<int64_t>(min),
                      .max_record_length = static_cast<int64_t>(max),
                      .fixed_length = fixed}};
    file.close();
    publish_made(made, path, options.force);
    if (options.json)
        put_json({{"file", options.file}, {"keys", keys.size()}, {"min", min}, {"max", max}});
    else
        fmt::print("{}: made, {} key{}, records of {} to {} bytes\n", options.file, keys.size(),
                   keys.size() == 1 ? "" : "s", min, max);
    return exit_good;
}

} // namespace

command_body declare_create(CLI::App &command)
{
    auto options = std::make_shared<create_options>();
    command.add_option("file", options->file, "The file to make")->required();
    command.add_option("--key", options->keys, "A key, the primary one first")->allow_extra_args(false);
    declare_layout(command, options->shape, "Columns that keys may name (widths in bytes)");
    auto *max = command.add_option("--max", options->max, "Longest record in bytes");
    auto *min = command.add_option("--min", options->min, "Shortest record in bytes (default: up to the last key)");
    command.add_option("--fixed", options->fixed, "All records have this length")->excludes(max)->excludes(min);
    command.add_flag("--force", options->force, "Overwrite an existing file");
    command.add_flag("--json", options->json, "Print JSON");
    return [options] { return create(*options); };
}
