// Loading the library, and the record operations with their errors.
#include "driver.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <vector>

#include <dlfcn.h>
#include <unistd.h>

#include <fmt/format.h>

#include "errors.h"

namespace {

constexpr const char *library_name = "libvfs_psx_64r.so";

std::string directory_of_program()
{
    std::string path(PATH_MAX, '\0');
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    if (length <= 0) return ".";
    path.resize(static_cast<size_t>(length));
    return path.substr(0, path.rfind('/'));
}

struct loaded_library {
    const vfs_driver *descriptor;
    std::string path;
};

loaded_library load_from(const std::string &path, void *library)
{
    // The one conversion that dlsym needs; POSIX promises that it works.
    auto *entry = reinterpret_cast<const vfs_driver *(*)()>(dlsym(library, "vfs"));
    if (entry == nullptr) throw tool_error(fmt::format("{}: this library has no driver in it", path));
    const vfs_driver *found = entry();
    if (found == nullptr || found->stamp != VFS_STAMP || found->size != sizeof(vfs_driver))
        throw tool_error(fmt::format("{}: this driver speaks another interface than vfsctl; install both from one "
                                     "build",
                                     path));
    return {found, path};
}

loaded_library load_library()
{
    if (const char *named = std::getenv("VFS_LIBRARY"); named != nullptr && *named != '\0') {
        void *library = dlopen(named, RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) throw tool_error(fmt::format("VFS_LIBRARY: {}", dlerror()));
        return load_from(named, library);
    }
    const std::string here = directory_of_program();
    std::string complaint;
    for (const std::string &path :
         {here + "/" + library_name, here + "/" + VFSCTL_LIBRARY_FROM_BIN + "/" + library_name,
          std::string{library_name}}) {
        const bool exists = path.find('/') == std::string::npos || access(path.c_str(), F_OK) == 0;
        if (!exists) continue;
        if (void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) return load_from(path, library);
        complaint = dlerror();
    }
    throw tool_error(
        fmt::format("{}\n  build the driver with script/build, or name the library in VFS_LIBRARY", complaint));
}

const loaded_library &library()
{
    static const loaded_library loaded = load_library();
    return loaded;
}

} // namespace

const vfs_driver &driver()
{
    return *library().descriptor;
}
const std::string &driver_path()
{
    return library().path;
}

bool file_exists(const std::string &path)
{
    return driver().ops.access(path.c_str()) != 0;
}

record_file::record_file(const open_request &request) : path_(request.path)
{
    vfs_lock_request locks{};
    if (request.exclusive) locks.share_mode = VFS_SHARE_NONE;
    vfs_open_block block{};
    block.min_record_length = request.min_record_length;
    block.max_record_length = request.max_record_length;
    block.path = path_.c_str();
    block.lock_defaults = &locks; // defaults: VFS_LOCK decides
    block.keys = request.keys;
    block.open_flags = static_cast<uint32_t>(request.flags);
    block.organization = request.organization;
    block.logical_organization = request.logical;
    block.block_size = request.block_size;
    block.access_mode = request.sequential ? VFS_ACCESS_SEQUENTIAL : VFS_ACCESS_DYNAMIC;
    block.record_format = request.fixed_length ? VFS_FORMAT_FIXED : VFS_FORMAT_VARIABLE;
    handle_ = driver().ops.open(&block);
    if (handle_ == nullptr) fail("cannot open it", errno);
    try {
        if (!request.only_writes) area_.resize(static_cast<size_t>(info().max_record_length) + 1);
    } catch (...) {
        driver().ops.close(handle_, nullptr);
        throw;
    }
}

record_file::~record_file()
{
    if (handle_ != nullptr) driver().ops.close(handle_, nullptr);
}

std::string record_file::error_text(int error) const
{
    const char *text = driver().ops.error_text(handle_, error, nullptr, 1);
    return text != nullptr ? text : fmt::format("error {}", error);
}

void record_file::fail(const char *what, int error) const
{
    if (error == EINTR) throw interruption(fmt::format("{}: {}: interrupted", path_, what));
    throw tool_error(failure_message(path_, what, error, error_text(error)));
}

vfs_open_block record_file::info()
{
    vfs_open_block block{};
    if (driver().ops.info(handle_, &block) == -1) fail("cannot be asked about itself", errno);
    return block;
}

int64_t record_file::read_into_area(int32_t mode, int64_t key_number)
{
    vfs_record record{.length = area_.size(), .bytes = area_.data()};
    return driver().ops.read(handle_, &record, nullptr, &status_, nullptr, mode, key_number);
}

std::optional<std::string_view> record_file::read(int32_t mode, int64_t key_number)
{
    errno = 0;
    int64_t length = read_into_area(mode, key_number);
    if (length > static_cast<int64_t>(area_.size())) { // longer than the file's header foresaw
        area_.resize(static_cast<size_t>(length));
        length = read_into_area(VFS_POS_CURRENT, 0);
    }
    if (length == -1) fail("cannot read", errno);
    if (length == 0 && driver().ops.at_end(handle_) == 1) return std::nullopt;
    return std::string_view{area_}.substr(0, static_cast<size_t>(length));
}

bool record_file::start(int32_t relation, std::string_view key, int64_t key_number)
{
    vfs_record record{.length = area_.size(), .bytes = area_.data()};
    const int64_t result =
        driver().ops.start(handle_, &record, nullptr, nullptr, nullptr, VFS_POS_KEY, relation,
                           static_cast<const void *>(key.data()), static_cast<int64_t>(key.size()), key_number);
    if (result == -1 && errno != ESPIPE) fail("cannot look for the key", errno);
    return result != -1 && driver().ops.at_end(handle_) == 0;
}

outcome record_file::settle(int64_t result, const char *what)
{
    if (result != -1) return outcome::done;
    last_error_ = errno;
    if (last_error_ == ESPIPE) return outcome::not_found;
    if (last_error_ == EADDRINUSE || last_error_ == EEXIST || last_error_ == ERANGE) return outcome::refused;
    fail(what, last_error_);
}

outcome record_file::write(std::string_view bytes)
{
    vfs_record record{.length = bytes.size(), .bytes = const_cast<char *>(bytes.data())};
    return settle(driver().ops.write(handle_, &record, nullptr, nullptr, nullptr, VFS_POS_KEY,
                                     static_cast<const void *>(nullptr), static_cast<int64_t>(bytes.size()),
                                     int64_t{0}),
                  "cannot write");
}

outcome record_file::write_at(int64_t rrn, std::string_view bytes)
{
    vfs_record record{.length = bytes.size(), .bytes = const_cast<char *>(bytes.data())};
    return settle(driver().ops.write(handle_, &record, nullptr, nullptr, nullptr, VFS_POS_RRN, rrn), "cannot write");
}

outcome record_file::append(std::string_view bytes)
{
    vfs_record record{.length = bytes.size(), .bytes = const_cast<char *>(bytes.data())};
    return settle(driver().ops.write(handle_, &record, nullptr, nullptr, nullptr, VFS_POS_END), "cannot write");
}

outcome record_file::rewrite(std::string_view bytes, std::string_view key)
{
    vfs_record record{.length = bytes.size(), .bytes = const_cast<char *>(bytes.data())};
    return settle(driver().ops.rewrite(handle_, &record, nullptr, nullptr, nullptr, VFS_POS_KEY,
                                       static_cast<const void *>(key.data()), static_cast<int64_t>(key.size()),
                                       int64_t{0}),
                  "cannot replace");
}

outcome record_file::remove(std::string_view key, int64_t key_number)
{
    vfs_record record{.length = area_.size(), .bytes = area_.data()};
    return settle(driver().ops.delete_record(handle_, &record, nullptr, nullptr, nullptr, VFS_POS_KEY,
                                             static_cast<const void *>(key.data()), static_cast<int64_t>(key.size()),
                                             key_number),
                  "cannot delete");
}

void record_file::close()
{
    if (handle_ == nullptr) return;
    vfs_file *closing = handle_;
    handle_ = nullptr; // close frees it whatever happens
    if (driver().ops.close(closing, nullptr) == -1) fail("closing failed, the last changes may be missing", errno);
}
