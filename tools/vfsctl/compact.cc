// vfsctl compact: writes a file anew without what is unused in it, and puts the new one in its place.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "commands.h"
#include "driver.h"
#include "errors.h"
#include "format/check.h"
#include "hold.h"
#include "json.h"
#include "keys.h"
#include "output.h"
#include "progress.h"
#include "replace.h"

namespace {

struct compact_options {
    std::string file;
    std::optional<uint64_t> key;
    bool json = false;
};

constexpr const char *cache_size = "64M"; // records come in no order of the other keys

// Equal values of a key come in the order in which they were written. One key with duplicates keeps that when the records
// are written in its order; with several, nothing keeps it for all.
uint64_t order_for(const compact_options &options, const std::vector<key_spec> &keys)
{
    if (options.key && *options.key >= std::max<size_t>(keys.size(), 1))
        throw usage_error(fmt::format("{}: there is no key {}", options.file, *options.key));
    const auto duplicates = [](const key_spec &key) { return key.duplicates; };
    const auto first = std::find_if(keys.begin(), keys.end(), duplicates);
    const auto count = std::count_if(keys.begin(), keys.end(), duplicates);
    const uint64_t order = options.key ? *options.key : count == 1 ? static_cast<uint64_t>(first - keys.begin()) : 0;
    for (size_t k = 0; k < keys.size(); ++k)
        if (keys[k].duplicates && k != order)
            fmt::print(options.json ? stderr : stdout,
                       "{}: records with equal values of key {} now follow each other in the order of key {}\n",
                       options.file, k, order);
    return order;
}

open_request request_for(const vfs_open_block &old, const std::string &path, bool ascending)
{
    return {.path = path,
            .flags = O_RDWR | O_CREAT | O_EXCL,
            .sequential = ascending,
            .keys = old.logical_organization == VFS_ORG_INDEXED ? old.keys : nullptr,
            .min_record_length = old.min_record_length,
            .max_record_length = old.max_record_length,
            .fixed_length = old.record_format == VFS_FORMAT_FIXED,
            .organization = old.organization,
            .logical = old.logical_organization,
            .block_size = old.block_size,
            .only_writes = true};
}

uint64_t copy_records(record_file &from, record_file &to, const vfs_open_block &old, uint64_t order)
{
    uint64_t copied = 0;
    progress bar{"writing", static_cast<uint64_t>(std::max<int64_t>(old.record_count, 0))};
    for (auto record = from.read(VFS_POS_FIRST, static_cast<int64_t>(order)); record;
         record = from.read(VFS_POS_NEXT)) {
        if (interrupted()) throw interruption("compact: interrupted; the file is as it was");
        bar.step();
        const outcome result = old.logical_organization == VFS_ORG_INDEXED ? to.write(*record)
                               : old.logical_organization == VFS_ORG_RELATIVE
                                   ? to.write_at(static_cast<int64_t>(from.rrn()), *record)
                                   : to.append(*record);
        if (result != outcome::done)
            throw tool_error(fmt::format("the new file refuses record {}: {}; the old one is as it was", copied + 1,
                                         to.error_text(to.last_error())));
        ++copied;
    }
    return copied;
}

void verify(const std::string &path, uint64_t records)
{
    const held_file held{path, hold_kind::read};
    file_image image{held.descriptor()};
    const check_result found = check_image(image, {.line_limit = 1, .threads = all_processors(), .progress = {}});
    if (!found.sound() || found.records != records)
        throw tool_error(
            fmt::format("the new file does not pass the check with its {} records: {}; the old one is as it "
                        "was",
                        records, found.report.problems().empty() ? "" : found.report.problems().front().line()));
}

int compact(const compact_options &options)
{
    watch_for_interruption();
    const std::string path = real_path(options.file);
    struct stat before {};
    stat(path.c_str(), &before);
    refuse_users(path, "compact it when nobody does");
    setenv("VFS_CACHE_SIZE", cache_size, 0);
    farewell old_file{path};
    record_file from{{.path = path, .flags = O_RDWR, .exclusive = true}};
    const vfs_open_block old = from.info();
    const bool indexed = old.logical_organization == VFS_ORG_INDEXED;
    const uint64_t order = order_for(options, indexed ? keys_of(old.keys) : std::vector<key_spec>{});

    new_file fresh{path};
    record_file to{request_for(old, fresh.path(), order == 0)};
    const uint64_t records = copy_records(from, to, old, order);
    to.close();
    verify(fresh.path(), records);
    fresh.take_attributes_of(path);
    struct stat after {};
    stat(fresh.path().c_str(), &after);
    old_file.publish(fresh);
    from.close();
    if (options.json)
        put_json({{"file", options.file},
                  {"records", records},
                  {"bytes_before", before.st_size},
                  {"bytes", after.st_size},
                  {"order", order}});
    else
        fmt::print("{}: {} records, {} bytes before, {} now\n", options.file, records, before.st_size, after.st_size);
    return exit_good;
}

} // namespace

command_body declare_compact(CLI::App &command)
{
    auto options = std::make_shared<compact_options>();
    command.add_option("file", options->file, "The file; nobody else may have it open")->required();
    command.add_option("--key", options->key,
                       "Write in the order of this key (default: the one that has duplicates, or 0)");
    command.add_flag("--json", options->json, "Print JSON");
    return [options] { return compact(*options); };
}
