// The operations on paths and handles that are neither open, close nor record operations.
#ifndef VFS_FILE_SMALL_OPERATIONS_H
#define VFS_FILE_SMALL_OPERATIONS_H

#include "store/vfs_file.h"

int file_access(const char *path);
int file_rename(const char *old_path, const char *new_path);
int file_unlink(const char *path);
int file_info(vfs_file *file, vfs_open_block *out);
int file_flush(vfs_file *file);
int file_at_end(vfs_file *file);
int file_unlock_all(vfs_file *file);
const char *file_error_text(vfs_file *file, int error, int *code_out, int want_text);

// The handle's open block as it stands, options cleared: what info and close hand back.
vfs_open_block open_block_now(const vfs_file *file);

#endif
