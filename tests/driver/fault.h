// fault.h: makes the driver's own system calls and allocations fail, at the seam of seam.h.
#ifndef TESTS_DRIVER_FAULT_H
#define TESTS_DRIVER_FAULT_H

#include <cstdint>
#include <string>

namespace host {

struct fault_plan {
    std::string call; // "pwrite", "pread", "malloc", ...; "write" and "read" stand for all of their family, "" for none
    unsigned nth = 1; // the call that fails, from 1
    int error = 0;
    bool lasting = false;    // all calls from the nth on
    int64_t bytes_done = -1; // instead of failing: transfer only so many bytes
    std::string path = {};   // only calls on a descriptor of this file; "" for any
};

// Active from construction to disarm() or destruction; one at a time.
class fault {
public:
    explicit fault(const fault_plan &plan);
    ~fault();
    fault(const fault &) = delete;
    fault &operator=(const fault &) = delete;

    bool fired() const;
    bool disarm(); // whether it has fired
};

// Calls of the library since the last reset, as "pwrite pwrite fdatasync ", without reads of memory and locks.
std::string traced_calls();
void trace_calls(bool on);

} // namespace host

#endif
