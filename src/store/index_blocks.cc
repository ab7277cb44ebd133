// Index blocks: extending the file by a batch of them, their free list, and what becomes of the tail of a data block
// in front of a batch. See header.h.
#include "store/header.h"
#include "store/slots.h"
#include "util/errors.h"

#include <cstdio>

namespace {

void frame_block(std::span<std::byte> image, uint64_t link)
{
    image_put(image, frame_length, index_block_bytes);
    image_put(image, frame_link, link);
    image_put<uint8_t>(image, frame_type, item_block);
    image_put(image, field<uint64_t>{index_block_bytes - trailer_bytes}, index_block_bytes);
}

bool is_framed_block(std::span<const std::byte> image)
{
    return image_get(image, frame_length) == index_block_bytes && image_get(image, frame_type) == item_block &&
           image_get(image, field<uint64_t>{index_block_bytes - trailer_bytes}) == index_block_bytes;
}

// How many blocks to add to the file.
uint64_t batch_size(const vfs_file *file)
{
    const uint64_t extension = header_get(file, header_blocks_per_extension);
    if (file->data.count != 0) return extension;
    const uint64_t end = file->end_of_file;
    uint64_t blocks = (round_up(end, file->data_block_size) - end) / index_block_bytes;
    while (blocks < file->tree_count || blocks == 0) blocks += extension;
    return blocks;
}

int extend(vfs_file *file)
{
    if (file->data.count != 0 && tail_close(file) == -1) return -1;
    const uint64_t blocks = batch_size(file);
    for (uint64_t i = 0; i < blocks; ++i) {
        const uint64_t address = file->end_of_file;
        vfs_buffer *block = cache_update_at(&file->meta, address);
        if (block == nullptr) return -1;
        frame_block(buffer_bytes_for_update(block), header_get(file, header_free_index_list));
        header_put(file, header_free_index_list, address);
        header_put(file, header_free_index_blocks, header_get(file, header_free_index_blocks) + 1);
        file->end_of_file = address + index_block_bytes;
    }
    return 0;
}

void forget_cursors(vfs_file *file, uint64_t address)
{
    for (uint64_t k = 0; k < file->tree_count; ++k)
        if (file->contexts[k].node == address) file->contexts[k].node = none;
    if (file->last.node == address) file->last.node = none;
    if (file->current.node == address) file->current.node = none;
    if (file->position.node == address) file->position.node = none;
}

} // namespace

int index_block_alloc(vfs_file *file, vfs_cache *target, uint64_t *address)
{
    if (header_get(file, header_free_index_list) == 0 && extend(file) == -1) return -1;
    const uint64_t head = header_get(file, header_free_index_list);
    // The count bounds how often a list that leads back into itself is gone through.
    const uint64_t left = header_get(file, header_free_index_blocks);
    if (left == 0 || left > file->end_of_file / index_block_bytes) return damaged();
    if (address_check(file, head, index_block_bytes) == -1 || head % metadata_unit != 0) return damaged();
    const vfs_buffer *found = cache_fetch_at(&file->meta, head);
    if (found == nullptr) return -1;
    if (!is_framed_block(buffer_bytes(found)) || cache_claim(found, head) == -1) return damaged();
    const uint64_t next = image_get(buffer_bytes(found), frame_link);
    if (next == head || (next != 0 && address_check(file, next, index_block_bytes) == -1)) return damaged();

    vfs_buffer *block =
        target == &file->meta ? cache_update_at(target, head) : cache_copy_block(target, &file->meta, head);
    if (block == nullptr || (block = cache_update_at(target, head)) == nullptr) return -1;
    const std::span<std::byte> image = buffer_bytes_for_update(block);
    std::memset(image.data(), 0, node_head_bytes);
    frame_block(image, head);
    header_put(file, header_free_index_list, next);
    header_put(file, header_free_index_blocks, left - 1);
    *address = head;
    return 0;
}

int index_block_free(vfs_file *file, vfs_cache *source, uint64_t address)
{
    if (source != &file->meta && cache_copy_block(&file->meta, source, address) == nullptr) return -1;
    vfs_buffer *block = cache_update_at(&file->meta, address);
    if (block == nullptr) return -1;
    const std::span<std::byte> image = buffer_bytes_for_update(block);
    std::memset(image.data(), 0, 24);
    frame_block(image, header_get(file, header_free_index_list));
    header_put(file, header_free_index_list, address);
    header_put(file, header_free_index_blocks, header_get(file, header_free_index_blocks) + 1);
    forget_cursors(file, address);
    return 0;
}
