// storm.h: many processes at once on one shared file. Each has records of its own, all fight over a few, and some
// records only ever change their length; every operation is logged where it survives the process, so that afterwards
// each record's history can be judged. The parent never loads the driver.
#ifndef TESTS_DRIVER_STORM_H
#define TESTS_DRIVER_STORM_H

#include "history.h"
#include "host.h"
#include "processes.h"

#include <atomic>
#include <memory>

namespace host {

enum class shape { indexed, relative, sequential };
const char *name_of(shape which);

struct storm_plan {
    shape what = shape::indexed;
    uint32_t lock_mode = VFS_LOCK_RECORD;
    bool kills = false;
    int64_t milliseconds = 3000;
    uint64_t seed = 1;
    std::string directory;
};

struct storm_report {
    uint64_t operations = 0, processes = 0, kills = 0, conflicts = 0, deadlocks = 0, records = 0;
    int64_t longest_ns = 0; // one operation of one process
    unsigned slowest = 0;   // whose it was
    int64_t silence_ns = 0; // in which nobody was answered
    std::string anomalies;  // "" when everything can be explained
};

// Children, file and judgement; returns when all are gone.
storm_report run_storm(const storm_plan &plan);

std::ostream &operator<<(std::ostream &out, const storm_report &report);

// A directory of its own, under the settings that storms work with: locks are as the files ask, nothing else is set.
class storm_ground {
public:
    storm_ground();
    ~storm_ground(); // removes it; VFS_STORM_KEEP=1 keeps it after a failure
    storm_ground(const storm_ground &) = delete;
    storm_ground &operator=(const storm_ground &) = delete;

    std::string directory() const { return directory_; }
    std::string path(const std::string &name = "file") const { return directory_ + "/" + name; }

private:
    std::string directory_;
};

// ---- The records of a storm: every byte follows from number and version ------------------------------------------

struct storm_record {
    uint32_t id = 0;
    uint64_t version = 0;
};

constexpr uint64_t version_of(unsigned worker, uint64_t count)
{
    return uint64_t{worker + 1} << 40 | count;
}

file_spec storm_spec(shape what, const std::string &path, uint32_t lock_mode);
std::string storm_bytes(shape what, const storm_record &record);
// The record that the bytes are, as a whole; false: they are no such record.
bool storm_parse(shape what, const std::string &bytes, storm_record *out);

} // namespace host

#endif
