// Creating, reading and writing back the metadata region. See header.h.
#include "store/header.h"

#include "io/file_calls.h"
#include "io/io.h"
#include "store/tree.h"
#include "util/errors.h"

#include <algorithm>
#include <cstdio>

namespace {

struct metadata_layout {
    uint64_t description_bytes; // stored description, 0 when none is stored
    uint64_t key_table;         // offset, 0 for flat files
    uint64_t key_table_end;
    uint64_t size;  // M
    uint64_t areas; // bytes of the key value areas
};

uint64_t tree_key_length(const vfs_file *file, uint64_t key)
{
    return file->indexed() ? static_cast<uint64_t>(key_description(file, key)->length) : 8;
}

metadata_layout layout_of(const vfs_file *file)
{
    metadata_layout layout{};
    if ((file->setup_flags & setup_default_keys) == 0)
        layout.description_bytes = static_cast<uint64_t>(file->keys->total_size);
    const uint64_t table = round_up(header_variable_part + layout.description_bytes, 16);
    layout.key_table_end = table;
    if (file->trees()) {
        layout.key_table = table;
        const uint64_t trees = file->indexed() ? file->key_count : 1;
        layout.key_table_end = table + trees * key_entry_bytes;
        for (uint64_t k = 0; k < trees; ++k) layout.areas += 2 * round_up(tree_key_length(file, k), 8);
    }
    layout.size = round_up(layout.key_table_end, metadata_unit);
    return layout;
}

// The sequence numbers go on from those of the file that is made anew: numbers that began again would make the
// stale blocks of another handle look current, and a record that it remembers look like a new one.
void continue_counters(vfs_file *file, uint64_t disk_size)
{
    file->tsn = 0;
    file->dsn = file->asn = 0;
    alignas(16) std::byte old[header_variable_part];
    if (disk_size < metadata_unit) return;
    if (file->meta.hdrb != nullptr) {
        std::memcpy(old, file->meta.hdrb->data, sizeof old);
    } else if (file_read_at(file, old, sizeof old, 0) != static_cast<int64_t>(sizeof old)) {
        return;
    }
    if (header_check_fixed(old, disk_size) == -1) return;
    const auto next = static_cast<int64_t>(static_cast<uint64_t>(image_get(old, header_tsn)) + 1);
    file->tsn = next < 1 ? 1 : next;
    file->highest_rrn = image_get(old, header_highest_rrn);
    file->dsn = image_get(old, header_dsn) + 1;
    file->asn = image_get(old, header_asn) + 1;
}

// What a file that is made anew keeps of the old one.
struct block_sizes {
    uint64_t data_block, per_extension;
};
constexpr block_sizes standard_blocks{data_block_bytes, blocks_per_extension};

void put_fixed_fields(vfs_file *file, const metadata_layout &layout, const block_sizes &blocks)
{
    static constexpr char tag[4] = {'v', 'f', 's', 0};
    uint32_t tag_word;
    std::memcpy(&tag_word, tag, sizeof tag_word);
    const uint64_t size = layout.size;
    header_put(file, header_metadata_size, size);
    header_put(file, header_header_length, header_fixed_bytes);
    header_put<uint8_t>(file, header_item_type, item_block);
    header_put(file, header_tag, tag_word);
    header_put(file, header_format_stamp, format_stamp);
    header_put(file, header_byte_order, byte_order_mark);
    header_put(file, header_key_description, layout.description_bytes == 0 ? uint64_t{0} : header_variable_part);
    header_put(file, header_key_table, layout.key_table);
    header_put(file, header_key_table_end, layout.key_table_end);
    header_put(file, header_allocation_point, layout.key_table_end);
    header_put(file, header_allocation_limit, size - trailer_bytes);
    header_put(file, header_data_start, size);
    header_put(file, header_end_of_file, size);
    header_put(file, header_data_block_size, blocks.data_block);
    header_put(file, header_index_block_size, index_block_bytes);
    header_put(file, header_blocks_per_extension, blocks.per_extension);
    header_put(file, header_block, static_cast<uint64_t>(file->block.block_size));
    header_put(file, header_maximum_slot, file->maximum_slot);
    header_put(file, header_minimum_slot, file->fixed_length() ? file->maximum_slot : slot_bytes(file->minimum_record));
    header_put(file, header_minimum_record, file->minimum_record);
    header_put(file, header_maximum_record, file->maximum_record);
    header_put<uint32_t>(file, header_physical_organization, file->trees() ? 3 : 1);
    header_put(file, header_logical_organization, file->logical_organization);
    header_put(file, header_record_format, file->record_format);
    header_put(file, field<uint64_t>{static_cast<uint32_t>(size - trailer_bytes)}, size);
    if (layout.description_bytes != 0) header_change(file, header_variable_part, file->keys, layout.description_bytes);
}

void print_geometry(const vfs_file *file, uint64_t k, const node_geometry &g, uint64_t length)
{
    std::fprintf(stderr, "Key %ld len %ld @%p;\n", static_cast<long>(k), static_cast<long>(length),
                 static_cast<const void *>(file->meta.hdrb->data + key_entry_at(file, k)));
    std::fprintf(stderr, "  root 0x%lx first 0x%lx\n", key_entry_get(file, k, key_entry_root),
                 key_entry_get(file, k, key_entry_first_leaf));
    const auto at = [](uint64_t array, uint64_t item, uint64_t width) {
        return static_cast<int>(array + item * width);
    };
    for (const uint64_t i : {uint64_t{0}, g.branch_capacity})
        std::fprintf(stderr, "  branch @%d offset[%ld] %d\n", static_cast<int>(node_head_bytes), static_cast<long>(i),
                     at(node_head_bytes, i, 8));
    for (const uint64_t i : {uint64_t{0}, g.branch_capacity})
        std::fprintf(stderr, "  branch @%ld item[%ld] %ld\n", static_cast<long>(g.branch_key_array),
                     static_cast<long>(i), static_cast<long>(at(g.branch_key_array, i, g.width)));
    for (const uint64_t i : {uint64_t{0}, g.leaf_capacity})
        std::fprintf(stderr, "  leaf @%d offset[%ld] %d\n", static_cast<int>(node_head_bytes), static_cast<long>(i),
                     at(node_head_bytes, i, 8));
    for (const uint64_t i : {uint64_t{0}, g.leaf_capacity})
        std::fprintf(stderr, "  leaf @%ld tsn[%ld] %d\n", static_cast<long>(g.leaf_stamp_array), static_cast<long>(i),
                     at(g.leaf_stamp_array, i, 8));
    for (const uint64_t i : {uint64_t{0}, g.leaf_capacity})
        std::fprintf(stderr, "  leaf @%ld item[%ld] %ld\n", static_cast<long>(g.leaf_key_array), static_cast<long>(i),
                     static_cast<long>(at(g.leaf_key_array, i, g.width)));
}

int create_tree(vfs_file *file, uint64_t k)
{
    const uint64_t length = tree_key_length(file, k);
    const node_geometry g = node_geometry_of(length);
    const uint64_t entry = key_entry_at(file, k);
    const uint64_t areas = header_get(file, header_allocation_point);
    const auto put = [&](field<uint64_t> at, uint64_t value) { key_entry_put(file, k, at, value); };
    put(key_entry_offset, entry);
    put(key_entry_number, k);
    put(key_entry_length, length);
    put(key_entry_leaf_stamp_array, g.leaf_stamp_array);
    put(key_entry_branch_width, g.width);
    put(key_entry_branch_capacity, g.branch_capacity);
    put(key_entry_branch_half, g.branch_capacity / 2);
    put(key_entry_branch_key_array, g.branch_key_array);
    put(key_entry_leaf_width, g.width);
    put(key_entry_leaf_capacity, g.leaf_capacity);
    put(key_entry_leaf_half, g.leaf_capacity / 2);
    put(key_entry_leaf_key_array, g.leaf_key_array);
    put(key_entry_low_area, areas - entry);
    put(key_entry_high_area, areas + g.width - entry);
    const bool duplicates = file->indexed() && (key_description(file, k)->flags & VFS_KEY_DUPLICATES) != 0;
    key_entry_put(file, k, key_entry_flags, duplicates ? key_flag_duplicates : uint8_t{0});
    // The low key begins above every key, so that the first key is below it.
    std::memset(file->meta.hdrb->data + areas, 0xFF, length);
    header_put(file, header_allocation_point, areas + 2 * g.width);
    if (leaf_create_root(file, k) == -1) return -1;
    if (file->debug) print_geometry(file, k, g, length);
    return 0;
}

int image_create(vfs_file *file, uint64_t bytes)
{
    cache_header_free(&file->meta);
    return cache_header_create(&file->meta, bytes);
}

int header_write(vfs_file *file)
{
    return buffer_start_write(file->meta.hdrb) == -1 ? -1 : buffer_wait(file->meta.hdrb);
}

// Before anything else of the new file: a header that says it is unfinished. Over an old file it has to be on the disk
// first, or the old header would vouch for blocks that are no longer its own. The boot word stays until close, so
// that the first change need not sync again.
int write_unfinished(vfs_file *file)
{
    header_put(file, header_state_word, state_unflushed);
    header_put(file, header_boot_word, boot_word());
    if (header_write(file) == -1) return -1;
    return file->size_at_open != 0 ? file_sync(file) : 0;
}

// The blocks; then the length; and last the header that says that the file is whole.
int write_new_file(vfs_file *file)
{
    for (uint64_t k = 0; k < file->tree_count; ++k)
        if (file->contexts[k].open && cache_write_out(&file->contexts[k].cache, 0, none) == -1) return -1;
    if (cache_write_out(&file->meta, 0, none) == -1) return -1;
    if (is_regular(file) && file_truncate(file, file->end_of_file) == -1) return -1;
    file->allocated_size = file->end_of_file;
    header_put(file, header_state_word, state_clean);
    return header_write(file);
}

int meta_cache_init(vfs_file *file)
{
    file->meta.block_size = index_block_bytes;
    file->meta.block_mask = none; // one buffer per block start: index blocks lie at any multiple of 4096
    file->meta.min = file->meta.max = 2 * blocks_per_extension;
    file->meta.readahead = file->meta.writebehind = 0;
    return cache_init(&file->meta);
}

void reset_geometry(vfs_file *file)
{
    file->maximum_slot = slot_bytes(file->maximum_record);
    file->records = file->deleted = file->moved = 0;
    file->highest_rrn = none;
    file->physically_sequential = true;
    if (file->physical_organization != 1) file->physical_organization = 3;
    file->tree_count = !file->trees() ? 0 : file->indexed() ? file->key_count : 1;
}

int contexts_allocate(vfs_file *file)
{
    if (file->contexts != nullptr || file->tree_count == 0) return 0;
    file->contexts = static_cast<index_context *>(std::calloc(file->tree_count, sizeof(index_context)));
    file->current_key = none;
    return file->contexts == nullptr ? fail(ENOMEM) : 0;
}

// Sharers do so with indexed files only: the numbers of their records go on, so that none that another handle
// remembers comes to mean another record. In a relative file the numbers are the host's.
bool may_reinitialize(const vfs_file *file)
{
    if (!file->trees() || is_read_only(file) || file->records != 0 || file->deleted == 0 || !session_alone(file))
        return false;
    return is_shared(file) ? file->indexed() : file->file_lock_state == file_lock_write;
}

// The description that the file has, or has not, becomes the handle's: -1 when it cannot be kept as it is.
int keep_description(vfs_file *file)
{
    const uint64_t at = header_get(file, header_key_description), table = header_get(file, header_key_table);
    if (at == 0) {
        file->setup_flags |= setup_default_keys;
        return 0;
    }
    const auto *stored = reinterpret_cast<const vfs_key_desc *>(header_image(file).data() + at);
    if (table < at + sizeof *stored || stored->total_size < static_cast<int64_t>(sizeof *stored) ||
        static_cast<uint64_t>(stored->total_size) > table - at)
        return fail(EINVAL);
    return key_description_take(file, stored);
}

int create(vfs_file *file, const block_sizes &blocks)
{
    if (header_fits(file) == -1) return -1;
    continue_counters(file, file->size_at_open);
    const uint64_t highest_rrn = file->highest_rrn;
    reset_geometry(file);
    if (is_shared(file) && file->indexed()) file->highest_rrn = highest_rrn;
    file->data_block_size = blocks.data_block;
    if (contexts_allocate(file) == -1) return -1;
    const metadata_layout layout = layout_of(file);
    if (image_create(file, layout.size) == -1) return -1;
    file->data.filesize = file->meta.filesize = 0;
    file->modified = true;
    file->end_of_file = file->data_start = layout.size;
    put_fixed_fields(file, layout, blocks);
    if (is_regular(file) && write_unfinished(file) == -1) return -1;
    for (uint64_t k = 0; k < file->tree_count; ++k)
        if (create_tree(file, k) == -1) return -1;

    const uint64_t point = header_get(file, header_allocation_point);
    const uint64_t unused = header_get(file, header_allocation_limit) - point;
    header_put(file, header_unused_metadata, unused);
    if (file->debug) std::fprintf(stderr, "%ld Unused bytes at offset 0x%lx\n", static_cast<long>(unused), point);
    file->data_start = file->end_of_file;
    header_put(file, header_data_start, file->data_start);
    if (header_sync(file) == -1) return -1;
    header_put(file, header_flags, file->access_mode == VFS_ACCESS_SEQUENTIAL ? header_flag_sequential : uint8_t{0});
    if (write_new_file(file) == -1) return -1;
    file->data.filesize = file->meta.filesize = file->end_of_file;
    remember_seen(file);
    return 0;
}

int reinitialize(vfs_file *file)
{
    const block_sizes blocks{header_get(file, header_data_block_size), header_get(file, header_blocks_per_extension)};
    if (keep_description(file) == -1) return 0; // as it is the file can be served as well
    std::fprintf(stderr, "Re-initializing file(%s) for faster access!\n", file->path);
    contexts_close(file);
    cache_discard(&file->meta);
    if (create(file, blocks) == -1) return -1;
    contexts_close(file);
    return header_read(file);
}

// Under the metadata lock, which keeps the header as it was read. With a lock of another on any byte of it the file stays
// as it is: it can be served as well.
int reinitialize_alone(vfs_file *file)
{
    if (!is_shared(file)) return reinitialize(file);
    const lock_target whole{.file = file, .counted = &file->data, .kind = lock_file, .write = true, .try_only = true};
    if (lock_set(whole) == -1) return 0;
    const int result = reinitialize(file), cause = errno;
    if (lock_clr(whole) == -1 && result == 0) return -1;
    return result == 0 ? 0 : fail(cause);
}

} // namespace

int header_fits(const vfs_file *file)
{
    const metadata_layout layout = layout_of(file);
    if (layout.key_table_end + layout.areas < layout.size - trailer_bytes && layout.size <= metadata_maximum) return 0;
    std::fprintf(stderr, "The file %s needs larger a metadata buffer size\n", file->path);
    return fail(EFBIG);
}

int header_create(vfs_file *file)
{
    return create(file, standard_blocks);
}

int header_read(vfs_file *file)
{
    const int64_t size = file_size_now(file);
    if (size == -1) return -1;
    if (size < static_cast<int64_t>(metadata_unit)) return fail(EINVAL);
    if (image_create(file, metadata_unit) == -1 || cache_header_refresh(&file->meta) == -1) return -1;
    if (header_check_fixed(header_image(file), static_cast<uint64_t>(size)) == -1) return -1;
    const uint64_t region = header_get(file, header_metadata_size);
    if (region != metadata_unit) {
        if (image_create(file, region) == -1 || cache_header_refresh(&file->meta) == -1) return -1;
        if (header_check_fixed(header_image(file), static_cast<uint64_t>(size)) == -1) return -1;
    }
    if (header_get(file, field<uint64_t>{static_cast<uint32_t>(region - trailer_bytes)}) != region) return fail(EINVAL);
    if (session_check(file) == -1) return -1;
    header_load(file);
    if (key_description_settle(file) == -1) return -1;
    file->tree_count = !file->trees() ? 0 : file->indexed() ? file->key_count : 1;
    if (header_check_keys(file) == -1 || contexts_allocate(file) == -1) return -1;
    remember_seen(file);
    return 0;
}

void header_load(vfs_file *file)
{
    file->data_start = header_get(file, header_data_start);
    file->tsn = header_get(file, header_tsn);
    file->dsn = header_get(file, header_dsn);
    file->asn = header_get(file, header_asn);
    file->highest_rrn = header_get(file, header_highest_rrn);
    file->end_of_file = header_get(file, header_end_of_file);
    file->records = header_get(file, header_records);
    file->deleted = header_get(file, header_deleted);
    file->moved = header_get(file, header_moved);
    file->physically_sequential = (header_get(file, header_flags) & header_flag_sequential) != 0;
    file->block.block_size = static_cast<int64_t>(header_get(file, header_block));
    file->minimum_record = header_get(file, header_minimum_record);
    file->maximum_record = header_get(file, header_maximum_record);
    // No slot is longer than all that lies in the file; what is said to be would make free slots without end.
    const uint64_t all_slots = (file->end_of_file - file->data_start) / 8 * 8;
    file->maximum_slot =
        std::max(slot_bytes(file->maximum_record), std::min(header_get(file, header_maximum_slot), all_slots));
    file->physical_organization = header_get(file, header_physical_organization);
    file->logical_organization = header_get(file, header_logical_organization);
    file->record_format = header_get(file, header_record_format);
    file->data_block_size = header_get(file, header_data_block_size);
    file->data.filesize = file->meta.filesize = file->end_of_file;
    if (is_shared(file)) file->allocated_size = 0;
}

int header_sync(vfs_file *file)
{
    if (is_read_only(file) || file->meta.hdrb == nullptr) return 0;
    if (file->debug && file->trees()) header_statistics(file);
    header_put(file, header_maximum_slot, file->maximum_slot);
    uint8_t flags = header_get(file, header_flags);
    flags = static_cast<uint8_t>(file->physically_sequential ? flags | header_flag_sequential
                                                             : flags & ~header_flag_sequential);
    header_put(file, header_flags, flags);
    header_put(file, header_tsn, file->tsn);
    header_put(file, header_dsn, file->dsn);
    header_put(file, header_asn, file->asn);
    header_put(file, header_highest_rrn, file->highest_rrn);
    header_put(file, header_end_of_file, file->end_of_file);
    header_put(file, header_allocated_size, uint64_t{0});
    header_put(file, header_records, file->records);
    header_put(file, header_deleted, file->deleted);
    header_put(file, header_moved, file->moved);
    return 0;
}

int header_open(vfs_file *file)
{
    if (file->unbuffered_stream || (file->kind_flags & (kind_fifo | kind_socket | kind_stream)) != 0)
        return fail(EBADF);
    if (meta_cache_init(file) == -1) return -1;
    const bool empty = file->size_at_open == 0;
    const bool create = (file->open_flags & O_TRUNC) != 0 || (empty && (file->open_flags & O_CREAT) != 0) ||
                        (file->kind_flags & kind_character) != 0;
    if (empty && !create) return fail(EINVAL);
    if (create) {
        if (header_create(file) == -1) return -1;
    } else {
        if (header_read(file) == -1) return -1;
        if (may_reinitialize(file) && reinitialize_alone(file) == -1) return -1;
    }
    if (!is_read_only(file) && file->trees() && file->tsn < 0) return session_renumber(file);
    return 0;
}
