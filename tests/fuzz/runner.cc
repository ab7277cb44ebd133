// runner.cc: a fuzz target without libFuzzer, for the tests: every input of a folder as it is, then changed ones until the
// time is over. No coverage leads it; the inputs are those that coverage has found. What is run last stands in a file.
// Usage: TARGET FOLDER SECONDS SEED LAST
#include "byte_mutator.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
// Targets of whole files have one.
extern "C" [[gnu::weak]] size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed);

namespace {

using bytes = std::vector<uint8_t>;

std::vector<bytes> inputs_of(const std::filesystem::path &folder)
{
    std::vector<std::filesystem::path> paths;
    for (const auto &entry : std::filesystem::directory_iterator{folder})
        if (entry.is_regular_file()) paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    std::vector<bytes> all;
    for (const auto &path : paths) {
        std::ifstream in{path, std::ios::binary};
        all.emplace_back(std::istreambuf_iterator<char>{in}, std::istreambuf_iterator<char>{});
    }
    return all;
}

void run(const bytes &input, int last)
{
    if (ftruncate(last, 0) == -1 || pwrite(last, input.data(), input.size(), 0) != static_cast<ssize_t>(input.size()))
        std::abort();
    alarm(60); // ends what does not end
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

void change(bytes &input, std::mt19937 &random)
{
    const size_t size = input.size(), most = size + size / 4 + 64;
    input.resize(most);
    input.resize(LLVMFuzzerCustomMutator != nullptr
                     ? LLVMFuzzerCustomMutator(input.data(), size, most, static_cast<unsigned>(random()))
                     : LLVMFuzzerMutate(input.data(), size, most));
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 5) return 2;
    const std::vector<bytes> inputs = inputs_of(argv[1]);
    const auto seed = static_cast<unsigned>(std::atol(argv[3]));
    const int last = open(argv[4], O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (inputs.empty() || last == -1) return 2;
    std::mt19937 random{seed};
    seed_byte_changes(seed);
    size_t runs = 0;
    for (const bytes &input : inputs) {
        run(input, last);
        ++runs;
    }
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds{std::atol(argv[2])};
    while (std::chrono::steady_clock::now() < until) {
        bytes input = inputs[random() % inputs.size()];
        for (unsigned changes = 1 + static_cast<unsigned>(random()) % 4; changes > 0; --changes) change(input, random);
        run(input, last);
        ++runs;
    }
    std::printf("%zu inputs, %zu runs\n", inputs.size(), runs);
    return 0;
}
