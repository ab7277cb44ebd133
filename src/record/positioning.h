// From a position mode to a record. See request.h for what surrounds it.
#ifndef VFS_RECORD_POSITIONING_H
#define VFS_RECORD_POSITIONING_H

#include "record/keys.h"

// Whether a position can have the mode; prints "pos=%d\n" and fails with EINVAL when it cannot.
[[nodiscard]] int mode_known(const operation_call &call);

// Moves the request to the place that its mode names: 0 or -1. At an end: 0 with VFS_FLAG_AT_END, errno ESPIPE and
// the mode 9 or 10. Next and previous go from the file position. An unknown mode prints "pos=%d\n" and is EINVAL.
[[nodiscard]] int position_request(vfs_file *file, vfs_request *request);

// Mode 5 for an operation that leaves the file position on the record: its key of reference is loaded and the cursor
// found, which only the file position keeps right.
[[nodiscard]] int current_with_cursor(vfs_file *file, vfs_request *request);

// What the modes of rewrite, delete, position and lock share: key or number from the arguments into the request.
// Mode 7 on a file without keys becomes mode 6. `from_record`: take the key from there when the host gave none.
[[nodiscard]] int key_from_arguments(const operation_call &call, vfs_request *work, const void *from_record,
                                     uint64_t record_length);

// position_request for operations that need a record: nothing found is -1 with ESPIPE.
[[nodiscard]] int record_wanted(const operation_call &call, vfs_request *work);

// rewrite and delete change one record: a mode that names several, or none, is EINVAL.
[[nodiscard]] int one_record_named(const operation_call &call);

#endif
