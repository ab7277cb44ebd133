// What the benchmarks' programs share: the end of a run on SIGINT, a scratch directory, medians. Must not know what is
// measured.
#pragma once

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

inline volatile sig_atomic_t interrupt_seen = 0;

// Between two measurements: throws when the user wants no more of them.
inline void stop_when_interrupted()
{
    if (interrupt_seen) throw std::runtime_error("interrupted");
}

// The exit status of a program whose work is `run`; what it throws is said on standard error.
template <typename Run> int run_program(const char *name, const Run &run)
{
    for (const int which : {SIGINT, SIGTERM}) signal(which, [](int) { interrupt_seen = 1; });
    try {
        return run();
    } catch (const std::exception &error) {
        fmt::print(stderr, "{}: {}\n", name, error.what());
        return 1;
    }
}

// A directory of our own that goes away with all that is in it.
class scratch_directory {
public:
    scratch_directory(const std::string &parent, const std::string &name) : path_(parent + "/" + name + "-XXXXXX")
    {
        if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error(path_ + ": " + strerror(errno));
    }
    scratch_directory(const scratch_directory &) = delete;
    scratch_directory &operator=(const scratch_directory &) = delete;
    ~scratch_directory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    [[nodiscard]] const std::string &path() const { return path_; }

private:
    std::string path_;
};

inline double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}
