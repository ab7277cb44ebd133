// Whatever a host says in the block of open, in its key description and in the arguments of operations, as long as its
// memory is as large as it says, is done or refused.
#include "host.h"
#include "scratch.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <sys/resource.h>

namespace {

using namespace host;

class words {
public:
    words(const uint8_t *data, size_t size) : data_(data), left_(size) {}
    bool empty() const { return left_ == 0; }
    uint8_t byte()
    {
        if (left_ == 0) return 0;
        --left_;
        return *data_++;
    }
    // Small numbers often, any at times.
    int64_t number()
    {
        const uint8_t shape = byte();
        if (shape < 160) return shape % 40;
        if (shape < 200) return -static_cast<int64_t>(shape % 8);
        uint64_t value = 0;
        for (int n = 0; n < 8; ++n) value = value << 8 | byte();
        return static_cast<int64_t>(value);
    }
    uint32_t one_of(std::initializer_list<uint32_t> usual)
    {
        const uint8_t choice = byte();
        return choice < 224 ? *(usual.begin() + choice % usual.size()) : static_cast<uint32_t>(number());
    }

private:
    const uint8_t *data_;
    size_t left_;
};

// A description of a few keys, some of whose words are others than they should be.
std::vector<int64_t> description(words &in)
{
    const auto keys = static_cast<size_t>(in.byte() % 4), parts = keys * (1 + in.byte() % 3);
    std::vector<int64_t> block(5 + 4 * keys + 3 * parts);
    const size_t first_part = 5 + 4 * keys, parts_of_key = keys == 0 ? 0 : parts / keys;
    block[0] = static_cast<int64_t>(8 * block.size());
    block[1] = static_cast<int64_t>(keys);
    int64_t longest = 0;
    for (size_t k = 0; k < keys; ++k) {
        int64_t length = 0;
        for (size_t p = 0; p < parts_of_key; ++p) {
            int64_t *part = &block[first_part + 3 * (k * parts_of_key + p)];
            part[0] = in.byte();
            part[1] = 1 + in.byte() % 60;
            length += part[1];
        }
        int64_t *key = &block[5 + 4 * k];
        key[0] = length;
        key[1] = static_cast<int64_t>(parts_of_key);
        key[2] = static_cast<int64_t>(8 * (first_part + 3 * k * parts_of_key));
        key[3] = in.byte() % 8;
        longest = std::max(longest, length);
    }
    block[2] = longest;
    block[3] = keys == 0 ? 0 : in.byte() % keys;
    block[4] = in.byte() % 2;
    for (uint8_t n = in.byte() % 4; n > 0; --n) {
        const size_t which = in.byte() % block.size();
        if (which != 0) block[which] = in.number(); // the size is that of the memory
    }
    return block;
}

vfs_open_block request(words &in, const std::string &path, const std::vector<int64_t> &keys, vfs_lock_request *locks)
{
    vfs_open_block block{};
    block.path = path.c_str();
    block.keys = in.byte() % 4 == 0 ? nullptr : reinterpret_cast<const vfs_key_desc *>(keys.data());
    block.open_flags = in.one_of({O_RDWR | O_CREAT, O_RDWR, O_RDONLY, O_RDWR | O_CREAT | O_TRUNC, O_WRONLY | O_CREAT}) &
                       (O_ACCMODE | O_CREAT | O_EXCL | O_TRUNC | O_APPEND);
    block.organization = in.one_of({VFS_ORG_INDEXED, VFS_ORG_SEQUENTIAL, VFS_ORG_RELATIVE});
    block.logical_organization = in.byte() < 200 ? block.organization : in.one_of({1, 2, 3});
    block.access_mode = in.one_of({VFS_ACCESS_DYNAMIC, VFS_ACCESS_SEQUENTIAL, VFS_ACCESS_RANDOM});
    block.record_format = in.one_of({VFS_FORMAT_VARIABLE, VFS_FORMAT_FIXED});
    block.min_record_length = in.number();
    block.max_record_length = in.byte() % 2 == 0 ? in.number() : 10 * in.byte();
    block.block_size = in.byte() < 200 ? 0 : in.number();
    block.options = in.byte() < 200 ? 0 : in.one_of({VFS_OPT_REVERSED, VFS_OPT_NO_PREREAD}) & 0x1f;
    if (in.byte() % 4 == 0) {
        *locks = {.share_mode = in.one_of({0, 1, 2, 3}),
                  .lock_mode = in.one_of({0, 1, 3, 4, 5}),
                  .lock_flags = in.byte(),
                  .hold = in.byte(),
                  .request_kind = in.byte(),
                  .wait_mode = 0,
                  .retry_count = 0,
                  .sleep = 0};
        block.lock_defaults = locks;
    }
    return block;
}

void operate(words &in, vfs_file *handle)
{
    char area[512] = {};
    for (size_t i = 0; i < sizeof area; ++i) area[i] = static_cast<char>('a' + (i * 7 + in.byte()) % 5);
    for (int n = 0; n < 60 && !in.empty(); ++n) {
        vfs_record record{.length = in.byte() % 3 == 0 ? sizeof area : in.byte() % sizeof area, .bytes = area};
        area[in.byte() % 64] = static_cast<char>(in.byte());
        vfs_status status{};
        const int32_t mode = static_cast<int32_t>(in.one_of({0, 1, 2, 3, 4, 5, 6, 7}));
        const int32_t relation = static_cast<int32_t>(in.one_of({0, 1, 2, 3, 4}));
        const int64_t number = in.number();
        const bool by_key = mode == VFS_POS_KEY;
        const int64_t length = by_key ? in.number() % 65 : 0, key_number = in.number();
        switch (in.byte() % 8) {
        case 0:
        case 1:
            by_key ? ops().read(handle, &record, nullptr, &status, nullptr, mode, static_cast<void *>(area), length,
                                key_number)
                   : ops().read(handle, &record, nullptr, &status, nullptr, mode, number);
            break;
        case 2:
        case 3:
            by_key ? ops().write(handle, &record, nullptr, &status, nullptr, mode, nullptr, int64_t{0}, key_number)
                   : ops().write(handle, &record, nullptr, &status, nullptr, mode, number);
            break;
        case 4:
            ops().rewrite(handle, &record, nullptr, &status, nullptr, by_key ? VFS_POS_CURRENT : mode, number);
            break;
        case 5:
            ops().delete_record(handle, &record, nullptr, &status, nullptr, by_key ? VFS_POS_CURRENT : mode, number);
            break;
        case 6:
            if (by_key)
                ops().start(handle, &record, nullptr, &status, nullptr, mode, relation, static_cast<void *>(area),
                            length, key_number);
            else if (mode == VFS_POS_RRN)
                ops().start(handle, &record, nullptr, &status, nullptr, mode, relation, number);
            else
                ops().start(handle, &record, nullptr, &status, nullptr, mode, number);
            break;
        default: ops().flush(handle); break;
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // A record of a high number in a file without keys comes behind as many empty slots: no file may become that long.
    static const rlimit longest{.rlim_cur = 4 << 20, .rlim_max = 4 << 20};
    static const int limited = setrlimit(RLIMIT_FSIZE, &longest);
    if (limited != 0) std::abort();
    words in{data, size};
    setenv("VFS_LOCK", in.byte() % 2 == 0 ? "2" : "4", 1);
    const std::string path = put_scratch(data, 0);
    for (int n = 0; n < 3 && !in.empty(); ++n) {
        const std::vector<int64_t> keys = description(in);
        vfs_lock_request locks{};
        const vfs_open_block block = request(in, path, keys, &locks);
        vfs_open_block asked = block;
        vfs_file *handle = ops().open(&asked);
        if (handle == nullptr) continue;
        operate(in, handle);
        vfs_open_block closed{};
        ops().close(handle, &closed);
    }
    remove_scratch();
    return 0;
}
