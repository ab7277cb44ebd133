// See redo.h. The order of a commit:
//
//   1. bytes at and behind the old end of file: nobody reads them before the header says that they are there
//   2. the redo area, behind the new end, at a multiple of 4096
//   3. the state word: from here on the operation has happened
//   4. the same bytes in place, the header last
//   5. state word 0
//
// A kill cuts a write between two pages, never inside one, so that 2, 3 and 5 drop out where below the old end
//
//   - only the header's first page changes (an appended record of a flat file), or
//   - one page changes and, in the header, only the counters that tell others what to read again (a record rewritten in
//     its slot): these are written first, because raised without a change they cost a second look and nothing else.
#include "store/redo.h"

#include "io/file_calls.h"
#include "store/header.h"
#include "util/errors.h"
#include "util/scope_guard.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <sys/resource.h>
#include <sys/uio.h>

// A run of changed bytes of one buffer, all on one side of the old end of file; offset and length are multiples of 8.
struct changed_range {
    vfs_buffer *buffer;
    uint64_t offset, length;

    const std::byte *bytes() const { return buffer->data + (offset - buffer->offset); }
};

namespace {

constexpr uint64_t word_bytes = 8;

// ---- What has changed ----

template <typename Visit> int for_each_cache(vfs_file *file, Visit &&visit)
{
    if (visit(&file->data) == -1) return -1;
    for (uint64_t k = 0; k < file->tree_count && file->contexts != nullptr; ++k)
        if (file->contexts[k].open && visit(&file->contexts[k].cache) == -1) return -1;
    return visit(&file->meta); // the header is in it
}

int list_reserve(change_list *list)
{
    if (list->count < list->room) return 0;
    const uint64_t room = list->room == 0 ? 64 : 2 * list->room;
    void *moved = std::realloc(list->ranges, room * sizeof(changed_range));
    if (moved == nullptr) return fail(ENOMEM);
    list->ranges = static_cast<changed_range *>(moved);
    list->room = room;
    return 0;
}

int list_add(change_list *list, vfs_buffer *buffer, uint64_t from, uint64_t to)
{
    if (from >= to) return 0;
    if (list_reserve(list) == -1) return -1;
    list->ranges[list->count++] = {buffer, from, to - from};
    return 0;
}

// Lists the changes, each cut at the old end of file. The header comes last.
int collect(vfs_file *file, uint64_t old_end)
{
    change_list *list = &file->changes;
    list->count = 0;
    const auto add = [&](vfs_buffer *buffer) {
        const uint64_t from = buffer->changed_from / word_bytes * word_bytes;
        const uint64_t to = round_up(buffer->changed_to, word_bytes);
        if (buffer->changed_from >= buffer->changed_to) return 0;
        if (list_add(list, buffer, from, std::min(to, old_end)) == -1) return -1;
        return list_add(list, buffer, std::max(from, old_end), to);
    };
    const vfs_buffer *header = file->meta.hdrb;
    const int listed = for_each_cache(file, [&](vfs_cache *cache) {
        for (vfs_buffer *buffer = cache->dirty_queue.head; buffer != nullptr; buffer = buffer->qnext)
            if (buffer != header && add(buffer) == -1) return -1;
        return 0;
    });
    return listed == 0 && is_dirty(header) ? add(file->meta.hdrb) : listed;
}

// All of it is in the file.
void mark_written(vfs_file *file)
{
    (void)for_each_cache(file, [](vfs_cache *cache) {
        cache_changes_written(cache);
        return 0;
    });
}

// ---- Writing ranges ----

enum class part { below, beyond };

struct selection {
    vfs_file *file;
    uint64_t old_end;

    bool has(const changed_range &range, part which) const
    {
        return (range.offset < old_end) == (which == part::below);
    }
};

// Writes the ranges in place, those that touch each other with one call.
int write_in_place(const selection &from, part which)
{
    constexpr size_t most = 64;
    std::array<iovec, most> pieces;
    size_t count = 0;
    uint64_t start = 0, end = 0;
    const auto flush = [&] {
        const int result = count == 0 ? 0 : file_write_pieces(from.file, {pieces.data(), count}, start);
        count = 0;
        return result;
    };
    const change_list &list = from.file->changes;
    for (uint64_t i = 0; i < list.count; ++i) {
        const changed_range &range = list.ranges[i];
        if (!from.has(range, which)) continue;
        if (count == most || (count != 0 && range.offset != end))
            if (flush() == -1) return -1;
        if (count == 0) start = range.offset;
        pieces[count++] = {const_cast<std::byte *>(range.bytes()), range.length};
        end = range.offset + range.length;
    }
    return flush();
}

// ---- The redo area ----

// See format.h.
class redo_sum {
public:
    // Of words that stand in the area as they are, or inverted.
    void add(const std::byte *bytes, uint64_t length, uint64_t mask = 0)
    {
        assert(length % word_bytes == 0);
        uint64_t done = 0;
        while (done < length && count_ % 4 != 0) step(bytes, mask, &done);
        for (; length - done >= 4 * word_bytes; done += 4 * word_bytes)
            for (uint64_t lane = 0; lane < 4; ++lane) {
                const uint64_t word = load_u64(bytes + done + lane * word_bytes) ^ mask;
                lanes_[lane] = (lanes_[lane] ^ word) * redo_sum_prime;
            }
        while (done < length) step(bytes, mask, &done);
    }
    uint64_t value() const
    {
        uint64_t sum = redo_sum_basis;
        for (const uint64_t lane : lanes_) sum = (sum ^ lane) * redo_sum_prime;
        return sum ^ sum >> 32;
    }

private:
    void step(const std::byte *bytes, uint64_t mask, uint64_t *done)
    {
        uint64_t &lane = lanes_[count_++ % 4];
        lane = (lane ^ load_u64(bytes + *done) ^ mask) * redo_sum_prime;
        *done += word_bytes;
    }

    uint64_t lanes_[4] = {redo_sum_basis, redo_sum_basis, redo_sum_basis, redo_sum_basis};
    uint64_t count_ = 0; // modulo 4
};

struct listed_range { // as it stands in the area
    uint64_t offset, length;
};
static_assert(sizeof(listed_range) == redo_range_bytes);

constexpr uint64_t chunk_bytes = 65536;

void copy_words(std::byte *to, const std::byte *from, uint64_t length, uint64_t mask)
{
    for (uint64_t at = 0; at < length; at += word_bytes) store_u64(to + at, load_u64(from + at) ^ mask);
}

// Gathers the area in the handle's chunk of memory and writes it, mostly with one call.
class area_writer {
public:
    area_writer(vfs_file *file, uint64_t start) : file_(file), start_(start), at_(start) {}

    int add(const std::byte *bytes, uint64_t length, uint64_t mask = 0)
    {
        sum_.add(bytes, length, mask);
        for (uint64_t done = 0; done < length;) {
            const uint64_t some = std::min(length - done, chunk_bytes - gathered_);
            copy_words(file_->changes.chunk + gathered_, bytes + done, some, mask);
            gathered_ += some;
            done += some;
            if (gathered_ == chunk_bytes && flush() == -1) return -1;
        }
        return 0;
    }
    // The head was added first, without its checksum.
    int finish()
    {
        const uint64_t sum = sum_.value();
        if (at_ == start_) {
            store_u64(file_->changes.chunk + redo_checksum.offset, sum);
            return flush();
        }
        if (flush() == -1) return -1;
        return file_write_at(file_, &sum, sizeof sum, start_ + redo_checksum.offset);
    }

private:
    int flush()
    {
        const int result = file_write_at(file_, file_->changes.chunk, gathered_, at_);
        at_ += gathered_;
        gathered_ = 0;
        return result;
    }

    vfs_file *file_;
    uint64_t start_, at_; // of the area, and of what comes next
    uint64_t gathered_ = 0;
    redo_sum sum_;
};

// A write that passed the file size limit would end the process.
int limit_check(uint64_t end)
{
    rlimit limit{};
    if (getrlimit(RLIMIT_FSIZE, &limit) == -1 || limit.rlim_cur == RLIM_INFINITY || end <= limit.rlim_cur) return 0;
    return fail(EFBIG);
}

// The area that the listed ranges need, behind the new end of file.
struct area_plan {
    uint64_t start, ranges, length;
};

int plan_area(const selection &from, area_plan *area)
{
    vfs_file *file = from.file;
    change_list &list = file->changes;
    if (list.chunk == nullptr) list.chunk = static_cast<std::byte *>(std::malloc(chunk_bytes));
    if (list.chunk == nullptr) return fail(ENOMEM);
    area->start = round_up(std::max(file->end_of_file, file->acquired_end), redo_unit);
    area->ranges = 0;
    area->length = redo_head_bytes;
    for (uint64_t i = 0; i < list.count; ++i) {
        if (!from.has(list.ranges[i], part::below)) continue;
        ++area->ranges;
        area->length += redo_range_bytes + list.ranges[i].length;
    }
    return 0;
}

int write_area(const selection &from, const area_plan &area)
{
    const change_list &list = from.file->changes;
    alignas(word_bytes) std::array<std::byte, redo_head_bytes> head{};
    image_put<uint64_t>(head, redo_magic, redo_magic_word);
    image_put<uint64_t>(head, redo_ranges, area.ranges);
    image_put<uint64_t>(head, redo_length, area.length);
    area_writer writer{from.file, area.start};
    if (writer.add(head.data(), head.size()) == -1) return -1;
    for (uint64_t i = 0; i < list.count; ++i) {
        const changed_range &range = list.ranges[i];
        if (!from.has(range, part::below)) continue;
        const listed_range row{range.offset, range.length};
        if (writer.add(reinterpret_cast<const std::byte *>(&row), sizeof row) == -1) return -1;
    }
    for (uint64_t i = 0; i < list.count; ++i) {
        const changed_range &range = list.ranges[i];
        if (from.has(range, part::below) && writer.add(range.bytes(), range.length, redo_mask) == -1) return -1;
    }
    return writer.finish();
}

// ---- Changes that a kill cannot cut ----

struct uncut_change {
    const changed_range *header = nullptr, *page = nullptr;
};

// True when what changes below the old end is one of the two cases at the top.
bool is_uncut(const selection &from, uint64_t header_bytes, uint64_t page_bytes, uncut_change *change)
{
    constexpr uint64_t counters = header_tsn.offset, behind_counters = header_records.offset;
    const change_list &list = from.file->changes;
    bool counters_alone = true;
    for (uint64_t i = 0; i < list.count; ++i) {
        const changed_range &range = list.ranges[i];
        if (!from.has(range, part::below)) continue;
        const uint64_t last = range.offset + range.length - 1;
        if (range.offset / page_bytes != last / page_bytes) return false;
        const changed_range *&place = range.offset < header_bytes ? change->header : change->page;
        if (place != nullptr || (range.offset < header_bytes && range.offset >= page_bytes)) return false;
        place = &range;
        if (place == change->header) counters_alone = range.offset >= counters && last < behind_counters;
    }
    return change->header != nullptr && (change->page == nullptr || counters_alone);
}

int write_range(vfs_file *file, const changed_range *range)
{
    return range == nullptr ? 0 : file_write_at(file, range->bytes(), range->length, range->offset);
}

int sync_if_asked(vfs_file *file)
{
    if (!file->settings.sync_each_change) return 0;
    if (file_sync(file) == 0) return 0;
    store_error(file, errno); // not repeated: the kernel may have dropped what it could not write
    return -1;
}

int finish_in_place(const selection &from)
{
    vfs_file *file = from.file;
    if (write_in_place(from, part::below) == -1 || sync_if_asked(file) == -1) return -1;
    const bool was_unsynced = file->unsynced; // the word alone calls for no sync
    if (state_word_write(file, state_clean) == -1) return -1;
    file->unsynced = was_unsynced;
    return 0;
}

// ---- Replay ----

int unusable(vfs_file *file)
{
    std::fprintf(stderr, "File %s was not closed, use vfsctl check\n", file->path);
    return damaged();
}

int read_exactly(vfs_file *file, void *to, uint64_t bytes, uint64_t offset)
{
    const int64_t got = file_read_at(file, to, bytes, offset);
    if (got == -1) return -1;
    return static_cast<uint64_t>(got) == bytes ? 0 : fail(ENOEXEC);
}

struct redo_area {
    uint64_t start, ranges, length;

    uint64_t list() const { return start + redo_head_bytes; }
    uint64_t bytes() const { return list() + ranges * redo_range_bytes; }
};

// Head and checksum. ENOEXEC: not a redo area, or not all of one.
int area_check(vfs_file *file, std::byte *chunk, uint64_t start, redo_area *area)
{
    std::array<std::byte, redo_head_bytes> head;
    const int64_t size = file_size_now(file);
    if (size == -1) return -1;
    const auto file_bytes = static_cast<uint64_t>(size);
    if (start % redo_unit != 0 || start < metadata_unit || start >= file_bytes) return fail(ENOEXEC);
    if (read_exactly(file, head.data(), head.size(), start) == -1) return -1;
    *area = {start, image_get<uint64_t>(head, redo_ranges), image_get<uint64_t>(head, redo_length)};
    if (image_get<uint64_t>(head, redo_magic) != redo_magic_word) return fail(ENOEXEC);
    if (area->length > file_bytes - start || area->length % word_bytes != 0) return fail(ENOEXEC);
    if (area->ranges == 0 || area->length < redo_head_bytes ||
        area->ranges > (area->length - redo_head_bytes) / redo_range_bytes)
        return fail(ENOEXEC);
    redo_sum sum;
    const uint64_t stored = image_get<uint64_t>(head, redo_checksum);
    image_put<uint64_t>(head, redo_checksum, 0);
    sum.add(head.data(), head.size());
    for (uint64_t done = redo_head_bytes; done < area->length;) {
        const uint64_t count = std::min(chunk_bytes, area->length - done);
        if (read_exactly(file, chunk, count, start + done) == -1) return -1;
        sum.add(chunk, count);
        done += count;
    }
    return sum.value() == stored ? 0 : fail(ENOEXEC);
}

// Calls `visit` with each range and where its bytes stand. ENOEXEC: a range that no commit writes.
template <typename Visit> int for_each_range(vfs_file *file, const redo_area &area, Visit &&visit)
{
    uint64_t from = area.bytes();
    const uint64_t end = area.start + area.length;
    for (uint64_t i = 0; i < area.ranges; ++i) {
        listed_range range;
        if (read_exactly(file, &range, sizeof range, area.list() + i * redo_range_bytes) == -1) return -1;
        if (range.length % word_bytes != 0 || range.length > end - from || range.offset > area.start ||
            range.length > area.start - range.offset)
            return fail(ENOEXEC);
        if (visit(range, from) == -1) return -1;
        from += range.length;
    }
    return from == end ? 0 : fail(ENOEXEC);
}

// A header that a stop of the machine has left may name a place where the area of an earlier commit still stands, whole,
// because the pages of the later one never reached the disk. Its counters tell: they are behind the header's.
int age_check(vfs_file *file, const redo_area &area)
{
    static_assert(header_dsn.offset == header_tsn.offset + word_bytes &&
                  header_asn.offset == header_dsn.offset + word_bytes);
    std::array<int64_t, 3> now; // tsn, dsn, asn
    if (read_exactly(file, now.data(), sizeof now, header_tsn.offset) == -1) return -1;
    return for_each_range(file, area, [&](const listed_range &range, uint64_t from) {
        for (uint64_t i = 0; i < now.size(); ++i) {
            const uint64_t at = header_tsn.offset + i * word_bytes;
            if (at < range.offset || at + word_bytes > range.offset + range.length) continue;
            uint64_t stored;
            if (read_exactly(file, &stored, sizeof stored, from + (at - range.offset)) == -1) return -1;
            if (static_cast<int64_t>(stored ^ redo_mask) < now[i]) return fail(ENOEXEC);
        }
        return 0;
    });
}

int apply(vfs_file *file, std::byte *chunk, const redo_area &area)
{
    const auto copy = [&](const listed_range &range, uint64_t from) {
        for (uint64_t done = 0; done < range.length;) {
            const uint64_t count = std::min(chunk_bytes, range.length - done);
            if (read_exactly(file, chunk, count, from + done) == -1) return -1;
            copy_words(chunk, chunk, count, redo_mask);
            if (file_write_at(file, chunk, count, range.offset + done) == -1) return -1;
            done += count;
        }
        return 0;
    };
    if (age_check(file, area) == -1) return -1; // all of it is plausible before any of it is written
    return for_each_range(file, area, copy);
}

// The bytes of the state word alone: of a header that is in pieces nothing else may be believed.
int state_word_read(vfs_file *file, uint64_t *word)
{
    return read_exactly(file, word, sizeof *word, header_state_word.offset);
}

} // namespace

int state_word_write(vfs_file *file, uint64_t word)
{
    if (file_write_at(file, &word, sizeof word, header_state_word.offset) == -1) return -1;
    if (file->meta.hdrb == nullptr) return 0;
    std::memcpy(file->meta.hdrb->data + header_state_word.offset, &word, sizeof word);
    std::memcpy(file->meta.header_copy + header_state_word.offset, &word, sizeof word);
    return 0;
}

int changes_commit(vfs_file *file, bool *in_doubt)
{
    *in_doubt = false;
    // Whoever reads the header next has to see that something changed: whatever changes raises a number.
    if (file->tsn == file->seen_tsn && file->dsn == file->seen_dsn && file->asn == file->seen_asn) {
        assert(!changes_pending(file));
        return 0;
    }
    if (header_sync(file) == -1) return -1;
    const selection changed{file, file->acquired_end / word_bytes * word_bytes};
    if (collect(file, changed.old_end) == -1) return -1;
    int result;
    if (uncut_change uncut; is_uncut(changed, file->meta.hdrb->size, redo_unit, &uncut)) {
        if (limit_check(file->end_of_file) == -1 || write_in_place(changed, part::beyond) == -1) return -1;
        if (write_range(file, uncut.header) == -1 || write_range(file, uncut.page) == -1) return -1;
        *in_doubt = true;
        result = sync_if_asked(file);
    } else {
        area_plan area;
        if (plan_area(changed, &area) == -1 || limit_check(area.start + area.length) == -1) return -1;
        if (write_in_place(changed, part::beyond) == -1) return -1;
        std::memcpy(file->meta.hdrb->data + header_state_word.offset, &area.start, sizeof area.start);
        if (write_area(changed, area) == -1 || state_word_write(file, area.start) == -1) return -1;
        *in_doubt = true;
        result = finish_in_place(changed);
    }
    if (result == -1) {
        store_error(file, errno);
        return -1;
    }
    mark_written(file);
    remember_seen(file);
    *in_doubt = false;
    return 0;
}

int redo_replay(vfs_file *file)
{
    uint64_t word;
    if (state_word_read(file, &word) == -1) return -1;
    if (!redo_pending(word)) return 0;
    auto *chunk = static_cast<std::byte *>(std::malloc(chunk_bytes));
    if (chunk == nullptr) return fail(ENOMEM);
    const scope_guard release{[&] { std::free(chunk); }};
    redo_area area;
    if (area_check(file, chunk, word, &area) == -1 || apply(file, chunk, area) == -1)
        return errno == ENOEXEC ? unusable(file) : -1;
    const uint64_t clean = state_clean;
    return file_write_at(file, &clean, sizeof clean, header_state_word.offset);
}

int redo_replay_under(vfs_file *file, lock_target target)
{
    const bool was_unsynced = file->unsynced;
    const int own = file->fd;
    int borrowed = -1;
    if (is_read_only(file)) {
        borrowed = file->borrow_writable(file);
        if (borrowed == -1) return unusable(file);
        file->fd = borrowed;
    }
    const scope_guard give_back{[&] {
        file->fd = own;
        file->unsynced = was_unsynced;
        if (borrowed != -1) file->give_back_writable(borrowed);
    }};
    target.write = true;
    if (lock_set(target) == -1) return -1;
    const int result = redo_replay(file), cause = errno;
    if (lock_clr(target) == -1 && result == 0) return -1;
    return result == 0 ? 0 : fail(cause);
}
