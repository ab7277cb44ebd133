// The metadata region: the fixed header, the key description, the key table and the key value areas, each field against
// the others.
#include "format/check_parts.h"

#include <cstring>

namespace {

using enum finding_area;

constexpr std::string_view harmless = "nothing is lost by it, but something else than the driver wrote here";

bool identity(check_state &state)
{
    const file_facts &facts = state.facts;
    if (state.image.size() < metadata_unit) {
        state.report.problem(header, 0, "the file has {} bytes, fewer than a header: there is nothing in it to check",
                             state.image.size());
        return false;
    }
    if (facts.get(header_byte_order) == 0x04030201) {
        state.report.problem(header, header_byte_order.offset,
                             "written by a machine of the other byte order, which has to read it");
        return false;
    }
    if (!facts.identified) {
        state.report.problem(
            header, header_tag.offset,
            "no file of this driver, or its header is overwritten: tag, stamp or byte order are wrong");
        return false;
    }
    if (facts.get(header_item_type) != item_block)
        state.report.problem(header, header_item_type.offset, "the header has item type {}, not 2",
                             facts.get(header_item_type));
    if (!facts.region_known || facts.region.size() < facts.metadata_size) {
        state.report.problem(header, 0, "the metadata region is said to have {} bytes: keys and records are not found",
                             facts.metadata_size);
        return false;
    }
    return true;
}

void reserved(check_state &state)
{
    struct range {
        uint64_t from, to;
    };
    for (const range each : {range{17, 24}, range{36, 40}, range{81, 88}, range{236, 240}})
        for (uint64_t at = each.from; at < each.to; ++at)
            if (state.facts.region[at] != std::byte{0}) {
                state.report.problem(header, at, "a reserved byte of the header is not zero; {}", harmless);
                break;
            }
    const uint8_t flags = state.facts.get(header_flags);
    if (flags > 1) state.report.problem(header, header_flags.offset, "header flags 0x{:x}; {}", flags, harmless);
}

bool is_power_of_two(uint64_t value)
{
    return value != 0 && (value & (value - 1)) == 0;
}

// Sizes and addresses of the fixed header. False when data start or end of file cannot be used.
bool layout(check_state &state)
{
    const file_facts &facts = state.facts;
    const uint64_t region = facts.metadata_size;
    state.expect(header, header_header_length.offset, state.header(header_header_length), header_fixed_bytes,
                 "header length");
    state.expect(header, region - trailer_bytes, state.image.word(region - trailer_bytes), region,
                 "trailer of the metadata region");
    state.expect(header, header_allocation_limit.offset, state.header(header_allocation_limit), region - trailer_bytes,
                 "allocation limit");
    const uint64_t point = state.header(header_allocation_point), limit = state.header(header_allocation_limit);
    if (point > limit || state.header(header_unused_metadata) != limit - point)
        state.report.problem(header, header_allocation_point.offset, "allocation point {} with {} bytes unused", point,
                             state.header(header_unused_metadata));
    state.expect(header, header_index_block_size.offset, state.header(header_index_block_size), index_block_bytes,
                 "index block size");
    const uint64_t block = state.header(header_data_block_size), batch = state.header(header_blocks_per_extension);
    if (!is_power_of_two(block) || block < metadata_unit || block > data_block_at_most)
        state.report.problem(header, header_data_block_size.offset, "data block size {}", block);
    else if (block != data_block_bytes)
        state.report.note("the data block size is {}, new files have {}", block, data_block_bytes);
    if (batch == 0 || batch > 4096)
        state.report.problem(header, header_blocks_per_extension.offset, "{} index blocks per extension", batch);
    else if (batch != blocks_per_extension)
        state.report.note("the file grows by {} index blocks, new files by {}", batch, blocks_per_extension);
    if (facts.data_start < region || facts.data_start % metadata_unit != 0 || facts.end < facts.data_start ||
        facts.end % 8 != 0 || facts.end > static_cast<uint64_t>(INT64_MAX) / 2) {
        state.report.problem(header, header_data_start.offset,
                             "data start 0x{:x}, end of file 0x{:x}: where the records lie is not known",
                             facts.data_start, facts.end);
        return false;
    }
    if (facts.end > state.image.size())
        state.report.problem(header, state.image.size(), "the file is cut off: {} bytes are missing at its end",
                             facts.end - state.image.size());
    return true;
}

void lengths(check_state &state)
{
    const file_facts &facts = state.facts;
    const uint64_t largest = slot_bytes(facts.maximum_record);
    if (!facts.lengths_known || facts.maximum_slot < largest) {
        state.report.problem(header, header_minimum_record.offset, "records of {} to {} bytes in slots of at most {}",
                             facts.minimum_record, facts.maximum_record, facts.maximum_slot);
        return;
    }
    state.expect(header, header_minimum_slot.offset, state.header(header_minimum_slot),
                 facts.fixed ? largest : slot_bytes(facts.minimum_record), "minimum slot");
}

void counters(check_state &state)
{
    if (state.facts.get(header_tsn) < 0)
        state.report.note("the index entries are to be numbered anew; the next program that changes the file does it");
    if (state.facts.get(header_tsn) > INT64_MAX / 2)
        state.report.problem(header, header_tsn.offset, "tsn {}: the driver refuses such a file",
                             state.facts.get(header_tsn));
    if (state.header(header_allocated_size) == 0) return;
    if (state.result.words.state == session_state::closed)
        state.report.problem(header, header_allocated_size.offset,
                             "allocated size {} in a closed file, 0 is right; nothing is lost by it",
                             state.header(header_allocated_size));
}

bool key_table(check_state &state)
{
    const file_facts &facts = state.facts;
    const uint64_t table = round_up(header_variable_part + facts.description.size(), 16);
    const uint64_t table_end = table + facts.keys.size() * key_entry_bytes;
    state.expect(header, header_key_table.offset, state.header(header_key_table), facts.flat ? 0 : table,
                 "key table offset");
    state.expect(header, header_key_table_end.offset, state.header(header_key_table_end), table_end, "key table end");
    state.expect(header, 0, facts.metadata_size, round_up(table_end, metadata_unit), "metadata size");
    return table_end <= facts.metadata_size - trailer_bytes;
}

void key_entry(check_state &state, const file_key &key, uint64_t area)
{
    const file_facts &facts = state.facts;
    const node_geometry &g = key.geometry;
    const auto same = [&](field<uint64_t> at, uint64_t wanted, const char *what) {
        state.expect(trees, key.entry + at.offset, facts.get(key, at), wanted, "key {}, {}", key.number, what);
    };
    same(key_entry_offset, key.entry, "its address");
    same(key_entry_number, key.number, "its number");
    same(key_entry_length, key.length, "its length");
    same(key_entry_leaf_stamp_array, g.leaf_stamp_array, "leaf stamp array");
    same(key_entry_branch_width, g.width, "branch key width");
    same(key_entry_branch_capacity, g.branch_capacity, "branch capacity");
    same(key_entry_branch_half, g.branch_capacity / 2, "branch half");
    same(key_entry_branch_key_array, g.branch_key_array, "branch key array");
    same(key_entry_leaf_width, g.width, "leaf key width");
    same(key_entry_leaf_capacity, g.leaf_capacity, "leaf capacity");
    same(key_entry_leaf_half, g.leaf_capacity / 2, "leaf half");
    same(key_entry_leaf_key_array, g.leaf_key_array, "leaf key array");
    same(key_entry_low_area, area - key.entry, "place of its lowest value");
    same(key_entry_high_area, area + g.width - key.entry, "place of its highest value");
    const uint8_t flags = facts.get(key, key_entry_flags);
    if (flags > 3 || ((flags & key_flag_duplicates) != 0) != key.duplicates)
        state.report.problem(trees, key.entry + key_entry_flags.offset,
                             "key {}: flags 0x{:x}, while the description says that duplicates are {}", key.number,
                             flags, key.duplicates ? "allowed" : "not allowed");
    const uint64_t at = key.entry + key_entry_flags.offset + 1;
    if (state.image.first_nonzero(at, key.entry + key_entry_bytes) != key.entry + key_entry_bytes)
        state.report.problem(trees, at, "key {}: a reserved byte of its entry is not zero; {}", key.number, harmless);
}

void key_entries(check_state &state)
{
    const file_facts &facts = state.facts;
    uint64_t area = round_up(header_variable_part + facts.description.size(), 16) + facts.keys.size() * key_entry_bytes;
    for (const file_key &key : facts.keys) {
        key_entry(state, key, area);
        area += 2 * key.geometry.width;
    }
    const uint64_t limit = facts.metadata_size - trailer_bytes;
    state.expect(header, header_allocation_point.offset, state.header(header_allocation_point), area,
                 "allocation point");
    if (area > limit)
        state.report.problem(header, limit, "the key value areas reach beyond the metadata region");
    else if (const uint64_t at = state.image.first_nonzero(area, limit); at != limit && !facts.flat)
        state.report.problem(header, at, "a byte of the unused metadata is not zero; {}", harmless);
}

} // namespace

bool check_header(check_state &state)
{
    if (!identity(state)) return false;
    const file_facts &facts = state.facts;
    reserved(state);
    counters(state);
    lengths(state);
    if (!layout(state)) return false;
    state.end = std::min(facts.end, state.image.size());
    if (!facts.organization_known) {
        state.report.problem(header, header_physical_organization.offset,
                             "physical organization {}, logical {}: what kind of file it is cannot be told",
                             state.header(header_physical_organization), facts.logical);
        return false;
    }
    if (!facts.keys_known) {
        state.report.problem(header, header_key_description.offset,
                             "the key description is damaged ({}): no index can be followed", facts.description_fault);
        return false;
    }
    if (!key_table(state)) {
        state.report.problem(header, header_key_table.offset, "the key table does not fit into the metadata region");
        return false;
    }
    key_entries(state);
    return true;
}
