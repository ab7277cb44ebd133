// A set of offsets that are multiples of a unit: one bit for each, in pieces that exist only where something is set.
// Knows nothing of files.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <unordered_map>

class offset_set {
public:
    explicit offset_set(uint64_t unit = 8) : unit_(unit) {}

    // False when it was in the set already.
    bool insert(uint64_t offset)
    {
        const uint64_t bit = offset / unit_;
        uint64_t &word = piece_for(bit / piece_bits)[bit % piece_bits / 64];
        const uint64_t mask = uint64_t{1} << bit % 64;
        if ((word & mask) != 0) return false;
        word |= mask;
        ++count_;
        return true;
    }

    bool contains(uint64_t offset) const
    {
        if (offset % unit_ != 0) return false;
        const uint64_t bit = offset / unit_;
        const auto found = pieces_.find(bit / piece_bits);
        return found != pieces_.end() && ((*found->second)[bit % piece_bits / 64] >> bit % 64 & 1) != 0;
    }

    uint64_t count() const { return count_; }

    // False when something was in both.
    bool absorb(const offset_set &other)
    {
        bool apart = true;
        for (const auto &[number, words] : other.pieces_) {
            piece &mine = piece_for(number);
            for (uint64_t i = 0; i < words->size(); ++i) {
                apart = apart && (mine[i] & (*words)[i]) == 0;
                count_ += static_cast<uint64_t>(__builtin_popcountll((*words)[i] & ~mine[i]));
                mine[i] |= (*words)[i];
            }
        }
        return apart;
    }

    // Calls with every offset that is here and not in `other`, in no order, until the call returns false.
    template <typename Call> void each_not_in(const offset_set &other, Call call) const
    {
        for (const auto &[number, words] : pieces_)
            for (uint64_t i = 0; i < words->size(); ++i)
                for (uint64_t rest = (*words)[i]; rest != 0; rest &= rest - 1) {
                    const auto low = static_cast<uint64_t>(__builtin_ctzll(rest));
                    const uint64_t offset = (number * piece_bits + i * 64 + low) * unit_;
                    if (!other.contains(offset) && !call(offset)) return;
                }
    }

private:
    static constexpr uint64_t piece_bits = 4096;
    using piece = std::array<uint64_t, piece_bits / 64>;

    piece &piece_for(uint64_t number)
    {
        if (last_ != nullptr && last_number_ == number) return *last_;
        std::unique_ptr<piece> &place = pieces_[number];
        if (place == nullptr) place = std::make_unique<piece>();
        last_ = place.get();
        last_number_ = number;
        return *last_;
    }

    uint64_t unit_;
    uint64_t count_ = 0;
    std::unordered_map<uint64_t, std::unique_ptr<piece>> pieces_;
    piece *last_ = nullptr; // the piece used last, an element of pieces_
    uint64_t last_number_ = 0;
};
