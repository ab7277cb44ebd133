// Forks, times the work between two readings of the monotonic clock in the child, and takes the result from a pipe.
#include "child.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct result {
    tally met;
    double seconds;
};

double seconds_of(const timeval &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

[[noreturn]] void be_child(const std::string &name, const std::function<tally()> &work, int out)
{
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    prctl(PR_SET_NAME, name.c_str());
    try {
        const auto begin = std::chrono::steady_clock::now();
        const tally met = work();
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
        const result done{met, took.count()};
        if (write(out, &done, sizeof done) == static_cast<ssize_t>(sizeof done)) _exit(0);
    } catch (const std::exception &error) {
        fprintf(stderr, "vfs_bench: %s: %s\n", name.c_str(), error.what());
    }
    _exit(1);
}

} // namespace

measurement run_in_child(const std::string &name, const std::function<tally()> &work)
{
    int ends[2];
    if (pipe(ends) == -1) throw engine_error(std::string("pipe: ") + strerror(errno));
    const pid_t child = fork();
    if (child == -1) throw engine_error(std::string("fork: ") + strerror(errno));
    if (child == 0) {
        close(ends[0]);
        be_child(name, work, ends[1]);
    }
    close(ends[1]);
    result done{};
    ssize_t got = 0;
    do got = read(ends[0], &done, sizeof done);
    while (got == -1 && errno == EINTR);
    close(ends[0]);
    int status = 0;
    rusage used{};
    while (wait4(child, &status, 0, &used) == -1 && errno == EINTR) {}
    if (WIFSIGNALED(status)) throw engine_error(name + " was ended by signal " + std::to_string(WTERMSIG(status)));
    if (status != 0 || got != static_cast<ssize_t>(sizeof done)) throw engine_error(name + " failed");
    return {.met = done.met,
            .seconds = done.seconds,
            .cpu_seconds = seconds_of(used.ru_utime) + seconds_of(used.ru_stime),
            .peak_kilobytes = used.ru_maxrss};
}
