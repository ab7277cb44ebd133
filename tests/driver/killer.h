// killer.h: ends the process at a chosen system call of the driver: in front of it, or, for a write, with only the
// first pages of it done (a kill cuts a write between two pages of the file). At the seam of seam.h.
#ifndef TESTS_DRIVER_KILLER_H
#define TESTS_DRIVER_KILLER_H

#include <cstdint>
#include <string>

namespace host {

struct killer_call {
    char name[12];
    uint64_t offset, bytes; // of reads and writes
    uint32_t borders;       // page borders inside a write
};

// Plain data in memory that outlives the process.
struct kill_order {
    uint32_t at;   // the call that ends the process, from 1; 0: none
    uint32_t cut;  // 0: in front of it; n: with the bytes up to the n-th page border written
    uint32_t seen; // calls so far
    uint32_t died; // the order was carried out
    killer_call calls[400];
};

// From here on the calls of this process count. The order stays the caller's; null: no longer.
void obey(kill_order *order);

std::string describe(const kill_order &order, uint32_t call);

} // namespace host

#endif
