// The commit of an operation on a shared file, and its completion by whoever comes next when the process that made it
// died on the way. Redo logging of one operation at a time (Gray and Reuter, Transaction Processing, 10.3): the new
// bytes of everything that changes below the end of file are written behind it, then the header's state word names
// that place, and only then are the bytes written where they belong. A process that is killed in front of the state
// word has changed nothing; behind it, the bytes are all there for the next holder of the lock.
#ifndef VFS_STORE_REDO_H
#define VFS_STORE_REDO_H

#include "lock/lock.h"
#include "store/vfs_file.h"

// Brings everything that is dirty in the handle's caches into the file, the counters included. Under the lock that keeps
// others out, taken when the file ended at `acquired_end`. -1 with errno: before the state word was set nothing below
// that end has changed (`*in_doubt` false, the caller drops the changes); after it the error is stored in the handle
// and the next holder of the lock completes the commit.
[[nodiscard]] int changes_commit(vfs_file *file, bool *in_doubt);

// A state word that names a redo area.
inline bool redo_pending(uint64_t state_word)
{
    return state_word != state_clean && state_word != state_unflushed;
}

// Completes the commit that the file's state word names, if it names one. Under a lock for writing. Damage to the area:
// -1 with ENOEXEC after the line that says that the file was not closed; the file is left as it is.
[[nodiscard]] int redo_replay(vfs_file *file);

// The same under `target`, which is taken for writing and given up again; a read-only handle borrows a descriptor that
// may write. The handle holds no lock on the file. -1 with ENOEXEC when it may not write.
[[nodiscard]] int redo_replay_under(vfs_file *file, lock_target target);

// The new state word, into the file and the header image.
[[nodiscard]] int state_word_write(vfs_file *file, uint64_t word);

#endif
