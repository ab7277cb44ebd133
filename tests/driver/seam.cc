// seam.cc: see seam.h.
#include "seam.h"

#include "host.h"

#include <dlfcn.h>
#include <link.h>
#include <linux/aio_abi.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>

namespace host {
namespace {

// Plain data, since the functions run before any constructor and inside the allocator.
std::atomic<const call_watcher *> watching{nullptr};
std::atomic<uintptr_t> library_low{0}, library_high{0};

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

const call_watcher *watcher_for(const void *caller)
{
    const call_watcher *watcher = watching.load(std::memory_order_relaxed);
    const auto at = reinterpret_cast<uintptr_t>(caller);
    const bool from_library =
        at >= library_low.load(std::memory_order_relaxed) && at < library_high.load(std::memory_order_relaxed);
    return from_library ? watcher : nullptr;
}

[[noreturn]] void die()
{
    for (;;) kill(getpid(), SIGKILL);
}

template <typename function> function *next_definition(const char *name)
{
    return reinterpret_cast<function *>(dlsym(RTLD_NEXT, name));
}

// A call without bytes to transfer: whether it is refused, with errno set.
bool refused(const driver_call &call, const void *caller)
{
    const call_watcher *watcher = watcher_for(caller);
    if (watcher == nullptr) return false;
    const call_answer answer = watcher->meet(call);
    if (answer.dies) die();
    if (answer.error == 0) return false;
    errno = answer.error;
    return true;
}

// The call as the watcher lets it through, and the watcher told.
template <typename function> auto passed(const driver_call &call, const void *caller, const function &next_call)
{
    if (refused(call, caller)) return decltype(next_call())(-1);
    const auto result = next_call();
    const call_watcher *watcher = watcher_for(caller);
    if (watcher != nullptr && watcher->done != nullptr) watcher->done(call, result);
    return result;
}

// A read or write: `move` transfers the pieces it is given.
template <typename function> ssize_t transferred(driver_call call, const void *caller, const function &move)
{
    const call_watcher *watcher = watcher_for(caller);
    if (watcher == nullptr) return move(call.pieces);
    for (const iovec &piece : call.pieces) call.bytes += piece.iov_len;
    const call_answer answer = watcher->meet(call);
    if (answer.error != 0) {
        errno = answer.error;
        return -1;
    }
    ssize_t result = 0;
    if (answer.bytes >= call.bytes) {
        if (answer.dies) die();
        result = move(call.pieces);
    } else {
        iovec cut[1024];
        size_t count = 0;
        for (uint64_t left = answer.bytes; left != 0 && count < std::min(call.pieces.size(), std::size(cut)); ++count) {
            cut[count] = call.pieces[count];
            cut[count].iov_len = std::min<uint64_t>(cut[count].iov_len, left);
            left -= cut[count].iov_len;
        }
        if (count != 0) result = move({cut, count});
        if (answer.dies) die();
    }
    if (watcher->done != nullptr) watcher->done(call, result);
    return result;
}

} // namespace

void watch_calls(const call_watcher *watcher)
{
    driver();
    if (library_high == 0) dl_iterate_phdr(note_library, nullptr);
    watching = watcher;
}

} // namespace host

using host::passed;
using host::refused;
using host::transferred;

#define CALLER __builtin_return_address(0)
#define NEXT(name) static const auto next_call = host::next_definition<decltype(name)>(#name)

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

ssize_t preadv(int descriptor, const iovec *pieces, int count, off_t offset)
{
    NEXT(preadv);
    return transferred(
        {"preadv", "read", descriptor, static_cast<uint64_t>(offset), 0, {pieces, static_cast<size_t>(count)}}, CALLER,
        [&](std::span<const iovec> some) {
            return next_call(descriptor, some.data(), static_cast<int>(some.size()), offset);
        });
}

ssize_t pread(int descriptor, void *area, size_t bytes, off_t offset)
{
    NEXT(pread);
    const iovec piece{area, bytes};
    return transferred(
        {"pread", "read", descriptor, static_cast<uint64_t>(offset), 0, {&piece, 1}}, CALLER,
        [&](std::span<const iovec> some) { return next_call(descriptor, area, some[0].iov_len, offset); });
}

ssize_t pwritev(int descriptor, const iovec *pieces, int count, off_t offset)
{
    NEXT(pwritev);
    return transferred(
        {"pwritev", "write", descriptor, static_cast<uint64_t>(offset), 0, {pieces, static_cast<size_t>(count)}},
        CALLER, [&](std::span<const iovec> some) {
            return next_call(descriptor, some.data(), static_cast<int>(some.size()), offset);
        });
}

ssize_t pwrite(int descriptor, const void *area, size_t bytes, off_t offset)
{
    NEXT(pwrite);
    const iovec piece{const_cast<void *>(area), bytes};
    return transferred(
        {"pwrite", "write", descriptor, static_cast<uint64_t>(offset), 0, {&piece, 1}}, CALLER,
        [&](std::span<const iovec> some) { return next_call(descriptor, area, some[0].iov_len, offset); });
}

int fdatasync(int descriptor)
{
    NEXT(fdatasync);
    return passed({"fdatasync", "sync", descriptor}, CALLER, [&] { return next_call(descriptor); });
}

int fsync(int descriptor)
{
    NEXT(fsync);
    return passed({"fsync", "sync", descriptor}, CALLER, [&] { return next_call(descriptor); });
}

int msync(void *address, size_t bytes, int flags)
{
    NEXT(msync);
    if ((flags & MS_SYNC) == 0) return next_call(address, bytes, flags); // promises nothing and does nothing: no sync
    return passed({"msync", "sync"}, CALLER, [&] { return next_call(address, bytes, flags); });
}

int ftruncate(int descriptor, off_t length) noexcept
{
    NEXT(ftruncate);
    return passed({"ftruncate", "truncate", descriptor, static_cast<uint64_t>(length)}, CALLER,
                  [&] { return next_call(descriptor, length); });
}

int fallocate(int descriptor, int mode, off_t offset, off_t length)
{
    NEXT(fallocate);
    return passed({"fallocate", "allocate", descriptor, static_cast<uint64_t>(offset), static_cast<uint64_t>(length)},
                  CALLER, [&] { return next_call(descriptor, mode, offset, length); });
}

int close(int descriptor)
{
    NEXT(close);
    if (!refused({"close", "close", descriptor}, CALLER)) return next_call(descriptor);
    const int error = errno;
    next_call(descriptor); // the kernel gives the number up even when it reports an error
    errno = error;
    return -1;
}

void *mmap(void *address, size_t bytes, int protection, int flags, int descriptor, off_t offset) noexcept
{
    NEXT(mmap);
    if (refused({"mmap", "map", descriptor}, CALLER)) return MAP_FAILED;
    return next_call(address, bytes, protection, flags, descriptor, offset);
}

int open(const char *path, int flags, ...)
{
    NEXT(open);
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = static_cast<mode_t>((flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0);
    va_end(arguments);
    if (const host::call_watcher *watcher = host::watcher_for(CALLER); watcher != nullptr) {
        const host::call_answer answer = watcher->meet({.name = "open", .family = "open", .path = path});
        if (answer.dies) host::die();
        if (answer.error != 0) {
            errno = answer.error;
            return -1;
        }
        if (answer.path != nullptr) path = answer.path;
    }
    return next_call(path, flags, mode);
}

int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *), void *argument) noexcept
{
    NEXT(pthread_create);
    return refused({"pthread_create", "thread"}, CALLER) ? errno : next_call(thread, attributes, body, argument);
}

int sem_init(sem_t *semaphore, int shared, unsigned value) noexcept
{
    NEXT(sem_init);
    return refused({"sem_init", "semaphore"}, CALLER) ? -1 : next_call(semaphore, shared, value);
}

int sem_post(sem_t *semaphore) noexcept
{
    NEXT(sem_post);
    return refused({"sem_post", "semaphore"}, CALLER) ? -1 : next_call(semaphore);
}

int sem_wait(sem_t *semaphore)
{
    NEXT(sem_wait);
    return refused({"sem_wait", "semaphore"}, CALLER) ? -1 : next_call(semaphore);
}

int sem_trywait(sem_t *semaphore) noexcept
{
    NEXT(sem_trywait);
    return refused({"sem_trywait", "semaphore"}, CALLER) ? -1 : next_call(semaphore);
}

int fcntl(int descriptor, int command, ...)
{
    NEXT(fcntl);
    va_list arguments;
    va_start(arguments, command);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    const bool locks = command == F_SETLK || command == F_SETLKW || command == F_GETLK;
    const char *name = command == F_GETLK ? "F_GETLK" : "F_SETLK";
    return locks && refused({name, "lock", descriptor}, CALLER) ? -1 : next_call(descriptor, command, argument);
}

// Transfers through the kernel's queue count as reads and writes when they are submitted; a cut one is a short one.
long syscall(long number, ...) noexcept
{
    NEXT(syscall);
    va_list list;
    va_start(list, number);
    long given[6];
    for (long &each : given) each = va_arg(list, long);
    va_end(list);
    const auto call = [&] { return next_call(number, given[0], given[1], given[2], given[3], given[4], given[5]); };
    if (number == SYS_io_setup) return refused({"io_setup", "queue"}, CALLER) ? -1 : call();
    if (number == SYS_io_getevents) return refused({"io_getevents", "queue"}, CALLER) ? -1 : call();
    if (number == SYS_io_cancel) return refused({"io_cancel", "queue"}, CALLER) ? -1 : call();
    if (number != SYS_io_submit) return call();
    iocb *const control = reinterpret_cast<iocb **>(given[2])[0];
    const iovec piece{reinterpret_cast<void *>(control->aio_buf), control->aio_nbytes};
    const char *family = control->aio_lio_opcode == IOCB_CMD_PWRITE ? "write" : "read";
    const ssize_t submitted = transferred({"io_submit",
                                           family,
                                           static_cast<int>(control->aio_fildes),
                                           static_cast<uint64_t>(control->aio_offset),
                                           0,
                                           {&piece, 1}},
                                          CALLER, [&](std::span<const iovec> some) {
                                              control->aio_nbytes = some[0].iov_len;
                                              return call() == 1 ? static_cast<ssize_t>(some[0].iov_len) : -1;
                                          });
    return submitted >= 0 ? 1 : -1;
}

void *malloc(size_t bytes) noexcept
{
    NEXT_ALLOCATOR(malloc);
    return refused({"malloc", "memory"}, CALLER) ? nullptr : next_call(bytes);
}

void *calloc(size_t count, size_t bytes) noexcept
{
    NEXT_ALLOCATOR(calloc);
    return refused({"calloc", "memory"}, CALLER) ? nullptr : next_call(count, bytes);
}

void *realloc(void *area, size_t bytes) noexcept
{
    NEXT_ALLOCATOR(realloc);
    return refused({"realloc", "memory"}, CALLER) ? nullptr : next_call(area, bytes);
}

void *aligned_alloc(size_t alignment, size_t bytes) noexcept
{
    NEXT_ALLOCATOR(aligned_alloc);
    return refused({"aligned_alloc", "memory"}, CALLER) ? nullptr : next_call(alignment, bytes);
}

int posix_memalign(void **area, size_t alignment, size_t bytes) noexcept
{
    NEXT_ALLOCATOR(posix_memalign);
    return refused({"posix_memalign", "memory"}, CALLER) ? errno : next_call(area, alignment, bytes);
}

} // extern "C"
