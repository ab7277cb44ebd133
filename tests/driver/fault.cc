// fault.cc: see fault.h.
#include "fault.h"

#include "seam.h"

#include <sys/stat.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <utility>

namespace host {
namespace {

// Plain data, since the watcher runs inside the allocator.
struct armed_plan {
    char call[16];
    unsigned nth;
    int error;
    bool lasting;
    int64_t bytes_done;
    dev_t device;
    ino_t inode; // 0: any file
};

armed_plan plan;
std::atomic<bool> armed{false};
std::atomic<bool> tracing{false};
std::atomic<unsigned> seen{0};
std::atomic<bool> has_fired{false};
std::mutex trace_mutex;
std::string trace;

bool is_file(int descriptor)
{
    if (plan.inode == 0) return true;
    struct stat facts;
    return fstat(descriptor, &facts) == 0 && facts.st_dev == plan.device && facts.st_ino == plan.inode;
}

// Whether this call is to be hit by the plan.
bool hit(const driver_call &call)
{
    if (!armed || (strcmp(plan.call, call.name) != 0 && strcmp(plan.call, call.family) != 0)) return false;
    if (call.descriptor >= 0 && !is_file(call.descriptor)) return false;
    const unsigned number = ++seen;
    if (number != plan.nth && !(plan.lasting && number > plan.nth)) return false;
    has_fired = true;
    return true;
}

call_answer meet(const driver_call &call)
{
    const bool quiet =
        strcmp(call.family, "memory") == 0 || strcmp(call.family, "map") == 0 || strcmp(call.family, "lock") == 0;
    if (tracing && !quiet) {
        const std::lock_guard hold{trace_mutex};
        trace += std::string{call.name} + " ";
    }
    if (!hit(call)) return {};
    if (plan.bytes_done >= 0 && !call.pieces.empty()) return {.bytes = static_cast<uint64_t>(plan.bytes_done)};
    return {.error = plan.error};
}

constexpr call_watcher watcher{meet, nullptr};

} // namespace

fault::fault(const fault_plan &wanted)
{
    watch_calls(&watcher);
    plan = {};
    strncpy(plan.call, wanted.call.c_str(), sizeof plan.call - 1);
    plan.nth = wanted.nth;
    plan.error = wanted.error;
    plan.lasting = wanted.lasting;
    plan.bytes_done = wanted.bytes_done;
    struct stat facts;
    if (!wanted.path.empty() && stat(wanted.path.c_str(), &facts) == 0) {
        plan.device = facts.st_dev;
        plan.inode = facts.st_ino;
    }
    seen = 0;
    has_fired = false;
    armed = !wanted.call.empty();
}

fault::~fault()
{
    armed = false;
}
bool fault::fired() const
{
    return has_fired;
}

bool fault::disarm()
{
    armed = false;
    return has_fired;
}

void trace_calls(bool on)
{
    watch_calls(&watcher);
    const std::lock_guard hold{trace_mutex};
    trace.clear();
    tracing = on;
}

std::string traced_calls()
{
    const std::lock_guard hold{trace_mutex};
    return std::exchange(trace, {});
}

} // namespace host
