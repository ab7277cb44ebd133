// vfsctl rebuild: finds the records of a file without the driver and writes them into a new file with the driver. The old
// file is only read.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "commands.h"
#include "driver.h"
#include "errors.h"
#include "format/check.h"
#include "format/salvage.h"
#include "hold.h"
#include "json.h"
#include "keys.h"
#include "new_file.h"
#include "output.h"
#include "progress.h"
#include "rejects.h"

namespace {

struct rebuild_options {
    std::string file;
    std::string target;
    std::string rejects;
    std::string organization;
    std::vector<std::string> keys;
    uint64_t min = 0;
    uint64_t max = 0;
    uint64_t fixed = 0;
    bool json = false;
};

constexpr uint64_t longest_believed = uint64_t{1} << 30;
constexpr const char *cache_size = "64M"; // records may come in any order of their keys

bool report_progress(staged_progress &bar, std::string_view what, uint64_t done, uint64_t total)
{
    bar.show(what, done, total);
    return !interrupted();
}

[[noreturn]] void throw_interruption(const rebuild_options &options)
{
    throw interruption(fmt::format("{}: interrupted; no new file was made", options.file));
}

// ---- What the new file is going to be ----

// What the options say replaces what the damaged header says.
void apply_options(const rebuild_options &options, file_facts &facts)
{
    if (!options.keys.empty() || options.organization == "indexed") {
        facts.flat = false;
        facts.indexed = true;
        facts.logical = VFS_ORG_INDEXED;
        facts.organization_known = true;
    } else if (!options.organization.empty()) {
        facts.flat = options.organization == "sequential";
        facts.indexed = false;
        facts.logical = facts.flat ? VFS_ORG_SEQUENTIAL : VFS_ORG_RELATIVE;
        facts.organization_known = facts.keys_known = true;
    }
    const uint64_t max = options.fixed > 0 ? options.fixed : options.max;
    if (max == 0) return;
    facts.fixed = options.fixed > 0;
    facts.maximum_record = max;
    facts.minimum_record = facts.fixed ? max : options.min;
    facts.maximum_slot = slot_bytes(max);
    facts.lengths_known = true;
}

void require_description(const rebuild_options &options, const file_facts &facts)
{
    const auto missing = [&](const std::string &what, const char *how) {
        throw tool_error(fmt::format("{}: {}; say it with {}", options.file, what, how));
    };
    if (!facts.organization_known)
        missing("its header does not say what kind of file it is", "--organization, or --key as for 'vfsctl create'");
    if (facts.indexed && options.keys.empty() && !facts.keys_known)
        missing(fmt::format("its key description is damaged ({})", facts.description_fault),
                "--key, once for each key, the primary one first");
}

// The block of keys that the new file is opened with.
class target_keys {
public:
    target_keys(const rebuild_options &options, const file_facts &facts)
    {
        if (!facts.indexed) return;
        if (!options.keys.empty()) {
            std::vector<key_spec> keys;
            for (const std::string &text : options.keys) keys.push_back(parse_key(text, nullptr));
            made_ = std::make_unique<key_description>(keys);
            return;
        }
        stored_.resize((facts.description.size() + 7) / 8);
        std::memcpy(stored_.data(), facts.description.data(), facts.description.size());
    }
    const vfs_key_desc *get() const
    {
        if (made_ != nullptr) return made_->get();
        return stored_.empty() ? nullptr : reinterpret_cast<const vfs_key_desc *>(stored_.data());
    }

private:
    std::unique_ptr<key_description> made_;
    std::vector<uint64_t> stored_; // words, for alignment
};

open_request request_for(const rebuild_options &options, const std::string &path, const file_facts &facts,
                         const vfs_key_desc *keys, uint64_t longest)
{
    uint64_t min = facts.minimum_record, max = facts.maximum_record;
    if (!facts.lengths_known || max > longest_believed) {
        min = 0;
        max = longest;
        fmt::print(
            "{}: the lengths of its records are not known; the new file takes up to {} bytes, the longest found\n",
            options.file, max);
    }
    if (!facts.fixed) max = std::max(max, longest);
    uint32_t organization = VFS_ORG_INDEXED;
    if (facts.flat) organization = VFS_ORG_SEQUENTIAL;
    if (!facts.flat && facts.logical == VFS_ORG_RELATIVE) organization = VFS_ORG_RELATIVE;
    return {.path = path,
            .flags = O_RDWR | O_CREAT | O_EXCL,
            .keys = keys,
            .min_record_length = static_cast<int64_t>(min),
            .max_record_length = static_cast<int64_t>(max),
            .fixed_length = facts.fixed,
            .organization = organization,
            .logical = facts.logical,
            .block_size = facts.block <= longest_believed ? static_cast<int64_t>(facts.block) : 0,
            .only_writes = true};
}

// ---- The records, in the order in which they are written ----

// Which tree gives the order: equal keys stand in the order of their arrival, and come back in it when the records are
// written in the order of that tree. None: more than one tree has equal keys, so that the record numbers have to do.
const file_key *ordering_tree(const file_facts &facts)
{
    const file_key *with_equals = nullptr;
    for (const file_key &key : facts.keys) {
        if ((facts.get(key, key_entry_flags) & key_flag_held_duplicate) == 0) continue;
        if (with_equals != nullptr) return nullptr;
        with_equals = &key;
    }
    return with_equals != nullptr ? with_equals : &facts.keys[facts.primary];
}

std::vector<found_record> records_of_tree(file_image &image, const file_facts &facts)
{
    const file_key *order = ordering_tree(facts);
    std::vector<found_record> records;
    each_in_tree(image, facts, order != nullptr ? *order : facts.keys[facts.primary], [&](uint64_t slot) {
        records.push_back({.rrn = image.word(slot + slot_rrn.offset),
                           .slot = slot,
                           .length = image.word(slot + slot_data_length.offset)});
        return true;
    });
    if (order == nullptr || !facts.indexed)
        std::sort(records.begin(), records.end(),
                  [](const found_record &left, const found_record &right) { return left.rrn < right.rrn; });
    return records;
}

std::vector<found_record> find_records(const rebuild_options &options, file_image &image, const check_result &checked,
                                       const file_facts &facts, reject_file &rejects)
{
    if (checked.trees_sound() && checked.behind.items == 0 && !checked.facts.flat && options.keys.empty() &&
        options.organization.empty())
        return records_of_tree(image, checked.facts);
    staged_progress bar;
    std::vector<found_record> records =
        salvage_records(image, facts, checked.words,
                        {.reject = [&](const rejected_bytes &what) { rejects.add(what); },
                         .progress = [&](std::string_view what, uint64_t done,
                                         uint64_t total) { return report_progress(bar, what, done, total); }});
    if (interrupted()) throw_interruption(options);
    return records;
}

// ---- The new file ----

const char *reason_for(int error)
{
    switch (error) {
    case EADDRINUSE: return "a record with one of its keys is there already";
    case ERANGE: return "its length does not fit the file";
    default: return "the driver refused it";
    }
}

uint64_t write_records(const rebuild_options &options, const open_request &request, file_image &image,
                       const std::vector<found_record> &records, reject_file &rejects)
{
    record_file target{request};
    progress bar{"writing", records.size()};
    std::vector<std::byte> bytes(1);
    uint64_t kept = 0;
    for (const found_record &record : records) {
        if (interrupted()) throw_interruption(options);
        bar.step();
        const uint64_t at = record.slot + slot_head_bytes;
        bytes.resize(std::max<uint64_t>(record.length, 1));
        const char *reason = "it cannot be read";
        if (image.read(at, std::span{bytes}.first(record.length))) {
            const std::string_view text{reinterpret_cast<const char *>(bytes.data()), record.length};
            const outcome result = request.logical == VFS_ORG_INDEXED
                                       ? target.write(text)
                                       : target.write_at(static_cast<int64_t>(record.rrn), text);
            reason = result == outcome::done ? nullptr : reason_for(target.last_error());
        }
        if (reason == nullptr)
            ++kept;
        else
            rejects.add({.offset = at, .length = record.length, .reason = reason, .rrn = record.rrn});
    }
    target.close();
    return kept;
}

void verify(const std::string &path, const rebuild_options &options, uint64_t kept)
{
    const held_file held{path, hold_kind::read};
    file_image image{held.descriptor()};
    const check_result found = check_image(image, {.threads = all_processors(), .progress = {}});
    if (!found.sound() || found.records != kept)
        throw tool_error(fmt::format("{}: the new file does not pass the check with its {} records: {}", options.target,
                                     kept,
                                     found.report.problems().empty() ? "" : found.report.problems().front().line()));
}

std::unique_ptr<held_file> hold_old_file(const rebuild_options &options)
{
    const bool writable = access(options.file.c_str(), W_OK) == 0;
    auto held = std::make_unique<held_file>(options.file, writable ? hold_kind::write : hold_kind::read);
    if (held->locked()) return held;
    throw tool_error(fmt::format("{}: in use by {}; nothing was done", options.file,
                                 held->holder() > 0 ? fmt::format("process {}", held->holder()) : "another program"));
}

check_result check_old_file(const rebuild_options &options, file_image &image)
{
    staged_progress bar;
    check_result found = check_image(image, {.line_limit = 1,
                                             .threads = all_processors(),
                                             .progress = [&](std::string_view what, uint64_t done, uint64_t total) {
                                                 return report_progress(bar, what, done, total);
                                             }});
    if (!found.complete) throw_interruption(options);
    return found;
}

void report(const rebuild_options &options, uint64_t kept, const reject_file &rejects)
{
    if (options.json) {
        json_value reasons = json_value::object();
        for (const auto &[reason, count] : rejects.by_reason()) reasons[reason] = count;
        put_json({{"file", options.file},
                  {"to", options.target},
                  {"records", kept},
                  {"rejected", rejects.count()},
                  {"reasons", reasons},
                  {"rejects", rejects.count() == 0 ? "" : rejects.path()}});
        return;
    }
    fmt::print("{}: {} records kept, {} places rejected\n", options.target, kept, rejects.count());
    for (const auto &[reason, count] : rejects.by_reason()) fmt::print("  {}: {}\n", count, reason);
    if (rejects.count() != 0) fmt::print("  what was rejected is in {}\n", rejects.path());
}

int rebuild(const rebuild_options &options)
{
    watch_for_interruption();
    const std::string rejects_path = options.rejects.empty() ? options.target + ".rejects" : options.rejects;
    refuse_existing(options.target, "rebuild");
    refuse_existing(rejects_path, "rebuild");
    const auto held = hold_old_file(options);
    file_image image{held->descriptor()};
    const check_result checked = check_old_file(options, image);
    file_facts facts = checked.facts;
    if (facts.region.size() < metadata_unit)
        throw tool_error(fmt::format("{}: there is no header, and no record in {} bytes", options.file, image.size()));
    apply_options(options, facts);
    require_description(options, facts);

    setenv("VFS_CACHE_SIZE", cache_size, 0);
    reject_file rejects{rejects_path, image};
    new_file fresh{options.target};
    try {
        const std::vector<found_record> records = find_records(options, image, checked, facts, rejects);
        uint64_t longest = 0;
        for (const found_record &record : records) longest = std::max(longest, record.length);
        const target_keys keys{options, facts};
        const uint64_t kept = write_records(options, request_for(options, fresh.path(), facts, keys.get(), longest),
                                            image, records, rejects);
        rejects.close();
        verify(fresh.path(), options, kept);
        fresh.publish(replacing::no);
        report(options, kept, rejects);
    } catch (...) {
        if (access(options.target.c_str(), F_OK) != 0) rejects.remove();
        throw;
    }
    return rejects.count() == 0 ? exit_good : exit_refused_rows;
}

} // namespace

command_body declare_rebuild(CLI::App &command)
{
    auto options = std::make_shared<rebuild_options>();
    command.add_option("file", options->file, "The damaged file; it is only read")->required();
    command.add_option("--to", options->target, "The new file")->required();
    command.add_option("--rejects", options->rejects, "Where what cannot be kept goes (default: NEW.rejects)");
    command.add_option("--organization", options->organization, "When the header is lost: what kind of file it was")
        ->check(CLI::IsMember({"sequential", "relative", "indexed"}));
    command.add_option("--key", options->keys, "When the header is lost: a key, the primary one first")
        ->allow_extra_args(false);
    auto *max = command.add_option("--max", options->max, "When the header is lost: longest record in bytes");
    command.add_option("--min", options->min, "When the header is lost: shortest record in bytes")->needs(max);
    command.add_option("--fixed", options->fixed, "When the header is lost: all records have this length")
        ->excludes(max);
    command.add_flag("--json", options->json, "Print JSON");
    return [options] { return rebuild(*options); };
}
