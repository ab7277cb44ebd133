// START: by key with a relation, by relative number, first and last. Positions only; the READ that follows takes the
// record found, in either direction.
#include "bridge.h"

#include <cerrno>

namespace {

// 0 found, -1 with errno. The key of reference of the record found is in `found`.
int64_t driver_start(open_file *file, vfs_status *found, int32_t relation, const std::string &key, size_t number)
{
    return ops().start(file->handle, nullptr, nullptr, found, nullptr, VFS_POS_KEY, relation,
                       static_cast<const void *>(key.data()), static_cast<int64_t>(key.size()),
                       static_cast<int64_t>(number));
}

file_status ended(open_file *file, int64_t result)
{
    file->read_done = false;
    if (result >= 0) {
        file->at_end = file->at_begin = file->lost = false;
        return {};
    }
    file->lost = true;
    return status_of_error(errno, asked::keyed_read, file->kind);
}

int64_t not_there()
{
    errno = ESPIPE;
    return -1;
}

int64_t start_indexed(const control_block &fcd, open_file *file, int32_t relation)
{
    const size_t number = fcd.key_of_reference();
    if (number >= file->keys.size()) return not_there();
    const key_shape &key = file->keys[number];
    // The driver would take a length of 0 for the first record, or the last.
    const size_t length = fcd.key_length();
    if (length == 0 || length > key.length) return not_there();
    key.take(fcd.record(), &file->key);
    const bool suppressed = length == key.length && relation == VFS_EQUAL && key.suppresses(file->key);
    if (suppressed) return not_there();
    std::string value = file->key.substr(0, length);
    vfs_status found{};
    int64_t result = driver_start(file, &found, relation, value, number);
    file->reference = number;
    file->place = place_kind::started;
    file->place_value = value;
    file->place_relation = relation;
    if (result < 0 || !key.sparse || found.key == nullptr) return result;
    value.assign(static_cast<const char *>(found.key), key.length);
    if (!key.suppresses(value)) return result;
    const int32_t beyond = relation == VFS_EQUAL || relation >= VFS_GREATER_EQUAL ? VFS_GREATER : VFS_LESS;
    result = driver_start(file, &found, beyond, value, number);
    const bool equal =
        relation != VFS_EQUAL ||
        (found.key != nullptr && file->key.compare(0, length, static_cast<const char *>(found.key), length) == 0);
    return result < 0 || equal ? result : not_there();
}

int64_t start_at(open_file *file, vfs_status *found, int32_t edge)
{
    return ops().start(file->handle, nullptr, nullptr, found, nullptr, edge, int64_t{0});
}

int64_t start_at_number(open_file *file, int32_t relation, uint64_t number)
{
    return ops().start(file->handle, nullptr, nullptr, nullptr, nullptr, VFS_POS_RRN, relation,
                       static_cast<int64_t>(number - 1));
}

// The first record with a number of at least n. One in front of the lowest, or behind the highest, is not found whatever
// the relation: then the edge tells.
int64_t start_from(open_file *file, uint64_t n)
{
    vfs_status found{};
    if (n < 2) return start_at(file, &found, VFS_POS_FIRST);
    const int64_t result = start_at_number(file, VFS_GREATER_EQUAL, n);
    if (result >= 0 || errno != ESPIPE) return result;
    const int64_t edge = start_at(file, &found, VFS_POS_FIRST);
    return edge >= 0 && found.rrn + 1 < n ? not_there() : edge;
}

// The last record with a number of at most n.
int64_t start_up_to(open_file *file, uint64_t n)
{
    vfs_status found{};
    if (n == 0) return not_there();
    const int64_t result = start_at_number(file, VFS_LESS_EQUAL, n);
    if (result >= 0 || errno != ESPIPE) return result;
    const int64_t edge = start_at(file, &found, VFS_POS_LAST);
    return edge >= 0 && found.rrn + 1 > n ? not_there() : edge;
}

int64_t start_relative(const control_block &fcd, open_file *file, int32_t relation)
{
    const uint64_t number = fcd.relative_key();
    switch (relation) {
    case VFS_GREATER: return start_from(file, number + 1);
    case VFS_GREATER_EQUAL: return start_from(file, number);
    case VFS_LESS: return number == 0 ? not_there() : start_up_to(file, number - 1);
    case VFS_LESS_EQUAL: return start_up_to(file, number);
    default: return number == 0 ? not_there() : start_at_number(file, VFS_EQUAL, number);
    }
}

bool can_start(const open_file &file)
{
    return file.mode == open_mode::input || file.mode == open_mode::io;
}

} // namespace

file_status start(control_block *fcd, open_file *file, int32_t relation)
{
    if (!can_start(*file)) return status_of(47);
    if (file->handle == nullptr) return ended(file, not_there());
    const bool relative = file->kind == organization::relative;
    return ended(file, relative ? start_relative(*fcd, file, relation) : start_indexed(*fcd, file, relation));
}

file_status start_at_edge(control_block *, open_file *file, bool first)
{
    if (!can_start(*file)) return status_of(47);
    if (file->handle == nullptr) return ended(file, not_there());
    vfs_status found{};
    file->reference = 0;
    file->place = place_kind::started;
    file->place_value.clear(); // the edge itself
    file->place_relation = first ? VFS_GREATER_EQUAL : VFS_LESS_EQUAL;
    return ended(file, start_at(file, &found, first ? VFS_POS_FIRST : VFS_POS_LAST));
}
