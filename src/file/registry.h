// The files that this process has open, one entry per device and inode: counts and their warnings, the lock table, and
// every descriptor of the file. May call lock/ and util/; knows a handle only as file_state.
//
// POSIX drops all locks that a process has on a file when it closes any descriptor of it. Descriptors of regular
// files are therefore closed here only, when the last handle of the file goes; until then a descriptor that a handle
// gives up is parked, and the next open with the same access and O_DIRECT takes it instead of opening another.
#ifndef VFS_FILE_REGISTRY_H
#define VFS_FILE_REGISTRY_H

#include "util/file_state.h"

#include <cstddef>
#include <sys/resource.h>
#include <sys/times.h>
#include <sys/types.h>

struct usage_snapshot {
    clock_t ticks;
    tms times;
    rusage usage; // of the process
};

// open(2) with O_CLOEXEC, a descriptor above the standard ones, and parked descriptors used first (*taken says so).
// Never repeats: -1 with errno as open leaves it.
[[nodiscard]] int registry_open(const char *path, int open_flags, mode_t mode, bool *taken = nullptr);
// The first half of it: a parked descriptor of the file that the path names, or -1.
[[nodiscard]] int registry_take_descriptor(const char *path, int open_flags);
// A second descriptor, one that may write, of the very file that the handle has open, wherever its path leads by now.
[[nodiscard]] int registry_open_writable(const file_state *file);
// Gives up a descriptor that no handle was registered with: closed, or parked when its file is registered.
void registry_discard(int descriptor);

// Enters the handle, whose descriptor is open: sets `shared` and the opener's process, fills `opened`, warns of risky
// multiple opens. 0 or -1.
[[nodiscard]] int registry_add(file_state *file, usage_snapshot *opened);
// Takes the handle out, with whatever locks it still holds, and its descriptor (set to -1): parked, or closed with
// all others of the file when this was the last handle; a failing close is stored in the handle. Returns how many
// other handles remain when the lock table holds locks, else 0; -1: not registered (ENOENT), or its count was 0.
int registry_release(file_state *file, usage_snapshot *closed);

// Reads the first bytes of a file that is registered, through a descriptor that is open anyway: an open and close of
// the path would drop the locks. At most 4096 bytes. False: the path names no registered file.
[[nodiscard]] bool registry_peek(const char *path, void *into, size_t bytes, ssize_t *result);

// How many handles of the handle's file are open in this process, itself included.
uint32_t registry_handles(const file_state *file);

// The handle belongs to a parent process: its operations fail with EBADF, its close only frees memory.
bool registry_inherited(const file_state *file);

// The mutex of the registry, for shared_file_state::unflushed_handles.
class [[nodiscard]] registry_held {
public:
    registry_held();
    ~registry_held();
    registry_held(const registry_held &) = delete;
    registry_held &operator=(const registry_held &) = delete;
    int error() const { return error_; }

private:
    int error_;
};

#endif
