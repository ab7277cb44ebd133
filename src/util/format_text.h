// The text of byte counts, times and time stamps in diagnostic lines. May use libc only; knows nothing of files.
// Each formatter returns a buffer of the calling thread that its next call overwrites: print or copy it first.
#ifndef VFS_UTIL_FORMAT_TEXT_H
#define VFS_UTIL_FORMAT_TEXT_H

#include <cstdint>
#include <sys/resource.h>
#include <sys/times.h>

// "1.50Mi": two decimals, the locale's grouping, the largest binary unit reached.
const char *format_size(uint64_t bytes);

// "Elapsed: ...s  User: ...s  Sys: ...s", and with `bytes` their amount and rate. Null start values count as zero,
// null end values as now (the calling thread's usage).
const char *format_times(const clock_t *start_ticks, const rusage *start_usage, const clock_t *end_ticks,
                         const rusage *end_usage, const uint64_t *bytes);

// "prefix.pid.yyyymmdd.hhmmss.microseconds+hhmm", the zone west of UTC; `prefix` may be null or empty.
const char *time_stamp(const char *prefix);

#endif
