// Unique keys with suppressed values. The driver keeps such a key as one with duplicates; that the other values occur once
// is looked after here. Not atomic between programs that share a file: the driver's own unique keys are.
#include "bridge.h"

bool sparse_key_taken(open_file *file, const char *record, const char *before)
{
    if (file->kind != organization::indexed) return false;
    for (size_t k = 1; k < file->keys.size(); ++k) {
        const key_shape &key = file->keys[k];
        if (!key.sparse || key.duplicates) continue;
        std::string value, old;
        key.take(record, &value);
        if (before != nullptr) key.take(before, &old);
        if (key.suppresses(value) || (before != nullptr && value == old)) continue;
        vfs_lock_request look{};
        look.request_kind = VFS_KIND_NO_LOCK;
        std::string area(file->maximum, '\0');
        vfs_record found{.length = area.size(), .bytes = area.data()};
        const int64_t length = ops().read(file->handle, &found, nullptr, nullptr, &look, VFS_POS_KEY,
                                          static_cast<const void *>(value.data()), static_cast<int64_t>(value.size()),
                                          static_cast<int64_t>(k));
        if (length > 0) return true;
    }
    return false;
}
