// Changes whole files so that they stay almost right: most changes are to one aligned word, which becomes a number that
// means something in such a file. Bytes changed at random would rarely get past the header.
#include "byte_mutator.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>

namespace {

class mutation {
public:
    mutation(uint8_t *data, size_t size, size_t most, unsigned seed)
        : data_(data), size_(size), most_(most), random_(seed)
    {
    }

    size_t run()
    {
        for (uint64_t n = 1 + up_to(4); n > 0; --n) change();
        return size_;
    }

private:
    uint64_t up_to(uint64_t limit) { return limit == 0 ? 0 : random_() % limit; }
    uint64_t word_at(size_t at) const
    {
        uint64_t word = 0;
        std::memcpy(&word, data_ + at, std::min<size_t>(8, size_ - at));
        return word;
    }
    // Where structures begin, or anywhere.
    size_t place()
    {
        const uint64_t anywhere = up_to(size_) / 8 * 8;
        switch (up_to(4)) {
        case 0: return up_to(std::min<size_t>(size_, 1024)) / 8 * 8;
        case 1: return (anywhere / 4096 * 4096 + up_to(16) * 8) % size_ / 8 * 8;
        default: return anywhere;
        }
    }
    uint64_t value(uint64_t old)
    {
        switch (up_to(8)) {
        case 0: return up_to(10);
        case 1: return old + 8;
        case 2: return old - 8;
        case 3: return up_to(size_ + 65536) / 4096 * 4096;
        case 4: return up_to(size_ + 64) / 8 * 8;
        case 5: return uint64_t{1} << up_to(64);
        case 6: return word_at(place());
        default: return ~uint64_t{0} - up_to(2);
        }
    }
    void change()
    {
        if (size_ < 16) {
            size_ = LLVMFuzzerMutate(data_, size_, most_);
            return;
        }
        const size_t at = place();
        switch (up_to(10)) {
        case 0: { // a few bytes at random
            const size_t length = std::min<size_t>(size_ - at, 8);
            LLVMFuzzerMutate(data_ + at, length, length);
            break;
        }
        case 1: std::memset(data_ + at, 0, std::min<size_t>(size_ - at, 8 + up_to(64) * 8)); break;
        case 2: { // a piece of the file stands where another one was
            const size_t from = place(), length = std::min({size_ - at, size_ - from, size_t{1} << up_to(16)});
            std::memmove(data_ + at, data_ + from, length);
            break;
        }
        case 3:
            if (up_to(4) == 0) size_ = std::max<size_t>(at, 1); // cut off
            break;
        default: {
            const uint64_t word = value(word_at(at));
            std::memcpy(data_ + at, &word, std::min<size_t>(8, size_ - at));
        }
        }
    }

    uint8_t *data_;
    size_t size_, most_;
    std::mt19937_64 random_;
};

} // namespace

size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed)
{
    return mutation{data, size, max_size, seed}.run();
}
