// The file handle, and access to the header image that it works on. Plain data with inline accessors; owned by
// file/ (open and close), used by record/ and store/. May use cache/, lock/, buffer/, util/.
#ifndef VFS_STORE_VFS_FILE_H
#define VFS_STORE_VFS_FILE_H

#include "cache/cache.h"
#include "store/format.h"
#include "util/file_state.h"

#include <cstring>

struct vfs_registry_entry;
struct changed_range;

// One tree's way to its blocks: its own Index cache, and where the last search ended (a hint only: checked before
// it is used, reset when the block is freed).
struct index_context {
    vfs_cache cache;
    bool open; // cache_init was done
    uint64_t node, item;
};

// Where the file position stands relative to its record.
enum class position_side : uint8_t {
    before_first, // no record: next is the first
    entry,        // on the record's entry
    gap,          // the record is gone: next is the entry now at the cursor's item, previous the one before it
    after_last,   // no record: previous is the last
};

enum class position_end : uint8_t { inside, first, last };

// Records of one key that the file position has passed, nearest first; complete: as far as the edge of the run.
struct passed_records {
    struct {
        uint64_t offset, rrn;
    } records[8];
    uint64_t count;
    bool complete;
};

// The file position: the identity of a record (key, offset, rrn), a cursor that leads to its entry at once, and the
// side on which it stands. `node` is none when the cursor was lost: the identity then finds the place again. The
// tree primitives keep the cursor right whenever they change or move entries of its leaf. Failed operations leave
// the position alone.
struct file_position {
    position_side side;
    position_end end; // an end that the last step met: the next step that way looks whether records have come since
    bool identified;  // key and record below say where: false at the ends of a file just opened
    bool started;     // start found this record: the next step returns it
    uint64_t key_number;
    uint64_t node, item; // cursor; item none = before item 0
    uint64_t stamp;      // sequence stamp of the browse; none = no filter
    uint64_t record_offset;
    uint64_t stored_length; // of the home slot, for steps through flat files
    uint64_t rrn;
    std::byte *key; // key value of the record under key_number, zero-padded to W; in the handle's key area
    // Records of the same key around it, nearest first, as they were when the cursor was lost (written and read by the
    // trees alone; none: no more).
    uint64_t before[8], after[8];
    passed_records
        passed[2]; // before and after it in its run of equal keys, as its own steps met them (store/position.cc)
};

// What consecutive reads beside the file position have in common (record/read_beside.h). Good as long as nothing else
// is done with the handle: such reads call no cache, so the leaf and the data block stay where they are.
struct read_run {
    bool on; // the last operation was such a read; `last` and `current` are still to be written
    const std::byte *addresses, *keys, *stamps; // arrays of the leaf
    uint64_t entries, width;                    // of the leaf
    uint64_t filter;                            // stamp of a browse, none without one
    const std::byte *block;                     // data block at hand: bytes [block_offset, block_end) of the file
    uint64_t block_offset, block_end;
    uint64_t length, bytes; // of the last record; the saved blocks' bytes from record_state to flags2
};

// What a commit writes (store/redo.h): memory that grows with the largest operation of the handle.
struct change_list {
    changed_range *ranges; // owned
    uint64_t count, room;
    std::byte *chunk; // owned: where redo areas are gathered; null before the first
};

struct vfs_file : file_state {
    vfs_cache data, meta;
    index_context *contexts; // owned: one per tree (tree_count), null for flat files
    uint64_t tree_count;
    uint64_t current_key; // context last selected; none before the first

    vfs_open_block block; // the host's words, kept current
    vfs_open_block host;  // the host's block as it was passed: its own pointers, given back by close
    vfs_key_desc *keys;   // owned copy: the host's description, the default one, or the file's
    uint64_t key_count;   // keys in the description
    uint64_t primary_key;
    uint64_t key_buffer_bytes; // of each key buffer: longest W + 8, at least 264
    std::byte *key_area;       // owned: all key buffers of the handle, one allocation

    vfs_request last;       // the last operation, whatever its outcome
    vfs_request current;    // the current record block: what the last read or start left
    file_position position; // the file position; survives failed operations
    read_run run;
    uint8_t direction[8]; // (mode, relation) for next, previous, first, last

    std::byte *sequence_key; // primary key of the last appended record
    bool sequence_key_known;
    std::byte *scratch_key; // two more key buffers for the operation under way
    std::byte *old_key;
    uint8_t *changed_keys; // owned: one byte per key, for rewrite

    // Working copies of header words, written back by header_sync.
    int64_t tsn;
    uint64_t dsn, asn;
    uint64_t records, highest_rrn, deleted, moved;
    uint64_t maximum_slot;
    uint64_t maximum_record; // maximum record length: what ERANGE and fillers go by
    uint64_t minimum_record;
    uint32_t logical_organization, record_format;
    uint64_t data_block_size; // the header's: alignment of index batches

    bool trees() const { return physical_organization != 1; }
    bool indexed() const { return physical_organization != 1 && logical_organization == 3; }
    bool fixed_length() const { return record_format == VFS_FORMAT_FIXED; }

    // Shared use: what metadata_acquire read, to tell what an operation changed.
    bool acquired; // between metadata_acquire and metadata_release
    bool acquired_for_change;
    file_position acquired_position; // the file position then: good again when nothing of the operation is kept
    uint64_t acquired_end;           // E0: end of file when the operation began
    bool session_marked;             // this handle's state word is set in the file
    bool session_booted;             // this handle has set the boot word
    int64_t seen_tsn;                // counters as this handle last read or wrote them
    uint64_t seen_dsn, seen_asn, seen_end;

    uint64_t block_lock; // lock mode 4: start of the Data block that this handle holds locked; none

    change_list changes; // of the commit under way

    // For a read-only handle that has to finish the commit of a process that died: a descriptor of the same file that
    // may write, or -1 with errno; and what becomes of it afterwards. Set by open.
    int (*borrow_writable)(const file_state *file);
    void (*give_back_writable)(int descriptor);

    vfs_registry_entry *registry;
    char *error_buffer; // owned: text of error_text
    int error_number, error_code;
    struct {
        clock_t ticks;
        rusage usage;
    } opened, closed;       // snapshots for the statistics
    std::byte *checkpoints; // owned: remembered record numbers of a flat file of variable slots
};

// The counters in the file are those of the handle: it has just read or written them.
inline void remember_seen(vfs_file *file)
{
    file->seen_tsn = file->tsn;
    file->seen_dsn = file->dsn;
    file->seen_asn = file->asn;
    file->seen_end = file->end_of_file;
}

// The records no longer lie in the order of their keys: what follows in the file is not what is asked for next.
inline void leave_sequence(vfs_file *file)
{
    file->physically_sequential = false;
    file->data.readahead = 0;
}

// ---- The header image: hdrb of the Meta cache ----

inline std::span<const std::byte> header_image(const vfs_file *file)
{
    return buffer_bytes(file->meta.hdrb);
}

template <typename T> T header_get(const vfs_file *file, field<T> at)
{
    return image_get(header_image(file), at);
}

// The one way to change the header image: dirty only when a byte really changes.
inline void header_change(vfs_file *file, uint64_t offset, const void *bytes, uint64_t length)
{
    vfs_buffer *header = file->meta.hdrb;
    assert(offset + length <= header->size);
    if (std::memcmp(header->data + offset, bytes, length) == 0) return;
    dirty_add(header);
    mark_changed(header, offset, offset + length);
    std::memcpy(header->data + offset, bytes, length);
}

template <typename T> void header_put(vfs_file *file, field<T> at, T value)
{
    header_change(file, at.offset, &value, sizeof value);
}

inline uint64_t key_entry_at(const vfs_file *file, uint64_t key)
{
    return header_get(file, header_key_table) + key * key_entry_bytes;
}
template <typename T> T key_entry_get(const vfs_file *file, uint64_t key, field<T> at)
{
    return header_get(file, field<T>{static_cast<uint32_t>(key_entry_at(file, key)) + at.offset});
}
template <typename T> void key_entry_put(vfs_file *file, uint64_t key, field<T> at, T value)
{
    header_put(file, field<T>{static_cast<uint32_t>(key_entry_at(file, key)) + at.offset}, value);
}
// W bytes each: lowest and highest key of the tree.
inline const std::byte *low_key(const vfs_file *file, uint64_t key)
{
    return file->meta.hdrb->data + key_entry_at(file, key) + key_entry_get(file, key, key_entry_low_area);
}
inline const std::byte *high_key(const vfs_file *file, uint64_t key)
{
    return file->meta.hdrb->data + key_entry_at(file, key) + key_entry_get(file, key, key_entry_high_area);
}
inline void low_key_put(vfs_file *file, uint64_t key, const std::byte *value, uint64_t width)
{
    header_change(file, key_entry_at(file, key) + key_entry_get(file, key, key_entry_low_area), value, width);
}
inline void high_key_put(vfs_file *file, uint64_t key, const std::byte *value, uint64_t width)
{
    header_change(file, key_entry_at(file, key) + key_entry_get(file, key, key_entry_high_area), value, width);
}

// ---- The key description ----

inline const vfs_key_desc_entry *key_description(const vfs_file *file, uint64_t key)
{
    return reinterpret_cast<const vfs_key_desc_entry *>(file->keys + 1) + key;
}
inline std::span<const vfs_key_part> key_parts(const vfs_file *file, uint64_t key)
{
    const vfs_key_desc_entry *entry = key_description(file, key);
    const auto *base = reinterpret_cast<const std::byte *>(file->keys);
    return {reinterpret_cast<const vfs_key_part *>(base + entry->part_list), static_cast<size_t>(entry->part_count)};
}

#endif
