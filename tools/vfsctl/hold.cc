// The lock is fcntl's, from offset 0 to the end of all offsets.
#include "hold.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "errors.h"

namespace {

constexpr std::chrono::milliseconds patience{1000}, pause_between{10};

[[noreturn]] void cannot_open(const std::string &path, int error)
{
    throw tool_error(failure_message(path, "cannot open it", error, std::strerror(error)));
}

} // namespace

held_file::held_file(const std::string &path, hold_kind kind)
{
    const int flags = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    descriptor_ = open(path.c_str(), flags | (kind == hold_kind::write ? O_RDWR : O_RDONLY));
    if (descriptor_ == -1) cannot_open(path, errno);
    struct stat status {};
    if (fstat(descriptor_, &status) == -1 || !S_ISREG(status.st_mode)) {
        const int error = S_ISDIR(status.st_mode) ? EISDIR : EBADF;
        close(descriptor_);
        cannot_open(path, error);
    }
    const short type = kind == hold_kind::write ? F_WRLCK : F_RDLCK;
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!try_lock(type) && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(pause_between);
}

held_file::~held_file()
{
    if (descriptor_ != -1) close(descriptor_);
}

bool held_file::try_lock(short type)
{
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    locked_ = fcntl(descriptor_, F_SETLK, &lock) == 0;
    if (locked_) return true;
    lock.l_type = type;
    holder_ = fcntl(descriptor_, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK ? lock.l_pid : 0;
    return false;
}
