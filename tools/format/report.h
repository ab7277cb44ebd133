// What a check found: problems, each with its offset and what it means, and notes that are no damage. Counts all, keeps
// the text of the first ones.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <fmt/format.h>

enum class finding_area { header, items, records, lists, trees };
inline constexpr size_t finding_areas = 5;
constexpr const char *finding_area_name(finding_area area)
{
    constexpr std::array<const char *, finding_areas> names = {"header", "items", "records", "lists", "trees"};
    return names[static_cast<size_t>(area)];
}

struct finding {
    finding_area area;
    uint64_t offset; // in the file
    std::string text;
    std::string line() const { return fmt::format("0x{:x}: {}", offset, text); }
};

class check_report {
public:
    explicit check_report(uint64_t line_limit) : line_limit_(line_limit) {}

    template <typename... Arguments>
    void problem(finding_area area, uint64_t offset, fmt::format_string<Arguments...> text, Arguments &&...arguments)
    {
        ++counts_[static_cast<size_t>(area)];
        if (problems_.size() < line_limit_)
            problems_.push_back({area, offset, fmt::format(text, std::forward<Arguments>(arguments)...)});
    }
    template <typename... Arguments> void note(fmt::format_string<Arguments...> text, Arguments &&...arguments)
    {
        ++note_count_;
        if (notes_.size() < line_limit_) notes_.push_back(fmt::format(text, std::forward<Arguments>(arguments)...));
    }

    uint64_t count(finding_area area) const { return counts_[static_cast<size_t>(area)]; }
    uint64_t problem_count() const
    {
        uint64_t sum = 0;
        for (const uint64_t count : counts_) sum += count;
        return sum;
    }
    uint64_t note_count() const { return note_count_; }
    const std::vector<finding> &problems() const { return problems_; }
    const std::vector<std::string> &notes() const { return notes_; }

private:
    uint64_t line_limit_;
    uint64_t note_count_ = 0;
    std::array<uint64_t, finding_areas> counts_{};
    std::vector<finding> problems_;
    std::vector<std::string> notes_;
};
