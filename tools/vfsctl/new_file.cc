// See new_file.h.
#include "new_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "errors.h"

namespace {

std::string folder_of(const std::string &path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

void sync_path(const std::string &path, int flags)
{
    const int descriptor = open(path.c_str(), flags | O_RDONLY | O_CLOEXEC);
    const bool failed = descriptor == -1 || fsync(descriptor) == -1;
    const int error = errno;
    if (descriptor != -1) close(descriptor);
    // Some file systems cannot sync a folder; the name is as safe as it can be then.
    if (failed && !(error == EINVAL && (flags & O_DIRECTORY) != 0))
        throw tool_error(failure_message(path, "cannot be put on the disk", error, std::strerror(error)));
}

} // namespace

new_file::new_file(std::string path) : path_(std::move(path)), temporary_(fmt::format("{}.vfsctl-{}", path_, getpid()))
{
    unlink(temporary_.c_str()); // of an earlier process with this number
}

new_file::~new_file()
{
    if (!temporary_.empty()) unlink(temporary_.c_str());
}

void new_file::take_attributes_of(const std::string &other) const
{
    struct stat facts {};
    if (stat(other.c_str(), &facts) == -1 ||
        (chown(temporary_.c_str(), facts.st_uid, facts.st_gid) == -1 && errno != EPERM) ||
        chmod(temporary_.c_str(), facts.st_mode & 07777U) == -1)
        throw tool_error(failure_message(temporary_,
                                         fmt::format("cannot be given the owner and permissions of {}", other), errno,
                                         std::strerror(errno)));
    std::vector<char> names(1 << 16), value(1 << 16);
    const ssize_t length = listxattr(other.c_str(), names.data(), names.size());
    for (ssize_t at = 0; at < length; at += static_cast<ssize_t>(std::strlen(names.data() + at)) + 1) {
        const char *name = names.data() + at;
        const ssize_t bytes = getxattr(other.c_str(), name, value.data(), value.size());
        if (bytes >= 0 && setxattr(temporary_.c_str(), name, value.data(), static_cast<size_t>(bytes), 0) == -1)
            fmt::print(stderr, "vfsctl: {}: its attribute {} is not carried over: {}\n", other, name,
                       std::strerror(errno));
    }
}

void new_file::publish(replacing replace)
{
    sync_path(temporary_, 0);
    const unsigned flags = replace == replacing::yes ? 0U : static_cast<unsigned>(RENAME_NOREPLACE);
    int failed = renameat2(AT_FDCWD, temporary_.c_str(), AT_FDCWD, path_.c_str(), flags);
    if (failed == -1 && errno == EINVAL && flags != 0) { // a file system that cannot tell
        failed = link(temporary_.c_str(), path_.c_str());
        if (failed == 0) unlink(temporary_.c_str());
    }
    if (failed == -1) throw tool_error(failure_message(path_, "cannot be given its name", errno, std::strerror(errno)));
    temporary_.clear();
    sync_path(folder_of(path_), O_DIRECTORY);
}

void refuse_existing(const std::string &path, const char *command)
{
    if (access(path.c_str(), F_OK) == 0)
        throw tool_error(fmt::format("{}: exists already; {} overwrites nothing", path, command));
}
