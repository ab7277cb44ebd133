// System calls on the descriptor of an open file outside block transfers: header words, size, durability.
// Each system call of its kind is made here and nowhere else. Retries as errors.h says. Offsets, lengths and areas need
// no alignment, under direct I/O either.
#ifndef VFS_IO_FILE_CALLS_H
#define VFS_IO_FILE_CALLS_H

#include "util/file_state.h"

#include <span>
#include <sys/uio.h>

// Reads up to `bytes` bytes at `offset` until full or end of file: the count, or -1.
[[nodiscard]] int64_t file_read_at(file_state *file, void *to, uint64_t bytes, uint64_t offset);
// Writes all of it: 0 or -1 (a write of nothing is EIO).
[[nodiscard]] int file_write_at(file_state *file, const void *from, uint64_t bytes, uint64_t offset);
// Writes the pieces one behind the other from `offset` on, as writev does: 0 or -1. May change `pieces`. Not under
// direct I/O.
[[nodiscard]] int file_write_pieces(file_state *file, std::span<iovec> pieces, uint64_t offset);
// Whether a short count that ends at `offset` is the end of the file; true as well when the file cannot be asked.
[[nodiscard]] bool file_ends_at(int descriptor, uint64_t offset);
// Size of the file now; -1 with errno.
[[nodiscard]] int64_t file_size_now(const file_state *file);
[[nodiscard]] int file_truncate(file_state *file, uint64_t size);
// fdatasync, and msync of the mapping; `unsynced` is then false. A file system that has no sync (EINVAL, ENOSYS, ENOTSUP, EROFS) is no error.
[[nodiscard]] int file_sync(file_state *file);
// The same for what was written by file_write_at, without a look at the mapping.
[[nodiscard]] int file_sync_written(file_state *file);

#endif
