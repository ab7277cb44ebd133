// The table of settings and their parse rules. May use util/ only.
#include "driver/configuration.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace {

constexpr uint32_t data_count_default = 4, data_count_most = 65536;
constexpr uint64_t data_size_default = 131072, kibibyte = 1024, data_size_most = uint64_t{1} << 30;
constexpr uint64_t cache_size_most = uint64_t{1} << 46;

// Parsers get the value, or null when the variable does not exist. "Set" means: exists and is not empty.
bool is_set(const char *value)
{
    return value != nullptr && *value != '\0';
}
bool on_unless_zero(const char *value)
{
    return value == nullptr || *value != '0';
}
bool on_if_one(const char *value)
{
    return value != nullptr && *value == '1';
}
int64_t number(const char *value)
{
    return std::strtol(value, nullptr, 0);
}

void parse_debug(const char *value, open_settings *out)
{
    out->debug = is_set(value);
}
void parse_mapping(const char *value, open_settings *out)
{
    out->memory_mapping = on_unless_zero(value);
}
void parse_asynchronous(const char *value, open_settings *out)
{
    out->asynchronous_io = on_unless_zero(value);
    out->queue_asked = value != nullptr && out->asynchronous_io;
}
void parse_direct(const char *value, open_settings *out)
{
    out->direct_io = on_if_one(value);
}
void parse_caching(const char *value, open_settings *out)
{
    out->caching = on_unless_zero(value);
}
void parse_hashing(const char *value, open_settings *out)
{
    out->hashing = on_unless_zero(value);
}
void parse_sync(const char *value, open_settings *out)
{
    out->sync_each_change = on_if_one(value);
}
void parse_lock(const char *value, open_settings *out)
{
    out->lock_choice = is_set(value) ? *value : '2';
}

void parse_threads(const char *value, open_settings *out)
{
    out->io_threads = tri_state::undecided;
    if (value != nullptr && *value == '1') out->io_threads = tri_state::on;
    if (value != nullptr && *value == '0') out->io_threads = tri_state::off;
}

void parse_data_count(const char *value, open_settings *out)
{
    out->data_count = data_count_default;
    if (is_set(value)) out->data_count = static_cast<uint32_t>(std::clamp<int64_t>(number(value), 1, data_count_most));
}

void parse_data_size(const char *value, open_settings *out)
{
    out->data_size_fixed = is_set(value);
    out->data_size = data_size_default;
    if (!out->data_size_fixed) return;
    const auto wanted = static_cast<uint64_t>(std::clamp<int64_t>(number(value), 1, data_size_most / kibibyte));
    out->data_size = kibibyte;
    while (out->data_size < wanted * kibibyte) out->data_size *= 2;
}

uint32_t block_count(const char *value, const open_settings *settings)
{
    const uint32_t most = settings->data_count - 1;
    if (!is_set(value)) return most;
    return static_cast<uint32_t>(std::min<uint64_t>(static_cast<uint64_t>(number(value)), most)); // negative: most
}

void parse_readahead(const char *value, open_settings *out)
{
    out->readahead = block_count(value, out);
}
void parse_writebehind(const char *value, open_settings *out)
{
    out->writebehind = block_count(value, out);
}

void parse_cache_size(const char *value, open_settings *out)
{
    out->cache_size = 0;
    if (!is_set(value)) return;
    char *suffix = nullptr;
    const int64_t count = std::strtol(value, &suffix, 0);
    if (count <= 0) return;
    int shift = 0;
    switch (*suffix) {
    case 'K':
    case 'k': shift = 10; break;
    case 'M':
    case 'm': shift = 20; break;
    case 'G':
    case 'g': shift = 30; break;
    default: break;
    }
    const auto size = static_cast<uint64_t>(count);
    out->cache_size = size > cache_size_most >> shift ? cache_size_most : size << shift;
}

void parse_unclean(const char *value, open_settings *out)
{
    out->read_unclean = value != nullptr && std::strcmp(value, "read") == 0;
}

struct setting {
    const char *name;
    void (*parse)(const char *value, open_settings *out);
};

constexpr setting settings_table[] = {
    // read in this order: later rows use earlier results
    {"VFS_DEBUG", parse_debug},
    {"VFS_IO_MMAP", parse_mapping},
    {"VFS_IO_AIO", parse_asynchronous},
    {"VFS_IO_DIO", parse_direct},
    {"VFS_IO_THREAD", parse_threads},
    {"VFS_IO_CACHE", parse_caching},
    {"VFS_IO_HASH", parse_hashing},
    {"VFS_DATA_COUNT", parse_data_count},
    {"VFS_DATA_SIZE", parse_data_size},
    {"VFS_DATA_READAHEAD", parse_readahead},
    {"VFS_DATA_WRITEBEHIND", parse_writebehind},
    {"VFS_LOCK", parse_lock},
    {"VFS_CACHE_SIZE", parse_cache_size},
    {"VFS_SYNC", parse_sync},
    {"VFS_UNCLEAN", parse_unclean},
};

struct lock_row {
    char choice;
    uint32_t share_read_only, share_update, lock_mode, wait_mode;
};

constexpr lock_row lock_rows[] = {
    {'0', VFS_SHARE_ALL, VFS_SHARE_ALL, VFS_LOCK_NONE, VFS_WAIT_NEVER},
    {'1', VFS_SHARE_READ, VFS_SHARE_NONE, VFS_LOCK_FILE, VFS_WAIT_KERNEL},
    {'2', VFS_SHARE_READ, VFS_SHARE_NONE, VFS_LOCK_FILE, VFS_WAIT_KERNEL},
    {'3', VFS_SHARE_ALL, VFS_SHARE_ALL, VFS_LOCK_AUTO, VFS_WAIT_KERNEL},
    {'4', VFS_SHARE_ALL, VFS_SHARE_ALL, VFS_LOCK_RECORD, VFS_WAIT_KERNEL},
};

// A choice of the whole process: 0 until it is read, then 1 (yes) or 2. Two threads that read it at the same time
// come to the same answer.
template <typename Test> bool read_once(std::atomic<int> &choice, const char *name, Test &&test)
{
    int known = choice.load(std::memory_order_relaxed);
    if (known == 0) {
        known = test(std::getenv(name)) ? 1 : 2;
        choice.store(known, std::memory_order_relaxed);
    }
    return known == 1;
}

} // namespace

void read_settings(open_settings *out, environment_lookup lookup)
{
    *out = {};
    for (const setting &row : settings_table) row.parse(lookup(row.name), out);
}

void apply_lock_choice(const open_settings &settings, bool read_only, vfs_lock_request *request)
{
    for (const lock_row &row : lock_rows) {
        if (row.choice != settings.lock_choice) continue;
        request->share_mode = read_only ? row.share_read_only : row.share_update;
        request->lock_mode = row.lock_mode;
        request->wait_mode = row.wait_mode;
        return;
    }
}

bool sharing_delays_announced()
{
    static std::atomic<int> choice;
    return read_once(choice, "VFS_SHARE", [](const char *value) { return is_set(value) && *value > '1'; });
}

bool selected_module_kept()
{
    static std::atomic<int> choice;
    return read_once(choice, "VFS_NO_FORCE_FS", is_set);
}
