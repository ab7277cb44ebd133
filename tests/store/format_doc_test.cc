// docs/format.md and src/store/format.h say the same. The page is read as a whole; under each heading of interest stands
// one table of offsets, whose rows (name, offset, width) are compared with the driver's, in order.
#include "store/format.h"
#include "vfs.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <fstream>
#include <string>
#include <vector>

namespace {

using cells = std::vector<std::string>;

std::string trimmed(const std::string &text)
{
    const size_t from = text.find_first_not_of(' ');
    return from == std::string::npos ? "" : text.substr(from, text.find_last_not_of(' ') - from + 1);
}

// "| a | b |" -> {"a", "b"}
cells cells_of(const std::string &line)
{
    cells row;
    for (size_t from = 1, bar; (bar = line.find('|', from)) != std::string::npos; from = bar + 1)
        row.push_back(trimmed(line.substr(from, bar - from)));
    return row;
}

// The rows of the first table under `heading` whose head begins with the cells `head`; empty when there is none.
std::vector<cells> table_under(const std::string &heading, const cells &head)
{
    std::ifstream page(VFS_FORMAT_PAGE);
    EXPECT_TRUE(page) << VFS_FORMAT_PAGE;
    std::vector<cells> rows;
    bool under = false, inside = false;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("#")) under = line == heading;
        if (!under) continue;
        if (!line.starts_with("|")) {
            if (inside) break;
            continue;
        }
        const cells row = cells_of(line);
        if (inside && !row.front().starts_with("---"))
            rows.push_back(row);
        else if (row.size() >= head.size() && std::equal(head.begin(), head.end(), row.begin()))
            inside = true;
    }
    return rows;
}

std::vector<cells> offsets_under(const std::string &heading)
{
    return table_under(heading, {"Offset", "Width", "Name"});
}

void expect_same(const std::string &heading, std::span<const format_row> rows)
{
    const std::vector<cells> documented = offsets_under(heading);
    ASSERT_EQ(documented.size(), rows.size()) << heading;
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(documented[i][0], std::to_string(rows[i].offset)) << heading << ", " << rows[i].name;
        EXPECT_EQ(documented[i][1], std::to_string(rows[i].width)) << heading << ", " << rows[i].name;
        EXPECT_EQ(documented[i][2], rows[i].name) << heading;
    }
}

TEST(FormatPage, ShowsTheHeader)
{
    expect_same("## Header", header_rows);
}

TEST(FormatPage, ShowsTheKeyTable)
{
    expect_same("## Key table", key_entry_rows);
}

TEST(FormatPage, ShowsNodes)
{
    expect_same("## Nodes", node_rows);
}

TEST(FormatPage, ShowsRecordSlots)
{
    expect_same("## Record slots", slot_rows);
}

TEST(FormatPage, ShowsFreeSlotLists)
{
    expect_same("## Free-slot lists", free_slots_rows);
}

TEST(FormatPage, ShowsTheRedoArea)
{
    expect_same("### Redo area", redo_rows);
}

TEST(FormatPage, ShowsTheFrame)
{
    const std::vector<cells> rows = offsets_under("## Items");
    ASSERT_EQ(rows.size(), 5U);
    EXPECT_EQ(rows[0][0], std::to_string(frame_length.offset));
    EXPECT_EQ(rows[1][0], std::to_string(frame_link.offset));
    EXPECT_EQ(rows[2][0], std::to_string(frame_type.offset));
    EXPECT_EQ(rows[4][0], "length - " + std::to_string(trailer_bytes));
}

#define MEMBER(type, name)                                                                                             \
    format_row                                                                                                         \
    {                                                                                                                  \
#name, offsetof(type, name), sizeof(type::name)                                                                \
    }

TEST(FormatPage, ShowsTheKeyDescription)
{
    const format_row head[] = {MEMBER(vfs_key_desc, total_size), MEMBER(vfs_key_desc, count),
                               MEMBER(vfs_key_desc, max_extent), MEMBER(vfs_key_desc, primary_key),
                               MEMBER(vfs_key_desc, flags)};
    const format_row entry[] = {MEMBER(vfs_key_desc_entry, length), MEMBER(vfs_key_desc_entry, part_count),
                                MEMBER(vfs_key_desc_entry, part_list), MEMBER(vfs_key_desc_entry, flags),
                                MEMBER(vfs_key_desc_entry, unused)};
    const format_row part[] = {MEMBER(vfs_key_part, offset), MEMBER(vfs_key_part, length),
                               MEMBER(vfs_key_part, unused)};
    expect_same("### Head", head);
    expect_same("### Entry", entry);
    expect_same("### Part", part);
}

TEST(FormatPage, GivesTheGeometryThatNodesHave)
{
    const std::vector<cells> rows = table_under("## Key table", {"Key length", "W"});
    ASSERT_GE(rows.size(), 4U);
    for (const cells &row : rows) {
        const node_geometry g = node_geometry_of(std::stoull(row[0]));
        const uint64_t expected[] = {g.width,          g.leaf_capacity,   g.leaf_stamp_array,
                                     g.leaf_key_array, g.branch_capacity, g.branch_key_array};
        ASSERT_EQ(row.size(), 1 + std::size(expected));
        for (size_t i = 0; i < std::size(expected); ++i)
            EXPECT_EQ(row[i + 1], std::to_string(expected[i])) << "key length " << row[0] << ", column " << i + 1;
    }
}

TEST(FormatPage, NamesTheLongestKey)
{
    const std::string longest = offsets_under("### Entry").at(0).at(3);
    const uint64_t length = std::stoull(longest.substr(longest.rfind(' ') + 1));
    EXPECT_GE(node_geometry_of(length).leaf_capacity, minimum_leaf_capacity);
    EXPECT_LT(node_geometry_of(length + 1).leaf_capacity, minimum_leaf_capacity);
}

} // namespace
