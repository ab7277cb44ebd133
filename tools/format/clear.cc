// See clear.h.
#include "format/clear.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include <unistd.h>

namespace {

// 0 or an error number, as all functions here.
int copy_range(int descriptor, const redo_range &range)
{
    std::array<std::byte, 65536> bytes;
    for (uint64_t done = 0; done < range.length;) {
        const size_t count = std::min<uint64_t>(bytes.size(), range.length - done);
        const ssize_t got = pread(descriptor, bytes.data(), count, static_cast<off_t>(range.source + done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return got < 0 ? errno : EIO;
        for (std::byte &each : std::span{bytes}.first(static_cast<size_t>(got))) each = ~each;
        for (ssize_t written = 0; written < got;) {
            const ssize_t put = pwrite(descriptor, bytes.data() + written, static_cast<size_t>(got - written),
                                       static_cast<off_t>(range.offset + done) + written);
            if (put < 0 && errno == EINTR) continue;
            if (put <= 0) return put < 0 ? errno : EIO;
            written += put;
        }
        done += static_cast<uint64_t>(got);
    }
    return 0;
}

int put_words(int descriptor, uint64_t offset, std::span<const uint64_t> words)
{
    ssize_t put = 0;
    do {
        put = pwrite(descriptor, words.data(), words.size_bytes(), static_cast<off_t>(offset));
    } while (put < 0 && errno == EINTR);
    return put == static_cast<ssize_t>(words.size_bytes()) ? 0 : put < 0 ? errno : EIO;
}

} // namespace

std::string reason_not_to_clear(const check_result &found)
{
    if (!found.sound()) return "it is damaged";
    if (found.behind.items != 0)
        return fmt::format("{} items with {} records stand behind its end, from 0x{:x} on, and would be lost",
                           found.behind.items, found.behind.records, found.behind.first);
    return {};
}

int clear_words(int descriptor, const check_result &found)
{
    for (const redo_range &range : found.words.redo.ranges)
        if (const int error = copy_range(descriptor, range); error != 0) return error;
    if (const int error = put_words(descriptor, header_allocated_size.offset, std::array<uint64_t, 1>{0}); error != 0)
        return error;
    // The state word still leads to the pending change, which stays behind the end until all of it is on the disk.
    if (fdatasync(descriptor) == -1) return errno;
    if (const int error = put_words(descriptor, header_state_word.offset, std::array<uint64_t, 2>{0, 0}); error != 0)
        return error;
    if (ftruncate(descriptor, static_cast<off_t>(found.facts.end)) == -1) return errno;
    return fdatasync(descriptor) == -1 ? errno : 0;
}
