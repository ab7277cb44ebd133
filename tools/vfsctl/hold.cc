// The locks are fcntl's. The whole file: from offset 0 to the end of all offsets. What brackets one operation on a shared
// file: one byte at 200 GiB, in files without trees the first bytes of the header.
#include "hold.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "errors.h"
#include "progress.h"

namespace {

using clock = std::chrono::steady_clock;

constexpr std::chrono::seconds patience_with_owner{1}, patience_with_sharers{10};
constexpr off_t bracket_byte = 0x3200000000, header_bytes = 4096; // records begin behind them

// While it lives a signal comes every second and ends a waiting call.
class wake_up {
public:
    wake_up()
    {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, &old_);
        const itimerval every_second{{1, 0}, {1, 0}};
        setitimer(ITIMER_REAL, &every_second, nullptr);
    }
    ~wake_up()
    {
        const itimerval never{};
        setitimer(ITIMER_REAL, &never, nullptr);
        sigaction(SIGALRM, &old_, nullptr);
    }
    wake_up(const wake_up &) = delete;
    wake_up &operator=(const wake_up &) = delete;

private:
    struct sigaction old_ {};
};

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
    if (kind == hold_kind::write)
        locked_ = lock_range(F_WRLCK, 0, 0);
    else
        locked_ = lock_range(F_RDLCK, 0, header_bytes) && lock_range(F_RDLCK, bracket_byte, 1);
}

held_file::~held_file()
{
    if (descriptor_ != -1) close(descriptor_);
}

bool held_file::lock_range(short type, off_t start, off_t length)
{
    struct flock wanted {};
    wanted.l_type = type;
    wanted.l_whence = SEEK_SET;
    wanted.l_start = start;
    wanted.l_len = length;
    if (fcntl(descriptor_, F_SETLK, &wanted) == 0) return true;
    const wake_up timer;
    const auto begun = clock::now();
    for (;;) {
        struct flock in_the_way = wanted;
        if (fcntl(descriptor_, F_GETLK, &in_the_way) == -1) return false;
        const bool owner = in_the_way.l_type != F_UNLCK && in_the_way.l_start == 0 && in_the_way.l_len == 0;
        holder_ = in_the_way.l_type == F_UNLCK ? 0 : in_the_way.l_pid;
        if (fcntl(descriptor_, F_SETLKW, &wanted) == 0) return true;
        if (errno != EINTR || interrupted()) return false;
        if (clock::now() - begun >= (owner ? patience_with_owner : patience_with_sharers)) return false;
    }
}
