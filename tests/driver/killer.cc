// killer.cc: see killer.h.
#include "killer.h"

#include "host.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstring>

namespace host {
namespace {

constexpr uint64_t page = 4096;

std::atomic<kill_order *> obeyed{nullptr};
uintptr_t library_low = 0, library_high = 0;

int note_library(dl_phdr_info *object, size_t, void *)
{
    if (strstr(object->dlpi_name, "libvfs_psx") == nullptr) return 0;
    for (int i = 0; i < object->dlpi_phnum; ++i)
        if (object->dlpi_phdr[i].p_type == PT_LOAD)
            library_high = std::max<uintptr_t>(library_high, object->dlpi_addr + object->dlpi_phdr[i].p_vaddr +
                                                                 object->dlpi_phdr[i].p_memsz);
    library_low = object->dlpi_addr;
    return 1;
}

[[noreturn]] void die(kill_order *order)
{
    order->died = 1;
    for (;;) kill(getpid(), SIGKILL);
}

struct whole_call {
    const char *name;
    const void *caller;
    uint64_t offset = 0, bytes = 0;
    bool writes = false;
};

// Notes the call, and ends the process in front of it when that is the order. The bytes that a write may still do
// before the process ends; all ones: the call goes on as if nobody looked.
uint64_t meet(const whole_call &call)
{
    kill_order *order = obeyed.load(std::memory_order_relaxed);
    const auto caller = reinterpret_cast<uintptr_t>(call.caller);
    if (order == nullptr || caller < library_low || caller >= library_high) return UINT64_MAX;
    const uint32_t number = ++order->seen;
    const uint64_t first_border = (call.offset / page + 1) * page, end = call.offset + call.bytes;
    const uint64_t borders = call.writes && end > first_border ? (end - first_border + page - 1) / page : 0;
    if (number <= std::size(order->calls)) {
        killer_call &noted = order->calls[number - 1];
        strncpy(noted.name, call.name, sizeof noted.name - 1);
        noted.offset = call.offset;
        noted.bytes = call.bytes;
        noted.borders = static_cast<uint32_t>(borders);
    }
    if (number != order->at) return UINT64_MAX;
    if (order->cut == 0 || order->cut > borders) die(order);
    return first_border + (order->cut - 1) * page - call.offset;
}

template <typename function> function *next_definition(const char *name)
{
    return reinterpret_cast<function *>(dlsym(RTLD_NEXT, name));
}

uint64_t bytes_of(const iovec *pieces, int count)
{
    uint64_t sum = 0;
    for (int i = 0; i < count; ++i) sum += pieces[i].iov_len;
    return sum;
}

} // namespace

void obey(kill_order *order)
{
    driver();
    if (library_high == 0) dl_iterate_phdr(note_library, nullptr);
    obeyed = order;
}

std::string describe(const kill_order &order, uint32_t call)
{
    if (call == 0 || call > order.seen || call > std::size(order.calls)) return "no call";
    const killer_call &noted = order.calls[call - 1];
    return std::to_string(call) + " " + noted.name + " " + std::to_string(noted.bytes) + "@" +
           std::to_string(noted.offset);
}

} // namespace host

using host::meet;

#define CALLER __builtin_return_address(0)
#define NEXT(name) static const auto next_call = host::next_definition<decltype(name)>(#name)

extern "C" {

ssize_t pread(int descriptor, void *area, size_t bytes, off_t offset)
{
    NEXT(pread);
    meet({.name = "pread", .caller = CALLER, .offset = static_cast<uint64_t>(offset), .bytes = bytes});
    return next_call(descriptor, area, bytes, offset);
}

ssize_t preadv(int descriptor, const iovec *pieces, int count, off_t offset)
{
    NEXT(preadv);
    meet({.name = "preadv",
          .caller = CALLER,
          .offset = static_cast<uint64_t>(offset),
          .bytes = host::bytes_of(pieces, count)});
    return next_call(descriptor, pieces, count, offset);
}

ssize_t pwrite(int descriptor, const void *area, size_t bytes, off_t offset)
{
    NEXT(pwrite);
    const uint64_t left = meet(
        {.name = "pwrite", .caller = CALLER, .offset = static_cast<uint64_t>(offset), .bytes = bytes, .writes = true});
    const ssize_t done = next_call(descriptor, area, std::min<uint64_t>(bytes, left), offset);
    if (left != UINT64_MAX) host::die(host::obeyed);
    return done;
}

ssize_t pwritev(int descriptor, const iovec *pieces, int count, off_t offset)
{
    NEXT(pwritev);
    uint64_t left = meet({.name = "pwritev",
                          .caller = CALLER,
                          .offset = static_cast<uint64_t>(offset),
                          .bytes = host::bytes_of(pieces, count),
                          .writes = true});
    if (left == UINT64_MAX) return next_call(descriptor, pieces, count, offset);
    static const auto write_piece = host::next_definition<decltype(pwrite)>("pwrite");
    for (int i = 0; i < count && left != 0; ++i) {
        const size_t bytes = std::min<uint64_t>(pieces[i].iov_len, left);
        if (write_piece(descriptor, pieces[i].iov_base, bytes, offset) < 0) break;
        offset += static_cast<off_t>(bytes);
        left -= bytes;
    }
    host::die(host::obeyed);
}

int fdatasync(int descriptor)
{
    NEXT(fdatasync);
    meet({.name = "fdatasync", .caller = CALLER});
    return next_call(descriptor);
}

int fsync(int descriptor)
{
    NEXT(fsync);
    meet({.name = "fsync", .caller = CALLER});
    return next_call(descriptor);
}

int ftruncate(int descriptor, off_t length) noexcept
{
    NEXT(ftruncate);
    meet({.name = "ftruncate", .caller = CALLER, .offset = static_cast<uint64_t>(length)});
    return next_call(descriptor, length);
}

int fallocate(int descriptor, int mode, off_t offset, off_t length)
{
    NEXT(fallocate);
    meet({.name = "fallocate", .caller = CALLER});
    return next_call(descriptor, mode, offset, length);
}

int close(int descriptor)
{
    NEXT(close);
    meet({.name = "close", .caller = CALLER});
    return next_call(descriptor);
}

int open(const char *path, int flags, ...)
{
    NEXT(open);
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = static_cast<mode_t>((flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0);
    va_end(arguments);
    meet({.name = "open", .caller = CALLER});
    return next_call(path, flags, mode);
}

int fcntl(int descriptor, int command, ...)
{
    NEXT(fcntl);
    va_list arguments;
    va_start(arguments, command);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (command == F_SETLK || command == F_SETLKW || command == F_GETLK)
        meet({.name = command == F_GETLK ? "F_GETLK" : "F_SETLK", .caller = CALLER});
    return next_call(descriptor, command, argument);
}

} // extern "C"
