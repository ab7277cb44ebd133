// Index trees: one B+-tree per key. Searching, stepping, inserting, removing, repointing; statistics and dumps.
// See format.h for the bytes of a node. May use cache/ and header.h; must not know record slots or operations.
//
// All take the handle and a request whose key_number names the tree. The key is request->key (byte keys: key length
// bytes count, zero-padded to W by the functions here where it is stored) or request->rrn (relative files, compared
// as u64). request->node, item, stamp are the cursor. Results: 0 found or done; 1 not found (errno ESPIPE);
// -1 error. "Fill" means: request->record_offset := the entry's address, request->key (or rrn) := its key.
//
// Every change of entries keeps file->position's cursor right (when it stands in the same tree).
#ifndef VFS_STORE_TREE_H
#define VFS_STORE_TREE_H

#include "store/vfs_file.h"

// Selects the tree: opens its context on first use. ERANGE for a key number beyond the trees.
[[nodiscard]] int tree_select(vfs_file *file, uint64_t key);
void contexts_close(vfs_file *file);   // closes and frees every context; errors are stored
void contexts_discard(vfs_file *file); // drops every cached node and every cursor, without writing
// Drops the nodes that the operation under way has changed, and the cursors that it may have moved.
void contexts_discard_changes(vfs_file *file);

[[nodiscard]] int leaf_create_root(vfs_file *file, uint64_t key); // the first leaf of a new tree: root, first, last

[[nodiscard]] int tree_first(vfs_file *file, vfs_request *request); // cursor on it, fill; stamp := tree tsn
[[nodiscard]] int tree_last(vfs_file *file, vfs_request *request);
// The step of a sequential read, from file->position (cursor and side; a lost cursor is found again by identity):
// request's cursor and fill. 1 at the end, with the request's cursor and offset unchanged. Nothing of the position is
// changed.
[[nodiscard]] int tree_read_next(vfs_file *file, vfs_request *request);
[[nodiscard]] int tree_read_prev(vfs_file *file, vfs_request *request);

// The leaf in which the file position stands on its entry, when it is its tree's current block; null otherwise.
const vfs_buffer *tree_leaf_at_hand(const vfs_file *file);

// Search with request->relation: cursor, fill. In a tree that has held duplicates relation 2 finds the first valid
// entry of the run.
[[nodiscard]] int key_locate(vfs_file *file, vfs_request *request); // byte keys
[[nodiscard]] int rrn_locate(vfs_file *file, vfs_request *request); // relative files
// The entry of exactly (key or rrn, record_offset): cursor on it. Never another record's entry.
[[nodiscard]] int tree_seek_record(vfs_file *file, vfs_request *request);
// The cursor in front of the run of the request's key, or behind it: the item is that of the entry which follows.
[[nodiscard]] int run_edge(vfs_file *file, vfs_request *request, bool behind);
// 1 when an acceptable entry next to the request's cursor has the same key (mode 0: only the one after it), 0, or -1.
[[nodiscard]] int tree_has_duplicate(vfs_file *file, const vfs_request *request);

// Inserts (key or rrn, record_offset); cursor on the new entry. EADDRINUSE for a duplicate of a unique key, and then
// nothing was changed.
[[nodiscard]] int tree_insert_key(vfs_file *file, vfs_request *request);
[[nodiscard]] int rrn_insert(vfs_file *file, vfs_request *request);
// Removes the entry of exactly (key or rrn, record_offset). -1 with ESPIPE when there is none; the request's record
// offset stays what it was. The file position that stood on the entry becomes a gap.
[[nodiscard]] int tree_delete_key(vfs_file *file, vfs_request *request);
[[nodiscard]] int rrn_delete(vfs_file *file, vfs_request *request);
// Gives the entry of exactly (key or rrn, record_offset) the address `offset`, in the file position too when
// it stands there. -1 with ESPIPE when there is none.
[[nodiscard]] int entry_set_address(vfs_file *file, vfs_request *request, uint64_t offset);

[[nodiscard]] int tsn_renumber(vfs_file *file); // 0 done, 1 nothing to do, -1
int tree_dump(vfs_file *file, vfs_request *request);
void header_statistics(vfs_file *file);

#endif
