// What the sharing benchmark asks of a store: a plain table of functions, one row for each engine, in its own file.
// Every operation is visible to all other processes when it returns. A failure is a store_error and ends the run.
// Must not know jobs, clocks or reports.
#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>

#include "../record.h"

struct store_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The numbers of the records that a load makes: even, and spread over all there are. Inserted ones are odd.
inline constexpr uint64_t all_numbers = uint64_t{1} << 40;
inline uint64_t loaded_number(uint64_t i, uint64_t records)
{
    return i * (all_numbers / records / 2 * 2);
}

// An open file in one process. Each engine derives its own from it and gives it back in its functions.
struct connection {
    virtual ~connection() = default;
};

struct store {
    const char *name;
    const char *title;
    const char *configuration;
    // Makes `path` with the loaded numbers, generation 0; closed when it returns.
    void (*load)(const std::string &path, uint64_t records);
    connection *(*open)(const std::string &path); // to share; the caller owns it until close
    bool (*get)(connection *, const char *key, record &bytes);
    void (*insert)(connection *, const record &bytes);
    // Reads the record and writes it back with the next generation; nobody else changes it in between.
    void (*update)(connection *, uint64_t number);
    // Hands over every record in the order of the keys.
    void (*visit)(connection *, const std::function<void(const record &)> &see);
    void (*close)(connection *); // everything that this process wrote is on the disk
};

// Updates count from 0 to 9 and begin again.
inline constexpr uint64_t generations = 10;
inline uint64_t next_generation(const record &bytes)
{
    return static_cast<uint64_t>(bytes[summed_byte - 1] - '0' + 1) % generations;
}

extern const store vfs_store;
extern const store lmdb_store;
extern const store sqlite_store;
