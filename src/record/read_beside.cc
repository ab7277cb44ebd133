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

// The whole slot at `offset` in the data block at hand, as sound as the general way asks for; null otherwise.
const std::byte *slot_at_hand(const vfs_file *file, uint64_t offset)
{
    const vfs_buffer *block = file->data.curr;
    if (block == nullptr || block->done == 0) return nullptr;
    const uint64_t at = offset - block->offset;
    if (at >= block->bytes || block->bytes - at < slot_overhead || offset % 8 != 0 || offset < file->data_start)
        return nullptr;
    const std::byte *slot = block->data + at;
    const uint64_t stored = load_u64(slot), length = load_u64(slot + slot_data_length.offset);
    const uint64_t type = load_u64(slot + slot_type.offset); // with the zero bytes behind it
    if ((type != item_live && type != item_relocated) || stored % 8 != 0 || stored < slot_overhead ||
        stored > block->bytes - at || stored > file->end_of_file - offset || length > stored - slot_overhead ||
        load_u64(slot + stored - trailer_bytes) != stored)
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
    if (mode < VFS_POS_NEXT || mode > VFS_POS_PREV || !plain_reading(file)) return -1;
    file_position &position = file->position;
    const uint64_t entry = key_entry_at(file, position.key_number);
    const std::byte *header = file->meta.hdrb->data + entry;
    constexpr uint8_t both = key_flag_duplicates | key_flag_held_duplicate;
    if ((static_cast<uint8_t>(header[key_entry_flags.offset]) & both) == both) return -1; // equal keys are looked for

    const uint8_t way = file->direction[2 * mode];
    const bool browse = (file->current.flags & VFS_FLAG_BROWSE) != 0;
    uint64_t item;
    const vfs_buffer *leaf = tree_entry_beside(file, way == VFS_POS_NEXT, browse, &item);
    if (leaf == nullptr) return -1;
    const uint64_t offset = entry_address(leaf, item);
    const std::byte *slot = slot_at_hand(file, offset), *key = key_place(leaf, item);
    if (slot == nullptr) return -1;
    const uint64_t rrn = load_u64(slot + slot_rrn.offset), length = load_u64(slot + slot_data_length.offset);
    const bool indexed = file->indexed();
    if (!indexed && load_u64(key) != rrn) return -1;

    const uint64_t room = record != nullptr && record->bytes != nullptr ? record->length : 0;
    const uint64_t copied = length < room ? length : room;
    if (copied != 0) std::memcpy(record->bytes, slot + slot_head_bytes, copied);
    if (indexed) key_words(position.key, key, node_get(leaf, node_key_width));
    position.item = item;
    if (!browse) position.stamp = load_u64(header + key_entry_tsn.offset);
    position.record_offset = offset;
    position.stored_length = load_u64(slot);
    position.rrn = rrn;

    ++file->operation_count;
    file->operation = VFS_OP_READ;
    const bool forward = way == VFS_POS_NEXT;
    const uint8_t relation = forward ? VFS_GREATER : VFS_LESS;
    const auto flags = static_cast<uint8_t>(VFS_FLAG_SEQUENTIAL | (browse ? VFS_FLAG_BROWSE : 0) |
                                            (status != nullptr ? VFS_FLAG_STATUS : 0));
    // The type is a byte with zero bytes behind it: it is the word's lowest byte as it stands.
    file->behind_bytes = load_u64(slot + slot_type.offset) | byte_at(VFS_OP_READ, offsetof(vfs_request, operation)) |
                         byte_at(way, offsetof(vfs_request, mode)) |
                         byte_at(relation, offsetof(vfs_request, relation)) |
                         byte_at(flags, offsetof(vfs_request, flags));
    file->behind_length = length;
    file->blocks_behind = true;
    if (status != nullptr) {
        status->record_offset = offset;
        status->rrn = rrn;
        status->duplicate = 0;
        status->key = indexed ? file->last.key : status->key;
        if (indexed) key_words(static_cast<std::byte *>(file->last.key), key, node_get(leaf, node_key_width));
    }
    if (length == 0) errno = 0;
    return static_cast<int64_t>(length);
}

void blocks_catch_up_slow(vfs_file *file)
{
    save_block(&file->last, file->position, file->behind_length, file->behind_bytes);
    save_block(&file->current, file->position, file->behind_length, file->behind_bytes);
    if (file->indexed())
        key_words(static_cast<std::byte *>(file->last.key), file->position.key,
                  key_entry_get(file, file->position.key_number, key_entry_leaf_width));
    file->blocks_behind = false;
}
