// READ, WRITE, REWRITE, DELETE: the checks that the language asks for before the driver is called, in their order, and
// what each leaves for the next verb.
#include "bridge.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace {

bool can_read(const open_file &file)
{
    return file.mode == open_mode::input || file.mode == open_mode::io;
}

bool can_write(const open_file &file)
{
    if (file.mode == open_mode::input) return false;
    return file.access == access::sequential ? file.mode != open_mode::io : file.mode != open_mode::extend;
}

vfs_lock_request lock_for_change(uint32_t options)
{
    vfs_lock_request request{};
    request.hold = (options & COB_WRITE_LOCK) != 0 ? 1 : 0;
    request.wait_mode = VFS_WAIT_NEVER;
    return request;
}

// RELATIVE KEY of the program; false: the item cannot hold the number.
bool tell_relative_key(control_block *fcd, uint64_t number)
{
    fcd->set_relative_key(number);
    if (running.file == nullptr || running.file->keys == nullptr || running.file->keys[0].field == nullptr) return true;
    cob_field *item = running.file->keys[0].field;
    auto value = static_cast<cob_s64_t>(number);
    cob_field_attr binary{COB_TYPE_NUMERIC_BINARY, 18, 0, COB_FLAG_HAVE_SIGN | COB_FLAG_REAL_BINARY, nullptr};
    cob_field from{sizeof value, reinterpret_cast<unsigned char *>(&value), &binary};
    cob_move(&from, item);
    return cob_get_llint(item) == value;
}

file_status record_was_read(control_block *fcd, open_file *file, const vfs_status &found, int64_t length, bool stepped)
{
    const auto whole = static_cast<size_t>(length);
    file->at_end = file->at_begin = file->lost = false;
    file->read_done = true;
    file->length_read = whole;
    const size_t delivered = std::min(whole, file->maximum);
    fcd->set_record_length(delivered);
    running.read = true;
    running.length = delivered;
    if (file->kind == organization::indexed) {
        file->keys[0].take(fcd->record(), &file->key_read);
        file->keys[file->reference].take(fcd->record(), &file->place_value);
        file->place = place_kind::read;
        if (file->mode == open_mode::io && file->keys.size() > 1)
            file->record_read.assign(fcd->record(), file->maximum);
    }
    if (file->kind == organization::relative) {
        if (stepped && !tell_relative_key(fcd, found.rrn + 1)) {
            file->read_done = false;
            return status_of(14);
        }
        if (!stepped) fcd->set_relative_key(found.rrn + 1);
    }
    if (whole > file->maximum) return status_of(4);
    const bool duplicate = file->kind == organization::indexed && found.duplicate != 0;
    return status_of(duplicate ? 2 : 0);
}

file_status nothing_behind(open_file *file, direction way)
{
    file->at_end = way == direction::next;
    file->at_begin = way == direction::previous;
    return status_of(10);
}

int64_t driver_start(open_file *file, int32_t relation, const std::string &key, size_t number)
{
    return ops().start(file->handle, nullptr, nullptr, nullptr, nullptr, VFS_POS_KEY, relation,
                       static_cast<const void *>(key.data()), static_cast<int64_t>(key.size()),
                       static_cast<int64_t>(number));
}

file_status read_failed(open_file *file, asked what)
{
    const int error = errno;
    if (what == asked::keyed_read) file->lost = true; // there is no next record after a READ that failed
    return status_of_error(error, what, file->kind);
}

// How many bytes the program writes.
size_t length_to_write(const control_block &fcd)
{
    return running.written_length >= 0 ? static_cast<size_t>(running.written_length) : fcd.record_length();
}

bool length_fits(const open_file &file, size_t length)
{
    return length >= file.minimum && length <= file.maximum;
}

// What a change that was made answers.
file_status written(const vfs_status &told, const alternate_check &checked)
{
    return checked.exact ? checked.status : status_of(told.duplicate != 0 ? 2 : 0);
}

file_status write_in_order(control_block *fcd, open_file *file, vfs_record *record, const vfs_lock_request &lock)
{
    vfs_status status{};
    if (ops().write(file->handle, record, nullptr, &status, &lock, VFS_POS_END) == -1)
        return status_of_error(errno, asked::write, file->kind);
    if (file->kind == organization::relative && !tell_relative_key(fcd, status.rrn + 1)) {
        (void)ops().delete_record(file->handle, nullptr, nullptr, nullptr, nullptr, VFS_POS_RRN,
                                  static_cast<int64_t>(status.rrn));
        return status_of(24);
    }
    return {};
}

file_status write_relative(control_block *fcd, open_file *file, vfs_record *record, const vfs_lock_request &lock)
{
    const uint64_t number = fcd->relative_key();
    if (number == 0) return status_of(24);
    if (ops().write(file->handle, record, nullptr, nullptr, &lock, VFS_POS_RRN, static_cast<int64_t>(number - 1)) == -1)
        return status_of_error(errno, asked::write, file->kind);
    return {};
}

file_status write_indexed(open_file *file, vfs_record *record, const vfs_lock_request &lock)
{
    const char *bytes = static_cast<const char *>(record->bytes);
    file->keys[0].take(bytes, &file->key);
    const bool ordered = file->access == access::sequential;
    if (ordered && !file->key_written.empty() && file->key <= file->key_written) return status_of(21);
    const alternate_check checked = check_alternates(file, bytes, false);
    if (!checked.status.good()) return checked.status;
    file->keys[0].take(bytes, &file->key);
    vfs_status status{};
    if (ops().write(file->handle, record, nullptr, &status, &lock, VFS_POS_KEY,
                    static_cast<const void *>(file->key.data()), static_cast<int64_t>(file->key.size()),
                    int64_t{0}) == -1)
        return status_of_error(errno, asked::write, file->kind);
    if (ordered) file->key_written = file->key;
    return written(status, checked);
}

// The record that REWRITE and DELETE are about: the one last read under sequential access, else by number or primary key.
template <typename Operation>
int64_t on_named_record(const control_block &fcd, open_file *file, bool rewrites, const Operation &operation)
{
    // Looking for other records with a value of an alternate key has moved the driver's own place.
    const bool looked = rewrites && file->kind == organization::indexed && file->keys.size() > 1;
    if (file->access == access::sequential && !looked) return operation(VFS_POS_CURRENT);
    if (file->kind == organization::relative)
        return operation(VFS_POS_RRN, static_cast<int64_t>(fcd.relative_key()) - 1);
    file->keys[0].take(fcd.record(), &file->key);
    return operation(VFS_POS_KEY, static_cast<const void *>(file->key.data()), static_cast<int64_t>(file->key.size()),
                     int64_t{0});
}

// REWRITE and DELETE: none when they may go on.
std::optional<file_status> not_changeable(const control_block &fcd, open_file *file)
{
    const bool was_read = std::exchange(file->read_done, false);
    if (file->mode != open_mode::io) return status_of(49);
    if (file->access == access::sequential && !was_read) return status_of(43);
    if (file->access != access::sequential && file->kind == organization::relative && fcd.relative_key() == 0)
        return status_of(23);
    return std::nullopt;
}

} // namespace

vfs_record area_of(const control_block &fcd, const open_file &file)
{
    return {.length = file.maximum, .bytes = fcd.record()};
}

vfs_lock_request lock_for_read(const open_file &file, uint32_t options)
{
    vfs_lock_request request{};
    // The compiler takes WITH WAIT or WITH LOCK, not both: who waits for a lock wants it.
    const bool asks = (options & (COB_READ_LOCK | COB_READ_KEPT_LOCK | COB_READ_WAIT_LOCK)) != 0;
    if (file.mode == open_mode::input || (options & COB_READ_IGNORE_LOCK) != 0)
        request.request_kind = VFS_KIND_NO_LOCK;
    else if ((options & COB_READ_NO_LOCK) == 0)
        request.hold = file.automatic || (file.manual && asks) ? 1 : 0;
    request.wait_mode = (options & COB_READ_WAIT_LOCK) != 0 ? VFS_WAIT_KERNEL : VFS_WAIT_NEVER;
    return request;
}

file_status read_step(control_block *fcd, open_file *file, direction way)
{
    file->read_done = false;
    if (!can_read(*file)) return status_of(47);
    const bool forward = way == direction::next;
    if (file->lost || (forward ? file->at_end : file->at_begin)) return status_of(46);
    if (file->handle == nullptr) {
        file->at_end = file->at_begin = true; // there is nothing in either direction
        return status_of(10);
    }
    const vfs_lock_request lock = lock_for_read(*file, fcd->options());
    for (;;) {
        vfs_record area = area_of(*fcd, *file);
        vfs_status found{};
        const int64_t length =
            ops().read(file->handle, &area, nullptr, &found, &lock, forward ? VFS_POS_NEXT : VFS_POS_PREV);
        if (length == -1) return read_failed(file, asked::sequential_read);
        if (length == 0 && ops().at_end(file->handle) == 1) return nothing_behind(file, way);
        if (file->kind == organization::indexed && file->keys[file->reference].sparse) {
            const key_shape &key = file->keys[file->reference];
            key.take(fcd->record(), &file->key);
            if (key.suppresses(file->key)) {
                if (driver_start(file, forward ? VFS_GREATER : VFS_LESS, file->key, file->reference) >= 0) continue;
                return errno == ESPIPE ? nothing_behind(file, way) : read_failed(file, asked::sequential_read);
            }
        }
        return record_was_read(fcd, file, found, length, true);
    }
}

file_status read_keyed(control_block *fcd, open_file *file)
{
    file->read_done = false;
    if (!can_read(*file)) return status_of(47);
    const auto not_there = [&] {
        file->lost = true;
        return status_of(23);
    };
    if (file->handle == nullptr) return not_there();
    const vfs_lock_request lock = lock_for_read(*file, fcd->options());
    vfs_record area = area_of(*fcd, *file);
    vfs_status found{};
    int64_t length;
    if (file->kind == organization::relative) {
        const uint64_t number = fcd->relative_key();
        if (number == 0) return not_there();
        length = ops().read(file->handle, &area, nullptr, &found, &lock, VFS_POS_RRN, static_cast<int64_t>(number - 1));
    } else {
        const size_t number = fcd->key_of_reference();
        if (number >= file->keys.size()) return not_there();
        const key_shape &key = file->keys[number];
        key.take(fcd->record(), &file->key);
        if (key.suppresses(file->key)) return not_there();
        length = ops().read(file->handle, &area, nullptr, &found, &lock, VFS_POS_KEY,
                            static_cast<const void *>(file->key.data()), static_cast<int64_t>(file->key.size()),
                            static_cast<int64_t>(number));
        file->reference = number;
    }
    if (length == -1) return read_failed(file, asked::keyed_read);
    if (length == 0 && ops().at_end(file->handle) == 1) return not_there();
    return record_was_read(fcd, file, found, length, false);
}

file_status write_record(control_block *fcd, open_file *file)
{
    file->read_done = false;
    if (!can_write(*file)) return status_of(48);
    const size_t length = length_to_write(*fcd);
    if (!length_fits(*file, length)) return status_of(44);
    vfs_record record{.length = length, .bytes = fcd->record()};
    const vfs_lock_request lock = lock_for_change(fcd->options());
    file_status status{};
    if (file->kind == organization::indexed)
        status = write_indexed(file, &record, lock);
    else if (file->access == access::sequential)
        status = write_in_order(fcd, file, &record, lock);
    else
        status = write_relative(fcd, file, &record, lock);
    if (status.good()) file->written = true;
    return status;
}

file_status rewrite_record(control_block *fcd, open_file *file)
{
    if (const auto refused = not_changeable(*fcd, file); refused) return *refused;
    const size_t length = length_to_write(*fcd);
    const bool fits = file->kind == organization::sequential ? length == file->length_read : length_fits(*file, length);
    if (!fits) return status_of(44);
    const char *bytes = fcd->record();
    alternate_check checked;
    if (file->kind == organization::indexed) {
        file->keys[0].take(bytes, &file->key);
        if (file->access == access::sequential && file->key != file->key_read) return status_of(21);
        checked = check_alternates(file, bytes, true);
        if (!checked.status.good()) return checked.status;
    }
    vfs_record record{.length = length, .bytes = fcd->record()};
    const vfs_lock_request lock = lock_for_change(fcd->options());
    vfs_status status{};
    const int64_t done = on_named_record(*fcd, file, true, [&](int32_t mode, auto... place) {
        return ops().rewrite(file->handle, &record, nullptr, &status, &lock, mode, place...);
    });
    if (done == -1) return status_of_error(errno, asked::rewrite, file->kind);
    file->record_read.clear();
    return file->kind == organization::indexed ? written(status, checked) : file_status{};
}

file_status delete_record(control_block *fcd, open_file *file)
{
    if (const auto refused = not_changeable(*fcd, file); refused) return *refused;
    const vfs_lock_request lock = lock_for_change(0);
    const int64_t done = on_named_record(*fcd, file, false, [&](int32_t mode, auto... place) {
        vfs_record record{.length = file->maximum, .bytes = fcd->record()};
        return ops().delete_record(file->handle, &record, nullptr, nullptr, &lock, mode, place...);
    });
    return done == -1 ? status_of_error(errno, asked::other, file->kind) : file_status{};
}
