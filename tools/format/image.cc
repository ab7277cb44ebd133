// See image.h.
#include "format/image.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint64_t look_for_holes = 1024 * 1024; // how often

} // namespace

file_image::file_image(int descriptor) : descriptor_(descriptor), blocks_(block_count), arena_(block_count)
{
    struct stat status {};
    if (fstat(descriptor, &status) == 0 && status.st_size > 0) size_ = static_cast<uint64_t>(status.st_size);
}

bool file_image::read_raw(uint64_t offset, std::span<std::byte> into)
{
    while (!into.empty()) {
        const ssize_t got = pread(descriptor_, into.data(), into.size(), static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            if (storage_error_ == 0) storage_error_ = got < 0 ? errno : EIO;
            return false;
        }
        offset += static_cast<uint64_t>(got);
        into = into.subspan(static_cast<size_t>(got));
    }
    return true;
}

// Puts what replaces bytes of a block over them.
bool file_image::replace_in(uint64_t number, std::span<std::byte> bytes)
{
    const uint64_t from = number * block_bytes, to = from + bytes.size();
    auto it = replaced_.upper_bound(from);
    if (it != replaced_.begin()) --it;
    for (; it != replaced_.end() && it->first < to; ++it) {
        const uint64_t begin = std::max(it->first, from), end = std::min(it->second.end, to);
        if (begin >= end) continue;
        const std::span<std::byte> place = bytes.subspan(begin - from, end - begin);
        if (!read_raw(it->second.source + (begin - it->first), place)) return false;
        for (std::byte &each : place) each = ~each;
    }
    return true;
}

// Blocks from `number` on, in places that follow each other.
bool file_image::fill(uint64_t number, uint64_t count)
{
    const uint64_t from = number * block_bytes, to = std::min(from + count * block_bytes, size_);
    for (uint64_t n = number; n < number + count; ++n) blocks_[n % block_count] = {};
    if (!read_raw(from, {place_of(number).data(), to - from})) return false;
    for (uint64_t n = number; n < number + count; ++n) {
        const uint64_t size = std::min(block_bytes, to - n * block_bytes);
        if (!replaced_.empty() && !replace_in(n, place_of(n).first(size))) return false;
        blocks_[n % block_count] = {.number = n, .size = size};
    }
    return true;
}

std::span<const std::byte> file_image::fetch(uint64_t number)
{
    block &held = blocks_[number % block_count];
    if (held.number != number) {
        const uint64_t blocks = (size_ + block_bytes - 1) / block_bytes;
        const uint64_t room = std::min({run_blocks, block_count - number % block_count, blocks - number});
        in_a_row_ = number == last_filled_ + 1 ? in_a_row_ + 1 : 0;
        const bool run = in_a_row_ >= run_blocks && room > 1;
        last_filled_ = number;
        if (run && fill(number, room))
            last_filled_ = number + room - 1;
        else if (!fill(number, 1)) // of a run one block may be unreadable, and not this one
            return {};
    }
    return place_of(number).first(held.size);
}

bool file_image::read_blocks(uint64_t offset, std::span<std::byte> into)
{
    if (offset > size_ || into.size() > size_ - offset) return false;
    while (!into.empty()) {
        const std::span<const std::byte> from = fetch(offset / block_bytes);
        const uint64_t at = offset % block_bytes;
        if (at >= from.size()) return false;
        const size_t count = std::min<size_t>(into.size(), from.size() - at);
        std::memcpy(into.data(), from.data() + at, count);
        into = into.subspan(count);
        offset += count;
    }
    return true;
}

void file_image::replace_inverted(uint64_t offset, uint64_t length, uint64_t source)
{
    if (length == 0) return;
    const uint64_t end = offset + length;
    auto it = replaced_.upper_bound(offset);
    if (it != replaced_.begin()) --it;
    while (it != replaced_.end() && it->first < end) {
        const uint64_t begin = it->first;
        const piece old = it->second;
        if (old.end <= offset) {
            ++it;
            continue;
        }
        it = replaced_.erase(it);
        if (begin < offset) replaced_[begin] = {offset, old.source};
        if (old.end > end) it = replaced_.insert_or_assign(end, piece{old.end, old.source + (end - begin)}).first;
    }
    replaced_[offset] = {end, source};
    for (block &place : blocks_) place = {};
}

uint64_t file_image::next_data(uint64_t offset) const
{
    if (offset >= size_) return size_;
    const off_t found = lseek(descriptor_, static_cast<off_t>(offset), SEEK_DATA);
    if (found >= 0) return std::min(static_cast<uint64_t>(found), size_);
    return errno == ENXIO ? size_ : offset; // a file system that does not know has no holes
}

uint64_t file_image::first_nonzero(uint64_t from, uint64_t to)
{
    to = std::min(to, size_);
    while (from < to) {
        if (from % look_for_holes == 0 && replaced_.empty())
            from = std::max(from, next_data(from)); // holes are zeros; they may be huge
        if (from >= to) return to;
        const std::span<const std::byte> here = fetch(from / block_bytes);
        const uint64_t at = from % block_bytes;
        if (at >= here.size()) return to;
        const uint64_t count = std::min<uint64_t>(to - from, here.size() - at);
        const auto begin = here.begin() + static_cast<ptrdiff_t>(at), end = begin + static_cast<ptrdiff_t>(count);
        const auto found = std::find_if(begin, end, [](std::byte each) { return each != std::byte{0}; });
        if (found != end) return from + static_cast<uint64_t>(found - begin);
        from += count;
    }
    return to;
}
