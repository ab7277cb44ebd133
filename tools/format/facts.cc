// See facts.h.
#include "format/facts.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

namespace {

constexpr uint64_t head_bytes = 40, entry_bytes = 32, part_bytes = 24; // of a key description
constexpr uint64_t longest_record = uint64_t{1} << 40;                 // more than that is no length

bool read_key(std::span<const std::byte> block, uint64_t number, file_key *key, std::string *fault)
{
    const std::byte *entry = block.data() + head_bytes + number * entry_bytes;
    const uint64_t parts = load_u64(entry + 8), list = load_u64(entry + 16);
    key->number = number;
    key->length = load_u64(entry);
    key->duplicates = (entry[24] & std::byte{2}) != std::byte{0};
    if (key->length == 0 || key->length > index_block_bytes ||
        node_geometry_of(key->length).leaf_capacity < minimum_leaf_capacity) {
        *fault = fmt::format("key {} is said to have {} bytes", number, key->length);
        return false;
    }
    if (list % 8 != 0 || list < head_bytes || list > block.size() || parts == 0 ||
        parts > (block.size() - list) / part_bytes) {
        *fault = fmt::format("key {} is said to have {} parts at {}", number, parts, list);
        return false;
    }
    uint64_t sum = 0;
    for (uint64_t i = 0; i < parts; ++i) {
        const std::byte *part = block.data() + list + i * part_bytes;
        key->parts.push_back({load_u64(part), load_u64(part + 8)});
        const uint64_t length = key->parts.back().length;
        if (length == 0 || length > key->length - sum || key->parts.back().offset > longest_record) {
            *fault = fmt::format("the parts of key {} do not make up its {} bytes", number, key->length);
            return false;
        }
        sum += length;
    }
    if (sum != key->length)
        *fault = fmt::format("the parts of key {} have {} of its {} bytes", number, sum, key->length);
    return sum == key->length;
}

// The block that is stored, whatever it means for this kind of file.
void read_description(file_facts &facts)
{
    const uint64_t at = facts.get(header_key_description);
    if (at == 0) return;
    if (at != header_variable_part || at + head_bytes > facts.region.size()) {
        facts.description_fault = fmt::format("it is said to stand at {}", at);
        return;
    }
    const uint64_t total = load_u64(facts.region.data() + at);
    if (total < head_bytes || total > facts.region.size() - at) {
        facts.description_fault = fmt::format("it is said to have {} bytes", total);
        return;
    }
    const auto block = std::span<const std::byte>{facts.region}.subspan(at, total);
    facts.description.assign(block.begin(), block.end());
}

void settle_keys(file_facts &facts)
{
    read_description(facts);
    if (facts.flat) {
        facts.keys.clear();
    } else if (!facts.indexed) {
        facts.keys = {file_key{}};
    } else if (!facts.description.empty()) {
        facts.keys = keys_of_description(facts.description, &facts.primary, &facts.description_fault);
    } else if (facts.description_fault.empty()) {
        facts.keys = {{.parts = {{0, 8}}}}; // none is stored: eight bytes at the beginning of the record
    }
    facts.keys_known = facts.organization_known && facts.description_fault.empty();
    const uint64_t table = round_up(header_variable_part + facts.description.size(), 16);
    for (file_key &key : facts.keys) {
        key.entry = table + key.number * key_entry_bytes;
        key.geometry = node_geometry_of(key.length);
    }
}

void read_lengths(file_facts &facts)
{
    facts.fixed = facts.get(header_record_format) == 3;
    facts.minimum_record = facts.get(header_minimum_record);
    facts.maximum_record = facts.get(header_maximum_record);
    facts.maximum_slot = facts.get(header_maximum_slot);
    facts.block = facts.get(header_block);
    facts.lengths_known = facts.maximum_record <= longest_record && facts.minimum_record <= facts.maximum_record &&
                          facts.maximum_slot <= 2 * longest_record && facts.maximum_slot % 8 == 0 &&
                          facts.maximum_slot >= slot_bytes(facts.maximum_record);
}

} // namespace

std::vector<file_key> keys_of_description(std::span<const std::byte> block, uint64_t *primary, std::string *fault)
{
    const uint64_t count = load_u64(block.data() + 8);
    *primary = load_u64(block.data() + 24);
    if (count == 0 || count > (block.size() - head_bytes) / entry_bytes || *primary >= count) {
        *fault = fmt::format("it is said to have {} keys, the primary one number {}", count, *primary);
        return {};
    }
    std::vector<file_key> keys(count);
    for (uint64_t k = 0; k < count; ++k)
        if (!read_key(block, k, &keys[k], fault)) return {};
    return keys;
}

file_facts read_facts(file_image &image)
{
    file_facts facts;
    facts.region.resize(std::min(image.size(), metadata_unit));
    if (!image.read(0, facts.region) || facts.region.size() < metadata_unit) return facts;
    facts.metadata_size = facts.get(header_metadata_size);
    facts.region_known = facts.metadata_size >= metadata_unit && facts.metadata_size <= metadata_maximum &&
                         facts.metadata_size % metadata_unit == 0 && facts.metadata_size <= image.size();
    if (facts.region_known) {
        facts.region.resize(facts.metadata_size);
        if (!image.read(0, facts.region)) facts.region.resize(metadata_unit);
    }
    const uint32_t tag = facts.get(header_tag);
    facts.identified = std::memcmp(&tag, "vfs", 4) == 0 && facts.get(header_format_stamp) == format_stamp &&
                       facts.get(header_byte_order) == byte_order_mark;
    facts.data_start = facts.get(header_data_start);
    facts.end = facts.get(header_end_of_file);
    const uint32_t physical = facts.get(header_physical_organization);
    facts.logical = facts.get(header_logical_organization);
    facts.flat = physical == 1;
    facts.indexed = !facts.flat && facts.logical == 3;
    facts.organization_known = (physical == 1 || physical == 3) && !(facts.flat && facts.logical == 3);
    read_lengths(facts);
    settle_keys(facts);
    return facts;
}

int compare_keys(const file_key &key, const std::byte *left, const std::byte *right)
{
    if (!key.parts.empty()) return std::memcmp(left, right, key.length);
    const uint64_t a = load_u64(left), b = load_u64(right);
    return a < b ? -1 : a > b ? 1 : 0;
}

bool key_of_record(file_image &image, const file_key &key, uint64_t slot, std::vector<std::byte> *value)
{
    value->assign(key.geometry.width, std::byte{0});
    if (key.parts.empty()) return image.read(slot + slot_rrn.offset, *value);
    uint64_t length = 0, at = 0;
    if (!image.get(slot + slot_data_length.offset, &length)) return false;
    for (const file_key::part &part : key.parts) {
        const uint64_t covered = part.offset < length ? std::min(part.length, length - part.offset) : 0;
        if (covered != 0 && !image.read(slot + slot_head_bytes + part.offset, std::span{*value}.subspan(at, covered)))
            return false;
        at += part.length;
    }
    return true;
}
