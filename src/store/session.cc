// The session's mark in the file: state word and boot word, the first change, flush and the end of a session.
//
//   state word   0: nothing under way; 1: an exclusive or unlocked session has unflushed changes
//   boot word    0: what the file says is on the disk; else the boot in which changes may be in memory only
//
// The first change of a session sets both and syncs once, so that whatever happens later the file says that it was
// not closed. A flush clears the state word, a close both.
#include "io/file_calls.h"
#include "io/io.h"
#include "lock/lock.h"
#include "store/header.h"
#include "store/redo.h"
#include "store/tree.h"
#include "util/errors.h"
#include "util/scope_guard.h"

#include <cstdio>
#include <unistd.h>

namespace {

bool exclusive(const file_state *file)
{
    return file->lock_defaults.lock_mode == VFS_LOCK_FILE;
}
bool unlocked(const file_state *file)
{
    return file->lock_defaults.lock_mode < VFS_LOCK_FILE;
}

// The first 8 bytes of the kernel's boot id; 1 when it cannot be read.
uint64_t read_boot_word()
{
    char text[37] = {};
    const int fd = open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
    if (fd == -1) return 1;
    const ssize_t got = read(fd, text, 36);
    close(fd);
    if (got != 36) return 1;
    unsigned char bytes[8];
    size_t count = 0;
    for (const char *at = text; *at != '\0' && count < sizeof bytes; ++at) {
        if (*at == '-') continue;
        const char pair[3] = {at[0], at[1], '\0'};
        bytes[count++] = static_cast<unsigned char>(std::strtoul(pair, nullptr, 16));
        ++at;
    }
    uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    return word == 0 ? 1 : word;
}

// An item that is more than a hole or padding begins at `at`: something was appended that the header does not know.
bool frame_at(vfs_file *file, uint64_t at, uint64_t size)
{
    std::byte head[slot_head_bytes], trailer[trailer_bytes];
    if (size < at + slot_overhead || file_read_at(file, head, sizeof head, at) != sizeof head) return false;
    const uint64_t length = image_get(std::span<const std::byte>(head), frame_length);
    const uint8_t type = image_get(std::span<const std::byte>(head), frame_type);
    if (length % 8 != 0 || length < slot_overhead || length > size - at) return false;
    if ((type < item_block || type > item_free_slots) && (type < item_relocated || type > item_moved)) return false;
    if (file_read_at(file, trailer, sizeof trailer, at + length - trailer_bytes) != sizeof trailer) return false;
    return load_u64(trailer) == length;
}

bool is_unclean(vfs_file *file)
{
    if (!is_regular(file)) return false;
    const uint64_t state = header_get(file, header_state_word), boot = header_get(file, header_boot_word);
    if (boot != 0 && boot != boot_word()) return true;
    if (state != state_clean) return true;
    const int64_t size = file_size_now(file);
    const uint64_t end = header_get(file, header_end_of_file);
    if (size == -1 || static_cast<uint64_t>(size) < end) return true;
    return boot == 0 && frame_at(file, end, static_cast<uint64_t>(size));
}

// Puts the words into image and file; the rest of the image keeps its own state (dirty or not). They do not count as
// bytes to be synced: whoever needs them on the disk syncs at once.
int set_words(vfs_file *file, uint64_t state, uint64_t boot)
{
    const uint64_t old_state = header_get(file, header_state_word), old_boot = header_get(file, header_boot_word);
    if (!is_regular(file) || (old_state == state && old_boot == boot)) return 0;
    vfs_buffer *header = file->meta.hdrb;
    const bool was_dirty = is_dirty(header), was_unsynced = file->unsynced;
    header_put(file, header_state_word, state);
    header_put(file, header_boot_word, boot);
    constexpr uint64_t at = header_state_word.offset; // one behind the other
    std::memcpy(file->meta.header_copy + at, header_image(file).data() + at, 2 * sizeof state);
    const int result = file_write_at(file, header_image(file).data() + at, 2 * sizeof state, at);
    const int cause = errno;
    if (result == -1) { // the image says what the file says
        header_put(file, header_state_word, old_state);
        header_put(file, header_boot_word, old_boot);
        std::memcpy(file->meta.header_copy + at, header_image(file).data() + at, 2 * sizeof state);
    }
    if (!was_dirty) dirty_remove(header);
    file->unsynced = was_unsynced;
    return result == 0 ? 0 : fail(cause);
}

// A sync that fails is not repeated, so that its failure is remembered.
int keep_failure(vfs_file *file, int result)
{
    if (result == -1) store_error(file, errno);
    return result;
}

int sync_or_store(vfs_file *file)
{
    return keep_failure(file, file_sync(file));
}

void mark_session(vfs_file *file, bool marked)
{
    if (file->session_marked == marked) return;
    file->session_marked = marked;
    if (file->shared == nullptr) return;
    if (marked)
        __atomic_add_fetch(&file->shared->unflushed_handles, 1, __ATOMIC_RELAXED);
    else
        __atomic_sub_fetch(&file->shared->unflushed_handles, 1, __ATOMIC_RELAXED);
}

// A second unlocked writer would be overwritten by our header: whoever finds one stops writing.
int second_writer_check(vfs_file *file)
{
    if (!unlocked(file) || !is_regular(file)) return 0;
    alignas(16) std::byte now[header_variable_part];
    if (file_read_at(file, now, sizeof now, 0) != static_cast<int64_t>(sizeof now)) return fail(EIO);
    const std::span<const std::byte> image(now);
    if (image_get(image, header_tsn) == file->seen_tsn && image_get(image, header_dsn) == file->seen_dsn &&
        image_get(image, header_asn) == file->seen_asn && image_get(image, header_end_of_file) == file->seen_end)
        return 0;
    store_error(file, ESTALE);
    return fail(ESTALE);
}

int cut_to_end(vfs_file *file)
{
    if (!is_regular(file)) return 0;
    const int64_t size = file_size_now(file);
    if (size == -1) return -1;
    if (static_cast<uint64_t>(size) <= file->end_of_file) return 0;
    if (file_truncate(file, file->end_of_file) == -1) return -1;
    if (!is_shared(file)) file->allocated_size = file->end_of_file;
    return 0;
}

} // namespace

bool changes_pending(const vfs_file *file)
{
    if (file->data.dirty_queue.count != 0 || file->meta.dirty_queue.count != 0) return true;
    for (uint64_t k = 0; k < file->tree_count && file->contexts != nullptr; ++k)
        if (file->contexts[k].open && file->contexts[k].cache.dirty_queue.count != 0) return true;
    return false;
}

uint64_t boot_word()
{
    static const uint64_t word = read_boot_word();
    return word;
}

bool another_holds_locks(vfs_file *file)
{
    struct flock probe = {};
    probe.l_type = F_WRLCK;
    probe.l_whence = SEEK_SET;
    return lock_test(file, &probe, lock_file) == 0 && probe.l_type != F_UNLCK;
}

bool session_alone(const vfs_file *file)
{
    const uint64_t boot = header_get(file, header_boot_word);
    return __atomic_load_n(&file->shared->handles, __ATOMIC_RELAXED) == 1 &&
           __atomic_load_n(&file->shared->unflushed_handles, __ATOMIC_RELAXED) == 0 &&
           header_get(file, header_state_word) == state_clean && (boot == 0 || boot == boot_word());
}

int session_check(vfs_file *file)
{
    if (__atomic_load_n(&file->shared->unflushed_handles, __ATOMIC_RELAXED) != 0) return 0;
    if (!is_unclean(file)) return 0;
    if (unlocked(file) && another_holds_locks(file)) return 0;
    std::fprintf(stderr, "File %s was not closed, use vfsctl check\n", file->path);
    if (is_read_only(file) && file->settings.read_unclean) return 0;
    return damaged();
}

int change_begin_slow(vfs_file *file)
{
    if (is_shared(file)) {
        if (header_get(file, header_boot_word) == boot_word()) return 0;
        file->modified = true; // close takes the word back, whatever becomes of the operation
        if (set_words(file, header_get(file, header_state_word), boot_word()) == -1) return -1;
        return keep_failure(file, file_sync_written(file));
    }
    if (second_writer_check(file) == -1) return -1;
    const bool first = header_get(file, header_boot_word) != boot_word();
    file->modified = true;
    if (set_words(file, state_unflushed, boot_word()) == -1) return -1;
    if (first && keep_failure(file, file_sync_written(file)) == -1) return -1;
    if (exclusive(file) && !file->session_booted) {
        if (cut_to_end(file) == -1) return -1;
        const int64_t size = file_size_now(file);
        file->allocated_size = size == -1 ? file->end_of_file : static_cast<uint64_t>(size);
    }
    file->session_booted = true;
    mark_session(file, true);
    return 0;
}

int changes_write_out(vfs_file *file)
{
    int result = 0;
    const auto keep = [&](int step) {
        if (step == -1 && result == 0) {
            result = -1;
            store_error(file, errno);
        }
    };
    if (header_sync(file) == -1) keep(-1);
    keep(cache_write_out(&file->data, 0, none));
    for (uint64_t k = 0; k < file->tree_count && file->contexts != nullptr; ++k)
        if (file->contexts[k].open) keep(cache_write_out(&file->contexts[k].cache, 0, none));
    keep(cache_write_out(&file->meta, 0, none));
    if (result == 0) remember_seen(file);
    return result;
}

int session_flush(vfs_file *file)
{
    if (is_read_only(file) || file->meta.hdrb == nullptr) return 0;
    if (is_shared(file)) return sync_or_store(file); // what other handles changed is covered as well
    if (!file->session_marked && !changes_pending(file)) return file->unsynced ? sync_or_store(file) : 0;
    if (second_writer_check(file) == -1) return -1;
    if (changes_write_out(file) == -1 || sync_or_store(file) == -1) return -1;
    if (file->error != 0) return fail(static_cast<int>(file->error));
    if (set_words(file, state_clean, header_get(file, header_boot_word)) == -1) return -1;
    mark_session(file, false);
    return 0;
}

int change_end_slow(vfs_file *file)
{
    if (is_read_only(file) || file->meta.hdrb == nullptr) return 0;
    if (!is_shared(file) && changes_pending(file)) {
        if (second_writer_check(file) == -1 || changes_write_out(file) == -1) return -1;
    }
    return file->unsynced ? sync_or_store(file) : 0;
}

int session_renumber(vfs_file *file)
{
    if (change_begin(file) == -1) return -1;
    // Sharers say for once that the file is in pieces: whoever dies in the middle leaves trees half renumbered.
    if (is_shared(file) && set_words(file, state_unflushed, boot_word()) == -1) return -1;
    if (tsn_renumber(file) == -1 || changes_write_out(file) == -1) return -1;
    if (file->error != 0) return fail(static_cast<int>(file->error));
    if (set_words(file, state_clean, boot_word()) == -1) return -1;
    mark_session(file, false);
    return 0;
}

void session_abandon(vfs_file *file)
{
    mark_session(file, false);
}

int session_publish(vfs_file *file)
{
    if (is_read_only(file) || (!file->session_marked && !changes_pending(file))) return 0;
    if (changes_write_out(file) == -1 || cut_to_end(file) == -1) return -1;
    if (file->error != 0) return fail(static_cast<int>(file->error));
    if (set_words(file, state_clean, header_get(file, header_boot_word)) == -1) return -1;
    mark_session(file, false);
    file->session_booted = false; // others may leave bytes behind the end until the lock is ours again
    return 0;
}

int session_close(vfs_file *file)
{
    if (is_read_only(file) || !file->modified || file->meta.hdrb == nullptr) {
        mark_session(file, false);
        return 0;
    }
    const scope_guard unmark{[&] { mark_session(file, false); }};
    if (exclusive(file) && file->file_lock_state == file_lock_none) {
        // The lock was given away and everything published; without it nothing may be touched any more.
        const lock_target target{
            .file = file, .counted = &file->data, .kind = lock_file, .write = true, .try_only = true};
        if (lock_set(target) == -1) return 0;
        if (redo_replay(file) == -1 || metadata_refresh(file) == -1) return -1;
    }
    if (file->error == ESTALE) return fail(ESTALE);
    if (second_writer_check(file) == -1) return -1;
    if (is_shared(file)) {
        if (metadata_acquire(file, true) == -1) return -1;
        int result = cut_to_end(file);
        if (result == 0) result = file_sync(file);
        if (result == 0 && file->error == 0) result = set_words(file, header_get(file, header_state_word), 0);
        if (result == 0) result = file_sync(file);
        const int cause = errno;
        if (metadata_release(file) == -1) return -1;
        return result == 0 ? 0 : fail(cause);
    }
    if (changes_write_out(file) == -1) return -1;
    if (cut_to_end(file) == -1 || file_sync(file) == -1) return -1;
    if (file->error != 0) return fail(static_cast<int>(file->error));
    if (header_get(file, header_state_word) == 0 && header_get(file, header_boot_word) == 0) return 0;
    if (set_words(file, state_clean, 0) == -1) return -1;
    return file_sync(file);
}
