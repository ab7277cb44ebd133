// What a benchmark asks of a store, as a plain table of functions: one row for each engine, in its own file. A failure
// is an engine_error and ends the run. Must not know jobs, clocks or reports.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "record.h"

// What a file is opened for: each engine chooses its modes and transactions by it.
enum class purpose { load_ascending, load_shuffled, scan, random_read, random_rewrite };

inline bool is_load(purpose use)
{
    return use == purpose::load_ascending || use == purpose::load_shuffled;
}
inline bool is_update(purpose use)
{
    return is_load(use) || use == purpose::random_rewrite;
}

enum class direction { forward, backward };

struct engine_settings {
    uint64_t records;         // that the file holds or will hold
    uint64_t bdb_cache_bytes; // the only cache whose size has no sensible default
};

struct engine_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// An open file. Each engine derives its own from it and gives it back in its functions.
struct session {};

struct engine {
    const char *name;
    const char *title;
    std::string (*configuration)(const engine_settings &); // for the heading of the report
    // Opens `path`, which does not exist yet when the purpose is a load. The caller owns the session until close.
    session *(*open)(const std::string &path, purpose use, const engine_settings &settings);
    void (*put)(session *, const record &bytes);
    bool (*get)(session *, const char *key, record &bytes); // copies the record; false: there is none
    // Changes the record that the last get found.
    void (*rewrite)(session *, const record &bytes);
    void (*scan_from_end)(session *, direction); // before the first record, or behind the last
    bool (*scan_next)(session *, record &bytes); // copies the next record of the scan; false: no more
    // Everything that was written is on the disk when it returns, with all that the engine needs to find it again.
    void (*close)(session *);
};

extern const engine plain_engine; // the floor: the same bytes by plain calls, in a file with places for records
extern const engine vfs_engine;
extern const engine bdb_engine;
extern const engine lmdb_engine;
