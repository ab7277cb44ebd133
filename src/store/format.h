// The bytes of the file: every offset and width of the on-disk format, and typed access to an image.
// Knows nothing else; docs/format.md shows the same rows. All integers are in the byte order of the writer.
//
// The file is a sequence of items: the metadata region at offset 0, then record slots, index blocks and holes. An
// item's first word is its length, its last word repeats it, byte 16 is its type.
#ifndef VFS_STORE_FORMAT_H
#define VFS_STORE_FORMAT_H

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

struct format_row {
    std::string_view name;
    uint32_t offset, width;
};

consteval bool rows_tile(std::span<const format_row> rows, uint32_t bytes)
{
    uint32_t at = 0;
    for (const format_row &row : rows) {
        if (row.offset != at) return false;
        at += row.width;
    }
    return at == bytes;
}

template <typename T> struct field {
    uint32_t offset;
};

template <typename T> consteval field<T> field_of(std::span<const format_row> rows, std::string_view name)
{
    for (const format_row &row : rows)
        if (row.name == name && row.width == sizeof(T)) return {row.offset};
    std::abort(); // a wrong name or width stops the build here
}

template <typename T> T image_get(std::span<const std::byte> image, field<T> at)
{
    assert(at.offset + sizeof(T) <= image.size());
    T value;
    std::memcpy(&value, image.data() + at.offset, sizeof value);
    return value;
}

template <typename T> void image_put(std::span<std::byte> image, field<T> at, T value)
{
    assert(at.offset + sizeof(T) <= image.size());
    std::memcpy(image.data() + at.offset, &value, sizeof value);
}

inline uint64_t load_u64(const std::byte *at)
{
    uint64_t value;
    std::memcpy(&value, at, sizeof value);
    return value;
}
inline void store_u64(std::byte *at, uint64_t value)
{
    std::memcpy(at, &value, sizeof value);
}

enum item_type : uint8_t {
    item_deleted = 1, // deleted record slot
    item_block = 2,   // the metadata region; an index block that is free or freshly allocated
    item_branch = 3,
    item_leaf = 4,
    item_free_slots = 5, // free-slot list block
    item_hole = 6,
    item_relocated = 7, // record living away from its home slot
    item_live = 8,
    item_moved = 9, // home slot of a relocated record (flat files)
};

inline constexpr uint32_t format_stamp = 0x20210520;
inline constexpr uint32_t byte_order_mark = 0x01020304;
inline constexpr uint64_t metadata_unit = 4096;
inline constexpr uint64_t metadata_maximum = 16 * 1024 * 1024;
inline constexpr uint64_t index_block_bytes = 32768;
inline constexpr uint64_t data_block_bytes = 131072;
inline constexpr uint64_t data_block_at_most = 1 << 20; // files are padded to whole blocks
inline constexpr uint64_t blocks_per_extension = 4;
inline constexpr uint64_t trailer_bytes = 8;

// ---- Frame shared by all items ----
inline constexpr field<uint64_t> frame_length{0};
inline constexpr field<uint64_t> frame_link{8};
inline constexpr field<uint8_t> frame_type{16};

// ---- Metadata region: fixed header ----
inline constexpr format_row header_rows[] = {
    // written to disk: never move or renumber
    {"metadata size", 0, 8},
    {"header length", 8, 8},
    {"item type", 16, 1},
    {"reserved 17", 17, 7},
    {"tag", 24, 4}, // "vfs" and a reserved zero byte
    {"format stamp", 28, 4},
    {"byte-order mark", 32, 4},
    {"reserved 36", 36, 4},
    {"tsn", 40, 8},
    {"dsn", 48, 8},
    {"asn", 56, 8},
    {"records", 64, 8},
    {"highest rrn", 72, 8},
    {"flags", 80, 1},
    {"reserved 81", 81, 7},
    {"key description offset", 88, 8},
    {"key table offset", 96, 8},
    {"key table end", 104, 8},
    {"allocation point", 112, 8},
    {"allocation limit", 120, 8},
    {"data start", 128, 8},
    {"end of file", 136, 8},
    {"allocated size", 144, 8},
    {"unused metadata", 152, 8},
    {"data block size", 160, 8},
    {"index block size", 168, 8},
    {"index blocks per extension", 176, 8},
    {"block", 184, 8},
    {"minimum slot", 192, 8},
    {"maximum slot", 200, 8},
    {"minimum record length", 208, 8},
    {"maximum record length", 216, 8},
    {"physical organization", 224, 4},
    {"logical organization", 228, 4},
    {"record format", 232, 4},
    {"reserved 236", 236, 4},
    {"deleted", 240, 8},
    {"moved", 248, 8},
    {"holes", 256, 8},
    {"pad bytes", 264, 8},
    {"free index blocks", 272, 8},
    {"free index list", 280, 8},
    {"free-slot blocks", 288, 8},
    {"free-slot list", 296, 8},
    {"first hole", 304, 8},
    {"last hole", 312, 8},
    {"state word", 320, 8}, // 0; 1 an unflushed session; else the offset of a committed redo area
    {"boot word", 328, 8},  // 0, or the boot under which changes may not be on the disk
};
static_assert(rows_tile(header_rows, 336));

#define VFS_HEADER_FIELD(type, name, row) inline constexpr auto header_##name = field_of<type>(header_rows, row)
VFS_HEADER_FIELD(uint64_t, metadata_size, "metadata size");
VFS_HEADER_FIELD(uint64_t, header_length, "header length");
VFS_HEADER_FIELD(uint8_t, item_type, "item type");
VFS_HEADER_FIELD(uint32_t, tag, "tag");
VFS_HEADER_FIELD(uint32_t, format_stamp, "format stamp");
VFS_HEADER_FIELD(uint32_t, byte_order, "byte-order mark");
VFS_HEADER_FIELD(int64_t, tsn, "tsn");
VFS_HEADER_FIELD(uint64_t, dsn, "dsn");
VFS_HEADER_FIELD(uint64_t, asn, "asn");
VFS_HEADER_FIELD(uint64_t, records, "records");
VFS_HEADER_FIELD(uint64_t, highest_rrn, "highest rrn");
VFS_HEADER_FIELD(uint8_t, flags, "flags");
VFS_HEADER_FIELD(uint64_t, key_description, "key description offset");
VFS_HEADER_FIELD(uint64_t, key_table, "key table offset");
VFS_HEADER_FIELD(uint64_t, key_table_end, "key table end");
VFS_HEADER_FIELD(uint64_t, allocation_point, "allocation point");
VFS_HEADER_FIELD(uint64_t, allocation_limit, "allocation limit");
VFS_HEADER_FIELD(uint64_t, data_start, "data start");
VFS_HEADER_FIELD(uint64_t, end_of_file, "end of file");
VFS_HEADER_FIELD(uint64_t, allocated_size, "allocated size");
VFS_HEADER_FIELD(uint64_t, unused_metadata, "unused metadata");
VFS_HEADER_FIELD(uint64_t, data_block_size, "data block size");
VFS_HEADER_FIELD(uint64_t, index_block_size, "index block size");
VFS_HEADER_FIELD(uint64_t, blocks_per_extension, "index blocks per extension");
VFS_HEADER_FIELD(uint64_t, block, "block");
VFS_HEADER_FIELD(uint64_t, minimum_slot, "minimum slot");
VFS_HEADER_FIELD(uint64_t, maximum_slot, "maximum slot");
VFS_HEADER_FIELD(uint64_t, minimum_record, "minimum record length");
VFS_HEADER_FIELD(uint64_t, maximum_record, "maximum record length");
VFS_HEADER_FIELD(uint32_t, physical_organization, "physical organization");
VFS_HEADER_FIELD(uint32_t, logical_organization, "logical organization");
VFS_HEADER_FIELD(uint32_t, record_format, "record format");
VFS_HEADER_FIELD(uint64_t, deleted, "deleted");
VFS_HEADER_FIELD(uint64_t, moved, "moved");
VFS_HEADER_FIELD(uint64_t, holes, "holes");
VFS_HEADER_FIELD(uint64_t, pad_bytes, "pad bytes");
VFS_HEADER_FIELD(uint64_t, free_index_blocks, "free index blocks");
VFS_HEADER_FIELD(uint64_t, free_index_list, "free index list");
VFS_HEADER_FIELD(uint64_t, free_slot_blocks, "free-slot blocks");
VFS_HEADER_FIELD(uint64_t, free_slot_list, "free-slot list");
VFS_HEADER_FIELD(uint64_t, first_hole, "first hole");
VFS_HEADER_FIELD(uint64_t, last_hole, "last hole");
VFS_HEADER_FIELD(uint64_t, state_word, "state word");
VFS_HEADER_FIELD(uint64_t, boot_word, "boot word");
#undef VFS_HEADER_FIELD

inline constexpr uint64_t header_fixed_bytes = 328; // value of "header length"
inline constexpr uint64_t header_variable_part = 336;
inline constexpr uint8_t header_flag_sequential = 1;
inline constexpr uint64_t state_clean = 0, state_unflushed = 1;

// ---- Redo area: what a commit of a shared file writes behind the end of file before it changes anything below ----
inline constexpr format_row redo_rows[] = {
    // written to disk: never move or renumber
    {"magic", 0, 8}, // "VFSREDO1"
    {"ranges", 8, 8},
    {"length", 16, 8}, // of the area: head, list and bytes
    {"checksum", 24, 8},
};
static_assert(rows_tile(redo_rows, 32));
inline constexpr auto redo_magic = field_of<uint64_t>(redo_rows, "magic");
inline constexpr auto redo_ranges = field_of<uint64_t>(redo_rows, "ranges");
inline constexpr auto redo_length = field_of<uint64_t>(redo_rows, "length");
inline constexpr auto redo_checksum = field_of<uint64_t>(redo_rows, "checksum");
inline constexpr uint64_t redo_head_bytes = 32, redo_range_bytes = 16; // a range: offset, length
inline constexpr uint64_t redo_unit = 4096;                            // the area begins at a multiple of it
// The bytes of the ranges stand there inverted: the area's place is later filled with items, and what is left of it
// between them after a stop of the machine must not look like some.
inline constexpr uint64_t redo_mask = ~uint64_t{0};
inline constexpr uint64_t redo_magic_word = 0x314F444552534656; // "VFSREDO1" read as a little-endian word
// Checksum: four lanes, each begun with the basis; word i of the area (8 bytes; the checksum itself counts as 0) goes
// to lane i mod 4: lane = (lane ^ word) * prime. The sum: basis, then for each lane in turn (sum ^ lane) * prime; the
// upper half is at last folded into the lower one (sum ^ sum >> 32). The step is that of FNV-1a, over words.
inline constexpr uint64_t redo_sum_basis = 0xcbf29ce484222325, redo_sum_prime = 0x100000001b3;

// ---- Key table: one entry per tree ----
inline constexpr format_row key_entry_rows[] = {
    {"offset", 0, 8},
    {"key number", 8, 8},
    {"key length", 16, 8},
    {"entries", 24, 8},
    {"branch entries", 32, 8},
    {"leaf stamp array offset", 40, 8},
    {"branch key width", 48, 8},
    {"branch capacity", 56, 8},
    {"branch half", 64, 8},
    {"branch key array offset", 72, 8},
    {"leaf key width", 80, 8},
    {"leaf capacity", 88, 8},
    {"leaf half", 96, 8},
    {"leaf key array offset", 104, 8},
    {"low key area", 112, 8},  // relative to the entry
    {"high key area", 120, 8}, // relative to the entry
    {"root", 128, 8},
    {"first leaf", 136, 8},
    {"last leaf", 144, 8},
    {"tree tsn", 152, 8},
    {"depth", 160, 8},
    {"leaves", 168, 8},
    {"branches", 176, 8},
    {"flags", 184, 1},
    {"reserved 185", 185, 7},
};
inline constexpr uint64_t key_entry_bytes = 192;
static_assert(rows_tile(key_entry_rows, key_entry_bytes));

#define VFS_KEY_FIELD(type, name, row) inline constexpr auto key_entry_##name = field_of<type>(key_entry_rows, row)
VFS_KEY_FIELD(uint64_t, offset, "offset");
VFS_KEY_FIELD(uint64_t, number, "key number");
VFS_KEY_FIELD(uint64_t, length, "key length");
VFS_KEY_FIELD(uint64_t, entries, "entries");
VFS_KEY_FIELD(uint64_t, branch_entries, "branch entries");
VFS_KEY_FIELD(uint64_t, leaf_stamp_array, "leaf stamp array offset");
VFS_KEY_FIELD(uint64_t, branch_width, "branch key width");
VFS_KEY_FIELD(uint64_t, branch_capacity, "branch capacity");
VFS_KEY_FIELD(uint64_t, branch_half, "branch half");
VFS_KEY_FIELD(uint64_t, branch_key_array, "branch key array offset");
VFS_KEY_FIELD(uint64_t, leaf_width, "leaf key width");
VFS_KEY_FIELD(uint64_t, leaf_capacity, "leaf capacity");
VFS_KEY_FIELD(uint64_t, leaf_half, "leaf half");
VFS_KEY_FIELD(uint64_t, leaf_key_array, "leaf key array offset");
VFS_KEY_FIELD(uint64_t, low_area, "low key area");
VFS_KEY_FIELD(uint64_t, high_area, "high key area");
VFS_KEY_FIELD(uint64_t, root, "root");
VFS_KEY_FIELD(uint64_t, first_leaf, "first leaf");
VFS_KEY_FIELD(uint64_t, last_leaf, "last leaf");
VFS_KEY_FIELD(int64_t, tsn, "tree tsn");
VFS_KEY_FIELD(uint64_t, depth, "depth");
VFS_KEY_FIELD(uint64_t, leaves, "leaves");
VFS_KEY_FIELD(uint64_t, branches, "branches");
VFS_KEY_FIELD(uint8_t, flags, "flags");
#undef VFS_KEY_FIELD

inline constexpr uint8_t key_flag_duplicates = 1;     // the key allows duplicates
inline constexpr uint8_t key_flag_held_duplicate = 2; // the tree has held a duplicate

// ---- Nodes ----
inline constexpr format_row node_rows[] = {
    {"length", 0, 8},
    {"address", 8, 8},
    {"type", 16, 1},
    {"reserved 17", 17, 7},
    {"key entry", 24, 8},
    {"key number", 32, 8},
    {"parent", 40, 8},
    {"left", 48, 8},
    {"right", 56, 8},
    {"ent", 64, 8},
    {"act", 72, 8},
    {"max", 80, 8},
    {"half", 88, 8},
    {"stamp array offset", 96, 8},
    {"key array offset", 104, 8},
    {"key width", 112, 8},
};
inline constexpr uint64_t node_head_bytes = 120; // the address array begins here
static_assert(rows_tile(node_rows, node_head_bytes));

#define VFS_NODE_FIELD(type, name, row) inline constexpr auto node_##name = field_of<type>(node_rows, row)
VFS_NODE_FIELD(uint64_t, length, "length");
VFS_NODE_FIELD(uint64_t, address, "address");
VFS_NODE_FIELD(uint8_t, type, "type");
VFS_NODE_FIELD(uint64_t, key_entry, "key entry");
VFS_NODE_FIELD(uint64_t, key_number, "key number");
VFS_NODE_FIELD(uint64_t, parent, "parent");
VFS_NODE_FIELD(uint64_t, left, "left");
VFS_NODE_FIELD(uint64_t, right, "right");
VFS_NODE_FIELD(uint64_t, ent, "ent");
VFS_NODE_FIELD(uint64_t, act, "act");
VFS_NODE_FIELD(uint64_t, max, "max");
VFS_NODE_FIELD(uint64_t, half, "half");
VFS_NODE_FIELD(uint64_t, stamp_array, "stamp array offset");
VFS_NODE_FIELD(uint64_t, key_array, "key array offset");
VFS_NODE_FIELD(uint64_t, key_width, "key width");
#undef VFS_NODE_FIELD

// The arrays of a node for one key length: the only place that divides the space of a node.
struct node_geometry {
    uint64_t width; // key length rounded up to 8
    uint64_t leaf_capacity, leaf_stamp_array, leaf_key_array;
    uint64_t branch_capacity, branch_key_array;
};

constexpr uint64_t round_up(uint64_t value, uint64_t unit)
{
    return (value + unit - 1) / unit * unit;
}

constexpr node_geometry node_geometry_of(uint64_t key_length)
{
    constexpr uint64_t space = index_block_bytes - node_head_bytes - trailer_bytes;
    node_geometry g{};
    g.width = round_up(key_length, 8);
    g.leaf_capacity = space / (g.width + 16);
    g.leaf_stamp_array = node_head_bytes + 8 * g.leaf_capacity;
    g.leaf_key_array = node_head_bytes + 16 * g.leaf_capacity;
    g.branch_capacity = space / (g.width + 8);
    g.branch_key_array = node_head_bytes + 8 * g.branch_capacity;
    return g;
}
static_assert(node_geometry_of(8).leaf_capacity == 1360 && node_geometry_of(8).leaf_key_array == 21880);
static_assert(node_geometry_of(20).leaf_capacity == 816 && node_geometry_of(20).branch_capacity == 1020);

inline constexpr uint64_t minimum_leaf_capacity = 4;

// ---- Record slots ----
inline constexpr format_row slot_rows[] = {
    {"stored length", 0, 8}, {"data length", 8, 8}, // of a moved slot: offset of the slot that holds the record
    {"type", 16, 1},         {"zero 17", 17, 7},    {"rrn", 24, 8},
};
inline constexpr uint64_t slot_head_bytes = 32; // the record bytes begin here
inline constexpr uint64_t slot_overhead = slot_head_bytes + trailer_bytes;
static_assert(rows_tile(slot_rows, slot_head_bytes));
inline constexpr auto slot_stored_length = field_of<uint64_t>(slot_rows, "stored length");
inline constexpr auto slot_data_length = field_of<uint64_t>(slot_rows, "data length");
inline constexpr auto slot_type = field_of<uint8_t>(slot_rows, "type");
inline constexpr auto slot_rrn = field_of<uint64_t>(slot_rows, "rrn");

// Bytes of the slot that a record of `length` bytes needs.
constexpr uint64_t slot_bytes(uint64_t length)
{
    return round_up(length, 8) + slot_overhead;
}

// ---- Holes ----
inline constexpr uint64_t hole_minimum = 32; // head of 24 bytes and the trailer

// ---- Free-slot list blocks ----
inline constexpr format_row free_slots_rows[] = {
    {"length", 0, 8},
    {"next", 8, 8},
    {"type", 16, 1},
    {"reserved 17", 17, 7},
    {"capacity", 24, 8},
    {"count", 32, 8},
    {"length array offset", 40, 8},
};
inline constexpr uint64_t free_slots_head_bytes = 48; // the offset array begins here
static_assert(rows_tile(free_slots_rows, free_slots_head_bytes));
inline constexpr auto free_slots_next = field_of<uint64_t>(free_slots_rows, "next");
inline constexpr auto free_slots_capacity = field_of<uint64_t>(free_slots_rows, "capacity");
inline constexpr auto free_slots_count = field_of<uint64_t>(free_slots_rows, "count");
inline constexpr auto free_slots_length_array = field_of<uint64_t>(free_slots_rows, "length array offset");
inline constexpr uint64_t free_slots_fixed_capacity = (index_block_bytes - free_slots_head_bytes - trailer_bytes) / 8;
inline constexpr uint64_t free_slots_variable_capacity =
    (index_block_bytes - free_slots_head_bytes - trailer_bytes) / 16;
static_assert(free_slots_fixed_capacity == 4089 && free_slots_variable_capacity == 2044);

#endif
