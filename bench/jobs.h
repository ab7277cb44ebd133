// What is measured: the jobs as a table, each with the file it works on. May call engines; must not know clocks,
// processes or reports.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "engine.h"

struct plan {
    engine_settings settings;
    uint64_t operations;                // of the random jobs, at most the records
    std::vector<uint32_t> load_order;   // record numbers, shuffled: the same for all engines
    std::vector<uint32_t> access_order; // another shuffle, for the random jobs
};

// Which file of an engine a job works on, and thus which load must have come before.
enum class data_file { ascending, shuffled };

// What a job met; compared with what it should have met.
struct tally {
    uint64_t count = 0;
    uint64_t sum = 0; // of the summed bytes
    bool operator==(const tally &) const = default;
};

struct job {
    const char *name;
    const char *title;
    data_file file;
    purpose use;
    tally (*run)(const engine &, const std::string &path, const plan &); // opens, works, closes
    tally (*expected)(const plan &);
};

// In the order in which a round runs them: a job that changes a file comes after those that need it as loaded.
std::span<const job> all_jobs();
const job &load_of(data_file file);

// Reads the whole file forward, or in both directions, and compares every byte; `rewritten`: after a job that rewrites.
// Throws engine_error at the first difference.
void verify(const engine &, const std::string &path, const plan &, bool rewritten, bool both_ways);
