// See open.h. The steps, in order: the handle and what the host said; what kind of file it is; the descriptor; the
// locks, before a byte or a size of the file is believed; the header; the Data cache; where the file stands.
#include "file/open.h"

#include "file/registry.h"
#include "io/file_calls.h"
#include "lock/lock.h"
#include "record/keys.h"
#include "record/request.h"
#include "store/header.h"
#include "store/movement.h"
#include "store/redo.h"
#include "util/errors.h"
#include "util/process.h"
#include "util/scope_guard.h"

#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint64_t random_block_bytes = 32768;  // Data buffers of random and dynamic access
constexpr uint64_t budgeted_block_bytes = 8192; // the least of them where VFS_CACHE_SIZE is set
constexpr uint64_t shared_block_bytes = 4096;   // Data buffers of shared update handles
constexpr uint32_t shared_block_count = 64;
constexpr uint32_t random_block_count = 16;
constexpr uint64_t largest_block_bytes = 1 << 20; // of Data, whatever the header asks for
constexpr int pipe_bytes = 1 << 20;

bool wants_to_write(uint32_t flags)
{
    return (flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC | O_APPEND)) != 0;
}

// ---- The handle and what the host said ----

vfs_file *handle_allocate(vfs_open_block *block, const open_services &services, const open_settings &settings)
{
    const char *logical = block->logical_name != nullptr ? block->logical_name : "";
    const size_t logical_bytes = std::strlen(logical) + 1, path_bytes = std::strlen(block->path) + 1;
    auto *file = static_cast<vfs_file *>(std::calloc(1, sizeof(vfs_file) + logical_bytes + path_bytes));
    if (file == nullptr) return nullptr;
    std::memcpy(file->tag, "VFS", 4);
    file->stamp = VFS_STAMP;
    block->driver_out = services.driver;
    file->host = file->block = *block;
    auto *names = reinterpret_cast<char *>(file + 1);
    std::memcpy(names, logical, logical_bytes);
    std::memcpy(names + logical_bytes, block->path, path_bytes);
    file->logical_name = file->block.logical_name = names;
    file->path = file->block.path = names + logical_bytes;
    file->block.stamp = VFS_STAMP;
    file->block.driver = services.driver;
    file->block.handle = file;
    file->fd = -1;
    file->settings = settings;
    file->debug = settings.debug;
    file->access_mode = block->access_mode;
    file->single_record_lock.l_type = F_UNLCK;
    file->file_lock_state = file_lock_none;
    file->opener = pthread_self();
    file->opener_pid = getpid();
    file->opener_generation = process_generation();
    file->block_lock = file->current_key = none;
    file->borrow_writable = registry_open_writable;
    file->give_back_writable = registry_discard;
    return file;
}

int take_numbers(vfs_file *file)
{
    const vfs_open_block &block = file->block;
    if (block.min_record_length < 0 || block.max_record_length < block.min_record_length ||
        block.max_record_length > INT64_MAX / 4)
        return fail(EINVAL);
    file->maximum_record = static_cast<uint64_t>(block.max_record_length);
    file->minimum_record = static_cast<uint64_t>(block.min_record_length);
    file->physical_organization = block.organization == 1 ? 1 : 3;
    file->logical_organization = block.logical_organization;
    file->record_format = block.record_format;
    file->highest_rrn = none;
    // Direct I/O is the settings' to decide: under it every transfer has to be prepared for.
    const uint32_t flags = block.open_flags & ~static_cast<uint32_t>(O_DIRECT);
    file->open_flags = flags;
    if (!wants_to_write(flags)) file->mode_flags |= mode_read_only;
    if ((flags & (O_WRONLY | O_APPEND)) == 0) file->mode_flags |= mode_readable;
    if ((flags & O_WRONLY) != 0) file->mode_flags |= mode_write_only;
    if ((block.options & VFS_OPT_REVERSED) != 0) file->mode_flags |= mode_reversed;
    return 0;
}

void print_keys(const vfs_key_desc *keys)
{
    std::fprintf(stderr, "Key space %" PRId64 "  count %" PRId64 "  primary key %" PRId64 "%s\n", keys->total_size,
                 keys->count, keys->primary_key, (keys->flags & 1) != 0 ? " Duplicates" : "");
    const auto *entry = reinterpret_cast<const vfs_key_desc_entry *>(keys + 1);
    for (int k = 0; k < keys->count; ++k, ++entry) {
        std::fprintf(stderr, "key %d:  Length=%" PRId64 "  Count=%" PRId64 "%s%s%s\n", k, entry->length,
                     entry->part_count, (entry->flags & VFS_KEY_PRIMARY) != 0 ? "  Primary" : "",
                     (entry->flags & VFS_KEY_DUPLICATES) != 0 ? "  Duplicates" : "",
                     (entry->flags & VFS_KEY_MULTI_PART) != 0 ? "  Multi-part" : "");
        const auto *part =
            reinterpret_cast<const vfs_key_part *>(reinterpret_cast<const char *>(keys) + entry->part_list);
        int64_t total = 0;
        for (int j = 0; j < entry->part_count; ++j, ++part) {
            total += part->length;
            std::fprintf(stderr, "\t%d:  Offset=%" PRId64 "  len=%" PRId64 "  total=%" PRId64 "\n", j, part->offset,
                         part->length, total);
        }
    }
    std::fprintf(stderr, "Maximal key extent = %" PRId64 "\n", keys->max_extent);
}

int take_keys(vfs_file *file)
{
    const vfs_key_desc *given = file->host.keys;
    const vfs_key_desc *source = default_key_description();
    auto bytes = static_cast<size_t>(source->total_size);
    if (given != nullptr) {
        if (given->total_size < static_cast<int64_t>(sizeof *given) ||
            given->total_size > static_cast<int64_t>(metadata_maximum))
            return fail(EINVAL);
        bytes = static_cast<size_t>(given->total_size);
        if (file->logical_organization > 2 && key_description_check(given, bytes) == -1) return -1;
        source = given;
    } else {
        file->setup_flags |= setup_default_keys;
    }
    file->keys = static_cast<vfs_key_desc *>(std::aligned_alloc(16, round_up(bytes, 16)));
    if (file->keys == nullptr) return fail(ENOMEM);
    std::memcpy(file->keys, source, bytes);
    file->block.keys = file->keys;
    file->key_count = file->indexed() ? static_cast<uint64_t>(file->keys->count) : 1;
    file->primary_key = file->indexed() ? static_cast<uint64_t>(file->keys->primary_key) : 0;
    if (file->debug && given != nullptr && key_description_check(given, bytes) == 0) print_keys(given);
    return 0;
}

int take_locking(vfs_file *file, const open_services &services)
{
    vfs_lock_request &defaults = file->lock_defaults;
    if (file->host.lock_defaults != nullptr) defaults = *file->host.lock_defaults;
    if (defaults.share_mode == VFS_SHARE_DEFAULT) {
        defaults.share_mode = is_read_only(file) ? VFS_SHARE_READ : VFS_SHARE_NONE;
        defaults.lock_mode = VFS_LOCK_FILE;
        defaults.wait_mode = VFS_WAIT_KERNEL;
    }
    services.apply_lock_choice(file->settings, is_read_only(file), &defaults);
    file->block.lock_defaults = &file->lock_defaults;
    if (defaults.lock_mode > VFS_LOCK_RECORD) return fail(EINVAL);
    if (defaults.lock_mode == 0 || defaults.lock_mode == 2) defaults.lock_mode = VFS_LOCK_NONE;
    return 0;
}

void print_facts(const vfs_file *file)
{
    if (!file->debug) return;
    static constexpr const char *shares[] = {"default", "none", "ro", "all"};
    const uint32_t share = file->lock_defaults.share_mode, lock = file->lock_defaults.lock_mode;
    std::fprintf(stderr, "phy=%d  log=%d  access=%d  recfm=%d  block=%ld  recl=%ld %ld share=%s lock=%s %s\n",
                 static_cast<int>(file->block.organization), static_cast<int>(file->block.logical_organization),
                 static_cast<int>(file->access_mode), static_cast<int>(file->block.record_format),
                 static_cast<long>(file->block.block_size), static_cast<long>(file->block.min_record_length),
                 static_cast<long>(file->block.max_record_length), share <= 3 ? shares[share] : "default",
                 lock == VFS_LOCK_RECORD ? "record"
                 : lock == VFS_LOCK_AUTO ? "auto"
                 : lock == VFS_LOCK_FILE ? "file"
                                         : "none",
                 is_read_only(file) ? "read" : "write");
}

// ---- What kind of file it is ----

bool streams_allowed(const vfs_file *file)
{
    return file->block.logical_organization == 1 && file->access_mode == VFS_ACCESS_SEQUENTIAL &&
           file->block.organization == 1 && file->lock_defaults.lock_mode != VFS_LOCK_RECORD &&
           (file->mode_flags & mode_reversed) == 0;
}

int treat_as_stream(vfs_file *file, uint8_t kind)
{
    if (!streams_allowed(file)) return fail(EBADF);
    file->kind_flags |= kind;
    file->unbuffered_stream = true;
    file->lock_defaults.share_mode = VFS_SHARE_ALL;
    file->lock_defaults.lock_mode = VFS_LOCK_NONE;
    file->settings.memory_mapping = file->settings.direct_io = false;
    return 0;
}

int treat_as_device(vfs_file *file)
{
    if (file->block.organization != 1 || file->block.logical_organization == 3 ||
        file->access_mode != VFS_ACCESS_SEQUENTIAL || (file->open_flags & O_ACCMODE) != O_WRONLY)
        return fail(EBADF);
    file->kind_flags |= kind_character;
    file->lock_defaults.share_mode = VFS_SHARE_ALL;
    file->lock_defaults.lock_mode = VFS_LOCK_NONE;
    file->settings.memory_mapping = file->settings.direct_io = false;
    return 0;
}

int refuse(vfs_file *file, int error)
{
    store_error(file, error);
    return fail(error);
}

int classify(vfs_file *file)
{
    struct stat facts {};
    facts.st_mode = S_IFREG;
    if (stat(file->path, &facts) == -1) {
        if (errno != ENOENT || (file->open_flags & (O_CREAT | O_TRUNC)) == 0) return refuse(file, errno);
        facts.st_mode = S_IFREG;
    }
    const uint64_t options = file->host.options;
    if (S_ISFIFO(facts.st_mode)) {
        const uint8_t kind = is_read_only(file) ? kind_fifo | kind_fifo_read_only : kind_fifo;
        file->open_flags &= ~static_cast<uint32_t>(O_APPEND);
        return treat_as_stream(file, kind);
    }
    if (S_ISSOCK(facts.st_mode) || (options & VFS_OPT_SOCKET) != 0) return treat_as_stream(file, kind_socket);
    if (S_ISCHR(facts.st_mode)) return treat_as_device(file);
    if ((options & VFS_OPT_STREAM) != 0) {
        const vfs_lock_request &locks = file->lock_defaults;
        if (locks.share_mode != VFS_SHARE_ALL || locks.lock_mode != VFS_LOCK_NONE) return fail(EBADF);
        return treat_as_stream(file, kind_stream);
    }
    if (S_ISDIR(facts.st_mode)) return refuse(file, EISDIR);
    if (!S_ISREG(facts.st_mode)) return refuse(file, EBADF);
    file->kind_flags |= kind_regular;
    file->size_at_open = static_cast<uint64_t>(facts.st_size);
    return 0;
}

// A reader of a small flat file has all of it in one block: nothing is left to read ahead or to be told the system about.
bool served_by_one_buffer(const vfs_file *file)
{
    return is_regular(file) && file->size_at_open != 0 && file->size_at_open <= file->settings.data_size &&
           is_read_only(file) && file->block.organization == 1;
}

bool creates(const vfs_file *file)
{
    return (file->open_flags & O_TRUNC) != 0 || ((file->open_flags & O_CREAT) != 0 && file->size_at_open == 0);
}

// What can be refused is refused before the file is touched.
int check_creation(const vfs_file *file)
{
    if (!is_regular(file) || !creates(file)) return 0;
    if (file->physical_organization == 1 && file->logical_organization == 3) return fail(EINVAL);
    if (file->physical_organization == 1) return 0;
    return header_fits(file);
}

void choose_engines(vfs_file *file)
{
    if (!is_regular(file)) return;
    vfs_lock_request &locks = file->lock_defaults;
    if (locks.share_mode == VFS_SHARE_NONE || locks.share_mode == VFS_SHARE_READ) locks.lock_mode = VFS_LOCK_FILE;
    open_settings &settings = file->settings;
    if (is_shared(file) && !is_read_only(file)) settings.direct_io = false;
    if (served_by_one_buffer(file)) settings.caching = settings.direct_io = settings.asynchronous_io = false;
    if (settings.direct_io) {
        file->mode_flags |= mode_direct;
        file->open_flags |= O_DIRECT;
        settings.caching = false;
        if (settings.data_count == 4 && (file->mode_flags & mode_write_only) != 0) { // one more than are under way
            settings.data_count = 5;
            settings.readahead = settings.writebehind = 4;
        }
    }
    // Sharers write and read between two locks: nothing may be under way when they give one up.
    if (!is_shared(file) && settings.asynchronous_io) file->mode_flags |= mode_asynchronous;
    if (!is_shared(file) && settings.io_threads == tri_state::on) file->mode_flags |= mode_threads;
    if (!settings.caching && file->debug) std::fprintf(stderr, "No caching...\n");
    file->preallocates = !is_shared(file) && !is_read_only(file);
}

// ---- The descriptor ----

struct open_attempts {
    uint64_t failed = 0; // that may be waited out; not those after which open is tried in another way
    bool announced = false;
    timespec began{};

    open_attempts() { clock_gettime(CLOCK_MONOTONIC, &began); }
};

// Whether a conflict may be waited out once more; sleeps if so.
bool pause_before_retry(const vfs_file *file, open_attempts *attempts)
{
    const vfs_lock_request &policy = file->lock_defaults;
    if (++attempts->failed == 1) {
        sched_yield();
        return true;
    }
    const bool waits = policy.wait_mode == VFS_WAIT_KERNEL;
    if (!waits && attempts->failed > policy.retry_count) return false;
    if (waits && policy.retry_count != 0 && attempts->failed > policy.retry_count) return false;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (waits && policy.retry_count == 0 && now.tv_sec - attempts->began.tv_sec >= 30) return false;
    timespec rest{static_cast<time_t>(policy.sleep), policy.sleep == 0 && waits ? 10'000'000 : 0};
    while (rest.tv_sec + rest.tv_nsec != 0 && nanosleep(&rest, &rest) == -1 && errno == EINTR) {}
    return true;
}

// After a failed open(2): true to try again with the flags as they are now.
bool try_again(vfs_file *file, const open_services &services, int error, int *flags, open_attempts *attempts)
{
    const bool waits = file->lock_defaults.wait_mode == VFS_WAIT_KERNEL;
    switch (error) {
    case EINVAL:
        if ((*flags & O_DIRECT) == 0) return false;
        *flags &= ~O_DIRECT; // this file system has no direct I/O
        file->open_flags &= ~static_cast<uint32_t>(O_DIRECT);
        file->mode_flags = static_cast<uint8_t>(file->mode_flags & ~mode_direct);
        return true;
    case EACCES: return (attempts->failed == 0 || !waits) && pause_before_retry(file, attempts);
    case EINTR:
    case EAGAIN:
    case ETIMEDOUT: return pause_before_retry(file, attempts);
    case ETXTBSY:
        if (!waits) return false;
        if (!attempts->announced && services.delays_announced()) {
            lock_note(note_delaying, file);
            attempts->announced = true;
        }
        return pause_before_retry(file, attempts);
    case EPERM:
        if ((*flags & O_NOATIME) == 0) return false;
        *flags &= ~O_NOATIME;
        return true;
    case ENXIO:
        if ((*flags & O_ACCMODE) != O_WRONLY) return false;
        *flags = (*flags & ~O_ACCMODE) | O_RDWR;
        return true;
    default: return false;
    }
}

// Failures that are neither waited out nor met in another way.
bool is_unexpected(int error)
{
    switch (error) {
    case EINTR:
    case EAGAIN:
    case ETIMEDOUT:
    case EACCES:
    case EINVAL:
    case ETXTBSY: return false;
    default: return true;
    }
}

int system_flags(const vfs_file *file)
{
    constexpr uint32_t never = O_APPEND | O_TRUNC; // the driver places records, and makes files anew under its locks
    auto flags = static_cast<int>(file->open_flags & ~never);
    const bool device = (file->kind_flags & kind_character) != 0;
    if (!is_read_only(file) && !device && !file->unbuffered_stream) flags = (flags & ~O_ACCMODE) | O_RDWR;
    return flags | O_NONBLOCK | O_NOATIME | O_CLOEXEC;
}

int open_descriptor(vfs_file *file, const open_services &services)
{
    int flags = system_flags(file);
    open_attempts attempts;
    for (;;) {
        file->fd = registry_open(file->path, flags, 0666);
        if (file->fd != -1) break;
        const int error = errno;
        if (try_again(file, services, error, &flags, &attempts)) continue;
        if (file->debug && is_unexpected(error)) std::fprintf(stderr, "open errno %d\n", error);
        return refuse(file, error);
    }
    file->open_flags |= O_NONBLOCK;
    if (!is_read_only(file)) file->open_flags = (file->open_flags & ~static_cast<uint32_t>(O_ACCMODE)) | O_RDWR;
    if (attempts.announced) lock_note(note_resuming, file);
    return 0;
}

// The path may have come to name another kind of file than the one that was looked at.
int check_kind(vfs_file *file)
{
    struct stat facts {};
    if (fstat(file->fd, &facts) == -1) return -1;
    if (is_regular(file) && !S_ISREG(facts.st_mode)) return refuse(file, S_ISDIR(facts.st_mode) ? EISDIR : EBADF);
    if ((file->kind_flags & kind_character) == 0) return 0;
    // A terminal has no positions: what is written at one would fail later.
    if (!S_ISCHR(facts.st_mode) || lseek(file->fd, 0, SEEK_CUR) == -1) return refuse(file, EBADF);
    return 0;
}

int prepare_stream(const vfs_file *file)
{
    if ((file->kind_flags & (kind_fifo | kind_socket)) == 0) return 0;
    struct sigaction action {};
    if (sigaction(SIGPIPE, nullptr, &action) == -1) return -1;
    if (action.sa_handler != SIG_IGN) {
        action = {};
        action.sa_handler = SIG_IGN;
        if (sigaction(SIGPIPE, &action, nullptr) == -1) return -1;
    }
    if ((file->kind_flags & kind_fifo) != 0 && fcntl(file->fd, F_GETPIPE_SZ) < pipe_bytes)
        fcntl(file->fd, F_SETPIPE_SZ, pipe_bytes);
    return 0;
}

// ---- The file's locks ----

int take_file_locks(vfs_file *file)
{
    const vfs_lock_request &locks = file->lock_defaults;
    const lock_target target{.file = file, .counted = &file->data, .write = !is_read_only(file)};
    lock_target exclusive = target, whole = target;
    exclusive.kind = lock_exclusive;
    whole.kind = lock_file;
    if (locks.lock_mode == VFS_LOCK_NONE) return 0;
    if ((locks.share_mode == VFS_SHARE_NONE || locks.lock_mode != VFS_LOCK_FILE) && lock_set(exclusive) == -1)
        return refuse(file, errno);
    if (locks.lock_mode == VFS_LOCK_FILE && lock_set(whole) == -1) return refuse(file, errno);
    return 0;
}

bool locks_nothing(const vfs_file *file)
{
    return file->lock_defaults.lock_mode == VFS_LOCK_NONE;
}

// A shared open runs under the metadata lock; making a header takes the whole file instead.
lock_target open_bracket(vfs_file *file, bool making, bool flat)
{
    lock_target target{.file = file,
                       .counted = &file->meta,
                       .kind = lock_metadata,
                       .write = !is_read_only(file),
                       .start = flat ? 0 : metadata_byte,
                       .length = flat ? key_entry_bytes : 1};
    target.opening = !making;
    if (making) target.kind = lock_file;
    return target;
}

int size_under_locks(vfs_file *file)
{
    if (!is_regular(file)) return 0;
    const int64_t size = file_size_now(file);
    if (size == -1) return -1;
    file->size_at_open = file->allocated_size = static_cast<uint64_t>(size);
    return 0;
}

// The range that brackets the file goes by what its header says, whatever this host takes it for.
bool is_flat(vfs_file *file)
{
    alignas(16) std::byte head[header_variable_part];
    const int64_t size = file_size_now(file);
    if (size < static_cast<int64_t>(sizeof head) || file_read_at(file, head, sizeof head, 0) != sizeof head ||
        header_check_fixed(head, static_cast<uint64_t>(size)) == -1)
        return file->physical_organization == 1;
    return image_get(std::span<const std::byte>(head), header_physical_organization) == 1;
}

// Locks what a shared open has to hold. Size and header were looked at before the lock was granted: they are looked
// at again, and when they call for another lock by now, it is taken instead.
int bracket_take(vfs_file *file, lock_target *bracket)
{
    for (;;) {
        const bool making = creates(file), flat = is_flat(file);
        *bracket = open_bracket(file, making, flat);
        if (lock_set(*bracket) == -1) return refuse(file, errno);
        scope_guard release{[&] { lock_clr(*bracket); }};
        if (size_under_locks(file) == -1) return -1;
        if (creates(file) == making && (making || is_flat(file) == flat)) {
            release.dismiss();
            return 0;
        }
    }
}

// ---- A commit that a killed process has left unfinished ----

bool commit_unfinished(vfs_file *file)
{
    alignas(16) std::byte head[header_variable_part];
    if (!is_regular(file) || creates(file) || file->size_at_open < sizeof head) return false;
    if (file_read_at(file, head, sizeof head, 0) != sizeof head) return false;
    return header_check_fixed(head, file->size_at_open) == 0 &&
           redo_pending(image_get(std::span<const std::byte>(head), header_state_word));
}

// Completes it under the lock that the handle holds, when that is one for writing; else the lock is given up meanwhile,
// because nobody may wait for a lock with another one on the file in hand. `held` is null for an unlocked handle.
int complete_commit(vfs_file *file, lock_target *held)
{
    if (held != nullptr && held->write) return redo_replay(file);
    if (held != nullptr && lock_clr(*held) == -1) return -1;
    lock_target target{.file = file, .counted = &file->data};
    if (held != nullptr) target = *held;
    if (redo_replay_under(file, target) == -1) return -1;
    if (is_shared(file)) return bracket_take(file, held);
    return held != nullptr ? lock_set(*held) : 0;
}

int commit_completed(vfs_file *file, lock_target *held)
{
    while (commit_unfinished(file))
        if (complete_commit(file, held) == -1 || size_under_locks(file) == -1) return refuse(file, errno);
    return 0;
}

void map_file(vfs_file *file)
{
    const bool mappable = file->settings.memory_mapping && file->lock_defaults.lock_mode <= VFS_LOCK_NONE &&
                          is_regular(file) && (file->mode_flags & mode_direct) == 0 && file->size_at_open != 0 &&
                          (file->host.open_flags & O_APPEND) == 0 && file->access_mode > VFS_ACCESS_SEQUENTIAL &&
                          !creates(file);
    if (!mappable) return;
    const int protection = is_read_only(file) ? PROT_READ : PROT_READ | PROT_WRITE;
    void *at = mmap(nullptr, file->size_at_open, protection, MAP_SHARED, file->fd, 0);
    if (at == MAP_FAILED) {
        if (file->debug) std::fprintf(stderr, "mmap() failed: %d - %s\n", errno, strerror(errno));
        return;
    }
    file->map_base = static_cast<std::byte *>(at);
    file->map_length = file->size_at_open;
    file->mode_flags = static_cast<uint8_t>((file->mode_flags & ~(mode_asynchronous | mode_threads)) | mode_mapped);
}

// ---- The Data cache, and where the file stands ----

// What the memory budget leaves to Data when every tree has its nodes in memory.
uint64_t data_budget(const vfs_file *file)
{
    uint64_t left = file->settings.cache_size;
    for (uint64_t k = 0; k < file->tree_count; ++k) {
        const uint64_t nodes = key_entry_get(file, k, key_entry_leaves) + key_entry_get(file, k, key_entry_branches);
        const uint64_t bytes = nodes * index_block_bytes; // no more than the file has
        left -= bytes < left ? bytes : left;
    }
    return left;
}

// A block is read for one record. Few buffers had better be large; with a budget there are many, and smaller ones that
// have room for two records cost less to read.
uint64_t random_block(const vfs_file *file)
{
    if (file->settings.cache_size == 0) return random_block_bytes;
    uint64_t bytes = budgeted_block_bytes;
    while (bytes < random_block_bytes && bytes < 2 * file->maximum_slot) bytes *= 2;
    return bytes;
}

void size_data_cache(vfs_file *file)
{
    vfs_cache &data = file->data;
    const open_settings &settings = file->settings;
    data.block_size = data_block_bytes;
    data.min = data.max = settings.data_count;
    data.readahead = settings.readahead;
    data.writebehind = settings.writebehind;
    const bool sequential = file->access_mode == VFS_ACCESS_SEQUENTIAL;
    if (file->data_block_size > data.block_size &&
        !(file->physically_sequential && sequential && file->key_count <= 1 && is_read_only(file)))
        data.block_size = file->data_block_size < largest_block_bytes ? file->data_block_size : largest_block_bytes;
    if (!sequential) {
        data.block_size = random_block(file);
        data.max = is_read_only(file)                         ? random_block_count
                   : settings.data_count < random_block_count ? settings.data_count
                                                              : random_block_count;
        data.min = data.max;
    }
    if (sequential && file->trees() && !file->physically_sequential) {
        // In key order such records lie anywhere: the same memory in smaller blocks reads a quarter for each of them.
        data.block_size = random_block_bytes;
        data.min = data.max = settings.data_count * static_cast<uint32_t>(data_block_bytes / random_block_bytes);
    }
    if (is_shared(file) && !is_read_only(file)) {
        data.block_size = shared_block_bytes;
        data.min = data.max = shared_block_count;
        data.readahead = data.writebehind = 0;
    } else if (served_by_one_buffer(file)) {
        data.min = data.max = 1;
        data.readahead = data.writebehind = 0;
    }
    if (const uint64_t budget = data_budget(file) / data.block_size; budget > data.max && !served_by_one_buffer(file))
        data.max = budget > UINT32_MAX / 2 ? UINT32_MAX / 2 : static_cast<uint32_t>(budget);
    data.block_mask = ~(data.block_size - 1);
    if ((file->kind_flags & kind_character) != 0) {
        data.min = data.max = 1;
        data.block_mask = none;
    }
}

void advise(vfs_file *file)
{
    if (!is_regular(file) || (file->mode_flags & mode_direct) != 0) return;
    const bool sequential = file->access_mode == VFS_ACCESS_SEQUENTIAL;
    const bool flat = file->block.organization == 1;
    if (file->map_base != nullptr) {
        posix_madvise(file->map_base, file->map_length, sequential ? POSIX_MADV_SEQUENTIAL : POSIX_MADV_RANDOM);
        return;
    }
    if (!sequential) {
        posix_fadvise(file->fd, 0, 0, POSIX_FADV_RANDOM);
        return;
    }
    if (flat && file->settings.caching) file->data.flags |= cache_drop_behind;
    if ((file->mode_flags & mode_reversed) != 0) return; // the system reads ahead the other way
    posix_fadvise(file->fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    if (flat) posix_fadvise(file->fd, 0, 0, POSIX_FADV_NOREUSE);
}

bool appends_only(const vfs_file *file)
{
    return (file->host.open_flags & O_WRONLY) != 0 && (file->host.open_flags & O_APPEND) != 0;
}

// What is read before it is asked for: the blocks in which a sequential program begins, when records lie in the order in
// which it wants them. An update in key order goes back and forth: it reads what it needs.
void plan_preread(vfs_file *file)
{
    vfs_cache &data = file->data;
    const bool updates = !is_read_only(file) && (file->mode_flags & mode_write_only) == 0;
    const bool in_order = file->access_mode == VFS_ACCESS_SEQUENTIAL && file->physically_sequential;
    if (!is_regular(file) || !in_order || (updates && file->trees())) data.readahead = 0;
    const bool unwanted = (file->host.options & VFS_OPT_NO_PREREAD) != 0;
    if (data.readahead == 0 || unwanted || file->end_of_file == file->data_start) return;
    data.preread_position = file->end_of_file;
    if ((file->mode_flags & mode_reversed) != 0) {
        data.preread_direction = preread_backward;
        data.preread_count = data.min;
    } else if (appends_only(file)) {
        data.preread_count = 1;
    } else if ((file->mode_flags & mode_write_only) == 0) {
        data.preread_position = file->data_start;
        data.preread_count = data.min;
    }
}

int open_data_cache(vfs_file *file)
{
    size_data_cache(file);
    plan_preread(file);
    file->data.rfd = file->data.wfd = file->fd;
    file->data.filesize = file->end_of_file;
    file->data.flags |= cache_zero_fill;
    if (file->data_block_size < file->data.block_size) file->data.flags |= cache_split_changes;
    if (file->preallocates && is_regular(file)) {
        file->data.flags |= cache_preallocates;
        file->data.state |= cache_fallocate_usable;
    }
    advise(file);
    return cache_init(&file->data);
}

int allocate_buffers(vfs_file *file)
{
    uint64_t longest = 0;
    for (uint64_t k = 0; k < file->key_count && file->indexed(); ++k)
        if (key_length_of(file, k) > longest) longest = key_length_of(file, k);
    file->key_buffer_bytes = round_up(longest + 16 > 264 ? longest + 16 : 264, 16);
    constexpr uint64_t buffers = 5;
    file->key_area = static_cast<std::byte *>(std::calloc(buffers, file->key_buffer_bytes));
    file->changed_keys = static_cast<uint8_t *>(std::calloc(file->key_count, 1));
    if (file->key_area == nullptr || file->changed_keys == nullptr) return fail(ENOMEM);
    const auto buffer = [&](uint64_t i) { return file->key_area + i * file->key_buffer_bytes; };
    file->last.key = buffer(0);
    file->position.key = buffer(1);
    file->current.key = buffer(1);
    file->sequence_key = buffer(2);
    file->scratch_key = buffer(3);
    file->old_key = buffer(4);
    if (!file->trees() && !file->fixed_length()) {
        file->checkpoints = static_cast<std::byte *>(std::calloc(1, checkpoint_bytes));
        if (file->checkpoints == nullptr) return fail(ENOMEM);
        store_u64(file->checkpoints, checkpoint_stride);
    }
    return 0;
}

// Before the first record, or after the last; the sequence of appended keys goes on from the file's high key.
void initial_position(vfs_file *file)
{
    static constexpr uint8_t forward[8] = {0, 4, 1, 0, 2, 3, 3, 1}, reversed[8] = {1, 0, 0, 4, 3, 1, 2, 3};
    const bool backwards = (file->mode_flags & mode_reversed) != 0;
    std::memcpy(file->direction, backwards ? reversed : forward, sizeof file->direction);
    const bool at_end = backwards || appends_only(file);

    vfs_request &last = file->last;
    last.key_length = file->indexed() ? key_length_of(file, 0) : 8; // key 0 is the key of reference to begin with
    last.mode = at_end ? VFS_POS_AFTER_LAST : VFS_POS_BEFORE_FIRST;
    last.record_offset = at_end ? file->end_of_file : file->data_start;
    last.stored_length = backwards ? file->maximum_slot : 0;
    last.rrn = at_end ? file->highest_rrn + 1 : none;
    last.record_state = state_unread;
    last.data_offset = last.node = last.item = last.stamp = none;
    void *current_key = file->current.key;
    file->current = last;
    file->current.key = current_key;
    last.mode = VFS_POS_UNDEFINED;
    last.record_offset = none;

    file_position &position = file->position;
    position.before[0] = position.after[0] = none;
    position_to_end(file, at_end ? position_end::last : position_end::first, 0);

    file->acquired_end = file->end_of_file;
    file->sequence_key_known = file->indexed() && file->records != 0;
    if (file->sequence_key_known)
        std::memcpy(file->sequence_key, high_key(file, file->primary_key),
                    key_entry_get(file, file->primary_key, key_entry_leaf_width));
}

void facts_from_header(vfs_file *file)
{
    file->block.organization = file->physical_organization;
    file->block.logical_organization = file->logical_organization;
    file->block.record_format = file->record_format;
    file->block.min_record_length = static_cast<int64_t>(file->minimum_record);
    file->block.max_record_length = static_cast<int64_t>(file->maximum_record);
    file->block.keys = file->keys;
    print_facts(file);
}

// A flat file of fixed slots knows its highest record number from its length.
void settle_highest(vfs_file *file)
{
    if (file->trees() || !file->fixed_length() || file->highest_rrn != none || file->maximum_record == 0) return;
    const uint64_t slots = (file->end_of_file - file->data_start) / file->maximum_slot;
    if (slots != 0) file->highest_rrn = slots - 1;
}

int set_up_store(vfs_file *file)
{
    file->meta.rfd = file->meta.wfd = file->fd;
    file->meta.flags |= cache_zero_fill;
    if (file->unbuffered_stream) return header_open(file); // refuses it
    lock_target bracket;
    lock_target whole{.file = file, .counted = &file->data, .kind = lock_file, .write = !is_read_only(file)};
    lock_target *held = is_shared(file) ? &bracket : locks_nothing(file) ? nullptr : &whole;
    if (is_shared(file) && bracket_take(file, &bracket) == -1) return -1;
    if (commit_completed(file, held) == -1) return -1;
    map_file(file);
    int result = header_open(file);
    if (result == 0) {
        facts_from_header(file);
        settle_highest(file);
        result = allocate_buffers(file);
    }
    if (result == 0 && (file->host.options & VFS_OPT_NO_IO) == 0) result = open_data_cache(file);
    if (result == 0) initial_position(file);
    const int cause = errno;
    if (is_shared(file) && lock_clr(bracket) == -1 && result == 0) return -1;
    return result == 0 ? 0 : fail(cause);
}

int open_steps(vfs_file *file, const open_services &services)
{
    if (take_numbers(file) == -1 || take_keys(file) == -1 || take_locking(file, services) == -1) return -1;
    print_facts(file);
    if (classify(file) == -1) return -1;
    choose_engines(file);
    if (check_creation(file) == -1) return -1;
    cache_reset(&file->data, file, cache_data);
    cache_reset(&file->meta, file, cache_meta);
    if (open_descriptor(file, services) == -1) return -1;
    usage_snapshot now;
    if (check_kind(file) == -1 || registry_add(file, &now) == -1) {
        const int cause = errno;
        registry_discard(file->fd);
        file->fd = -1;
        return fail(cause);
    }
    file->opened = {now.ticks, now.usage};
    if (prepare_stream(file) == -1 || take_file_locks(file) == -1 || size_under_locks(file) == -1) return -1;
    // Without locks of its own this open would make the file anew under those who have some.
    if (locks_nothing(file) && is_regular(file) && creates(file) && another_holds_locks(file))
        return refuse(file, EAGAIN);
    return set_up_store(file);
}

} // namespace

vfs_file *file_open(vfs_open_block *block, const open_services &services)
{
    open_settings settings;
    services.read_settings(&settings);
    vfs_file *file = nullptr;
    if (block == nullptr || block->path == nullptr)
        errno = EINVAL;
    else if (process_generation_watch() == 0)
        file = handle_allocate(block, services, settings);
    if (file != nullptr && open_steps(file, services) == 0) {
        file->error = 0;
        errno = 0;
        return file;
    }
    const int cause = errno;
    if (settings.debug) std::fprintf(stderr, "Open failed... %d\n", cause);
    if (file != nullptr) file_abandon(file);
    errno = cause;
    return nullptr;
}
