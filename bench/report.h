// What was measured, as tables for people and as JSON for programs. Must not run anything.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "child.h"

struct results {
    const plan *work = nullptr; // borrowed
    unsigned rounds = 0;
    uint64_t seed = 0;
    std::vector<const engine *> engines;
    std::vector<const job *> jobs;
    std::map<std::pair<const job *, const engine *>, std::vector<measurement>> samples; // one for each round
    std::map<std::pair<const job *, const engine *>, uint64_t> file_bytes;              // allocated, after the job
};

std::string heading(const results &, const std::string &directory);
std::string tables(const results &);
std::string json(const results &);
