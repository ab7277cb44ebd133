// Byte runs that cross blocks, meet the end of file or need a block fetched. The short ways are in cache.h.
#include "cache/internal.h"

namespace {

struct cursor { // where a copy stands
    vfs_cache *data;
    vfs_request *request;
    uint64_t position, copied;
};

bool starts_writes_behind(const vfs_buffer *buffer)
{
    const vfs_cache *cache = buffer->cache;
    return (cache->mode & cache_synchronous) == 0 && cache->writebehind != 0 && is_dirty(buffer) &&
           (buffer->state & buffer_written_behind) == 0 && buffer->bytes == buffer->size && !is_shared(buffer->file);
}

// A full block that a sequential copy leaves is written while the caller goes on.
int write_behind(vfs_buffer *buffer)
{
    if (!starts_writes_behind(buffer)) return 0;
    if (buffer_start_write(buffer, awaited::later) == -1) return -1;
    buffer->state |= buffer_written_behind;
    return 0;
}

uint64_t valid_bytes(const vfs_buffer *buffer, uint64_t position)
{
    const uint64_t within = position - buffer->offset;
    return within < buffer->bytes ? buffer->bytes - within : 0;
}

// The block of the cursor with valid bytes at its position, which lies below the end of file. What the buffer lacks
// is read in place once: the file may have grown since. Bytes that are nowhere are damage.
vfs_buffer *block_to_read(const cursor &at)
{
    vfs_buffer *buffer = at.data->curr;
    if (buffer == nullptr || !holds(buffer, at.position)) {
        const uint32_t depth = at.data->readahead;
        if (buffer != nullptr && depth != 0) buffer->readahead = depth - 1; // the block fetched is one of them
        buffer = fetch_ahead_at(at.data, at.request, at.position);
    } else {
        buffer = cache_fetch_at(at.data, at.position);
    }
    if (buffer == nullptr || valid_bytes(buffer, at.position) != 0) return buffer;
    if (buffer->done == 0 && buffer_wait(buffer) == -1) return nullptr;
    if (!is_dirty(buffer)) buffer->bytes = 0;
    if (buffer_read_rest(buffer) == -1) return nullptr;
    if (valid_bytes(buffer, at.position) != 0) return buffer;
    errno = ENOEXEC;
    return nullptr;
}

// Copies what the current block has for the rest of a piece: bytes copied, 0 at the end of file, -1.
int64_t read_some(cursor *at, const vfs_segment &segment, uint64_t done)
{
    const uint64_t end_of_file = at->data->file->end_of_file;
    if (at->position >= end_of_file) return 0;
    vfs_buffer *buffer = block_to_read(*at);
    if (buffer == nullptr) return -1;
    uint64_t count = valid_bytes(buffer, at->position);
    if (count > segment.length - done) count = segment.length - done;
    if (count > end_of_file - at->position) count = end_of_file - at->position;
    const std::byte *from = buffer->data + (at->position - buffer->offset);
    if (segment.address != nullptr) copy_bytes(static_cast<std::byte *>(segment.address) + done, from, count);
    at->position += count;
    at->copied += count;
    if (at->position == buffer->end + 1 && write_behind(buffer) == -1) return -1;
    return static_cast<int64_t>(count);
}

// After a sequential read that used its block up, the next block is on its way before the next call asks for it.
void start_next_block(const cursor &at)
{
    const vfs_buffer *curr = at.data->curr;
    const bool sequential = (at.request->flags & VFS_FLAG_SEQUENTIAL) != 0 && at.request->mode == VFS_POS_NEXT;
    if (!sequential || (at.data->mode & cache_synchronous) != 0 || curr == nullptr || curr->readahead == 0) return;
    if (at.position == curr->end + 1 && at.position < at.data->file->end_of_file) cache_prefetch(at.data, at.position);
}

bool pages_touch(const vfs_buffer *buffer, uint64_t from, uint64_t to)
{
    constexpr uint64_t page = 4096;
    if (buffer->changed_from >= buffer->changed_to) return true;
    return from / page <= (buffer->changed_to + page - 1) / page &&
           buffer->changed_from / page <= (to + page - 1) / page;
}

// Where index blocks may lie between two changes of one block, the earlier change is written before the later one.
vfs_buffer *block_for_change(vfs_cache *data, uint64_t from, uint64_t to)
{
    vfs_buffer *buffer = cache_update_at(data, from);
    if (buffer == nullptr || (data->flags & cache_split_changes) == 0) return buffer;
    if (to > buffer->end + 1) to = buffer->end + 1;
    if (pages_touch(buffer, from, to)) return buffer;
    if (buffer_start_write(buffer) == -1) return nullptr;
    return cache_update_at(data, from); // waits for the write
}

// Writes as much of the rest of a piece as its block takes: bytes written or -1.
int64_t write_some(cursor *at, const vfs_segment &segment, uint64_t done)
{
    const vfs_buffer *before = at->data->curr;
    const bool was_end = before != nullptr && (before->state & buffer_end_of_data) != 0;
    vfs_buffer *buffer = block_for_change(at->data, at->position, at->position + (segment.length - done));
    if (buffer == nullptr) return -1;
    if (was_end && before != buffer) buffer->state |= buffer_end_of_data; // the end moves with the writer
    uint64_t count = buffer->end + 1 - at->position;
    if (count > segment.length - done) count = segment.length - done;
    std::byte *to = buffer->data + (at->position - buffer->offset);
    if (segment.address != nullptr)
        copy_bytes(to, static_cast<const std::byte *>(segment.address) + done, count);
    else
        std::memset(to, 0, count);
    note_written(buffer, at->position, at->position + count);
    at->position += count;
    at->copied += count;
    if (at->position == buffer->end + 1 && write_behind(buffer) == -1) return -1;
    return static_cast<int64_t>(count);
}

using step = int64_t (*)(cursor *, const vfs_segment &, uint64_t);

// Takes the pieces in order, block by block, until they are done, a step says 0 (the end), or one fails (-1).
int copy_segments(cursor *at, step some)
{
    for (uint64_t i = 0; i < at->request->segment_count; ++i) {
        const vfs_segment &segment = at->request->segments[i];
        for (uint64_t done = 0; done < segment.length;) {
            const int64_t count = some(at, segment, done);
            if (count <= 0) return static_cast<int>(count);
            done += static_cast<uint64_t>(count);
        }
    }
    return 0;
}

} // namespace

int64_t cache_read_bytes_slow(vfs_cache *data, vfs_request *request)
{
    cursor at{.data = data, .request = request, .position = request->record_offset, .copied = 0};
    if (copy_segments(&at, read_some) == -1) return -1;
    if (at.copied == 0 && at.position >= data->file->end_of_file) request->flags |= VFS_FLAG_AT_END;
    start_next_block(at);
    return static_cast<int64_t>(at.copied);
}

int64_t cache_write_bytes_slow(vfs_cache *data, vfs_request *request)
{
    cursor at{.data = data, .request = request, .position = request->record_offset, .copied = 0};
    return copy_segments(&at, write_some) == -1 ? -1 : static_cast<int64_t>(at.copied);
}
