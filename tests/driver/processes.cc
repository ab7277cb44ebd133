// processes.cc: see processes.h.
#include "processes.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <utility>

namespace host {
namespace {

bool readable(int descriptor, int seconds)
{
    const int64_t until = now_ns() + int64_t{seconds} * 1'000'000'000;
    for (;;) {
        pollfd wait{.fd = descriptor, .events = POLLIN, .revents = 0};
        const int64_t left = (until - now_ns()) / 1'000'000;
        const int ready = poll(&wait, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready > 0) return true;
        if (ready == 0 || errno != EINTR) return false;
    }
}

} // namespace

int64_t now_ns()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec;
}

gate::gate()
{
    if (pipe2(ends_, O_CLOEXEC) == -1) abort();
}

gate::~gate()
{
    close(ends_[0]);
    close(ends_[1]);
}

void gate::open(unsigned times)
{
    for (; times != 0; --times)
        if (write(ends_[1], "", 1) != 1) abort();
}

bool gate::wait(int seconds)
{
    char byte;
    return readable(ends_[0], seconds) && read(ends_[0], &byte, 1) == 1;
}

child::child(const std::function<void()> &body, const std::string &errors)
{
    fflush(nullptr);
    id_ = fork();
    if (id_ == -1) abort();
    if (id_ != 0) return;
    alarm(0);
    if (!errors.empty()) {
        const int descriptor = ::open(errors.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        dup2(descriptor, 2);
        ::close(descriptor);
    }
    body();
    fflush(nullptr);
    _exit(0);
}

child::~child()
{
    kill();
}

child &child::operator=(child &&other) noexcept
{
    if (this != &other) {
        kill();
        id_ = std::exchange(other.id_, 0);
    }
    return *this;
}

void child::kill()
{
    if (id_ == 0) return;
    ::kill(id_, SIGKILL);
    while (waitpid(id_, nullptr, 0) == -1 && errno == EINTR) {}
    id_ = 0;
}

int child::finish(int seconds)
{
    if (id_ == 0) return -1;
    const int descriptor = static_cast<int>(syscall(SYS_pidfd_open, id_, 0));
    const bool ended = descriptor != -1 && readable(descriptor, seconds);
    if (descriptor != -1) close(descriptor);
    if (!ended) {
        kill();
        return -1;
    }
    int status = 0;
    while (waitpid(id_, &status, 0) == -1 && errno == EINTR) {}
    id_ = 0;
    return WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string in_child(const std::function<std::string()> &body, int seconds)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1) abort();
    child worker{[&] {
        const std::string text = body();
        for (size_t at = 0; at < text.size();) {
            const ssize_t n = write(ends[1], text.data() + at, text.size() - at);
            if (n <= 0) _exit(3);
            at += static_cast<size_t>(n);
        }
    }};
    close(ends[1]);
    std::string text;
    char bytes[4096];
    while (readable(ends[0], seconds)) {
        const ssize_t n = read(ends[0], bytes, sizeof bytes);
        if (n <= 0) break;
        text.append(bytes, static_cast<size_t>(n));
    }
    close(ends[0]);
    const int code = worker.finish(seconds);
    if (code != 0) text += "\nthe process ended with " + std::to_string(code);
    return text;
}

bool waits_for_a_lock(pid_t process)
{
    const std::string mark = " " + std::to_string(process) + " ";
    std::ifstream locks{"/proc/locks"};
    for (std::string line; std::getline(locks, line);)
        if (line.find("->") != std::string::npos && line.find(mark) != std::string::npos) return true;
    return false;
}

} // namespace host
