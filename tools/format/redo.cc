// See redo.h.
#include "format/redo.h"

#include "store/format.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>

namespace {

struct redo_head {
    uint64_t magic, ranges, bytes;
};

bool read_head(file_image &image, uint64_t at, redo_head *head)
{
    std::array<std::byte, redo_head_bytes> bytes{};
    if (!image.read(at, bytes)) return false;
    *head = {image_get(bytes, redo_magic), image_get(bytes, redo_ranges), image_get(bytes, redo_length)};
    return head->magic == redo_magic_word && head->bytes >= redo_head_bytes && head->bytes <= image.size() - at;
}

// Four lanes in turn take the words of the area, each by a step of FNV-1a, and are folded into one at the end. The
// checksum's own word counts as zero, the last word is filled up with zeros.
bool checksum_of(file_image &image, uint64_t at, uint64_t bytes, uint64_t *sum)
{
    std::array<uint64_t, 4> lanes{redo_sum_basis, redo_sum_basis, redo_sum_basis, redo_sum_basis};
    std::array<std::byte, 4096> piece{};
    for (uint64_t done = 0; done < bytes; done += piece.size()) {
        const uint64_t count = std::min<uint64_t>(piece.size(), bytes - done);
        piece.fill(std::byte{0});
        if (!image.read(at + done, std::span{piece}.first(count))) return false;
        if (done == 0) store_u64(piece.data() + redo_checksum.offset, 0);
        for (uint64_t i = 0; i < count; i += 8) {
            uint64_t &lane = lanes[i / 8 % lanes.size()];
            lane = (lane ^ load_u64(piece.data() + i)) * redo_sum_prime;
        }
    }
    *sum = redo_sum_basis;
    for (const uint64_t lane : lanes) *sum = (*sum ^ lane) * redo_sum_prime;
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
    if (at % redo_unit != 0 || at < metadata_unit || !read_head(image, at, &head))
        return faulty("there is no head of a pending change");
    if (head.bytes % 8 != 0 || head.ranges == 0 || head.ranges > (head.bytes - redo_head_bytes) / redo_range_bytes)
        return faulty(fmt::format("its head says {} ranges in {} bytes", head.ranges, head.bytes));
    uint64_t sum = 0;
    if (!checksum_of(image, at, head.bytes, &sum) || sum != image.word(at + redo_checksum.offset))
        return faulty("its checksum does not hold: it was written in part only");
    const uint64_t end = at + head.bytes;
    bool older =
        false; // the area of an earlier change, where the header of a stopped machine names that of a later one
    uint64_t source = at + redo_head_bytes + head.ranges * redo_range_bytes;
    for (uint64_t i = 0; i < head.ranges; ++i) {
        const uint64_t entry = at + redo_head_bytes + i * redo_range_bytes;
        const redo_range range{.offset = image.word(entry), .length = image.word(entry + 8), .source = source};
        if (range.offset > at || range.length > at - range.offset || range.length > end - source)
            return faulty(fmt::format("its range {} lies outside of the file", i));
        for (const uint64_t counter : {header_tsn.offset, header_dsn.offset, header_asn.offset}) {
            if (counter < range.offset || counter + 8 > range.offset + range.length) continue;
            const uint64_t stored = ~image.word(range.source + (counter - range.offset));
            older |= static_cast<int64_t>(stored) < static_cast<int64_t>(image.word(counter));
        }
        source += range.length;
        area.ranges.push_back(range);
    }
    if (older) return faulty("its counters are behind those of the header: it belongs to an earlier change");
    if (source != end) return faulty("its ranges do not fill it");
    return area;
}

uint64_t redo_bytes(file_image &image, uint64_t at)
{
    redo_head head{};
    return at % redo_unit == 0 && read_head(image, at, &head) ? head.bytes : 0;
}
