// The driver under test, as a host sees it, shared with record locks (VFS_LOCK in the environment). May include <vfs.h>
// only; must not know what lies behind it.
#include "../vfs_calls.h"
#include "store.h"

#include <cerrno>
#include <cstdlib>
#include <memory>

namespace {

struct vfs_connection : connection {
    vfs_file *handle = nullptr;
};

vfs_file *handle_of(connection *file)
{
    return static_cast<vfs_connection *>(file)->handle;
}

[[noreturn]] void fail(const char *operation)
{
    throw store_error(std::string(operation) + ": " + strerror(errno));
}

vfs_file *open_file(const std::string &path, uint32_t access, int flags)
{
    vfs_file *handle = open_indexed(path, access, flags);
    if (handle == nullptr) fail("open");
    return handle;
}

void write_record(vfs_file *handle, const record &bytes)
{
    if (!write_by_key(handle, bytes)) fail("write");
}

int64_t read_record(vfs_file *handle, const char *key, record &bytes, const vfs_lock_request *lock)
{
    vfs_record area{.length = record_bytes, .bytes = bytes.data()};
    const int64_t got = ops().read(handle, &area, nullptr, nullptr, lock, VFS_POS_KEY, static_cast<const void *>(key),
                                   static_cast<int64_t>(key_bytes), int64_t{0});
    if (got == -1) fail("read");
    return got;
}

void vfs_load(const std::string &path, uint64_t records)
{
    // Alone; the sharers' setting comes back for them.
    const char *kept = getenv("VFS_LOCK");
    const std::string setting = kept != nullptr ? kept : "4";
    setenv("VFS_LOCK", "2", 1);
    vfs_file *handle = open_file(path, VFS_ACCESS_SEQUENTIAL, O_RDWR | O_CREAT | O_TRUNC);
    setenv("VFS_LOCK", setting.c_str(), 1);
    record bytes;
    for (uint64_t i = 0; i < records; ++i) {
        make_record(loaded_number(i, records), 0, bytes);
        write_record(handle, bytes);
    }
    if (ops().close(handle, nullptr) == -1) fail("close");
}

connection *vfs_open(const std::string &path)
{
    auto file = std::make_unique<vfs_connection>();
    file->handle = open_file(path, VFS_ACCESS_DYNAMIC, O_RDWR);
    return file.release();
}

// As a program that only looks: without a lock on the record.
bool vfs_get(connection *file, const char *key, record &bytes)
{
    vfs_lock_request looking{};
    looking.request_kind = VFS_KIND_NO_LOCK;
    looking.wait_mode = VFS_WAIT_KERNEL;
    return read_record(handle_of(file), key, bytes, &looking) == static_cast<int64_t>(record_bytes);
}

void vfs_insert(connection *file, const record &bytes)
{
    write_record(handle_of(file), bytes);
}

void vfs_update(connection *file, uint64_t number)
{
    vfs_lock_request holding{};
    holding.hold = 1;
    holding.wait_mode = VFS_WAIT_KERNEL;
    char key[key_bytes];
    make_key(number, key);
    record bytes;
    if (read_record(handle_of(file), key, bytes, &holding) != static_cast<int64_t>(record_bytes))
        throw store_error("read: a record is missing");
    make_record(number, next_generation(bytes), bytes);
    vfs_record written{.length = record_bytes, .bytes = bytes.data()};
    if (ops().rewrite(handle_of(file), &written, nullptr, nullptr, &holding, VFS_POS_CURRENT) == -1) fail("rewrite");
    if (ops().unlock(handle_of(file), nullptr, nullptr, nullptr, nullptr, VFS_POS_FIRST) == -1) fail("unlock");
}

void vfs_visit(connection *file, const std::function<void(const record &)> &see)
{
    vfs_lock_request looking{};
    looking.request_kind = VFS_KIND_NO_LOCK;
    looking.wait_mode = VFS_WAIT_KERNEL;
    record bytes;
    vfs_record area{.length = record_bytes, .bytes = bytes.data()};
    int mode = VFS_POS_FIRST; // takes a number of a key; the next ones do not look at it
    for (;;) {
        const int64_t got = ops().read(handle_of(file), &area, nullptr, nullptr, &looking, mode, int64_t{0});
        if (got == -1) fail("read");
        if (got == 0) return;
        if (got != static_cast<int64_t>(record_bytes)) throw store_error("read: a record has another length");
        see(bytes);
        mode = VFS_POS_NEXT;
    }
}

void vfs_close(connection *file)
{
    const std::unique_ptr<vfs_connection> owned{static_cast<vfs_connection *>(file)};
    if (ops().close(owned->handle, nullptr) == -1) fail("close");
}

} // namespace

const store vfs_store{.name = "vfs",
                      .title = "driver",
                      .configuration = "indexed file, one key; reads without, updates with a record lock",
                      .load = vfs_load,
                      .open = vfs_open,
                      .get = vfs_get,
                      .insert = vfs_insert,
                      .update = vfs_update,
                      .visit = vfs_visit,
                      .close = vfs_close};
