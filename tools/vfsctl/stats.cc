// vfsctl stats: what a file is made of, how full its trees are, and what of it is waste.
#include <cerrno>
#include <cstring>
#include <memory>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "errors.h"
#include "format/survey.h"
#include "hold.h"
#include "progress.h"

namespace {

using json = nlohmann::ordered_json;

struct stats_options {
    std::string file;
    bool json = false;
};

double percent(uint64_t part, uint64_t whole)
{
    return whole == 0 ? 0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}

json facts_of_tree(const file_facts &facts, size_t number, const tree_survey &tree)
{
    json levels = json::array();
    for (const level_survey &level : tree.levels)
        levels.push_back({{"nodes", level.nodes},
                          {"entries", level.entries},
                          {"capacity", level.capacity},
                          {"fill_percent", percent(level.entries, level.capacity)},
                          {"nodes_by_tenths", level.fill}});
    return {{"key", number},
            {"length", facts.keys[number].length},
            {"duplicates_allowed", facts.keys[number].duplicates},
            {"entries", tree.entries},
            {"entries_left_behind", tree.left_behind},
            {"values", tree.entries - tree.equal},
            {"most_equal", tree.longest_run},
            {"whole", tree.whole},
            {"levels", levels}};
}

json facts_of(const std::string &file, const file_survey &found)
{
    json kinds = json::object();
    for (size_t i = 0; i < spaces; ++i)
        kinds[space_name(static_cast<space>(i))] = {{"items", found.by_kind[i].items},
                                                    {"bytes", found.by_kind[i].bytes}};
    json trees = json::array();
    for (size_t i = 0; i < found.trees.size(); ++i) trees.push_back(facts_of_tree(found.facts, i, found.trees[i]));
    const uint64_t records = found.of(space::record).items;
    const uint64_t unused = found.pad_bytes + found.of(space::deleted).bytes + found.of(space::hole).bytes +
                            found.of(space::free_block).bytes + found.of(space::behind).bytes;
    const auto header = [&](field<uint64_t> at) { return found.facts.region_known ? found.facts.get(at) : 0; };
    return {{"file", file},
            {"bytes", found.size},
            {"end", found.end},
            {"records", records},
            {"record_bytes", found.data_bytes},
            {"shortest", records == 0 ? 0 : found.shortest},
            {"longest", found.longest},
            {"frame_bytes", found.frame_bytes},
            {"pad_bytes", found.pad_bytes},
            {"unused_bytes", unused},
            {"highest_number", header(header_highest_rrn) == UINT64_MAX ? 0 : header(header_highest_rrn) + 1},
            {"items", kinds},
            {"trees", trees}};
}

std::string size_text(uint64_t bytes)
{
    constexpr const char *units[] = {"bytes", "KiB", "MiB", "GiB", "TiB"};
    auto value = static_cast<double>(bytes);
    size_t unit = 0;
    for (; value >= 1024 && unit + 1 < std::size(units); ++unit) value /= 1024;
    return unit == 0 ? fmt::format("{} bytes", bytes) : fmt::format("{:.1f} {}", value, units[unit]);
}

void print_for_people(const json &facts)
{
    const auto number = [&](const char *name) { return facts[name].get<uint64_t>(); };
    const uint64_t size = number("bytes");
    fmt::print("{}: {}, {} records of {} to {} bytes\n", facts["file"].get<std::string>(), size_text(size),
               number("records"), number("shortest"), number("longest"));
    fmt::print("  {:<16}{:>12}{:>18}{:>8}\n", "", "items", "bytes", "%");
    for (const auto &[name, kind] : facts["items"].items())
        if (kind["items"].get<uint64_t>() > 0)
            fmt::print("  {:<16}{:>12}{:>18}{:>8.1f}\n", name, kind["items"].get<uint64_t>(),
                       kind["bytes"].get<uint64_t>(), percent(kind["bytes"].get<uint64_t>(), size));
    fmt::print("  records: {} bytes of data, {} of frames, {} of padding\n", number("record_bytes"),
               number("frame_bytes"), number("pad_bytes"));
    fmt::print("  unused: {} bytes, {:.1f} % of the file; record numbers up to {} were given\n", number("unused_bytes"),
               percent(number("unused_bytes"), size), number("highest_number"));
    for (const json &tree : facts["trees"]) {
        fmt::print("key {}: {} entries, {} values, at most {} alike, {} entries left behind{}\n",
                   tree["key"].get<uint64_t>(), tree["entries"].get<uint64_t>(), tree["values"].get<uint64_t>(),
                   tree["most_equal"].get<uint64_t>(), tree["entries_left_behind"].get<uint64_t>(),
                   tree["whole"].get<bool>() ? "" : "; not all of its nodes can be read");
        size_t depth = 0;
        for (const json &level : tree["levels"]) {
            ++depth;
            fmt::print("  level {}: {} nodes, {} entries, {:.1f} % full; by tenths of fill:", depth,
                       level["nodes"].get<uint64_t>(), level["entries"].get<uint64_t>(),
                       level["fill_percent"].get<double>());
            for (const json &count : level["nodes_by_tenths"]) fmt::print(" {}", count.get<uint64_t>());
            fmt::print("\n");
        }
    }
}

int stats(const stats_options &options)
{
    watch_for_interruption();
    const held_file held{options.file, hold_kind::read};
    if (!held.locked())
        fmt::print(stderr, "vfsctl: {}: another program has it for itself: these are the counts of a moment\n",
                   options.file);
    file_image image{held.descriptor()};
    staged_progress bar;
    survey_options how;
    how.progress = [&](std::string_view what, uint64_t done, uint64_t total) {
        bar.show(what, done, total);
        return !interrupted();
    };
    const file_survey found = survey_file(image, how);
    bar.finish();
    if (!found.complete) throw interruption(options.file + ": interrupted");
    if (!found.facts.identified)
        throw tool_error(options.file +
                         ": this is no file of the driver, or its header is damaged: 'vfsctl check' says more");
    if (const int error = image.storage_error(); error != 0)
        throw tool_error(failure_message(options.file, "cannot be read", error, std::strerror(error)));
    const json facts = facts_of(options.file, found);
    if (options.json)
        fmt::print("{}\n", facts.dump(2, ' ', false, json::error_handler_t::replace));
    else
        print_for_people(facts);
    return exit_good;
}

} // namespace

command_body declare_stats(CLI::App &command)
{
    auto options = std::make_shared<stats_options>();
    command.add_option("file", options->file, "The file")->required();
    command.add_flag("--json", options->json, "Print JSON");
    return [options] { return stats(*options); };
}
