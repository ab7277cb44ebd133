// See read_beside.h. Whatever is not as usual is left to read.cc.
#include "record/read_beside.h"

#include "store/header.h"
#include "store/node.h"
#include "store/tree.h"

#include <bit>

namespace {

bool plain_reading(const vfs_file *file)
{
    const file_position &position = file->position;
    return position.side == position_side::entry && position.end == position_end::inside && !position.started &&
           file->error == 0 && (file->mode_flags & mode_write_only) == 0 &&
           (file->current.flags2 & VFS_FLAG2_REREAD) == 0 && !metadata_bracket(file) && file->trees();
}

// The bytes at hand, for as many steps as stay within them.
bool run_begin(vfs_file *file)
{
    if (!plain_reading(file)) return false;
    const file_position &position = file->position;
    constexpr uint8_t both = key_flag_duplicates | key_flag_held_duplicate;
    const uint8_t key_flags = key_entry_get(file, position.key_number, key_entry_flags);
    if ((key_flags & both) == both) return false; // equal keys are looked for
    const vfs_buffer *leaf = tree_leaf_at_hand(file), *block = file->data.curr;
    if (leaf == nullptr || block == nullptr || block->done == 0) return false;
    const bool browse = (file->current.flags & VFS_FLAG_BROWSE) != 0;
    const uint64_t end = block->offset + block->bytes;
    file->run = {
        .on = false,
        .addresses = address_place(leaf, 0),
        .keys = key_place(leaf, 0),
        .stamps = stamp_place(leaf, 0),
        .entries = node_entries(leaf),
        .width = node_get(leaf, node_key_width),
        .filter = browse ? position.stamp : none,
        .block = block->data,
        .block_offset = block->offset > file->data_start ? block->offset : file->data_start,
        .block_end = end < file->end_of_file ? end : file->end_of_file,
        .length = 0,
        .bytes = 0,
    };
    file->run.block += file->run.block_offset - block->offset;
    if (!browse) file->position.stamp = static_cast<uint64_t>(key_entry_get(file, position.key_number, key_entry_tsn));
    return true;
}

// The whole slot at `offset` in the data block at hand, as sound as the general way asks for; null otherwise.
const std::byte *slot_at_hand(const read_run &run, uint64_t offset)
{
    if (offset < run.block_offset || offset >= run.block_end || offset % 8 != 0) return nullptr;
    const uint64_t room = run.block_end - offset;
    if (room < slot_overhead) return nullptr;
    const std::byte *slot = run.block + (offset - run.block_offset);
    const uint64_t stored = load_u64(slot), length = load_u64(slot + slot_data_length.offset);
    const uint64_t type = load_u64(slot + slot_type.offset); // with the zero bytes behind it
    if ((type != item_live && type != item_relocated) || stored % 8 != 0 || stored < slot_overhead || stored > room ||
        length > stored - slot_overhead || load_u64(slot + stored - trailer_bytes) != stored)
        return nullptr;
    return slot;
}

void key_words(std::byte *to, const std::byte *from, uint64_t width)
{
    for (uint64_t i = 0; i < width; i += 8) store_u64(to + i, load_u64(from + i));
}

// The eight bytes of a request block from record_state to flags2 as one word, built by arithmetic: put together byte by
// byte it costs more than the rest of a step.
constexpr uint64_t byte_at(uint8_t value, uint64_t offset)
{
    return uint64_t{value} << (8 * (offset - offsetof(vfs_request, record_state)));
}
static_assert(std::endian::native == std::endian::little && offsetof(vfs_request, record_state) == 16 &&
              offsetof(vfs_request, flags2) == 23);

// A saved request block as a read leaves it: only the words that a step changes.
void save_block(vfs_request *block, const file_position &position, uint64_t length, uint64_t bytes)
{
    bytes |= byte_at(block->operation, offsetof(vfs_request, previous_operation)) |
             byte_at(block->mode, offsetof(vfs_request, previous_mode));
    block->stored_length = position.stored_length;
    block->data_length = length;
    std::memcpy(&block->record_state, &bytes, sizeof bytes);
    block->record_offset = position.record_offset;
    block->data_offset = position.record_offset + slot_head_bytes;
    block->rrn = position.rrn;
    block->key_number = position.key_number;
    block->node = position.node;
    block->item = position.item;
    block->stamp = position.stamp;
}

} // namespace

int64_t read_beside(vfs_file *file, const vfs_record *record, vfs_status *status, int32_t mode)
{
    if (mode < VFS_POS_NEXT || mode > VFS_POS_PREV || (!file->run.on && !run_begin(file))) return -1;
    read_run &run = file->run;
    file_position &position = file->position;
    const uint8_t way = file->direction[2 * mode];
    const bool forward = way == VFS_POS_NEXT;
    const uint64_t item = forward ? position.item + 1 : position.item - 1;
    if (item >= run.entries) return -1;
    const uint64_t offset = load_u64(run.addresses + 8 * item);
    if (run.filter != none && load_u64(run.stamps + 8 * item) > run.filter) return -1;
    const std::byte *slot = slot_at_hand(run, offset), *key = run.keys + run.width * item;
    if (slot == nullptr) return -1;
    const uint64_t rrn = load_u64(slot + slot_rrn.offset), length = load_u64(slot + slot_data_length.offset);
    const bool indexed = file->logical_organization == VFS_ORG_INDEXED;
    if (!indexed && load_u64(key) != rrn) return -1;

    const uint64_t room = record != nullptr && record->bytes != nullptr ? record->length : 0;
    const uint64_t copied = length < room ? length : room;
    if (copied != 0) std::memcpy(record->bytes, slot + slot_head_bytes, copied);
    if (indexed) key_words(position.key, key, run.width);
    position.item = item;
    position.record_offset = offset;
    position.stored_length = load_u64(slot);
    position.rrn = rrn;

    ++file->operation_count;
    file->operation = VFS_OP_READ;
    const uint8_t relation = forward ? VFS_GREATER : VFS_LESS;
    const auto flags = static_cast<uint8_t>(VFS_FLAG_SEQUENTIAL | (run.filter != none ? VFS_FLAG_BROWSE : 0) |
                                            (status != nullptr ? VFS_FLAG_STATUS : 0));
    // The type is a byte with zero bytes behind it: it is the word's lowest byte as it stands.
    run.bytes = load_u64(slot + slot_type.offset) | byte_at(VFS_OP_READ, offsetof(vfs_request, operation)) |
                byte_at(way, offsetof(vfs_request, mode)) | byte_at(relation, offsetof(vfs_request, relation)) |
                byte_at(flags, offsetof(vfs_request, flags));
    run.length = length;
    run.on = true;
    if (status != nullptr) {
        status->record_offset = offset;
        status->rrn = rrn;
        status->duplicate = 0;
        status->key = indexed ? file->last.key : status->key;
        if (indexed) key_words(static_cast<std::byte *>(file->last.key), key, run.width);
    }
    if (length == 0) errno = 0;
    return static_cast<int64_t>(length);
}

void blocks_catch_up_slow(vfs_file *file)
{
    save_block(&file->last, file->position, file->run.length, file->run.bytes);
    save_block(&file->current, file->position, file->run.length, file->run.bytes);
    if (file->logical_organization == VFS_ORG_INDEXED)
        key_words(static_cast<std::byte *>(file->last.key), file->position.key, file->run.width);
    file->run.on = false;
}
