// byte_mutator.h: see byte_mutator.cc.
#ifndef TESTS_FUZZ_BYTE_MUTATOR_H
#define TESTS_FUZZ_BYTE_MUTATOR_H

#include <cstddef>
#include <cstdint>

// The same seed leads to the same changes.
void seed_byte_changes(unsigned seed);

// libFuzzer's name: changes `size` bytes where they lie, in room for `max_size`; returns how many there are now.
extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t max_size);

// The same for a whole file of records: see file_mutator.cc.
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed);

#endif
