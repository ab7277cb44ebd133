// The registry behind registry.h. May call lock/ and util/; never takes its mutex while the lock mutex is held.
#include "file/registry.h"

#include "lock/lock.h"
#include "util/errors.h"
#include "util/process.h"
#include "util/scope_guard.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct open_descriptor {
    int descriptor;
    int access;  // O_ACCMODE and O_DIRECT of its open
    bool parked; // no handle uses it
};

} // namespace

struct vfs_registry_entry : shared_file_state {
    uint32_t read_only_count, read_write_count;
    vfs_registry_entry *next, *previous;
    const char *name; // path of the handle that created the entry; for dumps while that handle is open
    dev_t device;
    ino_t inode;
    uint32_t generation;          // process_generation() of the process that made the entry
    open_descriptor *descriptors; // owned: all of the file's, with room for every handle's
    uint32_t descriptor_count, descriptor_room;
    size_t name_length;
    char *key_name; // the resolved path, NUL-terminated, behind this structure in the same allocation
};

namespace {

pthread_mutex_t registry_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_once_t prepared = PTHREAD_ONCE_INIT;
vfs_registry_entry *registry; // head

constexpr int access_bits = O_ACCMODE | O_DIRECT;

void before_fork()
{
    pthread_mutex_lock(&registry_mutex);
}
void after_fork()
{
    pthread_mutex_unlock(&registry_mutex);
}
void prepare()
{
    lock_watch_forks();
    pthread_atfork(before_fork, after_fork, after_fork);
}

vfs_registry_entry *entry_of(const file_state *file)
{
    return static_cast<vfs_registry_entry *>(file->shared);
}

// Entries that a forked child inherited are passed over: they stand for its parent's handles and locks.
vfs_registry_entry *find_entry(dev_t device, ino_t inode, const registry_held &)
{
    vfs_registry_entry *entry = registry;
    while (entry != nullptr &&
           (entry->device != device || entry->inode != inode || entry->generation != process_generation()))
        entry = entry->next;
    return entry;
}

vfs_registry_entry *find_path(const char *path, const registry_held &held)
{
    struct stat status;
    return stat(path, &status) == 0 ? find_entry(status.st_dev, status.st_ino, held) : nullptr;
}

// The path that the warnings name: canonical for a regular file. -1: it cannot be found out.
int key_name_of(const file_state *file, bool regular, char (&name)[PATH_MAX + 1])
{
    if (regular && realpath(file->path, name) != nullptr) return 0;
    if (regular && errno != ENOENT && errno != EACCES) return -1;
    std::snprintf(name, sizeof name, "%s", file->path);
    return 0;
}

vfs_registry_entry *entry_create(const file_state *file, const char *key_name, const struct stat &status)
{
    const size_t length = std::strlen(key_name);
    auto *entry = static_cast<vfs_registry_entry *>(std::calloc(1, sizeof(vfs_registry_entry) + length + 1));
    if (entry == nullptr) return nullptr;
    entry->key_name = reinterpret_cast<char *>(entry + 1);
    std::memcpy(entry->key_name, key_name, length + 1);
    entry->name_length = length;
    entry->name = file->path;
    entry->device = status.st_dev;
    entry->inode = status.st_ino;
    entry->generation = process_generation();
    return entry;
}

void entry_link(vfs_registry_entry *entry)
{
    entry->next = registry;
    if (registry != nullptr) registry->previous = entry;
    registry = entry;
}

void entry_free(vfs_registry_entry *entry)
{
    (entry->previous != nullptr ? entry->previous->next : registry) = entry->next;
    if (entry->next != nullptr) entry->next->previous = entry->previous;
    lock_table_free(entry->lock_table);
    std::free(entry->descriptors);
    std::free(entry);
}

// Room for one more is made before it is needed: a descriptor that could not be parked would have to be closed.
bool descriptors_reserve(vfs_registry_entry *entry)
{
    if (entry->descriptor_count < entry->descriptor_room) return true;
    const uint32_t room = entry->descriptor_room + 8;
    void *moved = std::realloc(entry->descriptors, room * sizeof(open_descriptor));
    if (moved == nullptr) return false;
    entry->descriptors = static_cast<open_descriptor *>(moved);
    entry->descriptor_room = room;
    return true;
}

// By the descriptor itself where it says so: the flags that open was called with may have been changed since.
int access_of(int descriptor)
{
    const int flags = fcntl(descriptor, F_GETFL);
    return flags == -1 ? -1 : flags & access_bits;
}

bool names_file(int descriptor, const vfs_registry_entry *entry)
{
    struct stat status;
    return fstat(descriptor, &status) == 0 && status.st_dev == entry->device && status.st_ino == entry->inode;
}

// After EINTR and its like the number may be free already, and another thread's: it is closed again only while it
// still names this file.
int close_descriptor(int descriptor, const vfs_registry_entry *entry)
{
    int result = close(descriptor);
    for (int tries = 0; result == -1 && tries < 16; ++tries) {
        if (errno != EINTR && errno != EAGAIN && errno != EINPROGRESS && errno != ETIMEDOUT) return -1;
        if (!names_file(descriptor, entry)) return 0;
        result = close(descriptor);
        if (result == -1 && errno == EBADF) return 0;
    }
    return result;
}

void close_reporting(int descriptor, const vfs_registry_entry *entry, file_state *file)
{
    if (descriptor < 0) return;
    const int result = close_descriptor(descriptor, entry);
    if (result == 0) return;
    const int cause = errno;
    std::fprintf(stderr, "close rc %d errno %d\n", result, cause);
    store_error(file, cause);
}

// The handle gives up its descriptor while other handles of the file remain.
void park(vfs_registry_entry *entry, file_state *file)
{
    for (uint32_t i = 0; i < entry->descriptor_count; ++i) {
        if (entry->descriptors[i].descriptor != file->fd) continue;
        if (is_regular(file)) {
            entry->descriptors[i].parked = true;
            entry->descriptors[i].access = access_of(file->fd); // O_DIRECT may have been given up meanwhile
        } else {
            entry->descriptors[i] = entry->descriptors[--entry->descriptor_count];
            close_reporting(file->fd, entry, file);
        }
        break;
    }
    file->fd = -1;
}

void close_all(vfs_registry_entry *entry, file_state *file)
{
    for (uint32_t i = 0; i < entry->descriptor_count; ++i)
        close_reporting(entry->descriptors[i].descriptor, entry, file);
    file->fd = -1;
}

void warn(const vfs_registry_entry *entry)
{
    const long all = entry->handles, readers = entry->read_only_count, writers = entry->read_write_count;
    if (readers != 0 && writers != 0)
        std::fprintf(stderr,
                     "Warning:  File %s opened multiple times, in mixed modes(%ld: r/o %ld, r/w %ld), "
                     "results are unpredictable!\n",
                     entry->key_name, all, readers, writers);
    if (writers >= 2)
        std::fprintf(stderr,
                     "Warning:  File %s opened multiple times in write mode(%ld: r/o %ld, r/w %ld), "
                     "corruption is likely!\n",
                     entry->key_name, all, readers, writers);
}

void take_snapshot(usage_snapshot *snapshot)
{
    if (snapshot == nullptr) return;
    (void)getrusage(RUSAGE_SELF, &snapshot->usage);
    snapshot->ticks = times(&snapshot->times);
}

uint32_t &count_of_sort(vfs_registry_entry *entry, const file_state *file)
{
    return is_read_only(file) ? entry->read_only_count : entry->read_write_count;
}

int open_above_standard(const char *path, int open_flags, mode_t mode)
{
    // A data file on descriptor 2 would receive the program's messages. The gaps are filled before the file is opened,
    // because moving it up afterwards would close a descriptor of it.
    int fillers[3];
    int count = 0;
    for (int standard = 0; standard <= 2; ++standard) {
        if (fcntl(standard, F_GETFD) != -1) continue;
        const int filler = open("/dev/null", O_RDWR | O_CLOEXEC);
        if (filler >= 0) fillers[count++] = filler;
    }
    const int descriptor = open(path, open_flags | O_CLOEXEC, mode);
    const int cause = errno;
    while (count > 0) close(fillers[--count]);
    errno = cause;
    return descriptor;
}

} // namespace

registry_held::registry_held()
{
    pthread_once(&prepared, prepare);
    error_ = pthread_mutex_lock(&registry_mutex);
}
registry_held::~registry_held()
{
    if (error_ == 0) pthread_mutex_unlock(&registry_mutex);
}

int registry_take_descriptor(const char *path, int open_flags)
{
    if ((open_flags & O_CREAT) != 0 && (open_flags & O_EXCL) != 0) return fail(EEXIST);
    const registry_held held;
    if (held.error() != 0) return fail(held.error());
    // Looked up and taken under the mutex: the entry cannot go in between, and its descriptors name its inode.
    vfs_registry_entry *entry = find_path(path, held);
    for (uint32_t i = 0; entry != nullptr && i < entry->descriptor_count; ++i) {
        open_descriptor &candidate = entry->descriptors[i];
        if (!candidate.parked || candidate.access != (open_flags & access_bits)) continue;
        const int descriptor = candidate.descriptor;
        candidate = entry->descriptors[--entry->descriptor_count];
        return descriptor;
    }
    return fail(ENOENT);
}

int registry_open(const char *path, int open_flags, mode_t mode, bool *taken)
{
    const int parked = registry_take_descriptor(path, open_flags);
    if (taken != nullptr) *taken = parked != -1;
    return parked != -1 ? parked : open_above_standard(path, open_flags, mode);
}

int registry_open_writable(const file_state *file)
{
    char name[32];
    std::snprintf(name, sizeof name, "/proc/self/fd/%d", file->fd);
    return registry_open(name, O_RDWR, 0);
}

void registry_discard(int descriptor)
{
    const scope_guard keep_errno{[] {}};
    const registry_held held;
    struct stat status;
    if (fstat(descriptor, &status) == 0) {
        vfs_registry_entry *entry = find_entry(status.st_dev, status.st_ino, held);
        if (entry != nullptr && S_ISREG(status.st_mode)) {
            // Without room the descriptor stays open: closing it would cost every lock on the file.
            if (descriptors_reserve(entry))
                entry->descriptors[entry->descriptor_count++] = {descriptor, access_of(descriptor), true};
            return;
        }
    }
    close(descriptor);
}

int registry_add(file_state *file, usage_snapshot *opened)
{
    if (process_generation_watch() == -1) return -1;
    struct stat status;
    char key_name[PATH_MAX + 1];
    if (fstat(file->fd, &status) == -1 || key_name_of(file, S_ISREG(status.st_mode), key_name) == -1) return -1;
    const registry_held held;
    if (held.error() != 0) return fail(held.error());
    vfs_registry_entry *entry = find_entry(status.st_dev, status.st_ino, held);
    if (entry == nullptr) {
        entry = entry_create(file, key_name, status);
        if (entry == nullptr) return fail(ENOMEM);
        entry_link(entry);
    }
    if (!descriptors_reserve(entry)) {
        if (entry->handles == 0) entry_free(entry);
        return fail(ENOMEM);
    }
    entry->descriptors[entry->descriptor_count++] = {file->fd, access_of(file->fd), false};
    __atomic_add_fetch(&entry->handles, 1, __ATOMIC_RELAXED);
    ++count_of_sort(entry, file);
    if (entry->handles >= 2) warn(entry);
    file->shared = entry;
    file->opener_pid = getpid();
    file->opener_generation = process_generation();
    take_snapshot(opened);
    return 0;
}

int registry_release(file_state *file, usage_snapshot *closed)
{
    vfs_registry_entry *entry = entry_of(file);
    if (entry == nullptr) return fail(ENOENT);
    const bool inherited = registry_inherited(file);
    if (!inherited) lock_abandon(file);
    const registry_held held;
    if (held.error() != 0) return fail(held.error());
    if (entry->handles == 0) return fail(EINVAL);
    __atomic_sub_fetch(&entry->handles, 1, __ATOMIC_RELAXED);
    --count_of_sort(entry, file);
    file->shared = nullptr;
    const int others = static_cast<int>(entry->handles);
    int result = 0;
    if (inherited) { // the descriptors are left alone: the child may have opened the file anew and hold locks on it
        file->fd = -1;
        if (others == 0) entry_free(entry);
    } else if (others > 0) {
        park(entry, file);
        if (entry->name == file->path) entry->name = entry->key_name;
        if (lock_count(entry) != 0) result = others;
    } else {
        close_all(entry, file);
        entry_free(entry);
    }
    take_snapshot(closed);
    return result;
}

bool registry_peek(const char *path, void *into, size_t bytes, ssize_t *result)
{
    constexpr size_t most = 4096;
    alignas(most) std::byte block[most]; // direct I/O asks for an aligned area
    const registry_held held;
    const vfs_registry_entry *entry = find_path(path, held);
    if (entry == nullptr) return false;
    *result = -1;
    errno = EBADF;
    for (uint32_t i = 0; i < entry->descriptor_count; ++i) {
        const open_descriptor &candidate = entry->descriptors[i];
        if ((candidate.access & O_ACCMODE) == O_WRONLY) continue;
        uint64_t retries = 0;
        *result = retry_call(&retries, [&] { return pread(candidate.descriptor, block, most, 0); });
        break;
    }
    if (*result > static_cast<ssize_t>(bytes)) *result = static_cast<ssize_t>(bytes);
    if (*result > 0) std::memcpy(into, block, static_cast<size_t>(*result));
    return true;
}

uint32_t registry_handles(const file_state *file)
{
    const registry_held held;
    return file->shared != nullptr ? entry_of(file)->handles : 0;
}

bool registry_inherited(const file_state *file)
{
    return file->opener_generation != process_generation();
}
