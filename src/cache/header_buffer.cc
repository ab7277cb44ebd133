// The header buffer of the Meta cache: one buffer of the header's own length at offset 0, on no list and in no table,
// never evicted, so that the address of the header image stays good while the file is open. It is written with the
// Meta cache's dirty blocks and read in place, by positioned I/O in a mapped file too.
#include "cache/internal.h"

#include <cstdlib>
#include <new>

int cache_header_create(vfs_cache *meta, uint64_t bytes)
{
    assert(meta->bufftype == cache_meta && meta->hdrb == nullptr);
    void *memory = std::malloc(sizeof(vfs_buffer));
    std::byte *area = memory != nullptr ? area_alloc(meta, bytes) : nullptr;
    meta->header_copy = area != nullptr ? static_cast<std::byte *>(std::calloc(1, bytes)) : nullptr;
    if (meta->header_copy == nullptr) {
        std::free(area);
        std::free(memory);
        return fail(ENOMEM);
    }
    auto *header = new (memory) vfs_buffer{};
    header->cache = meta;
    header->file = meta->file;
    header->bufftype = cache_meta;
    header->done = 1;
    header->data = header->area = area;
    header->offset = 0;
    header->size = header->bytes = bytes;
    header->end = header->valid_end = bytes - 1;
    header->opcode = header->transfer.operation = transfer_none;
    header->mask = none;
    header->rfd = meta->rfd;
    header->wfd = meta->wfd;
    header->engine = static_cast<uint8_t>(meta->engine & ~engine_mmap);
    meta->hdrb = header;
    return 0;
}

int cache_header_refresh(vfs_cache *meta)
{
    vfs_buffer *header = meta->hdrb;
    assert(header != nullptr && !is_dirty(header));
    if (header->done == 0) (void)buffer_wait(header);
    const int started = buffer_start_read(header);
    if (started == -1 || (header->done == 0 && buffer_wait(header) == -1)) return -1;
    return header->bytes == header->size ? 0 : fail(EINVAL);
}

void cache_header_free(vfs_cache *meta)
{
    vfs_buffer *header = meta->hdrb;
    if (header == nullptr) return;
    if (header->done == 0) (void)buffer_wait(header);
    dirty_remove(header);
    meta->hdrb = nullptr;
    std::free(header->area);
    std::free(header);
    std::free(meta->header_copy);
    meta->header_copy = nullptr;
}
