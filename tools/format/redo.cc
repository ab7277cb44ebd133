// See redo.h.
#include "format/redo.h"

#include "store/format.h"

#include <algorithm>
#include <array>
#include <cstring>

#include <fmt/format.h>

namespace {

constexpr char magic[8] = {'V', 'F', 'S', 'R', 'E', 'D', 'O', '1'};
constexpr uint64_t head_bytes = 32, entry_bytes = 16, checksum_at = 24;

struct redo_head {
    char magic[8];
    uint64_t count, bytes, checksum;
};
static_assert(sizeof(redo_head) == head_bytes);

bool read_head(file_image &image, uint64_t at, redo_head *head)
{
    return image.get(at, head) && std::memcmp(head->magic, magic, sizeof magic) == 0;
}

// Four lanes in turn take the words of the area, each by a step of FNV-1a, and are folded into one at the end. The
// checksum's own word counts as zero, the last word is filled up with zeros.
bool checksum_of(file_image &image, uint64_t at, uint64_t bytes, uint64_t *sum)
{
    constexpr uint64_t basis = 0xcbf29ce484222325, prime = 0x100000001b3;
    std::array<uint64_t, 4> lanes{basis, basis, basis, basis};
    std::array<std::byte, 4096> piece{};
    for (uint64_t done = 0; done < bytes; done += piece.size()) {
        const uint64_t count = std::min<uint64_t>(piece.size(), bytes - done);
        piece.fill(std::byte{0});
        if (!image.read(at + done, std::span{piece}.first(count))) return false;
        if (done == 0) store_u64(piece.data() + checksum_at, 0);
        for (uint64_t i = 0; i < count; i += 8) {
            uint64_t &lane = lanes[i / 8 % lanes.size()];
            lane = (lane ^ load_u64(piece.data() + i)) * prime;
        }
    }
    *sum = basis;
    for (const uint64_t lane : lanes) *sum = (*sum ^ lane) * prime;
    *sum ^= *sum >> 32;
    return true;
}

} // namespace

redo_area read_redo(file_image &image, uint64_t at)
{
    redo_area area;
    const auto faulty = [&](std::string text) {
        area.ranges.clear();
        area.fault = std::move(text);
        return area;
    };
    redo_head head{};
    if (at % metadata_unit != 0 || at < metadata_unit || !read_head(image, at, &head))
        return faulty("there is no head of a pending change");
    if (head.bytes < head_bytes || head.bytes > image.size() - at ||
        head.count > (head.bytes - head_bytes) / entry_bytes)
        return faulty(fmt::format("its head says {} ranges in {} bytes", head.count, head.bytes));
    uint64_t sum = 0;
    if (!checksum_of(image, at, head.bytes, &sum) || sum != head.checksum)
        return faulty("its checksum does not hold: it was written in part only");
    area.bytes = head.bytes;
    uint64_t source = at + head_bytes + head.count * entry_bytes;
    for (uint64_t i = 0; i < head.count; ++i) {
        const uint64_t entry = at + head_bytes + i * entry_bytes;
        const redo_range range{.offset = image.word(entry), .length = image.word(entry + 8), .source = source};
        if (range.offset > at || range.length > at - range.offset || range.length > at + head.bytes - source)
            return faulty(fmt::format("range {} lies outside of the file", i));
        source += range.length;
        area.ranges.push_back(range);
    }
    return area;
}

uint64_t redo_bytes(file_image &image, uint64_t at)
{
    redo_head head{};
    if (at % metadata_unit != 0 || !read_head(image, at, &head)) return 0;
    if (head.bytes < head_bytes || head.bytes > image.size() - at) return 0;
    return head.bytes;
}
