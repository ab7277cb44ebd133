// The record operations: slots 10 to 17 of the driver's table. vfs.h says what each takes and returns.
#ifndef VFS_RECORD_OPERATIONS_H
#define VFS_RECORD_OPERATIONS_H

#include "vfs.h"

#define VFS_RECORD_OPERATION(name)                                                                                     \
    int64_t name(vfs_file *file, vfs_record *record, void *unused, vfs_status *status, const vfs_lock_request *lock,   \
                 int32_t mode, ...)

VFS_RECORD_OPERATION(operation_read);
VFS_RECORD_OPERATION(operation_write);
VFS_RECORD_OPERATION(operation_rewrite);
VFS_RECORD_OPERATION(operation_delete);
VFS_RECORD_OPERATION(operation_start);
VFS_RECORD_OPERATION(operation_position);
VFS_RECORD_OPERATION(operation_lock_record);
VFS_RECORD_OPERATION(operation_unlock);

#undef VFS_RECORD_OPERATION

#endif
