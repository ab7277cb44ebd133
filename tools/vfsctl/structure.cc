// See structure.h. Nodes are indented by their level, so that a tree can be folded in an editor.
#include "structure.h"

#include <string_view>

#include <fmt/format.h>

#include "db_text.h"
#include "errors.h"
#include "format/frames.h"
#include "format/survey.h"
#include "output.h"
#include "survey_report.h"

namespace {

void put_line(const std::string &line)
{
    put_out(line + "\n");
}

const char *item_name(uint8_t type)
{
    switch (type) {
    case item_deleted: return "deleted";
    case item_block: return "free-block";
    case item_branch: return "branch";
    case item_leaf: return "leaf";
    case item_free_slots: return "slot-list";
    case item_hole: return "hole";
    case item_relocated: return "relocated";
    case item_live: return "record";
    case item_moved: return "moved";
    default: return "unknown";
    }
}

std::string item_line(const frame &item)
{
    std::string line = fmt::format("0x{:012x} {:<11} {:>8}", item.offset, item_name(item.type), item.length);
    if (item.is_slot()) line += fmt::format("  number {}", item.rrn);
    if (item.is_record()) line += fmt::format(", {} bytes", item.link);
    if (item.type == item_moved) line += fmt::format(", to 0x{:x}", item.link);
    if (item.type == item_block || item.type == item_hole) line += fmt::format("  next 0x{:x}", item.link);
    return line;
}

std::string value_text(const file_key &key, std::span<const std::byte> value)
{
    if (key.parts.empty()) return std::to_string(load_u64(value.data()));
    const std::string_view bytes{reinterpret_cast<const char *>(value.data()), key.length};
    return "'" + db_text_line(bytes, db_text_form::print).substr(1) + "'";
}

void print_node(const node_seen &node)
{
    const std::string indent(2 * (node.level + 1), ' ');
    put_line(fmt::format("{}{} 0x{:x}, level {} of {}, {} entries in room for {}, left 0x{:x}, right 0x{:x}", indent,
                         node.is_leaf() ? "leaf" : "branch", node.address, node.level + 1, node.levels, node.entries,
                         node.capacity(), image_get(node.bytes, node_left), image_get(node.bytes, node_right)));
    for (uint64_t i = 0; i < node.entries; ++i) {
        const uint64_t target = node.target(i);
        const std::string value = value_text(node.key, node.value(i));
        put_line(target == UINT64_MAX ? fmt::format("{}  {} left behind", indent, value)
                                      : fmt::format("{}  {} 0x{:x}", indent, value, target));
    }
}

void refuse_strangers(const std::string &file, const file_survey &found)
{
    if (!found.facts.identified)
        throw tool_error(file + ": this is no file of the driver, or its header is damaged: 'vfsctl check' says more");
}

} // namespace

void print_items(const std::string &file)
{
    const file_survey found = survey_of(file, [](file_image &image) {
        survey_options how;
        how.trees = false;
        how.item = [&image](space kind, uint64_t offset, uint64_t length) {
            frame item;
            if (kind == space::header || kind == space::damage || kind == space::behind ||
                read_frame(image, offset, image.size(), &item) != frame_fault::none)
                put_line(fmt::format("0x{:012x} {:<11} {:>8}", offset,
                                     kind == space::behind ? "behind" : space_name(kind), length));
            else
                put_line(item_line(item));
        };
        return how;
    });
    refuse_strangers(file, found);
}

void print_tree_nodes(const std::string &file)
{
    const file_key *last = nullptr;
    const file_survey found = survey_of(file, [&](file_image &) {
        survey_options how;
        how.items = false;
        how.node = [&](const node_seen &node) {
            if (&node.key != last) put_line(fmt::format("key {}, {} bytes", node.key.number, node.key.length));
            last = &node.key;
            print_node(node);
        };
        return how;
    });
    refuse_strangers(file, found);
    for (size_t i = 0; i < found.trees.size(); ++i)
        if (!found.trees[i].whole)
            throw tool_error(fmt::format("{}: not all nodes of key {} can be read: 'vfsctl check' says more", file, i));
}
