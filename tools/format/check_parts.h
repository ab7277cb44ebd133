// Between the files of the check: what one step leaves for the next.
#pragma once

#include <bit>
#include <span>
#include <vector>

#include "format/check.h"
#include "format/frames.h"
#include "format/offset_set.h"

// The sum over pairs of a record's slot and a key value, in no order: two sets of pairs with the same sums are the same,
// but for one case in 2^64 when something else than chance is not at work. So a tree is compared with the records without
// looking at them in its order, and in memory that does not grow. (Multiset hashing, Clarke and others, 2003.)
class pair_sum {
public:
    void add(uint64_t slot, std::span<const std::byte> value) // whole words
    {
        uint64_t hash = slot * 0x9e3779b97f4a7c15;
        for (size_t at = 0; at < value.size(); at += 8)
            hash = (std::rotl(hash, 23) ^ load_u64(value.data() + at)) * odd;
        hash = mixed(hash);
        low_ += hash;
        high_ += mixed(hash + odd);
        ++count_;
    }
    bool operator==(const pair_sum &) const = default;

private:
    static constexpr uint64_t odd = 0xd1342543de82ef95;
    static constexpr uint64_t mixed(uint64_t x)
    {
        x = (x ^ x >> 30) * 0xbf58476d1ce4e5b9;
        x = (x ^ x >> 27) * 0x94d049bb133111eb;
        return x ^ x >> 31;
    }
    uint64_t low_ = 0, high_ = 0, count_ = 0;
};

struct check_state {
    check_state(file_image &bytes, const check_options &wishes, check_result &found)
        : image(bytes), options(wishes), result(found), facts(found.facts), report(found.report),
          pairs(found.facts.keys.size())
    {
    }

    file_image &image;
    const check_options &options;
    check_result &result;
    const file_facts &facts;
    check_report &report;
    uint64_t end = 0; // of what is walked: the header's end of file, or of the file when that is shorter

    // ---- what the walk over the items found
    uint64_t records = 0;                            // without those that moved in flat files
    std::vector<pair_sum> pairs;                     // of each key, with the values that the records' bytes give
    offset_set relocated, free_slots, moved_targets; // slots; relocated: in flat files
    offset_set holes;
    offset_set free_blocks{metadata_unit}, leaves{metadata_unit}, branches{metadata_unit}, lists{metadata_unit};
    uint64_t hole_bytes = 0;
    uint64_t moved = 0; // slots of type 9
    bool walk_whole = true;

    bool go_on(std::string_view what, uint64_t done, uint64_t total)
    {
        if (result.complete && options.progress && !options.progress(what, done, total)) result.complete = false;
        return result.complete;
    }
    template <typename... Arguments>
    void expect(finding_area area, uint64_t at, uint64_t found, uint64_t wanted, fmt::format_string<Arguments...> what,
                Arguments &&...arguments)
    {
        if (found == wanted) return;
        report.problem(area, at, "{}: {} stands here, {} is right",
                       fmt::format(what, std::forward<Arguments>(arguments)...), static_cast<int64_t>(found),
                       static_cast<int64_t>(wanted));
    }
    template <typename T> uint64_t header(field<T> at) const { return static_cast<uint64_t>(facts.get(at)); }
};

bool check_header(check_state &state); // false: there is nothing to go on with
void check_items(check_state &state);
offset_set record_slots(check_state &state); // goes through all items once more
void check_lists(check_state &state);
void check_trees(check_state &state);
