// What a change means for alternate keys, as far as the driver does not tell. It keeps a unique key with suppressed values
// as one with duplicates; that the other values occur once is looked after here. (Not atomic between programs that share a
// file: the driver's own unique keys are.) And it tells of duplicates that were there before, while 02 is for new ones.
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

struct changed_value {
    size_t key;
    std::string value;
};

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

bool has_sparse_keys(const open_file &file)
{
    return std::any_of(file.keys.begin(), file.keys.end(), [](const key_shape &key) { return key.sparse; });
}

// 22, or 00 and 02 as the look-ups show it.
file_status look_up(open_file *file, const std::vector<changed_value> &values)
{
    std::string bytes;
    file_status status{};
    for (const changed_value &each : values) {
        const int found = look(file, each.value, each.key, &bytes);
        if (found == -1) return met();
        if (found == 1 && !file->keys[each.key].duplicates) return status_of(22);
        if (found == 1) status = status_of(2);
    }
    return status;
}

bool has_suppressed_value(const open_file &file, const char *record)
{
    std::string value;
    return std::any_of(file.keys.begin(), file.keys.end(), [&](const key_shape &key) {
        if (!key.sparse) return false;
        key.take(record, &value);
        return key.suppresses(value);
    });
}

} // namespace

alternate_check check_alternates(open_file *file, const char *record, bool replaces)
{
    const bool sparse = has_sparse_keys(*file);
    if (!sparse && !replaces) return {};
    std::string before, old;
    if (replaces) {
        std::string primary;
        file->keys[0].take(record, &primary);
        if (sparse) {
            const int found = look(file, primary, 0, &before);
            if (found != 1) {
                const file_status status = found == 0 ? status_of(23) : met();
                go_back(file);
                return {status, true};
            }
        } else if (!file->record_read.empty() && primary == file->key_read) {
            before = file->record_read;
        } else {
            return {}; // who has not read it is not made to wait for it: the driver's word has to do
        }
    }
    std::vector<changed_value> unique, shared;
    bool misleads = has_suppressed_value(*file, record);
    for (size_t k = 1; k < file->keys.size(); ++k) {
        const key_shape &key = file->keys[k];
        changed_value changed{.key = k, .value = {}};
        key.take(record, &changed.value);
        if (key.suppresses(changed.value)) continue;
        if (replaces) key.take(before.data(), &old);
        const bool same = replaces && changed.value == old;
        misleads = misleads || (same && key.duplicates);
        if (!same && key.duplicates)
            shared.push_back(std::move(changed));
        else if (!same && key.sparse)
            unique.push_back(std::move(changed));
    }
    if (misleads) unique.insert(unique.end(), shared.begin(), shared.end());
    const file_status status = look_up(file, unique);
    if (replaces ? sparse || !unique.empty() : !unique.empty()) go_back(file);
    return {status, misleads};
}
