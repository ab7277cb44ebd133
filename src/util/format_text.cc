// The formatters behind format_text.h. May use libc only.
#include "util/format_text.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#pragma GCC diagnostic ignored "-Wformat" // the grouping flag ' is POSIX, which -Wpedantic does not know

namespace {

constexpr double smallest_rate = 0x1p-52; // below this a rate or an elapsed time counts as none

struct unit {
    double bytes;
    const char *suffix;
};
constexpr unit units[] = {
    // the largest that is reached comes first
    {0x1p60, "Ei"}, {0x1p50, "Pi"}, {0x1p40, "Ti"}, {0x1p30, "Gi"}, {0x1p20, "Mi"}, {0x1p10, "Ki"},
};

template <size_t Size> const char *format_scaled(char (&text)[Size], double value)
{
    const char *suffix = "";
    for (const unit &candidate : units) {
        if (value < candidate.bytes) continue;
        value /= candidate.bytes;
        suffix = candidate.suffix;
        break;
    }
    std::snprintf(text, Size, "%'.2f%s", value, suffix);
    return text;
}

double seconds_between(const timeval *start, const timeval &end)
{
    constexpr int64_t million = 1000000;
    int64_t microseconds = int64_t{end.tv_sec} * million + end.tv_usec;
    if (start != nullptr) microseconds -= int64_t{start->tv_sec} * million + start->tv_usec;
    return static_cast<double>(microseconds) / 1e6;
}

} // namespace

const char *format_size(uint64_t bytes)
{
    thread_local char text[80];
    return format_scaled(text, static_cast<double>(bytes));
}

const char *format_times(const clock_t *start_ticks, const rusage *start_usage, const clock_t *end_ticks,
                         const rusage *end_usage, const uint64_t *bytes)
{
    thread_local char text[400];
    tms unused{};
    const clock_t ended = end_ticks != nullptr ? *end_ticks : times(&unused);
    rusage usage{};
    if (end_usage != nullptr) {
        usage = *end_usage;
    } else {
        getrusage(RUSAGE_THREAD, &usage);
    }
    const double elapsed = static_cast<double>(ended - (start_ticks != nullptr ? *start_ticks : 0)) /
                           static_cast<double>(sysconf(_SC_CLK_TCK));
    const double user = seconds_between(start_usage != nullptr ? &start_usage->ru_utime : nullptr, usage.ru_utime);
    const double system = seconds_between(start_usage != nullptr ? &start_usage->ru_stime : nullptr, usage.ru_stime);
    const int length =
        std::snprintf(text, sizeof text, "Elapsed: %'.2fs  User: %'.2fs  Sys: %'.2fs", elapsed, user, system);
    if (bytes == nullptr || length < 0 || static_cast<size_t>(length) >= sizeof text) return text;

    char rate_text[80];
    const char *rate = "*Free*", *unit_text = "";
    if (std::fabs(elapsed) > smallest_rate && *bytes != 0) {
        const double value = static_cast<double>(*bytes) / elapsed;
        rate = format_scaled(rate_text, std::fabs(value) > smallest_rate ? value : 0);
        unit_text = "Bps";
    }
    char size_text[80];
    std::snprintf(text + length, sizeof text - static_cast<size_t>(length), "  I/O: %sB  %s%s",
                  format_scaled(size_text, static_cast<double>(*bytes)), rate, unit_text);
    return text;
}

const char *time_stamp(const char *prefix)
{
    thread_local char text[4096];
    static pthread_mutex_t zone_mutex = PTHREAD_MUTEX_INITIALIZER; // tzset writes what the others read
    pthread_mutex_lock(&zone_mutex);
    tzset();
    const int hours = static_cast<int>(timezone / 3600);
    const int minutes = static_cast<int>((timezone - hours * 3600L) / 60);
    const time_t now = time(nullptr);
    tm local{};
    char date[32] = "";
    if (localtime_r(&now, &local) != nullptr) std::strftime(date, sizeof date, "%Y%m%d.%H%M%S", &local);
    pthread_mutex_unlock(&zone_mutex);
    timeval moment{};
    gettimeofday(&moment, nullptr);
    const long pid = getpid();
    const int microseconds = static_cast<int>(moment.tv_usec);
    if (prefix == nullptr || *prefix == '\0') {
        std::snprintf(text, sizeof text, "%ld.%s.%6.6d%+2.2d%2.2d", pid, date, microseconds, hours, minutes);
        return text;
    }
    const int width = static_cast<int>(std::strlen(prefix));
    std::snprintf(text, sizeof text, "%*.*s.%ld.%s.%6.6d%+2.2d%2.2d", width, width, prefix, pid, date, microseconds,
                  hours, minutes);
    return text;
}
