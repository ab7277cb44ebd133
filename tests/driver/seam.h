// seam.h: the system calls and allocations that the driver makes, seen from the test. The test executable defines the
// functions and exports them; the loaded library binds to these. Each shows the call to the watcher, does what it
// answers, and passes on to the next definition. Calls from anywhere but the library always pass unseen.
#ifndef TESTS_DRIVER_SEAM_H
#define TESTS_DRIVER_SEAM_H

#include <cstdint>
#include <span>

struct iovec;

namespace host {

// "read", "write" and so on stand for all calls of a kind.
struct driver_call {
    const char *name, *family;
    int descriptor = -1;
    uint64_t offset = 0, bytes = 0;     // of reads and writes; offset also the length of ftruncate
    std::span<const iovec> pieces = {}; // of reads and writes
    const char *path = nullptr;         // of open
};

struct call_answer {
    int error = 0;               // not 0: the call fails with it
    uint64_t bytes = UINT64_MAX; // reads and writes transfer no more than these
    bool dies = false;           // the process ends here, with those bytes transferred
    const char *path = nullptr;  // open opens this one instead
};

// Runs inside calls of any thread and inside the allocator: it allocates nothing. `done` (may be null) is told of reads,
// writes, truncations and syncs that were passed on, with their result.
struct call_watcher {
    call_answer (*meet)(const driver_call &);
    void (*done)(const driver_call &, int64_t result);
};

void watch_calls(const call_watcher *watcher); // null: nobody looks

} // namespace host

#endif
