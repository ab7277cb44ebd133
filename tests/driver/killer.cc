// killer.cc: see killer.h.
#include "killer.h"

#include "seam.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace host {
namespace {

constexpr uint64_t page = 4096;

std::atomic<kill_order *> obeyed{nullptr};

// Notes the call, and ends the process in front of it, or with a part of its bytes written, when that is the order.
call_answer meet(const driver_call &call)
{
    kill_order *order = obeyed.load(std::memory_order_relaxed);
    if (order == nullptr || strcmp(call.family, "memory") == 0 || strcmp(call.family, "map") == 0) return {};
    const uint32_t number = ++order->seen;
    const uint64_t first_border = (call.offset / page + 1) * page, end = call.offset + call.bytes;
    const bool writes = strcmp(call.family, "write") == 0;
    const uint64_t borders = writes && end > first_border ? (end - first_border + page - 1) / page : 0;
    if (number <= std::size(order->calls)) {
        killer_call &noted = order->calls[number - 1];
        strncpy(noted.name, call.name, sizeof noted.name - 1);
        noted.offset = call.offset;
        noted.bytes = call.bytes;
        noted.borders = static_cast<uint32_t>(borders);
    }
    if (number != order->at) return {};
    order->died = 1;
    const bool cut = order->cut != 0 && order->cut <= borders;
    return {.bytes = cut ? first_border + (order->cut - 1) * page - call.offset : 0, .dies = true};
}

constexpr call_watcher watcher{meet, nullptr};

} // namespace

void obey(kill_order *order)
{
    obeyed = order;
    watch_calls(order != nullptr ? &watcher : nullptr);
}

std::string describe(const kill_order &order, uint32_t call)
{
    if (call == 0 || call > order.seen || call > std::size(order.calls)) return "no call";
    const killer_call &noted = order.calls[call - 1];
    return std::to_string(call) + " " + noted.name + " " + std::to_string(noted.bytes) + "@" +
           std::to_string(noted.offset);
}

} // namespace host
