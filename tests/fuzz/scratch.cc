// See scratch.h.
#include "scratch.h"

#include <cstdio>
#include <cstdlib>

#include <unistd.h>

namespace {

const std::string &scratch_path()
{
    static const std::string path = "/dev/shm/vfs_fuzz_" + std::to_string(getpid());
    return path;
}

} // namespace

const std::string &put_scratch(const uint8_t *data, size_t size)
{
    std::FILE *file = std::fopen(scratch_path().c_str(), "wbe");
    if (file == nullptr || std::fwrite(data, 1, size, file) != size || std::fclose(file) != 0) std::abort();
    return scratch_path();
}

void remove_scratch()
{
    unlink(scratch_path().c_str());
}
