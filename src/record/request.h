// The working request of an operation: its arguments, the blocks that the handle keeps, entry checks, ends.
// May use store/, lock/ and below; must not know how files are opened.
#ifndef VFS_RECORD_REQUEST_H
#define VFS_RECORD_REQUEST_H

#include "store/movement.h"

#include <cstdarg>

// The arguments that follow the position mode. Those that the mode does not have stay as they are here.
struct operation_arguments {
    uint8_t relation = VFS_EQUAL;
    uint64_t key_number = 0;
    uint64_t rrn = 0;
    uint64_t offset = 0;
    const void *key = nullptr;
    uint64_t key_length = 0;
};

enum class argument_form { plain, read, start };

// What the host passed, together.
struct operation_call {
    vfs_file *file;
    vfs_record *record;
    vfs_status *status;
    const vfs_lock_request *lock; // never null: the file's own settings when the host passed none
    uint8_t operation;
    int32_t mode;
    operation_arguments arguments;
};

struct operation_kind {
    uint8_t code;
    argument_form form;
    int64_t (*run)(const operation_call &call);
};
// What every record slot does: the entry check, the call from what the host passed, the operation.
int64_t operate(const operation_kind &kind, vfs_file *file, vfs_record *record, vfs_status *status,
                const vfs_lock_request *lock, int32_t mode, va_list *arguments);

// The entry check of every record slot: EBADF for a null handle, one of a forked child, or one opened without
// record I/O. Nothing else may be touched after it fails.
[[nodiscard]] int handle_check(const vfs_file *file);

// A working copy of the last request block: operation, mode and the copied ones as previous, the caller's record.
// Made when the bracket is entered: what another handle has changed may have reset the block.
vfs_request working_request(const operation_call &call);

// The position mode as the blocks keep it: 255 for one that does not fit a byte.
inline uint8_t mode_byte(int32_t mode)
{
    return mode >= 0 && mode < 255 ? static_cast<uint8_t>(mode) : uint8_t{255};
}

// The working request becomes the last request block, or the current record block as well.
void save_last(vfs_file *file, const vfs_request &work);
void save_current(vfs_file *file, const vfs_request &work);

// What every failed operation leaves: the last request block (and for read and start the current record block)
// undefined, the file position alone. Returns -1 with errno kept.
[[nodiscard]] int operation_failed(vfs_file *file, const vfs_request &work, bool current_too);

// Key number argument in range: EINVAL.
[[nodiscard]] int key_number_check(const vfs_file *file, uint64_t key_number);

// Mode 5: the record that the last request block names, found and live, or EINVAL / ESPIPE. Fills `work`.
[[nodiscard]] int current_record(vfs_file *file, vfs_request *work);

// Clears the browse flag.
inline void skip_clear(vfs_request *request)
{
    request->flags = static_cast<uint8_t>(request->flags & ~VFS_FLAG_BROWSE);
}

// The bracket, entered only where it is needed.
[[nodiscard]] inline int bracket_begin(vfs_file *file, bool change)
{
    return metadata_bracket(file) ? metadata_acquire(file, change) : 0;
}
// What the operation changed is in the file; its record locks may go.
[[nodiscard]] inline int bracket_publish(vfs_file *file)
{
    return file->acquired ? metadata_publish(file) : 0;
}
[[nodiscard]] inline int bracket_end(vfs_file *file)
{
    return file->acquired ? metadata_release(file) : 0;
}

#endif
