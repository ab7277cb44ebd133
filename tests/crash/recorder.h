// recorder.h: every change that the driver makes to a file, in its order, from all processes; and the file as it can
// stand on the disk when the machine stops at one moment of it.
#ifndef TESTS_CRASH_RECORDER_H
#define TESTS_CRASH_RECORDER_H

#include <atomic>
#include <cstdint>
#include <random>
#include <string>

namespace host {

enum class change : uint8_t { write, resize, sync };

// Plain data in memory that all processes share.
struct recorded_change {
    change what;
    uint64_t offset, length; // resize: length is the new size; sync: offset is the number of changes that it covers
    uint64_t bytes;          // write: where they are kept
};

struct change_log {
    static constexpr uint64_t most_changes = 400'000, most_bytes = uint64_t{4} << 30;
    std::atomic<uint64_t> changes, bytes;
    recorded_change entries[most_changes];
    char kept[most_bytes];
};

// From here on the changes of this process are recorded; null: no longer. One file at a time. The process takes itself to
// be in the boot whose identity stands in the file `boot_id`: when the changes are looked at, the machine has started again.
void record_changes(change_log *log, const char *boot_id);

// Makes the file at `path`. What is surely on the disk after the first `moment` changes is what a sync covers; of the
// changes behind it each page of 4096 bytes shows its own first few, as the system may write pages at any time and in any
// order, and the size is one of those that the file had.
void file_after_stop(const change_log &log, uint64_t moment, std::mt19937_64 &random, const std::string &path);

} // namespace host

#endif
