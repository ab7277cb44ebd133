// scratch.h: one file in memory for each fuzzing process, under a path that everything can open.
#ifndef TESTS_FUZZ_SCRATCH_H
#define TESTS_FUZZ_SCRATCH_H

#include <cstddef>
#include <cstdint>
#include <string>

// Puts the bytes into the process's file, which is made anew, and returns its path.
const std::string &put_scratch(const uint8_t *data, size_t size);
void remove_scratch();

#endif
