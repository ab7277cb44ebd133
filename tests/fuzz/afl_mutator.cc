// afl_mutator.cc: the mutator of whole files as AFL++ loads it (AFL_CUSTOM_MUTATOR_LIBRARY). Owns the buffer that it hands
// out.
#include "byte_mutator.h"

#include <algorithm>
#include <random>
#include <vector>

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed);

namespace {

std::mt19937 seeds;
std::vector<uint8_t> handed_out;

} // namespace

extern "C" {

void *afl_custom_init(void *, unsigned seed)
{
    seeds.seed(seed);
    seed_byte_changes(seed);
    return &handed_out;
}

size_t afl_custom_fuzz(void *, const uint8_t *bytes, size_t size, const uint8_t **out, const uint8_t *, size_t,
                       size_t most)
{
    handed_out.resize(std::max(size, most));
    std::copy_n(bytes, size, handed_out.begin());
    *out = handed_out.data();
    return LLVMFuzzerCustomMutator(handed_out.data(), size, most, static_cast<unsigned>(seeds()));
}

void afl_custom_deinit(void *) {}
}
