// See picture.h.
#include "picture.h"

#include <algorithm>

#include "store/format.h"

space picture_cell::most() const
{
    if (kinds[static_cast<size_t>(space::damage)].bytes != 0) return space::damage;
    const auto found = std::max_element(kinds.begin(), kinds.end(),
                                        [](const space_count &a, const space_count &b) { return a.bytes < b.bytes; });
    return static_cast<space>(found - kinds.begin());
}

picture::picture(uint64_t file_bytes, uint64_t most_cells, uint64_t cell_unit, size_t most_pieces)
    : cell_bytes_(std::max(round_up((file_bytes + most_cells - 1) / most_cells, cell_unit), cell_unit)),
      most_pieces_(most_pieces), cells_((file_bytes + cell_bytes_ - 1) / cell_bytes_)
{
}

// An item counts where it begins.
void picture::add(space kind, uint64_t offset, uint64_t length)
{
    if (exact_ && pieces_.size() == most_pieces_) {
        exact_ = false;
        pieces_ = {};
    }
    if (exact_) pieces_.push_back({kind, offset, length});
    const auto index = static_cast<size_t>(kind);
    if (offset / cell_bytes_ < cells_.size()) ++cells_[offset / cell_bytes_].kinds[index].items;
    for (uint64_t at = offset; at < offset + length && at / cell_bytes_ < cells_.size();) {
        const uint64_t to = std::min(offset + length, (at / cell_bytes_ + 1) * cell_bytes_);
        cells_[at / cell_bytes_].kinds[index].bytes += to - at;
        at = to;
    }
}
