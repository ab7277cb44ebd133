// vfsctl map: a picture of a file, as a page for a browser that needs nothing else, or as characters for a terminal.
#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include <fmt/color.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "commands.h"
#include "errors.h"
#include "map_page.h"
#include "new_file.h"
#include "output.h"
#include "picture.h"
#include "survey_report.h"
#include "terminal.h"

namespace {

struct map_options {
    std::string file, to;
    bool text = false;
};

struct mark { // of a kind of space, in the order of the kinds
    char letter;
    uint32_t colour;
};
constexpr std::array<mark, spaces> marks = {{{'H', 0x6c757d},
                                             {'#', 0x4c9f70},
                                             {'-', 0xc9cfd6},
                                             {'>', 0x9a8c2f},
                                             {'B', 0xb5179e},
                                             {'L', 0x3a86ff},
                                             {'F', 0xf4a261},
                                             {'b', 0xa2d2ff},
                                             {'.', 0xe9ecef},
                                             {'!', 0xe63946},
                                             {'~', 0x8d99ae}}};

uint64_t size_of(const std::string &path)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

// ---- The page --------------------------------------------------------------------------------------------------

struct node_place {
    uint64_t key, level;
};

json_value pieces_of(const picture &drawn, const std::unordered_map<uint64_t, node_place> &nodes)
{
    json_value all = json_value::array();
    for (const picture_piece &piece : drawn.pieces()) {
        json_value row{static_cast<size_t>(piece.kind), piece.offset, piece.length};
        if (const auto node = nodes.find(piece.offset); node != nodes.end()) {
            row.push_back(node->second.key);
            row.push_back(node->second.level);
        }
        all.push_back(row);
    }
    return all;
}

// Of each cell: kind, bytes and items of what is in it, one after the other.
json_value cells_of(const picture &drawn)
{
    json_value all = json_value::array();
    for (const picture_cell &cell : drawn.cells()) {
        json_value row = json_value::array();
        for (size_t kind = 0; kind < spaces; ++kind)
            if (const space_count &count = cell.kinds[kind]; count.bytes != 0)
                row.insert(row.end(), {kind, count.bytes, count.items});
        all.push_back(row);
    }
    return all;
}

// The page with its data, which may contain nothing that ends a script.
std::string page_of(const json_value &data)
{
    constexpr std::string_view place = "/*data*/null";
    std::string text;
    for (const char c : data.dump(-1, ' ', true, json_value::error_handler_t::replace))
        text += c == '<' ? std::string{"\\u003c"} : std::string(1, c);
    std::string page = map_page;
    return page.replace(page.find(place), place.size(), text);
}

std::string draw_page(const map_options &options)
{
    constexpr uint64_t most_cells = 16384;
    constexpr size_t most_pieces = 40000;
    picture drawn{size_of(options.file), most_cells, metadata_unit, most_pieces};
    std::unordered_map<uint64_t, node_place> nodes;
    const file_survey found = survey_of(options.file, [&](file_image &) {
        return survey_options{
            .item = [&](space kind, uint64_t offset, uint64_t length) { drawn.add(kind, offset, length); },
            .node =
                [&](const node_seen &node) {
                    if (drawn.exact()) nodes[node.address] = {node.key.number, node.level};
                },
            .progress = {}};
    });
    json_value data = survey_facts(options.file, found);
    data["kinds"] = json_value::array();
    for (size_t kind = 0; kind < spaces; ++kind)
        data["kinds"].push_back(
            {{"name", space_name(static_cast<space>(kind))}, {"colour", fmt::format("#{:06x}", marks[kind].colour)}});
    data["exact"] = drawn.exact();
    data["cell_bytes"] = drawn.cell_bytes();
    data["pieces"] = drawn.exact() ? pieces_of(drawn, nodes) : cells_of(drawn);
    return page_of(data);
}

bool is_page(const std::string &path)
{
    const std::string_view begin = std::string_view{map_page}.substr(0, 15);
    std::string found(begin.size(), '\0');
    std::ifstream{path, std::ios::binary}.read(found.data(), static_cast<std::streamsize>(found.size()));
    return found == begin;
}

void write_page(const map_options &options)
{
    if (options.to.empty()) {
        if (isatty(STDOUT_FILENO) == 1)
            throw usage_error("map writes a page for a browser: give it a file with --to, or ask for --text");
        put_out(draw_page(options));
        return;
    }
    if (access(options.to.c_str(), F_OK) == 0 && !is_page(options.to))
        throw tool_error(options.to + ": exists already and is no page; map overwrites nothing else");
    new_file page{options.to};
    const std::string text = draw_page(options);
    FILE *out = std::fopen(page.path().c_str(), "wxe");
    const bool written = out != nullptr && std::fwrite(text.data(), 1, text.size(), out) == text.size();
    if (out == nullptr || std::fclose(out) != 0 || !written)
        throw tool_error(options.to + ": the page cannot be written");
    page.publish(replacing::yes);
}

// ---- The terminal ----------------------------------------------------------------------------------------------

void put_cell(space kind, bool colours)
{
    const mark &look = marks[static_cast<size_t>(kind)];
    if (colours)
        fmt::print(fmt::fg(fmt::rgb(look.colour)), "{}", look.letter);
    else
        fmt::print("{}", look.letter);
}

void print_text(const map_options &options)
{
    constexpr uint64_t columns = 64, rows = 32;
    picture drawn{size_of(options.file), columns * rows, 64, 0};
    const file_survey found = survey_of(options.file, [&](file_image &) {
        survey_options how;
        how.item = [&](space kind, uint64_t offset, uint64_t length) { drawn.add(kind, offset, length); };
        return how;
    });
    const json_value facts = survey_facts(options.file, found);
    const bool colours = colours_on(stdout);
    fmt::print("{}: {}, {} records; a character for {} bytes\n", options.file, size_text(found.size),
               facts["records"].get<uint64_t>(), drawn.cell_bytes());
    for (size_t i = 0; i < drawn.cells().size(); ++i) {
        if (i % columns == 0) fmt::print("{}{:>12x}  ", i == 0 ? "" : "\n", i * drawn.cell_bytes());
        put_cell(drawn.cells()[i].most(), colours);
    }
    fmt::print("\n\n");
    for (size_t kind = 0; kind < spaces; ++kind) {
        const space_count &count = found.by_kind[kind];
        if (count.items == 0) continue;
        fmt::print("  ");
        put_cell(static_cast<space>(kind), colours);
        fmt::print(" {:<16}{:>10} items, {:>10}, {:5.1f} %\n", space_name(static_cast<space>(kind)), count.items,
                   size_text(count.bytes), percent(count.bytes, found.size));
    }
    print_trees(facts["trees"]);
}

} // namespace

command_body declare_map(CLI::App &command)
{
    auto options = std::make_shared<map_options>();
    command.add_option("file", options->file, "The file")->required();
    auto *to = command.add_option("--to", options->to, "Where the page is written (default: standard output)");
    command.add_flag("--text", options->text, "Draw with characters, for a terminal")->excludes(to);
    return [options] {
        if (options->text)
            print_text(*options);
        else
            write_page(*options);
        return static_cast<int>(exit_good);
    };
}
