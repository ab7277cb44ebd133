// Buffers and caches as data: the two records, their lists and queues, pins and changed ranges.
// Constant-time list work only. May use util/; must not know how blocks are read, written or chosen.
//
// Lists. Every buffer of a cache is on exactly one of two lists, except while it is moved: the LRU list (it holds a
// block; head = most recently used; `next` points toward the tail) or the idle list (it holds none). The header
// buffer of the Meta cache is on neither. Queues. A buffer is on at most one queue, and on it exactly when the state
// bit says so:
//
//   state     list   queue   bits                      left by
//   idle      idle   none    none                      cache_get_free: to the LRU head, assigned
//   clean     LRU    none    done = 1                  cache_get_for_write (dirty), eviction (idle)
//   reading   LRU    read    reading, done = 0         read completion
//   dirty     LRU    dirty   dirty, done = 1           buffer_start_write (writing), reset (change dropped)
//   writing   LRU    write   writing, done = 0         write completion (clean, or dirty again when it failed)
#ifndef VFS_BUFFER_BUFFER_H
#define VFS_BUFFER_BUFFER_H

#include "util/file_state.h"
#include "util/hash_table.h"

#include <atomic>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <linux/aio_abi.h>
#include <span>
#include <sys/times.h>

struct vfs_buffer;
struct vfs_cache;
struct io_engine;     // io/io.h
struct area_slab;     // cache/area.cc
struct spare_area;    // likewise
struct buffer_server; // io/servers.cc

enum : uint8_t { cache_data = 0, cache_index = 1, cache_meta = 2 }; // bufftype

enum : uint8_t { // engine bits
    engine_mmap = 1,
    engine_aio = 2,
    engine_direct = 4,
    engine_fifo = 8,
    engine_socket = 16,
};

enum : uint8_t {           // vfs_cache::mode bits
    cache_synchronous = 1, // no transfer is ever started asynchronously
    cache_threads = 2,     // server threads
};

enum : uint8_t { // vfs_cache::flags bits
    cache_hash_lookup = 1,
    cache_preallocates = 2,
    cache_zero_fill = 4, // new blocks beyond the end are zero-filled
    cache_drop_behind = 8,
    // Index blocks may lie between records inside one Data block (the file's data blocks are smaller than the
    // cache's): changes whose pages do not touch are never written as one range.
    cache_split_changes = 32,
};

enum : uint8_t { // vfs_cache::state bits
    cache_fallocate_usable = 1,
    cache_ftruncate_fallback = 2,
    cache_warned = 4, // the allocation warning was printed
};

enum : uint8_t {              // vfs_buffer::state bits
    buffer_end_of_data = 1,   // the last read returned less than asked, or nothing
    buffer_drop_behind = 4,   // drop-behind hint pending
    buffer_ahead_started = 8, // read-ahead already triggered from this block
    buffer_new = 16,          // read on a miss and not yet used
    buffer_written_behind = 32,
    buffer_dirty = 64,
    buffer_writing = 128,
};
enum : uint8_t { buffer_reading = 1 }; // vfs_buffer::rstate
enum : uint8_t {                       // vfs_buffer::flags2
    buffer_speculative = 1,            // being read ahead of need: a failure is not recorded
    buffer_no_context = 2,             // the kernel refused a context for asynchronous transfers
    buffer_timing = 4,
    buffer_hashed = 8,
};

enum : uint32_t { transfer_read = 0, transfer_write = 1, transfer_none = 2 };

struct vfs_queue {
    vfs_buffer *head, *tail;
    uint32_t count;
};

// One transfer between a buffer's area and the file. While it is under way it belongs to the engine: a server thread
// touches nothing else.
struct vfs_transfer {
    int descriptor;
    uint32_t operation; // transfer_...
    std::byte *area;
    uint64_t length;  // bytes asked for
    uint64_t offset;  // in the file
    uint64_t moved;   // bytes transferred
    uint64_t retries; // system calls repeated
    int error;        // 0: none
    bool direct;      // past the page cache: behind a count that is no whole unit lies the end of the file
    bool device;      // wait for it when it has nothing to give or to take
    bool drop_behind; // the pages are not wanted afterwards
    int status;       // of the kernel's queue (io/kernel_queue.h)
    int64_t result;
    aio_context_t context; // 0: none
    iocb control;          // what the kernel was given
};

struct vfs_buffer {
    vfs_buffer *next, *prev; // links in the LRU or idle list
    vfs_queue *queue;        // the queue it is on, or null
    vfs_buffer *qnext, *qprev;
    uint32_t done;                     // 1 when no transfer is outstanding
    uint32_t pins;                     // holders of a pointer into `data`; a pinned buffer is not evicted
    std::byte *data;                   // owned I/O area, or a pointer into the mapping
    std::byte *area;                   // owned: the allocated area, null when the buffer never needed one
    bool area_in_slab;                 // the area is a part of one of the cache's slabs
    uint64_t offset;                   // first byte of the block held; all ones when none
    uint64_t end;                      // its last byte
    uint64_t valid_end;                // last byte holding valid data; offset - 1 when none
    uint64_t bytes;                    // bytes valid from `offset`
    uint64_t size;                     // length of the block
    uint64_t changed_from, changed_to; // changed byte range [from, to) in the file; empty when from >= to
    uint64_t opnum;                    // the handle's operation number when the block was read
    uint32_t opcode;                   // transfer_...
    uint8_t state, rstate, flags2;
    uint32_t idled;   // 1 while on the idle list
    bool checked;     // the store verified the block since it was read; cleared by reset and by every read
    vfs_cache *cache; // owner
    file_state *file;
    uint64_t mask;
    uint32_t readahead, writebehind;
    int rfd, wfd;
    uint32_t error; // error number of the last transfer
    uint8_t bufftype, engine;
    std::atomic<bool> cancelled;
    HashTable_Entry hash_entry; // the table's entry for this buffer
    vfs_transfer transfer;
    const io_engine *at_work; // engine of the transfer under way, null when none is (io/io.h)
    buffer_server *server;    // owned: the thread that performs this buffer's transfers, or null (io/servers.cc)
    clock_t timing_ticks;
    rusage timing_usage;
};

struct vfs_cache {
    vfs_buffer *lru_head, *lru_tail;
    uint32_t lru_count;
    vfs_buffer *idle_head, *idle_tail;
    uint32_t idle_count;
    vfs_queue read_queue, dirty_queue, write_queue;
    uint32_t pending_reads, pending_writes;
    vfs_buffer *wcurr;      // last handed out for writing
    vfs_buffer *curr;       // last handed out for a position
    vfs_buffer *last_found; // last found by lookup or given a block: a hint only
    HashTable *hash;        // owned; null when lookups walk the list
    HashTable_Pos scratch;  // position (with the hash) of the key last searched for
    vfs_buffer *assigning;  // buffer being entered in the hash: the allocate hook hands out its entry
    vfs_buffer *hdrb;       // Meta only: owned header buffer, outside lists, count and hash; never evicted
    std::byte *header_copy; // Meta only: owned, as long as hdrb: the header as the file has it
    uint64_t filesize;      // one past the highest byte this cache knows to exist
    uint32_t min, max, count;
    area_slab *slabs;        // owned: memory for blocks, the newest first
    spare_area *spare_areas; // blocks of slabs that no buffer has
    uint32_t miss;
    uint32_t first_error;
    uint8_t flags, state;
    struct {
        uint64_t bytes_read, bytes_written, use, spill, stall, wait, invalidate, flush, prefetch, cancel, abscond, lock,
            retries, redundant, async, random, extend;
    } stats;
    wait_times io_wait, lock_wait;
    uint64_t preread_position;
    uint32_t preread_count, preread_direction; // direction 9 = forward, any other = backward
    uint64_t block_size;
    uint64_t block_mask; // two's complement of block_size; all ones: one unaligned buffer
    uint32_t readahead, writebehind;
    const char *name; // borrowed from the handle
    file_state *file;
    int rfd, wfd; // 0: this cache is not used
    uint8_t bufftype, lock_mode, engine, mode;
    std::byte *mmap_base;
    uint8_t places;       // where in 32768 bytes blocks have begun so far, a bit for each 4096: see cache_claim
    uint64_t write_limit; // RLIMIT_FSIZE as last seen: a write that would pass it fails before the signal comes
};

inline constexpr uint32_t preread_forward = 9;
inline constexpr uint32_t preread_backward = 10;

// ---- Queues: the only code that changes `queue` and the state bits that go with it ----

// A buffer that leaves the dirty queue keeps its changed range: the write that takes it off still needs it.
void queue_remove(vfs_buffer *buffer);                   // from whatever queue it is on; no effect when on none
void queue_append(vfs_queue *queue, vfs_buffer *buffer); // at the tail; the buffer is on none
void dirty_add(vfs_buffer *buffer);    // at the tail of its cache's dirty queue; no effect when dirty already
void dirty_remove(vfs_buffer *buffer); // drops the change: the range is empty then; no effect when clean

// ---- Text, on standard error: a diagnosis ----

void cache_dump(const vfs_cache *cache, bool with_buffers);
void caches_dump(const file_state *file); // the three of them, with buffers

// ---- Lists ----

void list_unlink(vfs_buffer *buffer);    // from the LRU or the idle list
void lru_push_head(vfs_buffer *buffer);  // the buffer is on no list
void idle_push_tail(vfs_buffer *buffer); // likewise
void idle_to_lru_head(vfs_buffer *buffer);

// Moves the buffer to the LRU head; no effect on the header buffer.
inline void cache_touch(vfs_buffer *buffer);

// ---- State ----

inline bool is_dirty(const vfs_buffer *buffer)
{
    return (buffer->state & buffer_dirty) != 0;
}
inline bool holds(const vfs_buffer *buffer, uint64_t position)
{
    return position - buffer->offset < buffer->size;
}

// Widens the changed range by [from, to), clipped to the block. The buffer is dirty.
inline void mark_changed(vfs_buffer *buffer, uint64_t from, uint64_t to)
{
    assert(is_dirty(buffer) && from >= buffer->offset && to <= buffer->end + 1);
    if (buffer->changed_from >= buffer->changed_to) {
        buffer->changed_from = from;
        buffer->changed_to = to;
        return;
    }
    if (from < buffer->changed_from) buffer->changed_from = from;
    if (to > buffer->changed_to) buffer->changed_to = to;
}

// Whether `data` points into the file's mapping: no byte is moved, the page cache is the block.
inline bool is_mapped(const vfs_buffer *buffer)
{
    return (buffer->engine & engine_mmap) != 0;
}

inline std::span<const std::byte> buffer_bytes(const vfs_buffer *buffer)
{
    return {buffer->data, buffer->size};
}
inline std::span<std::byte> buffer_bytes_for_update(vfs_buffer *buffer)
{
    assert(is_dirty(buffer));
    return {buffer->data, buffer->size};
}

// Keeps a buffer from being evicted while its bytes are in use. Movable; empty after a move.
class pinned_buffer {
public:
    pinned_buffer() = default;
    explicit pinned_buffer(vfs_buffer *buffer) : buffer_(buffer)
    {
        if (buffer_ != nullptr) ++buffer_->pins;
    }
    pinned_buffer(pinned_buffer &&other) noexcept : buffer_(other.buffer_) { other.buffer_ = nullptr; }
    pinned_buffer &operator=(pinned_buffer &&other) noexcept
    {
        if (this != &other) {
            release();
            buffer_ = other.buffer_;
            other.buffer_ = nullptr;
        }
        return *this;
    }
    pinned_buffer(const pinned_buffer &) = delete;
    pinned_buffer &operator=(const pinned_buffer &) = delete;
    ~pinned_buffer() { release(); }
    void release()
    {
        if (buffer_ != nullptr) --buffer_->pins;
        buffer_ = nullptr;
    }
    vfs_buffer *get() const { return buffer_; }
    vfs_buffer *operator->() const { return buffer_; }
    explicit operator bool() const { return buffer_ != nullptr; }

private:
    vfs_buffer *buffer_ = nullptr;
};

inline void cache_touch(vfs_buffer *buffer)
{
    vfs_cache *cache = buffer->cache;
    if (cache->lru_head == buffer || cache->hdrb == buffer || buffer->idled) return;
    list_unlink(buffer);
    lru_push_head(buffer);
}

#endif
