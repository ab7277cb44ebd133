// How long transfers kept the caller waiting, summed per cache: clock ticks and the thread's processor times.
#include "io/io.h"

void timing_start(vfs_buffer *buffer)
{
    buffer->flags2 |= buffer_timing;
    tms unused;
    buffer->timing_ticks = times(&unused);
    if (getrusage(RUSAGE_THREAD, &buffer->timing_usage) != 0) buffer->timing_usage = {};
}

void timing_stop(vfs_buffer *buffer)
{
    if ((buffer->flags2 & buffer_timing) == 0) return;
    buffer->flags2 &= static_cast<uint8_t>(~buffer_timing);
    tms unused;
    rusage now{};
    (void)getrusage(RUSAGE_THREAD, &now);
    const rusage &then = buffer->timing_usage;
    wait_times &total = buffer->cache->io_wait;
    total.ticks += static_cast<uint64_t>(times(&unused) - buffer->timing_ticks);
    total.user_seconds += now.ru_utime.tv_sec - then.ru_utime.tv_sec;
    total.user_microseconds += now.ru_utime.tv_usec - then.ru_utime.tv_usec;
    total.system_seconds += now.ru_stime.tv_sec - then.ru_stime.tv_sec;
    total.system_microseconds += now.ru_stime.tv_usec - then.ru_stime.tv_usec;
}
