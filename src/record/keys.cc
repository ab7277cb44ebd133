// Key values cut from records, and the index work of one key. See keys.h.
#include "record/keys.h"

#include "store/slots.h"
#include "util/errors.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

inline constexpr uint64_t key_tail = 8; // zero bytes behind every key value

// Copies one part of a key; what the record does not have is zero.
void part_copy(std::byte *to, const vfs_key_part &part, const std::byte *record, uint64_t length)
{
    const auto offset = static_cast<uint64_t>(part.offset), bytes = static_cast<uint64_t>(part.length);
    const uint64_t there = offset >= length ? 0 : length - offset < bytes ? length - offset : bytes;
    if (there != 0) std::memcpy(to, record + offset, there);
    if (there < bytes) std::memset(to + there, 0, bytes - there);
}

int extract(vfs_file *file, vfs_request *request, const std::byte *record, uint64_t length)
{
    auto *to = static_cast<std::byte *>(request->key);
    for (const vfs_key_part &part : key_parts(file, request->key_number)) {
        part_copy(to, part, record, length);
        to += part.length;
    }
    std::memset(to, 0, key_tail);
    return 0;
}

int load_part(vfs_file *file, const vfs_request *request, const vfs_key_part &part, std::byte *to)
{
    const auto offset = static_cast<uint64_t>(part.offset), bytes = static_cast<uint64_t>(part.length);
    const uint64_t length = request->data_length;
    const uint64_t there = offset >= length ? 0 : length - offset < bytes ? length - offset : bytes;
    std::memset(to + there, 0, bytes - there);
    return there == 0 ? 0 : data_get(file, request->data_offset + offset, to, there);
}

void report_failure(vfs_file *file, vfs_request *request, const char *what)
{
    const int cause = errno;
    std::fprintf(stderr, "%s(%s)=%d %s\n", what, static_cast<const char *>(request->key), cause, strerror(cause));
    tree_dump(file, request);
    errno = cause;
}

} // namespace

int key_copy(vfs_file *file, vfs_request *request, const void *key, uint64_t length)
{
    if (request->key_number >= file->key_count) return fail(ERANGE);
    auto *to = static_cast<std::byte *>(request->key);
    if (!file->indexed()) {
        const uint64_t room = file->key_buffer_bytes - key_tail;
        const uint64_t bytes = length < room ? length : room;
        std::memcpy(to, key, bytes);
        std::memset(to + bytes, 0, key_tail);
        request->key_length = length;
        return 0;
    }
    const uint64_t full = key_length_of(file, request->key_number);
    const uint64_t bytes = length < full ? length : full;
    std::memcpy(to, key, bytes);
    std::memset(to + bytes, 0, full - bytes + key_tail);
    request->key_length = full;
    return 0;
}

int key_extract(vfs_file *file, vfs_request *request, const void *record, uint64_t length)
{
    if (request->key_number >= file->key_count) return fail(ERANGE);
    if (!file->indexed()) {
        *static_cast<char *>(request->key) = '\0';
        return 0;
    }
    if (record == nullptr) return fail(EINVAL);
    request->key_length = key_length_of(file, request->key_number);
    return extract(file, request, static_cast<const std::byte *>(record), length);
}

int key_load(vfs_file *file, vfs_request *request)
{
    if (request->key_number >= file->key_count) return fail(ERANGE);
    if (!file->indexed()) {
        *static_cast<char *>(request->key) = '\0';
        return 0;
    }
    request->key_length = key_length_of(file, request->key_number);
    const vfs_buffer *block = cache_fetch_at(&file->data, request->data_offset);
    if (block == nullptr) return -1;
    if (request->data_offset + request->data_length <= block->offset + block->bytes) [[likely]]
        return extract(file, request, block->data + (request->data_offset - block->offset), request->data_length);
    auto *to = static_cast<std::byte *>(request->key);
    for (const vfs_key_part &part : key_parts(file, request->key_number)) {
        if (load_part(file, request, part, to) == -1) return -1;
        to += part.length;
    }
    std::memset(to, 0, key_tail);
    return 0;
}

int key_compare(const vfs_file *file, uint64_t key_number, const void *a, const void *b)
{
    if (key_number >= file->key_count) return fail(ERANGE);
    return std::memcmp(a, b, key_length_of(file, key_number));
}

int rrn_from_key(vfs_request *request)
{
    const auto *text = static_cast<const char *>(request->key);
    const uint64_t length = request->key_length;
    if (length == 0) return fail(EINVAL);
    uint64_t i = 0, number = 0;
    while (i < length && text[i] == ' ') ++i;
    if (i == length) return fail(EINVAL);
    for (; i < length; ++i) {
        if (text[i] < '0' || text[i] > '9') return fail(EINVAL);
        const auto digit = static_cast<uint64_t>(text[i] - '0');
        if (number > (none - digit) / 10) return fail(ERANGE);
        number = number * 10 + digit;
    }
    request->rrn = number;
    request->mode = VFS_POS_RRN;
    return 0;
}

int rrn_to_key(vfs_request *request)
{
    if (request->key_length >= 256) return fail(EOVERFLOW);
    char text[300];
    const auto width = static_cast<int>(request->key_length);
    const int length = std::snprintf(text, sizeof text, "%*.*lu", width, width, request->rrn);
    if (length > width) return fail(EOVERFLOW);
    std::memcpy(request->key, text, static_cast<size_t>(length) + 1);
    return 0;
}

int key_find(vfs_file *file, vfs_request *request)
{
    request->flags = static_cast<uint8_t>(request->flags & ~VFS_FLAG_CURRENT);
    if (tree_select(file, request->key_number) == -1) return -1;
    const int found = file->indexed() ? key_locate(file, request) : rrn_locate(file, request);
    if (found == 1) return fail(ESPIPE);
    return found;
}

int key_duplicate(vfs_file *file, vfs_request *request)
{
    if (tree_select(file, request->key_number) == -1) return -1;
    const int answer = tree_has_duplicate(file, request);
    if (answer == -1) {
        report_failure(file, request, "key_duplicate");
        return -1;
    }
    request->flags =
        static_cast<uint8_t>(answer == 1 ? request->flags | VFS_FLAG_DUPLICATE : request->flags & ~VFS_FLAG_DUPLICATE);
    return 0;
}

int key_insert(vfs_file *file, vfs_request *request)
{
    if (tree_select(file, request->key_number) == -1) return -1;
    const int inserted = file->indexed() ? tree_insert_key(file, request) : rrn_insert(file, request);
    if (inserted == 0) return key_allows_duplicates(file, request->key_number) ? key_duplicate(file, request) : 0;
    if (errno == EADDRINUSE)
        request->flags |= VFS_FLAG_DUPLICATE;
    else
        report_failure(file, request, "key_insert");
    return -1;
}

int key_repoint(vfs_file *file, vfs_request *request, uint64_t offset)
{
    if (tree_select(file, request->key_number) == -1) return -1;
    return entry_set_address(file, request, offset);
}

int key_delete(vfs_file *file, vfs_request *request)
{
    if (tree_select(file, request->key_number) == -1) return -1;
    return file->indexed() ? tree_delete_key(file, request) : rrn_delete(file, request);
}

int key_put_back(vfs_file *file, vfs_request *request)
{
    if (tree_select(file, request->key_number) == -1) return -1;
    const int found = tree_seek_record(file, request);
    return found == 1 ? key_insert(file, request) : found;
}

bool is_sequence_key(vfs_file *file, const vfs_request &work)
{
    if (!file->indexed() || !file->sequence_key_known) return false;
    vfs_request stored = work;
    stored.key_number = file->primary_key;
    stored.key = file->old_key;
    return key_load(file, &stored) == 0 && key_compare(file, file->primary_key, stored.key, file->sequence_key) == 0;
}

int status_fill(const operation_call &call, vfs_request *work, bool found)
{
    const vfs_file *file = call.file;
    vfs_status *status = call.status;
    if (status == nullptr) return 0;
    status->record_offset = work->record_offset;
    status->rrn = work->rrn;
    status->duplicate = 0;
    if (!file->indexed()) return call.mode == VFS_POS_KEY && found ? rrn_to_key(work) : 0;
    status->key = file->last.key;
    if (found) status->duplicate = (work->flags & VFS_FLAG_DUPLICATE) != 0;
    return 0;
}

void step_taken_back(vfs_file *file, int result, int harmless)
{
    if (result == -1 && errno != harmless) store_error(file, errno);
}

void slot_taken_back(vfs_file *file, uint64_t offset)
{
    if (slot_free(file, offset) == 0) return;
    const int cause = errno;
    slot_head head;
    if (slot_head_read(file, offset, &head) == -1 || head.type != item_deleted) store_error(file, cause);
}
