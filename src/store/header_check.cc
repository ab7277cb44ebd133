// What a header claims is checked here, once, before anything relies on it. See header.h.
#include "store/header.h"
#include "util/errors.h"

#include <cstdio>

namespace {

// No number of changes comes near it; counting on from there would end below zero.
constexpr int64_t sequence_maximum = INT64_MAX / 2;

bool is_power_of_two(uint64_t value)
{
    return value != 0 && (value & (value - 1)) == 0;
}

bool tree_entry_sound(const vfs_file *file, uint64_t k)
{
    const auto get = [&](field<uint64_t> at) { return key_entry_get(file, k, at); };
    const uint64_t entry = key_entry_at(file, k);
    const uint64_t length = file->indexed() ? static_cast<uint64_t>(key_description(file, k)->length) : 8;
    const node_geometry g = node_geometry_of(length);
    if (get(key_entry_offset) != entry || get(key_entry_number) != k || get(key_entry_length) != length) return false;
    if (get(key_entry_leaf_width) != g.width || get(key_entry_branch_width) != g.width ||
        get(key_entry_leaf_capacity) != g.leaf_capacity || get(key_entry_branch_capacity) != g.branch_capacity ||
        get(key_entry_leaf_half) != g.leaf_capacity / 2 || get(key_entry_branch_half) != g.branch_capacity / 2 ||
        get(key_entry_leaf_stamp_array) != g.leaf_stamp_array || get(key_entry_leaf_key_array) != g.leaf_key_array ||
        get(key_entry_branch_key_array) != g.branch_key_array)
        return false;
    const auto is_block = [&](uint64_t address) {
        return address >= header_get(file, header_metadata_size) && address % metadata_unit == 0 &&
               address < file->end_of_file && file->end_of_file - address >= index_block_bytes;
    };
    if (!is_block(get(key_entry_root)) || !is_block(get(key_entry_first_leaf)) || !is_block(get(key_entry_last_leaf)))
        return false;
    const uint64_t blocks = file->end_of_file / index_block_bytes;
    const uint64_t depth = get(key_entry_depth), leaves = get(key_entry_leaves), branches = get(key_entry_branches);
    if (key_entry_get(file, k, key_entry_tsn) > sequence_maximum) return false;
    if (depth == 0 || depth > 64 || leaves == 0 || leaves > blocks || branches > blocks) return false;
    return get(key_entry_entries) <= leaves * g.leaf_capacity &&
           get(key_entry_branch_entries) <= branches * g.branch_capacity;
}

// The key value areas lie behind the key table in the order of their keys, low before high, none upon another.
bool areas_sound(const vfs_file *file)
{
    const uint64_t limit = header_get(file, header_allocation_limit);
    uint64_t from = header_get(file, header_key_table_end);
    for (uint64_t k = 0; k < file->tree_count; ++k) {
        const uint64_t entry = key_entry_at(file, k), width = key_entry_get(file, k, key_entry_leaf_width);
        for (const field<uint64_t> area : {key_entry_low_area, key_entry_high_area}) {
            const uint64_t relative = key_entry_get(file, k, area);
            if (relative > limit || entry + relative < from || entry + relative + width > limit) return false;
            from = entry + relative + width;
        }
    }
    return true;
}

// Keys that the file has trees for.
uint64_t stored_key_count(const vfs_file *file)
{
    const uint64_t at = header_get(file, header_key_description);
    if (!file->indexed() || at == 0) return 1;
    return static_cast<uint64_t>(reinterpret_cast<const vfs_key_desc *>(header_image(file).data() + at)->count);
}

bool same_key(const vfs_key_desc *a, const vfs_key_desc *b, uint64_t k)
{
    const auto entry = [k](const vfs_key_desc *d) { return reinterpret_cast<const vfs_key_desc_entry *>(d + 1) + k; };
    const vfs_key_desc_entry *x = entry(a), *y = entry(b);
    if (x->length != y->length || x->part_count != y->part_count || ((x->flags ^ y->flags) & VFS_KEY_DUPLICATES) != 0)
        return false;
    const auto part = [](const vfs_key_desc *d, const vfs_key_desc_entry *e, int64_t i) {
        return reinterpret_cast<const vfs_key_part *>(reinterpret_cast<const std::byte *>(d) + e->part_list) + i;
    };
    for (int64_t i = 0; i < x->part_count; ++i)
        if (part(a, x, i)->offset != part(b, y, i)->offset || part(a, x, i)->length != part(b, y, i)->length)
            return false;
    return true;
}

int descriptions_compare(const vfs_file *file, const vfs_key_desc *stored)
{
    const vfs_key_desc *given = file->keys;
    const bool count_fits = given->count == stored->count || (is_read_only(file) && given->count < stored->count);
    if (!count_fits || given->primary_key != stored->primary_key) {
        if (file->debug)
            std::fprintf(stderr, "The file %s has %ld keys, primary key %ld\n", file->path,
                         static_cast<long>(stored->count), static_cast<long>(stored->primary_key));
        return fail(EINVAL);
    }
    for (int64_t k = 0; k < given->count; ++k) {
        if (same_key(given, stored, static_cast<uint64_t>(k))) continue;
        if (file->debug)
            std::fprintf(stderr, "Key %ld differs from the one in the file %s\n", static_cast<long>(k), file->path);
        return fail(EINVAL);
    }
    return 0;
}

} // namespace

int header_check_fixed(std::span<const std::byte> image, uint64_t size)
{
    static constexpr char tag[4] = {'v', 'f', 's', 0};
    if (image_get(image, header_item_type) != item_block) return fail(EINVAL);
    const uint32_t found = image_get(image, header_tag);
    if (std::memcmp(&found, tag, 3) != 0) return fail(EINVAL);
    if (image_get(image, header_byte_order) != byte_order_mark) return fail(EINVAL);
    if (image_get(image, header_format_stamp) != format_stamp) return fail(EINVAL);

    if (image_get(image, header_tsn) > sequence_maximum) return fail(EINVAL);

    const uint64_t region = image_get(image, header_metadata_size);
    if (region < metadata_unit || region > metadata_maximum || region % metadata_unit != 0 || region > size)
        return fail(EINVAL);
    const uint64_t data_start = image_get(image, header_data_start);
    const uint64_t end = image_get(image, header_end_of_file);
    if (data_start < region || data_start % metadata_unit != 0 || end < data_start || end % 8 != 0 ||
        end > static_cast<uint64_t>(INT64_MAX) / 2)
        return fail(EINVAL);
    const uint64_t data_block = image_get(image, header_data_block_size);
    if (image_get(image, header_index_block_size) != index_block_bytes || !is_power_of_two(data_block) ||
        data_block < metadata_unit || data_block > data_block_at_most)
        return fail(EINVAL);
    const uint64_t per_extension = image_get(image, header_blocks_per_extension);
    if (per_extension == 0 || per_extension > 4096) return fail(EINVAL);

    const uint32_t physical = image_get(image, header_physical_organization);
    const uint64_t table = image_get(image, header_key_table), table_end = image_get(image, header_key_table_end);
    if (physical != 1 && physical != 3) return fail(EINVAL);
    if (physical == 1 && image_get(image, header_logical_organization) == 3) return fail(EINVAL);
    if (physical == 3 && (table < header_variable_part || table % 8 != 0 || table_end > region - trailer_bytes ||
                          table > table_end || table_end - table < key_entry_bytes))
        return fail(EINVAL);
    const uint64_t slot = image_get(image, header_maximum_slot);
    if (slot < slot_overhead || slot % 8 != 0 || slot > static_cast<uint64_t>(INT64_MAX) / 2) return fail(EINVAL);
    if (image_get(image, header_maximum_record) > slot - slot_overhead) return fail(EINVAL);
    if (image_get(image, header_allocation_limit) != region - trailer_bytes) return fail(EINVAL);
    const uint64_t description = image_get(image, header_key_description);
    if (description != 0 && (description != header_variable_part || description + sizeof(vfs_key_desc) > region))
        return fail(EINVAL);
    return 0;
}

int key_description_check(const vfs_key_desc *keys, uint64_t bytes)
{
    if (bytes < sizeof *keys || keys->total_size < static_cast<int64_t>(sizeof *keys) ||
        static_cast<uint64_t>(keys->total_size) > bytes)
        return fail(EINVAL);
    const auto total = static_cast<uint64_t>(keys->total_size);
    const auto count = static_cast<uint64_t>(keys->count);
    if (keys->count < 1 || count > (total - sizeof *keys) / sizeof(vfs_key_desc_entry)) return fail(EINVAL);
    if (keys->primary_key < 0 || keys->primary_key >= keys->count) return fail(EINVAL);
    const auto *entry = reinterpret_cast<const vfs_key_desc_entry *>(keys + 1);
    for (uint64_t k = 0; k < count; ++k) {
        const auto length = static_cast<uint64_t>(entry[k].length);
        const auto list = static_cast<uint64_t>(entry[k].part_list), parts = static_cast<uint64_t>(entry[k].part_count);
        if (entry[k].length < 1 || length > index_block_bytes ||
            node_geometry_of(length).leaf_capacity < minimum_leaf_capacity)
            return fail(EINVAL);
        if (list % 8 != 0 || list < sizeof *keys || list > total || parts < 1 ||
            parts > (total - list) / sizeof(vfs_key_part))
            return fail(EINVAL);
        const auto *part = reinterpret_cast<const vfs_key_part *>(reinterpret_cast<const std::byte *>(keys) + list);
        uint64_t sum = 0;
        for (uint64_t i = 0; i < parts; ++i) {
            if (part[i].offset < 0 || part[i].length < 1 || static_cast<uint64_t>(part[i].length) > length)
                return fail(EINVAL);
            sum += static_cast<uint64_t>(part[i].length);
        }
        if (sum != length) return fail(EINVAL);
    }
    return 0;
}

const vfs_key_desc *default_key_description()
{
    struct one_key {
        vfs_key_desc head;
        vfs_key_desc_entry key;
        vfs_key_part part;
    };
    static_assert(sizeof(one_key) == 96);
    static constexpr one_key standard{{96, 1, 0, 0, 0}, {8, 1, 72, 0, {}}, {0, 8, 0}};
    return &standard.head;
}

int key_description_take(vfs_file *file, const vfs_key_desc *stored)
{
    const auto bytes = static_cast<size_t>(stored->total_size);
    void *copy = std::aligned_alloc(16, round_up(bytes, 16));
    if (copy == nullptr) return fail(ENOMEM);
    std::memcpy(copy, stored, bytes);
    std::free(file->keys);
    file->keys = static_cast<vfs_key_desc *>(copy);
    file->setup_flags = static_cast<uint8_t>(file->setup_flags & ~setup_default_keys);
    return 0;
}

int key_description_settle(vfs_file *file)
{
    if (!file->indexed()) {
        file->key_count = 1;
        file->primary_key = 0;
        return 0;
    }
    const uint64_t at = header_get(file, header_key_description), table = header_get(file, header_key_table);
    const auto *stored =
        at != 0 ? reinterpret_cast<const vfs_key_desc *>(header_image(file).data() + at) : default_key_description();
    if (at != 0 && (table < at || key_description_check(stored, table - at) == -1)) return fail(EINVAL);
    if ((file->setup_flags & setup_default_keys) == 0) {
        // Open has checked it only if the host took the file for an indexed one.
        if (key_description_check(file->keys, static_cast<uint64_t>(file->keys->total_size)) == -1) return -1;
        if (descriptions_compare(file, stored) == -1) return -1;
    } else if (at != 0 && key_description_take(file, stored) == -1) {
        return -1;
    }
    file->key_count = static_cast<uint64_t>(file->keys->count);
    file->primary_key = static_cast<uint64_t>(file->keys->primary_key);
    return 0;
}

int header_check_keys(const vfs_file *file)
{
    if (file->tree_count == 0) return 0;
    const uint64_t table = header_get(file, header_key_table), end = header_get(file, header_key_table_end);
    const uint64_t entries = (end - table) / key_entry_bytes;
    if (entries != stored_key_count(file) || entries < file->tree_count) return fail(EINVAL);
    for (uint64_t k = 0; k < file->tree_count; ++k)
        if (!tree_entry_sound(file, k)) return fail(EINVAL);
    return areas_sound(file) ? 0 : fail(EINVAL);
}

int damaged()
{
    return fail(ENOEXEC);
}
