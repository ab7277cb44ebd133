// fault.cc: see fault.h.
#include "fault.h"

#include "host.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <mutex>

namespace host {
namespace {

// Plain data, since the functions run before any constructor and inside the allocator.
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
std::atomic<uintptr_t> library_low{0}, library_high{0};
std::mutex trace_mutex;
std::string trace;

int note_library(dl_phdr_info *object, size_t, void *)
{
    if (strstr(object->dlpi_name, "libvfs_psx") == nullptr) return 0;
    uintptr_t high = 0;
    for (int i = 0; i < object->dlpi_phnum; ++i)
        if (object->dlpi_phdr[i].p_type == PT_LOAD)
            high = std::max<uintptr_t>(high, object->dlpi_phdr[i].p_vaddr + object->dlpi_phdr[i].p_memsz);
    library_low = object->dlpi_addr;
    library_high = object->dlpi_addr + high;
    return 1;
}

bool from_library(const void *caller)
{
    const auto at = reinterpret_cast<uintptr_t>(caller);
    return at >= library_low.load(std::memory_order_relaxed) && at < library_high.load(std::memory_order_relaxed);
}

bool is_file(int descriptor)
{
    if (plan.inode == 0) return true;
    struct stat facts;
    return fstat(descriptor, &facts) == 0 && facts.st_dev == plan.device && facts.st_ino == plan.inode;
}

// Whether this call is to be hit by the plan.
bool hit(const char *call, const char *family, const void *caller, int descriptor = -1)
{
    if (!armed.load(std::memory_order_relaxed) && !tracing.load(std::memory_order_relaxed)) return false;
    if (!from_library(caller)) return false;
    if (tracing && family[0] != 'm') {
        const std::lock_guard hold{trace_mutex};
        trace += std::string{call} + " ";
    }
    if (!armed || (strcmp(plan.call, call) != 0 && strcmp(plan.call, family) != 0)) return false;
    if (descriptor >= 0 && !is_file(descriptor)) return false;
    const unsigned number = ++seen;
    if (number != plan.nth && !(plan.lasting && number > plan.nth)) return false;
    has_fired = true;
    return true;
}

template <typename function> function *next_definition(const char *name)
{
    return reinterpret_cast<function *>(dlsym(RTLD_NEXT, name));
}

// A short transfer of the first piece, or the error.
bool cut_short()
{
    return plan.bytes_done >= 0;
}

} // namespace

fault::fault(const fault_plan &wanted)
{
    driver();
    if (library_high == 0) dl_iterate_phdr(note_library, nullptr);
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
    driver();
    if (library_high == 0) dl_iterate_phdr(note_library, nullptr);
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

using host::hit;

#define CALLER __builtin_return_address(0)
#define NEXT(name) static const auto next_call = host::next_definition<decltype(name)>(#name)
#define REFUSE(result)                                                                                                 \
    do {                                                                                                               \
        errno = host::plan.error;                                                                                      \
        return result;                                                                                                 \
    } while (false)

// Before its own start is over a sanitizer's allocator can be reached by this name alone.
#define NEXT_ALLOCATOR(name)                                                                                           \
    static const auto next_call =                                                                                      \
        __interceptor_##name != nullptr ? &__interceptor_##name : host::next_definition<decltype(name)>(#name)

extern "C" {

void *__interceptor_malloc(size_t bytes) noexcept __attribute__((weak));
void *__interceptor_calloc(size_t count, size_t bytes) noexcept __attribute__((weak));
void *__interceptor_realloc(void *area, size_t bytes) noexcept __attribute__((weak));
void *__interceptor_aligned_alloc(size_t alignment, size_t bytes) noexcept __attribute__((weak));
int __interceptor_posix_memalign(void **area, size_t alignment, size_t bytes) noexcept __attribute__((weak));

ssize_t pread(int descriptor, void *area, size_t bytes, off_t offset)
{
    NEXT(pread);
    if (hit("pread", "read", CALLER, descriptor)) {
        if (!host::cut_short()) REFUSE(-1);
        bytes = std::min(bytes, static_cast<size_t>(host::plan.bytes_done));
    }
    return next_call(descriptor, area, bytes, offset);
}

ssize_t pwrite(int descriptor, const void *area, size_t bytes, off_t offset)
{
    NEXT(pwrite);
    if (hit("pwrite", "write", CALLER, descriptor)) {
        if (!host::cut_short()) REFUSE(-1);
        bytes = std::min(bytes, static_cast<size_t>(host::plan.bytes_done));
    }
    return next_call(descriptor, area, bytes, offset);
}

ssize_t preadv(int descriptor, const iovec *pieces, int count, off_t offset)
{
    NEXT(preadv);
    if (hit("preadv", "read", CALLER, descriptor)) {
        if (!host::cut_short()) REFUSE(-1);
        iovec piece{pieces[0].iov_base, std::min(pieces[0].iov_len, static_cast<size_t>(host::plan.bytes_done))};
        return next_call(descriptor, &piece, 1, offset);
    }
    return next_call(descriptor, pieces, count, offset);
}

ssize_t pwritev(int descriptor, const iovec *pieces, int count, off_t offset)
{
    NEXT(pwritev);
    if (hit("pwritev", "write", CALLER, descriptor)) {
        if (!host::cut_short()) REFUSE(-1);
        iovec piece{pieces[0].iov_base, std::min(pieces[0].iov_len, static_cast<size_t>(host::plan.bytes_done))};
        return next_call(descriptor, &piece, 1, offset);
    }
    return next_call(descriptor, pieces, count, offset);
}

int fdatasync(int descriptor)
{
    NEXT(fdatasync);
    if (hit("fdatasync", "sync", CALLER, descriptor)) REFUSE(-1);
    return next_call(descriptor);
}

int fsync(int descriptor)
{
    NEXT(fsync);
    if (hit("fsync", "sync", CALLER, descriptor)) REFUSE(-1);
    return next_call(descriptor);
}

int msync(void *address, size_t bytes, int flags)
{
    NEXT(msync);
    // MS_ASYNC promises nothing and does nothing here: no sync.
    if ((flags & MS_SYNC) != 0 && hit("msync", "sync", CALLER)) REFUSE(-1);
    return next_call(address, bytes, flags);
}

int ftruncate(int descriptor, off_t length) noexcept
{
    NEXT(ftruncate);
    if (hit("ftruncate", "truncate", CALLER, descriptor)) REFUSE(-1);
    return next_call(descriptor, length);
}

int fallocate(int descriptor, int mode, off_t offset, off_t length)
{
    NEXT(fallocate);
    if (hit("fallocate", "allocate", CALLER, descriptor)) REFUSE(-1);
    return next_call(descriptor, mode, offset, length);
}

int close(int descriptor)
{
    NEXT(close);
    if (hit("close", "close", CALLER, descriptor)) {
        next_call(descriptor); // the kernel gives the number up even when it reports an error
        REFUSE(-1);
    }
    return next_call(descriptor);
}

void *mmap(void *address, size_t bytes, int protection, int flags, int descriptor, off_t offset) noexcept
{
    NEXT(mmap);
    if (hit("mmap", "map", CALLER, descriptor)) REFUSE(MAP_FAILED);
    return next_call(address, bytes, protection, flags, descriptor, offset);
}

int open(const char *path, int flags, ...)
{
    NEXT(open);
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = static_cast<mode_t>((flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0);
    va_end(arguments);
    if (hit("open", "open", CALLER)) REFUSE(-1);
    return next_call(path, flags, mode);
}

int fcntl(int descriptor, int command, ...)
{
    NEXT(fcntl);
    va_list arguments;
    va_start(arguments, command);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    const bool locks = command == F_SETLK || command == F_SETLKW || command == F_GETLK;
    if (locks && hit("fcntl", "mlock", CALLER, descriptor)) REFUSE(-1);
    return next_call(descriptor, command, argument);
}

void *malloc(size_t bytes) noexcept
{
    NEXT_ALLOCATOR(malloc);
    if (hit("malloc", "memory", CALLER)) REFUSE(nullptr);
    return next_call(bytes);
}

void *calloc(size_t count, size_t bytes) noexcept
{
    NEXT_ALLOCATOR(calloc);
    if (hit("calloc", "memory", CALLER)) REFUSE(nullptr);
    return next_call(count, bytes);
}

void *realloc(void *area, size_t bytes) noexcept
{
    NEXT_ALLOCATOR(realloc);
    if (hit("realloc", "memory", CALLER)) REFUSE(nullptr);
    return next_call(area, bytes);
}

void *aligned_alloc(size_t alignment, size_t bytes) noexcept
{
    NEXT_ALLOCATOR(aligned_alloc);
    if (hit("aligned_alloc", "memory", CALLER)) REFUSE(nullptr);
    return next_call(alignment, bytes);
}

int posix_memalign(void **area, size_t alignment, size_t bytes) noexcept
{
    NEXT_ALLOCATOR(posix_memalign);
    if (hit("posix_memalign", "memory", CALLER)) return host::plan.error;
    return next_call(area, alignment, bytes);
}

} // extern "C"
