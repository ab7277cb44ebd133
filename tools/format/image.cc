// See image.h. Block n of the file lies in place n modulo the number of places.
#include "format/image.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint64_t look_for_holes = 1024 * 1024; // how often

} // namespace

file_image::file_image(int descriptor) : descriptor_(descriptor), blocks_(block_count)
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

void file_image::fill(block &target, uint64_t number)
{
    const uint64_t from = number * block_bytes, to = std::min(from + block_bytes, size_);
    target.number = UINT64_MAX;
    target.bytes.resize(to - from);
    if (!read_raw(from, target.bytes)) {
        target.bytes.clear();
        return;
    }
    auto it = replaced_.upper_bound(from);
    if (it != replaced_.begin()) --it;
    for (; it != replaced_.end() && it->first < to; ++it) {
        const uint64_t begin = std::max(it->first, from), end = std::min(it->second.end, to);
        if (begin >= end) continue;
        const std::span<std::byte> place = std::span{target.bytes}.subspan(begin - from, end - begin);
        if (!read_raw(it->second.source + (begin - it->first), place)) {
            target.bytes.clear();
            return;
        }
        for (std::byte &each : place) each = ~each;
    }
    target.number = number;
}

const file_image::block &file_image::fetch(uint64_t number)
{
    block &place = blocks_[number % block_count];
    if (place.number != number) fill(place, number);
    return place;
}

bool file_image::read(uint64_t offset, std::span<std::byte> into)
{
    if (offset > size_ || into.size() > size_ - offset) return false;
    while (!into.empty()) {
        const block &from = fetch(offset / block_bytes);
        const uint64_t at = offset % block_bytes;
        if (at >= from.bytes.size()) return false;
        const size_t count = std::min<size_t>(into.size(), from.bytes.size() - at);
        std::memcpy(into.data(), from.bytes.data() + at, count);
        into = into.subspan(count);
        offset += count;
    }
    return true;
}

uint64_t file_image::word(uint64_t offset)
{
    uint64_t value = 0;
    return get(offset, &value) ? value : 0;
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
    for (block &place : blocks_) place.number = UINT64_MAX;
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
        const block &here = fetch(from / block_bytes);
        const uint64_t at = from % block_bytes;
        if (at >= here.bytes.size()) return to;
        const uint64_t count = std::min<uint64_t>(to - from, here.bytes.size() - at);
        for (uint64_t i = 0; i < count; ++i)
            if (here.bytes[at + i] != std::byte{0}) return from + i;
        from += count;
    }
    return to;
}
