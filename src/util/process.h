// Which process this is, cheaply: a number that changes in a forked child.
#ifndef VFS_UTIL_PROCESS_H
#define VFS_UTIL_PROCESS_H

#include <cstdint>

extern uint32_t current_process_generation;

// Arranges that the number changes in children; once per process, at the first open. 0 or -1 with errno.
[[nodiscard]] int process_generation_watch();
inline uint32_t process_generation()
{
    return current_process_generation;
}

#endif
