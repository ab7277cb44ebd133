// The usual sequential read, without detours: the next entry is in the leaf at hand and its record in the data block
// at hand, nobody else can have changed them, and no lock, no duplicate and no end is to be looked at.
#ifndef VFS_RECORD_READ_BESIDE_H
#define VFS_RECORD_READ_BESIDE_H

#include "store/vfs_file.h"

// The record's length with everything done that `read` does for mode next or previous; -1 when this is not such a
// case, with nothing changed: the general way then does it, and reports what is wrong.
int64_t read_beside(vfs_file *file, const vfs_record *record, vfs_status *status, int32_t mode);

// The saved request blocks of the last such read are written when somebody is about to look at them: every operation
// but the next read of this kind.
void blocks_catch_up_slow(vfs_file *file);
inline void blocks_catch_up(vfs_file *file)
{
    if (file->run.on) blocks_catch_up_slow(file);
}

#endif
