// vfsctl load and undump: records from text into a file.
#include <memory>

#include "commands.h"
#include "driver.h"
#include "errors.h"
#include "fill.h"
#include "input.h"
#include "progress.h"
#include "schema.h"

namespace {

struct load_options {
    std::vector<std::string> inputs;
    shape_options shape;
    fill_request target;
    bool csv = false;
    bool lines = false;
    bool json = false;
    bool join_key = false;
    std::string organization;
    std::string database;
};

// The schema describes a new file only when there is none: else it says how the records are read.
void apply_shape(const record_shape &shape, fill_request &target, bool make)
{
    target.make = make;
    if (!make) return;
    if (target.keys.empty()) target.keys = shape.keys;
    if (target.fixed == 0) target.fixed = shape.fixed;
    if (target.max == 0) target.max = shape.max;
    target.min = shape.min;
}

int load(const load_options &options)
{
    watch_for_interruption();
    const record_shape shape = options.shape.read(true);
    fill_request target = options.target;
    const bool make = !target.keys.empty() || (!shape.keys.empty() && (target.force || !file_exists(target.file)));
    apply_shape(shape, target, make);
    target.pad = options.lines;
    record_input input{{.paths = options.inputs,
                        .format = options.lines              ? input_format::lines
                                  : options.json             ? input_format::json
                                  : options.target.fixed > 0 ? input_format::fixed
                                                             : input_format::csv,
                        .fixed = options.target.fixed,
                        .columns = shape.columns,
                        .latin_1 = shape.latin_1,
                        .database = {}}};
    return fill(target, input);
}

uint32_t organization_named(const std::string &name)
{
    return name == "sequential" ? VFS_ORG_SEQUENTIAL : name == "relative" ? VFS_ORG_RELATIVE : VFS_ORG_INDEXED;
}

int undump(const load_options &options)
{
    watch_for_interruption();
    const record_shape shape = options.shape.read();
    fill_request target = options.target;
    target.organization = organization_named(options.organization);
    const bool without_keys = !options.organization.empty() && target.organization != VFS_ORG_INDEXED;
    if (without_keys && !target.keys.empty()) throw usage_error("undump: only indexed files have keys");
    apply_shape(shape, target, !target.keys.empty() || !options.organization.empty() || !shape.keys.empty());
    if (target.make && !without_keys && target.keys.empty())
        throw usage_error("undump: an indexed file needs its keys: give --key or --schema");
    record_input input{{.paths = options.inputs.empty() ? std::vector<std::string>{"-"} : options.inputs,
                        .format = input_format::dump,
                        .columns = shape.columns,
                        .join_key = options.join_key,
                        .database = options.database}};
    return fill(target, input);
}

void declare_target(CLI::App &command, load_options &options, const char *file)
{
    fill_request &target = options.target;
    command.add_option("file", target.file, file)->required();
    command.add_option("--key", target.keys, "A key of the new file, the primary one first")->allow_extra_args(false);
    command.add_option("--max", target.max, "Longest record of the new file (default: the longest of the input)");
    command.add_option("--rejects", target.rejects, "Write refused rows here instead of to standard error");
    command.add_flag("--sort", target.sort, "Sort by the primary key first: faster, and a tighter file");
    command.add_flag("--force", target.force, "With --key or a schema: overwrite an existing file");
}

} // namespace

command_body declare_load(CLI::App &command)
{
    auto options = std::make_shared<load_options>();
    declare_target(command, *options, "The file to add to, or with --key to make");
    command.add_option("inputs", options->inputs, "Input files, '-' for standard input")->required();
    auto *csv = command.add_flag("--csv", options->csv, "The input is CSV with a header in each file (default)");
    auto *lines =
        command.add_flag("--lines", options->lines, "Each line is a record, padded with blanks to the last key");
    auto *fixed = command.add_option("--fixed", options->target.fixed, "Each record has this many bytes");
    auto *json = command.add_flag("--json", options->json, "Each line is a record as JSON");
    csv->excludes(lines)->excludes(fixed)->excludes(json);
    lines->excludes(fixed)->excludes(json);
    json->excludes(fixed);
    declare_layout(command, options->shape, "CSV, JSON: name:width, name:auto or name:* (last), joined by ','")
        ->excludes(lines)
        ->excludes(fixed);
    command.add_flag("--json-result", options->target.json, "Print as JSON what was done");
    return [options] { return load(*options); };
}

command_body declare_undump(CLI::App &command)
{
    auto options = std::make_shared<load_options>();
    declare_target(command, *options, "The file to add to, or with --key or --organization to make");
    command.add_option("inputs", options->inputs, "Dumps; none, or '-', for standard input");
    command.add_option("--fixed", options->target.fixed, "The new file's records all have this many bytes");
    command.add_option("--schema", options->shape.schema, "A file that describes the new file's keys as JSON");
    command.add_option("--organization", options->organization, "What to make of the dump (default: indexed)")
        ->check(CLI::IsMember({"sequential", "relative", "indexed"}));
    command.add_flag("--join", options->join_key, "A record is the key and the data, not the data alone");
    command.add_option("--database", options->database, "Of a dump with several databases, the one to take");
    command.add_flag("--json", options->target.json, "Print JSON");
    return [options] { return undump(*options); };
}
