// Opening a file: from the host's open block to a handle that is ready, or nothing left behind.
// May use record/ and everything below. Asks the environment only through what it is given.
#ifndef VFS_FILE_OPEN_H
#define VFS_FILE_OPEN_H

#include "store/vfs_file.h"

// What open needs from the floor above.
struct open_services {
    const vfs_driver *driver;
    void (*read_settings)(open_settings *out);
    void (*apply_lock_choice)(const open_settings &settings, bool read_only, vfs_lock_request *request);
    bool (*delays_announced)();
};

vfs_file *file_open(vfs_open_block *block, const open_services &services);

// Flushes, unlocks, releases and frees: 0, or -1 with the first error met. The handle is gone in every case.
int file_close(vfs_file *file, vfs_open_block *out);
// Of a handle whose open failed: an existing file is neither written nor cut.
void file_abandon(vfs_file *file);

#endif
