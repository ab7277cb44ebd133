// Whatever a file says, the driver opens or refuses it, and every operation on it comes to an end inside its memory, with
// an error that damage may have.
#include "host.h"
#include "scratch.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

using namespace host;

constexpr int most_reads = 600; // nodes that lead in circles have no end

// ESTALE and EFBIG may be said where numbers move under a handle or leave the range of files.
void judge(int error)
{
    static constexpr int honest[] = {EINVAL, ENOEXEC, ESPIPE, EADDRINUSE, EFBIG,    ESTALE,
                                     EEXIST, ERANGE,  ENOSPC, ENOMEM,     EOVERFLOW};
    if (std::find(std::begin(honest), std::end(honest), error) != std::end(honest)) return;
    std::fprintf(stderr, "an error that no damage explains: %d\n", error);
    std::abort();
}

// Files of a few hundred kilobytes and some dozen records more: whatever they say of their lengths, no more is written.
void judge_space(const std::string &path)
{
    struct stat facts {};
    if (stat(path.c_str(), &facts) == -1 || facts.st_blocks * 512 < 64 << 20) return;
    std::fprintf(stderr, "%ld blocks for a small file\n", static_cast<long>(facts.st_blocks));
    std::abort();
}

int64_t value_of(const outcome &got)
{
    if (got.value < 0) judge(got.error);
    return got.value;
}

void browse(file &f)
{
    for (int64_t key = 0; key < 3; ++key) {
        for (const bool forward : {true, false}) {
            if (value_of(f.read(forward ? first(key) : last(key))) < 0) continue;
            for (int n = 0; n < most_reads && value_of(f.read(forward ? next() : prev())) > 0; ++n) {}
        }
    }
    for (int64_t number = 0; number < 20; ++number) value_of(f.read(by_rrn(number)));
}

void change(file &f)
{
    for (int64_t n = 0; n < 12; ++n) {
        std::string record = numbered("%08ld", n * 7 % 12) + "blue" + std::string(static_cast<size_t>(n) * 15, 'x');
        record.resize(std::max<size_t>(record.size(), 50));
        value_of(f.write(record, n % 2 == 0 ? by_record() : end()));
        value_of(f.write(record, by_rrn(n * 3)));
        value_of(f.read(by_key(record.substr(0, 8))));
        value_of(f.rewrite(record + "longer than before", current()));
        if (n % 3 == 0) value_of(f.erase(by_key(record.substr(0, 8))));
        if (n % 3 == 1) value_of(f.erase(by_rrn(n)));
    }
    value_of(f.start(by_key("00000003", 0, VFS_GREATER_EQUAL)));
    value_of(f.read(next()));
    value_of(f.erase(current()));
    f.flush();
}

file_spec described(const std::string &path, uint32_t organization)
{
    file_spec spec;
    spec.path = path;
    spec.organization = spec.logical = organization;
    spec.flags = O_RDWR;
    spec.min_length = 0;
    spec.max_length = 300;
    return spec;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string &path = put_scratch(data, size);
    constexpr rlimit limit{.rlim_cur = uint64_t{2} << 30, .rlim_max = RLIM_INFINITY}; // for the machine's sake
    setrlimit(RLIMIT_FSIZE, &limit);
    signal(SIGXFSZ, SIG_IGN);
    for (const char *lock : {"2", "4"}) {
        setenv("VFS_LOCK", lock, 1);
        for (const uint32_t organization :
             {uint32_t{VFS_ORG_INDEXED}, uint32_t{VFS_ORG_RELATIVE}, uint32_t{VFS_ORG_SEQUENTIAL}}) {
            file f;
            if (!f.open(described(path, organization))) {
                judge(f.error());
                continue;
            }
            browse(f);
            change(f);
            browse(f);
            judge_space(path);
            if (const int error = f.close(); error != 0) judge(error);
        }
    }
    remove_scratch();
    return 0;
}
