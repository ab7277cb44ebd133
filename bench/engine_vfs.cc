// The driver under test, as a host sees it. May include <vfs.h> only; must not know what lies behind it.
#include "engine.h"
#include "vfs_calls.h"

#include <cerrno>
#include <memory>

#include <unistd.h>

namespace {

struct vfs_session : session {
    vfs_file *handle = nullptr;
    std::string path;
    purpose use{};
    int32_t step = VFS_POS_NEXT;
};

vfs_session &of(session *file)
{
    return *static_cast<vfs_session *>(file);
}

[[noreturn]] void fail(const char *operation)
{
    throw engine_error(std::string(operation) + ": " + strerror(errno));
}

std::string vfs_configuration(const engine_settings &)
{
    std::string text = "indexed file, one key, variable record format, closed (which syncs) and fdatasync(2)";
    const char *cache = getenv("VFS_CACHE_SIZE");
    return text + (cache != nullptr ? std::string("; VFS_CACHE_SIZE=") + cache : "; default settings");
}

int flags_for(purpose use)
{
    if (is_load(use)) return O_RDWR | O_CREAT | O_TRUNC;
    return use == purpose::random_rewrite ? O_RDWR : O_RDONLY;
}

session *vfs_open(const std::string &path, purpose use, const engine_settings &)
{
    auto file = std::make_unique<vfs_session>();
    file->path = path;
    file->use = use;
    const bool sequential = use == purpose::load_ascending || use == purpose::scan;
    file->handle = open_indexed(path, sequential ? VFS_ACCESS_SEQUENTIAL : VFS_ACCESS_DYNAMIC, flags_for(use));
    if (file->handle == nullptr) fail("open");
    return file.release();
}

// The write operations read the bytes only.
vfs_record record_of(const record &bytes)
{
    return {.length = record_bytes, .bytes = const_cast<char *>(bytes.data())};
}

void vfs_put(session *opaque, const record &bytes)
{
    if (!write_by_key(of(opaque).handle, bytes)) fail("write");
}

bool vfs_get(session *opaque, const char *key, record &bytes)
{
    vfs_record area{.length = record_bytes, .bytes = bytes.data()};
    const int64_t got = ops().read(of(opaque).handle, &area, nullptr, nullptr, nullptr, VFS_POS_KEY,
                                   static_cast<const void *>(key), static_cast<int64_t>(key_bytes), int64_t{0});
    if (got == -1) fail("read");
    return got == static_cast<int64_t>(record_bytes);
}

void vfs_rewrite(session *opaque, const record &bytes)
{
    vfs_record written = record_of(bytes);
    if (ops().rewrite(of(opaque).handle, &written, nullptr, nullptr, nullptr, VFS_POS_KEY,
                      static_cast<const void *>(nullptr), int64_t{0}, int64_t{0}) == -1)
        fail("rewrite");
}

void vfs_scan_from_end(session *opaque, direction way)
{
    vfs_session &file = of(opaque);
    const bool forward = way == direction::forward;
    record bytes;
    vfs_record area{.length = record_bytes, .bytes = bytes.data()};
    file.step = forward ? VFS_POS_NEXT : VFS_POS_PREV;
    if (ops().start(file.handle, &area, nullptr, nullptr, nullptr, forward ? VFS_POS_FIRST : VFS_POS_LAST,
                    int64_t{0}) == -1)
        fail("start");
}

bool vfs_scan_next(session *opaque, record &bytes)
{
    vfs_session &file = of(opaque);
    vfs_record area{.length = record_bytes, .bytes = bytes.data()};
    const int64_t got = ops().read(file.handle, &area, nullptr, nullptr, nullptr, file.step);
    if (got == -1) fail("read");
    if (got == 0 && ops().at_end(file.handle) == 1) return false;
    if (got != static_cast<int64_t>(record_bytes)) throw engine_error("read: a record of another length");
    return true;
}

// Close syncs by itself; the descriptor of our own makes sure that all engines are measured to the same point.
void vfs_close(session *opaque)
{
    const std::unique_ptr<vfs_session> file{&of(opaque)};
    if (ops().close(file->handle, nullptr) == -1) fail("close");
    if (!is_update(file->use)) return;
    const int fd = open(file->path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1) fail("open for fdatasync");
    const int result = fdatasync(fd);
    close(fd);
    if (result == -1) fail("fdatasync");
}

} // namespace

const engine vfs_engine{.name = "vfs",
                        .title = "driver",
                        .configuration = vfs_configuration,
                        .open = vfs_open,
                        .put = vfs_put,
                        .get = vfs_get,
                        .rewrite = vfs_rewrite,
                        .scan_from_end = vfs_scan_from_end,
                        .scan_next = vfs_scan_next,
                        .close = vfs_close};
