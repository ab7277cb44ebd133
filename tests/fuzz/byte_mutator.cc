// Changes of single bytes, where libFuzzer, which brings its own, is not what runs a target.
#include "byte_mutator.h"

#include <random>

namespace {

std::mt19937 random_bytes;

} // namespace

void seed_byte_changes(unsigned seed)
{
    random_bytes.seed(seed);
}

size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t max_size)
{
    if (max_size == 0) return size;
    const size_t longer = random_bytes() % 4 == 0 ? 1 + random_bytes() % 16 : 0;
    for (size_t i = 0; i < longer && size < max_size; ++i) data[size++] = static_cast<uint8_t>(random_bytes());
    if (size > 1 && random_bytes() % 8 == 0) size = 1 + random_bytes() % size;
    for (unsigned changes = 1 + random_bytes() % 4; size > 0 && changes > 0; --changes)
        data[random_bytes() % size] = static_cast<uint8_t>(random_bytes());
    return size;
}
