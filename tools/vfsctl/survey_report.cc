// See survey_report.h.
#include "survey_report.h"

#include <cstring>

#include <fmt/format.h>

#include "errors.h"
#include "hold.h"
#include "progress.h"

namespace {

json_value facts_of_tree(const file_facts &facts, size_t number, const tree_survey &tree)
{
    json_value levels = json_value::array();
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

} // namespace

file_survey survey_of(const std::string &path, const std::function<survey_options(file_image &)> &options_for)
{
    watch_for_interruption();
    const held_file held{path, hold_kind::read};
    if (!held.locked())
        fmt::print(stderr, "vfsctl: {}: another program has it for itself: this is how it is at the moment\n", path);
    file_image image{held.descriptor()};
    staged_progress bar;
    survey_options options = options_for(image);
    options.progress = [&](std::string_view what, uint64_t done, uint64_t total) {
        bar.show(what, done, total);
        return !interrupted();
    };
    file_survey found = survey_file(image, options);
    bar.finish();
    if (!found.complete) throw interruption(path + ": interrupted");
    if (const int error = image.storage_error(); error != 0)
        throw tool_error(failure_message(path, "cannot be read", error, std::strerror(error)));
    return found;
}

double percent(uint64_t part, uint64_t whole)
{
    return whole == 0 ? 0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}

json_value survey_facts(const std::string &file, const file_survey &found)
{
    json_value kinds = json_value::object();
    for (size_t i = 0; i < spaces; ++i)
        kinds[space_name(static_cast<space>(i))] = {{"items", found.by_kind[i].items},
                                                    {"bytes", found.by_kind[i].bytes}};
    json_value trees = json_value::array();
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

void print_trees(const json_value &trees)
{
    for (const json_value &tree : trees) {
        fmt::print("key {}: {} entries, {} values, at most {} alike, {} entries left behind{}\n",
                   tree["key"].get<uint64_t>(), tree["entries"].get<uint64_t>(), tree["values"].get<uint64_t>(),
                   tree["most_equal"].get<uint64_t>(), tree["entries_left_behind"].get<uint64_t>(),
                   tree["whole"].get<bool>() ? "" : "; not all of its nodes can be read");
        size_t depth = 0;
        for (const json_value &level : tree["levels"]) {
            ++depth;
            fmt::print("  level {}: {} nodes, {} entries, {:.1f} % full; by tenths of fill:", depth,
                       level["nodes"].get<uint64_t>(), level["entries"].get<uint64_t>(),
                       level["fill_percent"].get<double>());
            for (const json_value &count : level["nodes_by_tenths"]) fmt::print(" {}", count.get<uint64_t>());
            fmt::print("\n");
        }
    }
}
