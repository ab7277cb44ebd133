// From a place to a record: stepping from the file position, and locating a record by number or key. Joins the trees
// and the record slots; each fills the request (record offset, lengths, state, rrn, cursor, key).
//
// Finding nothing is no failure: the result is 0 with VFS_FLAG_AT_END set in the request and errno ESPIPE. On entry
// that flag is cleared and the record state is 2.
#ifndef VFS_STORE_MOVEMENT_H
#define VFS_STORE_MOVEMENT_H

#include "store/slots.h"
#include "store/tree.h"

inline constexpr uint8_t state_unread = 2; // record state before a slot's head is read

[[nodiscard]] int record_step_forward(vfs_file *file, vfs_request *request);
[[nodiscard]] int record_step_backward(vfs_file *file, vfs_request *request);
// By mode: first (2, 9), last (3, 10), or request->rrn with the relation (6). Relative and flat files. In a flat file
// a deleted slot of exactly that number is left in the request (offset, stored length, state 1) with the flag set.
[[nodiscard]] int record_locate_rrn(vfs_file *file, vfs_request *request);
// By mode: first, last, or request->key with the relation (7). Indexed files.
[[nodiscard]] int record_locate_key(vfs_file *file, vfs_request *request);

// Whether the live record of the number `rrn` begins at request->record_offset; then the request is filled. 1, 0 or -1.
[[nodiscard]] int record_still_there(vfs_file *file, vfs_request *request, uint64_t rrn);
// Tree files: the record that has the request's key (key_number, key) and the request's rrn, wherever it lies by now.
[[nodiscard]] int record_by_identity(vfs_file *file, vfs_request *request);

// Indexed files: every record with the request's key (key_number, key), in order, until `visit` says true: then the
// request stands on it. At the end of the run nothing is found. The file position stays.
using run_visit = bool (*)(const vfs_request *at, void *context);
[[nodiscard]] int run_walk(vfs_file *file, vfs_request *request, run_visit visit, void *context);

// Before a step (request->mode), for a position that lost its cursor because another handle changed the file: if that
// handle moved the record, the position goes with it; if it removed the record, or gave it another key, the position
// becomes a gap, among equal keys beside the nearest of the records that were passed. request->key is used on the way.
[[nodiscard]] int position_follow(vfs_file *file, const vfs_request *request);
// The file position: on the record of a filled request; where the request's key would stand, which is not there; where
// a step met an end (what stood there stays known, so that records which come beside it are found); at an end without
// any record.
void position_save(vfs_file *file, const vfs_request *request);
void position_to_gap(vfs_file *file, const vfs_request *request);
void position_at_end(vfs_file *file, position_end end);
void position_to_end(vfs_file *file, position_end end, uint64_t key_number);

// Flat files: the end of file moves back to `end`, and the highest record number with it; nothing that is remembered
// may lie behind it.
void end_cut(vfs_file *file, uint64_t end, uint64_t highest_rrn);

// Flat files of variable slots remember where every so many record numbers lie.
void checkpoint_add(vfs_file *file, uint64_t rrn, uint64_t offset);
inline constexpr uint64_t checkpoint_bytes = 8 * 1025; // size of file->checkpoints
inline constexpr uint64_t checkpoint_stride = 256;     // its first word to begin with

#endif
