// Between the files of the check: what one step leaves for the next.
#pragma once

#include <algorithm>
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
    void add(const pair_sum &others)
    {
        low_ += others.low_;
        high_ += others.high_;
        count_ += others.count_;
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
    uint64_t end = 0;         // of what is walked: the header's end of file, or of the file when that is shorter
    bool items_known = false; // the walk over the items has been made: what it found says where a node is

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

// Record numbers that were seen. Those of ordinary size are bits; the others are kept and sorted, so that memory stays
// below eight bytes for each record whatever they are.
class number_set {
public:
    explicit number_set(uint64_t file_bytes) : dense_(std::max<uint64_t>(file_bytes / 5, 1 << 16)) {}
    bool insert(uint64_t number) // false: it is there already, as far as can be told at once
    {
        if (number < dense_) return bits_.insert(number);
        others_.push_back(number);
        return true;
    }
    bool absorb(const number_set &others)
    {
        others_.insert(others_.end(), others.others_.begin(), others.others_.end());
        return bits_.absorb(others.bits_);
    }
    template <typename Call> void each_double(Call call)
    {
        std::sort(others_.begin(), others_.end());
        for (size_t i = 1; i < others_.size(); ++i)
            if (others_[i] == others_[i - 1]) call(others_[i]);
    }

private:
    uint64_t dense_;
    offset_set bits_{1};
    std::vector<uint64_t> others_;
};

// The walk over the items of a file, or of a piece of it.
class item_walk {
public:
    explicit item_walk(check_state &state) : state_(state), numbers_(state.end) {}

    // Every item from the one that begins at `from` to the last one that begins below `to`. Where the next one begins;
    // what was found is in the state. The state says whether it was stopped.
    uint64_t run(uint64_t from, uint64_t to);
    // What another walk has found in a piece behind this one, of a file with trees. False: what each of them took for
    // sound is not, together.
    bool absorb(const item_walk &next);
    // Compares what all pieces together are with the header, unless something of it could not be read.
    void totals();

private:
    bool flat() const { return state_.facts.flat; }
    void item(const frame &found);
    void slot(const frame &found);
    void flat_slot(const frame &found);
    void moved_slot(const frame &found);
    void record(const frame &found);
    void keys_of(const frame &found);
    void length_of_record(const frame &found);

    check_state &state_;
    number_set numbers_;
    std::vector<std::byte> value_;
    uint64_t records_ = 0, free_home_ = 0;
    uint64_t highest_ = UINT64_MAX; // none yet
    uint64_t expected_ = 0;         // flat files: number of the next home slot
};

// Goes through one tree without knowing the items, puts its nodes into `visited` and the sum of its pairs into `sum`.
void sum_tree(check_state &state, const file_key &key, offset_set &visited, pair_sum *sum);

bool check_header(check_state &state); // false: there is nothing to go on with
void check_items(check_state &state);
// Items and trees by several threads, each with a piece of the file. It answers for sound files alone: false, and nothing
// has changed in `state` but that it may have been stopped, when anything at all is not as it should be, or when the file is
// one to be walked in one piece. The items' totals are compared with the header in any case.
bool check_side_by_side(check_state &state);
offset_set record_slots(check_state &state); // goes through all items once more
void check_lists(check_state &state);
void check_trees(check_state &state);
