// processes.h: children of a test, and how they meet: memory that both see, gates made of pipes, and the wait for an
// end that has a limit. A child never returns into the test: it ends when its body does. It knows nothing of files.
#ifndef TESTS_DRIVER_PROCESSES_H
#define TESTS_DRIVER_PROCESSES_H

#include <sys/mman.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

namespace host {

int64_t now_ns(); // CLOCK_MONOTONIC: the same clock in all processes

// Zeroed memory that children forked later share with the parent; what a killed child wrote there stays. T is plain.
template <typename T> class shared_memory {
public:
    explicit shared_memory(size_t count = 1) : bytes_(count * sizeof(T))
    {
        void *area = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (area != MAP_FAILED) items_ = static_cast<T *>(area);
    }
    ~shared_memory() { munmap(items_, bytes_); }
    shared_memory(const shared_memory &) = delete;
    shared_memory &operator=(const shared_memory &) = delete;

    T *operator->() const { return items_; }
    T &operator*() const { return *items_; }
    T &operator[](size_t i) const { return items_[i]; }

private:
    size_t bytes_;
    T *items_ = nullptr;
};

// One process waits until another one says so. A gate is opened once for each wait.
class gate {
public:
    gate();
    ~gate();
    gate(const gate &) = delete;
    gate &operator=(const gate &) = delete;
    void open(unsigned times = 1);
    bool wait(int seconds = 30); // false: nobody opened it

private:
    int ends_[2];
};

class child {
public:
    child() = default;
    // Standard error of the child goes to `errors` when that names a file.
    explicit child(const std::function<void()> &body, const std::string &errors = "");
    ~child(); // kills it when it still runs
    child(child &&other) noexcept : id_(other.id_) { other.id_ = 0; }
    child &operator=(child &&other) noexcept;

    bool running() const { return id_ != 0; }
    void kill();                  // SIGKILL; returns when it is gone
    int finish(int seconds = 60); // its exit code, 1000 + the signal that ended it, -1 when it had to be killed

private:
    pid_t id_ = 0;
};

// What the body returns, or how its process ended.
std::string in_child(const std::function<std::string()> &body, int seconds = 60);

// Whether the process waits now for a byte range that another one has locked, as the system's list of locks says.
bool waits_for_a_lock(pid_t process);

} // namespace host

#endif
