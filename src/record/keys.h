// Key values of records, and the index work of the operations on the tree of a request's key.
#ifndef VFS_RECORD_KEYS_H
#define VFS_RECORD_KEYS_H

#include "record/request.h"

// Every key value in a buffer is followed by 8 zero bytes, so it is zero-padded to W as the trees store it.

// The caller's key into request->key, cut or zero-filled to the key's length; text of a relative key as it is.
// ERANGE for a bad key number.
[[nodiscard]] int key_copy(vfs_file *file, vfs_request *request, const void *key, uint64_t length);
// The value of request->key_number out of a record in memory into request->key. EINVAL without record bytes.
[[nodiscard]] int key_extract(vfs_file *file, vfs_request *request, const void *record, uint64_t length);
// The same out of the stored record of a filled request.
[[nodiscard]] int key_load(vfs_file *file, vfs_request *request);
// <0, 0, >0 as memcmp; two values of request->key_number.
[[nodiscard]] int key_compare(const vfs_file *file, uint64_t key_number, const void *a, const void *b);

// Relative files: the decimal text in request->key (key_length characters) is a record number: mode becomes 6.
[[nodiscard]] int rrn_from_key(vfs_request *request);
[[nodiscard]] int rrn_to_key(vfs_request *request); // zero-padded to key_length; EOVERFLOW

// 0 with the cursor on an entry of the value, -1 with ESPIPE when there is none.
[[nodiscard]] int key_find(vfs_file *file, vfs_request *request);
// Sets or clears VFS_FLAG_DUPLICATE from the neighbours of the request's cursor.
[[nodiscard]] int key_duplicate(vfs_file *file, vfs_request *request);
[[nodiscard]] int key_insert(vfs_file *file, vfs_request *request);
[[nodiscard]] int key_repoint(vfs_file *file, vfs_request *request, uint64_t offset);
[[nodiscard]] int key_delete(vfs_file *file, vfs_request *request);
// Undoes a removal that failed and may have taken the entry out before: afterwards it is in the tree, once.
[[nodiscard]] int key_put_back(vfs_file *file, vfs_request *request);
// The result of a step that takes an operation back. Where it failed, but for the `harmless` error that says that there was
// nothing to do, the index is not what the records are: the handle keeps the error, nothing goes on from there, and the
// file is not closed as a sound one.
void step_taken_back(vfs_file *file, int result, int harmless);
// The slot of a record that was taken back becomes a free one; that it cannot be listed loses no more than its space.
void slot_taken_back(vfs_file *file, uint64_t offset);

// Whether the stored record of a filled request has the key that the next appended one is compared with.
bool is_sequence_key(vfs_file *file, const vfs_request &work);

// Fills the host's status block, if there is one, from a finished request; `found`: it stands on a record. -1 when a
// relative key does not hold the record number.
[[nodiscard]] int status_fill(const operation_call &call, vfs_request *work, bool found);

inline uint64_t key_length_of(const vfs_file *file, uint64_t key)
{
    return static_cast<uint64_t>(key_description(file, key)->length);
}
inline bool key_allows_duplicates(const vfs_file *file, uint64_t key)
{
    return file->indexed() && (key_entry_get(file, key, key_entry_flags) & key_flag_duplicates) != 0;
}

#endif
