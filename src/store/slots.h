// Record slots and free space: reading and writing slots, the lists of free slots, holes, and the tail of a data
// block. See format.h for the bytes. May use cache/ and header.h; must not know keys or operations.
//
// "Fill" means: the request's record_offset, stored_length, data_length, record_state, rrn and data_offset describe
// the slot. For the home slot of a relocated record (flat files, type 9) offset and stored length stay the home's,
// data length and data offset are those of the slot that holds the record.
#ifndef VFS_STORE_SLOTS_H
#define VFS_STORE_SLOTS_H

#include "store/header.h"

struct slot_head {
    uint64_t stored_length;
    uint64_t data_length; // of a moved slot: offset of the slot that holds the record
    uint64_t rrn;
    uint8_t type;
};

// The head of the item at `offset`, bounded by the end of file: ENOEXEC when it cannot be one.
[[nodiscard]] int slot_head_read(vfs_file *file, uint64_t offset, slot_head *head);
// The same, with the trailer compared.
[[nodiscard]] int slot_check(vfs_file *file, uint64_t offset, slot_head *head);
// Reads the slot at request->record_offset and fills the request; follows a moved slot. Any item type is accepted.
[[nodiscard]] int record_head(vfs_file *file, vfs_request *request);

// What a step or an index entry led to is no sound slot (record_head failed with ENOEXEC): says what stands there when
// it looks like a slot, and fails in the same way.
[[nodiscard]] int slot_damaged(vfs_file *file, const vfs_request *request);

// Bytes of the Data cache, wherever they lie: 0 or -1.
[[nodiscard]] int data_get(vfs_file *file, uint64_t offset, void *to, uint64_t bytes);
[[nodiscard]] int data_put(vfs_file *file, uint64_t offset, const void *from, uint64_t bytes); // null: zeros

// Copies the record of a filled request into the caller's area (request->record, record_length): its data length.
[[nodiscard]] int64_t record_read(vfs_file *file, vfs_request *request);

// A place for a record of request->record_length bytes: a free slot or a hole (tree files), else the end of file.
// Sets record_offset and stored_length; nothing of the record is written.
[[nodiscard]] int slot_choose(vfs_file *file, vfs_request *request);
// Stores the record in the slot that record_offset and stored_length name, with request->record_state and rrn;
// a slot at the end of file moves the end. The record length, or -1.
[[nodiscard]] int64_t record_write_new(vfs_file *file, vfs_request *request);
// Replaces the record of a filled request in place (it fits: slot_bytes(record_length) <= stored length of the slot
// that holds it). The record length, or -1.
[[nodiscard]] int64_t record_rewrite_in_place(vfs_file *file, vfs_request *request);
// Flat files: replaces the record, moving it to the end when it does not fit its slot. The record length, or -1.
[[nodiscard]] int64_t record_rewrite(vfs_file *file, vfs_request *request);
// A relocated record is in the file before its home slot is freed or marked. In a shared file nothing of an operation is
// written before all of it is.
[[nodiscard]] int copy_reaches_file(vfs_file *file, uint64_t offset, uint64_t stored);
// Writes a slot without data: head (stored length, data length word, type, rrn), zeros, trailer. A slot at the end of
// file moves the end.
[[nodiscard]] int record_write_frame(vfs_file *file, const vfs_request *request);
// Changes what the head of a slot says; the rest of the slot stays as it is.
[[nodiscard]] int slot_head_write(vfs_file *file, uint64_t offset, const slot_head &head);

// Makes sure that a slot can be listed: so that nothing can fail once a deletion has begun.
[[nodiscard]] int slot_list_prepare(vfs_file *file);
// Marks the slot at `offset` deleted and lists it for reuse (tree files). Where the list cannot take it: refused
// (nothing is changed), or, where the record has to go in any case, its space is lost; -1 either way.
enum class unlisted_slot { refused, lost };
[[nodiscard]] int slot_free(vfs_file *file, uint64_t offset, unlisted_slot unlisted = unlisted_slot::lost);

// Brings the end of file to a data block boundary, before index blocks are appended.
[[nodiscard]] int tail_close(vfs_file *file);

// Counts a change of the item at `offset`, for other handles to see.
inline void count_change(vfs_file *file, uint64_t offset)
{
    if (offset < file->acquired_end)
        ++file->dsn;
    else
        ++file->asn;
}

#endif
