// What stands where in a file, for a drawing of a certain fineness: every item while they are few, then how many bytes of
// each kind are in each of equal cells. Knows nothing of how it is drawn.
#pragma once

#include <array>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "format/survey.h"

struct picture_piece {
    space kind;
    uint64_t offset, length;
};

struct picture_cell {
    std::array<space_count, spaces> kinds{};

    space most() const; // the kind with the most bytes; damage, where there is any
};

class picture {
public:
    // Cells: at most so many, of a multiple of `cell_unit` bytes. More than `most_pieces` items are not kept apart.
    picture(uint64_t file_bytes, uint64_t most_cells, uint64_t cell_unit, size_t most_pieces);

    void add(space kind, uint64_t offset, uint64_t length); // in the order of their offsets

    bool exact() const { return exact_; }
    const std::vector<picture_piece> &pieces() const { return pieces_; } // while exact
    const std::vector<picture_cell> &cells() const { return cells_; }
    uint64_t cell_bytes() const { return cell_bytes_; }

private:
    uint64_t cell_bytes_;
    size_t most_pieces_;
    bool exact_ = true;
    std::vector<picture_piece> pieces_;
    std::vector<picture_cell> cells_;
};
