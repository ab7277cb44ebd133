// afl_mutator.cc: the mutator of whole files as AFL++ loads it (AFL_CUSTOM_MUTATOR_LIBRARY). Owns the buffer that it hands
// out, and the changes of single bytes that libFuzzer brings with it and AFL++ does not.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed);

namespace {

std::mt19937 random_bytes;
std::vector<uint8_t> handed_out;

} // namespace

extern "C" {

size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t max_size)
{
    if (size == 0 && max_size > 0) data[size++] = 0;
    for (unsigned changes = 1 + random_bytes() % 4; size > 0 && changes > 0; --changes)
        data[random_bytes() % size] = static_cast<uint8_t>(random_bytes());
    return size;
}

void *afl_custom_init(void *, unsigned seed)
{
    random_bytes.seed(seed);
    return &handed_out;
}

size_t afl_custom_fuzz(void *, const uint8_t *bytes, size_t size, const uint8_t **out, const uint8_t *, size_t,
                       size_t most)
{
    handed_out.resize(std::max(size, most));
    std::copy_n(bytes, size, handed_out.begin());
    *out = handed_out.data();
    return LLVMFuzzerCustomMutator(handed_out.data(), size, most, static_cast<unsigned>(random_bytes()));
}

void afl_custom_deinit(void *) {}
}
