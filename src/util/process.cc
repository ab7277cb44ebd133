// See process.h.
#include "util/process.h"

#include "util/errors.h"

#include <pthread.h>

uint32_t current_process_generation = 1;

namespace {

void in_child()
{
    ++current_process_generation;
}

int watch_error;
pthread_once_t watched = PTHREAD_ONCE_INIT;
void watch()
{
    watch_error = pthread_atfork(nullptr, nullptr, in_child);
}

} // namespace

int process_generation_watch()
{
    pthread_once(&watched, watch);
    return watch_error == 0 ? 0 : fail(watch_error);
}
