// Unique keys with suppressed values. The driver keeps such a key as one with duplicates; that the other values occur once
// is looked after here. Not atomic between programs that share a file: the driver's own unique keys are.
#include "bridge.h"

#include <algorithm>
#include <cerrno>

namespace {

constexpr vfs_lock_request no_lock{.share_mode = 0,
                                   .lock_mode = 0,
                                   .lock_flags = 0,
                                   .hold = 0,
                                   .request_kind = VFS_KIND_NO_LOCK,
                                   .wait_mode = VFS_WAIT_NEVER,
                                   .retry_count = 0,
                                   .sleep = 0};

// Reads into an area of its own: 1 found, 0 not there, -1.
int look(open_file *file, const std::string &value, size_t key, std::string *bytes)
{
    bytes->assign(file->maximum, '\0');
    vfs_record area{.length = bytes->size(), .bytes = bytes->data()};
    const int64_t length = ops().read(file->handle, &area, nullptr, nullptr, &no_lock, VFS_POS_KEY,
                                      static_cast<const void *>(value.data()), static_cast<int64_t>(value.size()),
                                      static_cast<int64_t>(key));
    if (length == -1) return errno == ESPIPE ? 0 : -1;
    return length == 0 && ops().at_end(file->handle) == 1 ? 0 : 1;
}

bool looks_up(const key_shape &key)
{
    return key.sparse && !key.duplicates;
}

file_status met()
{
    return status_of_error(errno, asked::write, organization::indexed);
}

// To the record that was read last: among equal values by its primary key.
void go_back_to_record(open_file *file)
{
    std::string bytes, primary;
    if (look(file, file->place_value, file->reference, &bytes) != 1) return;
    for (;;) {
        file->keys[0].take(bytes.data(), &primary);
        if (primary == file->key_read) return;
        vfs_record area{.length = bytes.size(), .bytes = bytes.data()};
        if (ops().read(file->handle, &area, nullptr, nullptr, &no_lock, VFS_POS_NEXT) <= 0) return;
    }
}

void go_back(open_file *file)
{
    if (file->place == place_kind::read) return go_back_to_record(file);
    if (file->place == place_kind::none) return;
    const auto number = static_cast<int64_t>(file->reference);
    if (file->place_value.empty())
        (void)ops().start(file->handle, nullptr, nullptr, nullptr, nullptr,
                          file->place_relation == VFS_GREATER_EQUAL ? VFS_POS_FIRST : VFS_POS_LAST, number);
    else
        (void)ops().start(file->handle, nullptr, nullptr, nullptr, nullptr, VFS_POS_KEY, file->place_relation,
                          static_cast<const void *>(file->place_value.data()),
                          static_cast<int64_t>(file->place_value.size()), number);
}

file_status check(open_file *file, const char *record, const std::string *replaced)
{
    std::string bytes, before, value, old;
    if (replaced != nullptr) {
        const int found = look(file, *replaced, 0, &before);
        if (found != 1) return found == 0 ? status_of(23) : met();
    }
    for (size_t k = 1; k < file->keys.size(); ++k) {
        const key_shape &key = file->keys[k];
        if (!looks_up(key)) continue;
        key.take(record, &value);
        if (replaced != nullptr) key.take(before.data(), &old);
        if (key.suppresses(value) || (replaced != nullptr && value == old)) continue;
        const int found = look(file, value, k, &bytes);
        if (found != 0) return found == 1 ? status_of(22) : met();
    }
    return {};
}

} // namespace

file_status sparse_keys_check(open_file *file, const char *record, const std::string *replaced)
{
    if (std::none_of(file->keys.begin(), file->keys.end(), looks_up)) return {};
    const std::string replaced_key = replaced != nullptr ? *replaced : std::string{};
    const file_status status = check(file, record, replaced != nullptr ? &replaced_key : nullptr);
    go_back(file);
    return status;
}
