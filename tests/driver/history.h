// history.h: decides whether what several handles were told about one record can have happened one after the other.
// A record is a register that may be absent; an operation takes effect at one instant between its call and its answer
// (J. M. Wing and C. Gong, "Testing and verifying concurrent objects", Journal of Parallel and Distributed Computing
// 17, 1993). It knows nothing of files.
#ifndef TESTS_DRIVER_HISTORY_H
#define TESTS_DRIVER_HISTORY_H

#include <cstdint>
#include <limits>
#include <span>
#include <string>

namespace host {

enum class act : uint8_t { read, insert, replace, remove };

enum class reply : uint8_t {
    done,    // it happened; a read found the record
    absent,  // there was no record
    exists,  // insert: there was one already
    unknown, // nobody heard the answer: it happened before `to`, or never
};

// Values are chosen by the caller and never used twice; 0 stands for no record.
struct event {
    act what = act::read;
    reply answer = reply::done;
    uint64_t value = 0;    // written, or seen by a read
    uint64_t expected = 0; // replace, remove: the value that a lock has kept there; 0: whatever is there
    int64_t from = 0, to = std::numeric_limits<int64_t>::max(); // call and answer
};

constexpr int64_t without_end = std::numeric_limits<int64_t>::max();

// "" when some order explains all answers, else the event that no order explains.
std::string check_history(std::span<const event> events, uint64_t initial = 0);

std::string describe(const event &what);

} // namespace host

#endif
