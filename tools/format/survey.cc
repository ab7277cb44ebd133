// Two walks: over the items, and down each tree. A node is gone into once, so that damage cannot lead in circles.
#include "format/survey.h"

#include <algorithm>
#include <cstring>

#include "format/frames.h"
#include "format/offset_set.h"

namespace {

constexpr uint64_t most_levels = 64;

class surveyor {
public:
    surveyor(file_image &image, const survey_options &options) : image_(image), options_(options)
    {
        found_.facts = read_facts(image);
        found_.size = image.size();
        found_.end = found_.facts.region_known ? std::min(found_.facts.end, found_.size) : found_.size;
    }

    file_survey run()
    {
        if (options_.items) items();
        for (const file_key &key : found_.facts.keys)
            if (options_.trees && found_.complete) tree(key);
        return std::move(found_);
    }

private:
    bool go_on(std::string_view what, uint64_t done, uint64_t total)
    {
        if (found_.complete && options_.progress && !options_.progress(what, done, total)) found_.complete = false;
        return found_.complete;
    }
    void add(space kind, uint64_t offset, uint64_t length)
    {
        space_count &count = found_.by_kind[static_cast<size_t>(kind)];
        ++count.items;
        count.bytes += length;
        if (options_.item) options_.item(kind, offset, length);
    }
    void items();
    void item(const frame &at);
    void record(const frame &at);
    void tree(const file_key &key);
    void node(const file_key &key, tree_survey &tree, uint64_t depth, uint64_t address);
    void leaf(tree_survey &tree, const node_seen &node);

    file_image &image_;
    const survey_options &options_;
    file_survey found_;
    offset_set visited_{metadata_unit};
    std::vector<std::byte> last_key_;
    uint64_t run_ = 0;
};

void surveyor::items()
{
    uint64_t at = found_.facts.region_known ? found_.facts.metadata_size : metadata_unit, told = 0;
    at = std::min(at, found_.size);
    if (at > 0) add(space::header, 0, at);
    while (at < found_.end) {
        if (at - told >= uint64_t{4} << 20) {
            told = at;
            if (!go_on("items", at, found_.end)) return;
        }
        frame next;
        if (read_frame(image_, at, found_.end, &next) == frame_fault::none) {
            item(next);
            at += next.length;
            continue;
        }
        const uint64_t good = std::min(next_frame(image_, at + 8, found_.end, &next), found_.end);
        add(space::damage, at, good - at);
        at = good;
    }
    if (found_.size > at) add(space::behind, at, found_.size - at);
}

void surveyor::item(const frame &at)
{
    switch (at.type) {
    case item_branch: add(space::branch, at.offset, at.length); break;
    case item_leaf: add(space::leaf, at.offset, at.length); break;
    case item_free_slots: add(space::list, at.offset, at.length); break;
    case item_block: add(space::free_block, at.offset, at.length); break;
    case item_hole: add(space::hole, at.offset, at.length); break;
    case item_deleted: add(space::deleted, at.offset, at.length); break;
    case item_moved: add(space::moved, at.offset, at.length); break;
    default: record(at);
    }
}

void surveyor::record(const frame &at)
{
    add(space::record, at.offset, at.length);
    const uint64_t length = std::min(at.link, at.length - slot_overhead);
    found_.data_bytes += length;
    found_.frame_bytes += slot_overhead;
    found_.pad_bytes += at.length - slot_overhead - length;
    found_.longest = std::max(found_.longest, length);
    found_.shortest = std::min(found_.shortest, length);
}

void surveyor::tree(const file_key &key)
{
    tree_survey tree;
    const uint64_t depth = found_.facts.get(key, key_entry_depth);
    last_key_.clear();
    run_ = 0;
    if (depth == 0 || depth > most_levels) {
        tree.whole = false;
    } else {
        tree.levels.resize(depth);
        node(key, tree, 0, found_.facts.get(key, key_entry_root));
    }
    found_.trees.push_back(std::move(tree));
}

void surveyor::node(const file_key &key, tree_survey &tree, uint64_t depth, uint64_t address)
{
    const bool is_leaf = depth + 1 == tree.levels.size();
    std::vector<std::byte> bytes(index_block_bytes);
    frame item;
    const bool readable =
        address % metadata_unit == 0 &&
        go_on("trees", visited_.count(), found_.of(space::branch).items + found_.of(space::leaf).items) &&
        read_frame(image_, address, found_.size, &item) == frame_fault::none &&
        item.type == (is_leaf ? item_leaf : item_branch) && visited_.insert(address) && image_.read(address, bytes);
    if (!readable) {
        tree.whole = false;
        return;
    }
    const uint64_t max = is_leaf ? key.geometry.leaf_capacity : key.geometry.branch_capacity;
    const node_seen seen{key, depth, tree.levels.size(), address, std::min(image_get(bytes, node_ent), max), bytes};
    level_survey &level = tree.levels[depth];
    ++level.nodes;
    level.entries += seen.entries;
    level.capacity += max;
    ++level.fill[std::min<uint64_t>(seen.entries == 0 ? 0 : (seen.entries * 10 - 1) / max, level.fill.size() - 1)];
    if (options_.node) options_.node(seen);
    if (is_leaf) {
        leaf(tree, seen);
        return;
    }
    for (uint64_t i = 0; i < seen.entries; ++i) node(key, tree, depth + 1, seen.target(i));
}

void surveyor::leaf(tree_survey &tree, const node_seen &node)
{
    for (uint64_t i = 0; i < node.entries; ++i) {
        if (node.target(i) == UINT64_MAX) {
            ++tree.left_behind;
            continue;
        }
        ++tree.entries;
        const std::span<const std::byte> value = node.value(i);
        const bool equal = !last_key_.empty() && std::memcmp(last_key_.data(), value.data(), value.size()) == 0;
        run_ = equal ? run_ + 1 : 1;
        tree.equal += equal ? 1 : 0;
        tree.longest_run = std::max(tree.longest_run, run_);
        if (!equal) last_key_.assign(value.begin(), value.end());
    }
}

} // namespace

const char *space_name(space kind)
{
    constexpr std::array<const char *, spaces> names = {"header",   "records", "deleted",       "moved",
                                                        "branches", "leaves",  "lists",         "free blocks",
                                                        "holes",    "damage",  "behind the end"};
    return names[static_cast<size_t>(kind)];
}

file_survey survey_file(file_image &image, const survey_options &options)
{
    return surveyor{image, options}.run();
}
