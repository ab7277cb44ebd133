// Runs a piece of work in a process of its own, so that no engine sees another's memory, and measures it. Must not know
// engines or jobs.
#pragma once

#include <functional>
#include <string>

#include "jobs.h"

struct measurement {
    tally met;
    double seconds = 0;
    double cpu_seconds = 0;     // user and system, all threads
    int64_t peak_kilobytes = 0; // resident, mapped pages of files included
};

// The child is called `name` (15 characters of it), for profilers. Throws engine_error when the work failed.
measurement run_in_child(const std::string &name, const std::function<tally()> &work);
