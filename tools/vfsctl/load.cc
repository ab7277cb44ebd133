// vfsctl load: reads the whole input, decides layout and order, writes record by record, reports what was refused.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <fmt/format.h>

#include "commands.h"
#include "csv.h"
#include "driver.h"
#include "errors.h"
#include "input.h"
#include "keys.h"
#include "progress.h"

namespace {

struct load_options {
    std::string file;
    std::vector<std::string> inputs;
    std::vector<std::string> keys;
    std::string layout_text;
    std::string rejects;
    uint64_t fixed = 0;
    uint64_t max = 0;
    bool csv = false;
    bool lines = false;
    bool sort = false;
    bool force = false;
};

input_set read_input(const load_options &options)
{
    if (options.lines) return read_lines(options.inputs);
    if (options.fixed > 0) return read_fixed(options.inputs, options.fixed);
    std::optional<layout> columns;
    if (!options.layout_text.empty()) columns = parse_layout(options.layout_text);
    return read_csv(options.inputs, std::move(columns));
}

// What the file is, or is going to be.
struct target {
    std::vector<key_spec> keys;
    uint64_t min = 0;
    uint64_t max = 0; // of a new file; 0 until the records are known
    bool is_new = false;
    bool has_records = false;
};

target target_of(const load_options &options, const input_set &input)
{
    target result;
    if (options.keys.empty()) {
        record_file file{{.path = options.file, .flags = O_RDONLY}};
        const vfs_open_block block = file.info();
        result.keys = keys_of(block.keys);
        result.min = static_cast<uint64_t>(block.min_record_length);
        result.has_records = block.record_count > 0;
        file.close();
        return result;
    }
    result.is_new = true;
    for (const std::string &text : options.keys) {
        result.keys.push_back(parse_key(text, input.columns ? &*input.columns : nullptr));
        result.min = std::max(result.min, result.keys.back().end());
    }
    result.max = options.max;
    return result;
}

bool ascending(const std::vector<input_record> &records, const key_spec &key)
{
    return std::is_sorted(records.begin(), records.end(), [&](const input_record &left, const input_record &right) {
        return key_value(key, left.bytes) < key_value(key, right.bytes);
    });
}

void sort_by(std::vector<input_record> &records, const key_spec &key)
{
    std::stable_sort(records.begin(), records.end(), [&](const input_record &left, const input_record &right) {
        return key_value(key, left.bytes) < key_value(key, right.bytes);
    });
}

record_file open_target(const load_options &options, const target &target, bool sequential)
{
    if (!target.is_new) return record_file{{.path = options.file, .flags = O_RDWR, .sequential = sequential}};
    const key_description description{target.keys};
    return record_file{{.path = options.file,
                        .flags = O_RDWR | O_CREAT | (options.force ? O_TRUNC : O_EXCL),
                        .sequential = sequential,
                        .keys = description.get(),
                        .min_record_length = static_cast<int64_t>(options.fixed > 0 ? options.fixed : target.min),
                        .max_record_length = static_cast<int64_t>(target.max),
                        .fixed_length = options.fixed > 0}};
}

std::string reason_for(const record_file &file)
{
    switch (file.last_error()) {
    case EADDRINUSE: return "a record with this key is there already";
    case EEXIST: return "its key is lower than the last one";
    case ERANGE: return "its length does not fit the file";
    default: return file.error_text(file.last_error());
    }
}

// The record as it came; for CSV without the columns that the layout leaves out.
std::string text_of(const input_set &input, const input_record &record)
{
    return input.columns ? csv_text(fields_of_record(*input.columns, record.bytes)) : record.bytes;
}

struct load_result {
    uint64_t stored = 0;
    bool stopped = false; // by the user, before the last record
};

// Writes all records; those that the driver refuses go to input.refused.
load_result write_records(record_file &file, input_set &input)
{
    progress bar{"loading", input.records.size()};
    load_result result;
    try {
        for (const input_record &record : input.records) {
            result.stopped = interrupted();
            if (result.stopped) break;
            if (file.write(record.bytes) == outcome::done)
                ++result.stored;
            else
                input.refused.push_back({record.source, record.line, reason_for(file), text_of(input, record)});
            bar.step();
        }
    } catch (const interruption &stop) {
        throw interruption(fmt::format("{}\n  {} records were stored before that", stop.what(), result.stored));
    } catch (const tool_error &error) {
        throw tool_error(fmt::format("{}\n  {} records were stored before that", error.what(), result.stored));
    }
    return result;
}

void report_refused(const load_options &options, const input_set &input)
{
    const auto close = [](std::FILE *file) {
        if (file != stderr) std::fclose(file);
    };
    const std::unique_ptr<std::FILE, decltype(close)> file{
        options.rejects.empty() ? stderr : std::fopen(options.rejects.c_str(), "w"), close};
    if (file == nullptr)
        throw tool_error(failure_message(options.rejects, "cannot be written", errno, std::strerror(errno)));
    for (const refused_row &row : input.refused)
        fmt::print(file.get(), "{}:{}: {}: {}\n", input.sources[row.source], row.line, row.reason, row.text);
    if (std::fflush(file.get()) != 0)
        throw tool_error(failure_message(options.rejects, "cannot be written", errno, std::strerror(errno)));
}

void prepare(const load_options &options, input_set &input, target &target)
{
    for (input_record &record : input.records) {
        if (options.lines && record.bytes.size() < target.min) record.bytes.resize(target.min, ' ');
        target.max = std::max<uint64_t>(target.max, record.bytes.size());
    }
    target.max = std::max(target.max, target.min);
    if (options.sort) sort_by(input.records, target.keys.front());
}

int load(const load_options &options)
{
    watch_for_interruption();
    input_set input = read_input(options);
    target target = target_of(options, input);
    prepare(options, input, target);
    const bool sequential = !target.has_records && ascending(input.records, target.keys.front());

    const auto started = std::chrono::steady_clock::now();
    record_file file = open_target(options, target, sequential);
    const load_result result = write_records(file, input);
    file.close();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - started;

    if (input.columns) fmt::print("layout: {}\n", input.columns->text());
    fmt::print("{}: {} records loaded in {:.2f} s ({:.0f} a second, {} access), {} rows refused\n", options.file,
               result.stored, took.count(), static_cast<double>(result.stored) / std::max(took.count(), 1e-6),
               sequential ? "sequential" : "dynamic", input.refused.size());
    if (!input.refused.empty() || !options.rejects.empty()) report_refused(options, input);
    if (result.stopped)
        throw interruption(fmt::format("{}: interrupted; the file holds the records so far", options.file));
    return input.refused.empty() ? exit_good : exit_refused_rows;
}

} // namespace

command_body declare_load(CLI::App &command)
{
    auto options = std::make_shared<load_options>();
    command.add_option("file", options->file, "The file to add to, or with --key to make")->required();
    command.add_option("inputs", options->inputs, "Input files, '-' for standard input")->required();
    auto *csv = command.add_flag("--csv", options->csv, "The input is CSV with a header in each file (default)");
    auto *lines =
        command.add_flag("--lines", options->lines, "Each line is a record, padded with blanks to the last key");
    auto *fixed = command.add_option("--fixed", options->fixed, "Each record has this many bytes");
    csv->excludes(lines)->excludes(fixed);
    lines->excludes(fixed);
    command.add_option("--layout", options->layout_text, "CSV: name:width, name:auto or name:* (last), joined by ','")
        ->excludes(lines)
        ->excludes(fixed);
    command.add_option("--key", options->keys, "A key of the new file, the primary one first")->allow_extra_args(false);
    command.add_option("--max", options->max, "Longest record of the new file (default: the longest of the input)");
    command.add_option("--rejects", options->rejects, "Write refused rows here instead of to standard error");
    command.add_flag("--sort", options->sort, "Sort by the primary key first: faster, and a tighter file");
    command.add_flag("--force", options->force, "With --key: overwrite an existing file");
    return [options] { return load(*options); };
}
