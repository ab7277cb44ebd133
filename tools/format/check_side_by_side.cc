// Items and trees by several threads. A thread takes a tree, or a piece of the file that begins with the first item behind
// some place. Where that item is wrong, or anything else is found, the pieces do not fit and the file is walked once more
// in one piece: so nothing is reported here, and what is reported does not depend on threads.
#include "format/check_parts.h"

#include <atomic>
#include <exception>
#include <thread>

namespace {

// What one thread knows of the file while it goes through a piece or a tree. The image is the thread's, and gone when the
// pieces are joined.
struct part {
    part(file_image &image, const check_state &whole)
        : result(1), state(image, options, with_facts(result, whole)), walk(with_end(state, whole))
    {
    }
    static check_result &with_facts(check_result &result, const check_state &whole)
    {
        result.facts = whole.facts;
        return result;
    }
    static check_state &with_end(check_state &state, const check_state &whole)
    {
        state.end = whole.end;
        return state;
    }
    bool nothing_found() const
    {
        return result.complete && state.walk_whole && state.image.storage_error() == 0 &&
               result.report.problem_count() == 0 && result.report.note_count() == 0;
    }

    check_options options{.line_limit = 1, .progress = {}};
    check_result result;
    check_state state;
    item_walk walk;
    uint64_t from = 0, behind = 0; // its first item, and the first one of the next piece
};

class side_by_side {
public:
    explicit side_by_side(check_state &state) : state_(state)
    {
        const uint64_t all = state.end - state.facts.metadata_size;
        // Some pieces for each thread, so that none of them waits long for another; not more, each has its own sets.
        piece_bytes_ = std::max(state.options.piece_bytes, all / (uint64_t{8} * state.options.threads)) / 8 * 8;
        pieces_.resize(all / piece_bytes_ + 1);
        sums_.resize(state.facts.keys.size());
        for (size_t key = 0; key < sums_.size(); ++key) visited_.emplace_back(metadata_unit);
    }

    bool run()
    {
        std::vector<std::thread> helpers;
        try {
            while (helpers.size() + 1 < state_.options.threads) helpers.emplace_back([this] { work(false); });
        } catch (const std::exception &) { // as many as there are
        }
        work(true);
        for (std::thread &helper : helpers) helper.join();
        if (interrupted_) state_.result.complete = false;
        return !stop_ && join();
    }

private:
    void work(bool watching)
    {
        try {
            file_image image = state_.image; // blocks of its own
            for (size_t task = next_++; task < sums_.size() + pieces_.size() && !stop_; task = next_++)
                if (task < sums_.size())
                    tree(image, task, watching);
                else
                    piece(image, task - sums_.size(), watching);
        } catch (...) { // no memory: there may be enough for a walk in one piece
            stop_ = true;
        }
    }

    bool goes_on(bool watching)
    {
        if (watching && state_.options.progress && !state_.options.progress("items", walked_, state_.end)) {
            interrupted_ = true;
            stop_ = true;
        }
        return !stop_;
    }

    void tree(file_image &image, size_t key, bool watching)
    {
        part mine{image, state_};
        mine.options.progress = [&](std::string_view, uint64_t, uint64_t) { return goes_on(watching); };
        sum_tree(mine.state, mine.state.facts.keys[key], visited_[key], &sums_[key]);
        if (!mine.nothing_found()) stop_ = true;
    }

    void piece(file_image &image, size_t number, bool watching)
    {
        auto mine = std::make_unique<part>(image, state_);
        const uint64_t begin = state_.facts.metadata_size, end = state_.end;
        const uint64_t from = begin + number * piece_bytes_, to = std::min(from + piece_bytes_, end);
        frame first;
        mine->from = number == 0 ? begin : next_frame(image, from, end, &first);
        uint64_t told = mine->from;
        mine->options.progress = [&](std::string_view, uint64_t at, uint64_t) {
            walked_ += at - told;
            told = at;
            return goes_on(watching);
        };
        mine->behind = mine->walk.run(mine->from, to);
        walked_ += mine->behind - told;
        mine->options.progress = {};
        if (!mine->nothing_found()) stop_ = true;
        pieces_[number] = std::move(mine);
    }

    // Each piece begins where the one before it ends, what they have is there once, and the trees lead to it.
    bool join()
    {
        file_image &image = state_.image;
        part whole{image, state_};
        uint64_t at = state_.facts.metadata_size;
        for (std::unique_ptr<part> &next : pieces_) {
            if (next->from != at || !whole.walk.absorb(next->walk)) return false;
            at = next->behind;
            next.reset();
        }
        if (at != state_.end || !trees_agree(whole.state)) return false;
        item_walk all{state_};
        all.absorb(whole.walk);
        all.totals();
        state_.items_known = true;
        state_.result.records = state_.records;
        state_.result.pieces = pieces_.size();
        return true;
    }

    bool trees_agree(const check_state &items)
    {
        offset_set nodes{metadata_unit};
        for (size_t key = 0; key < sums_.size(); ++key)
            if (sums_[key] != items.pairs[key] || !nodes.absorb(visited_[key])) return false;
        bool all = nodes.count() == items.leaves.count() + items.branches.count();
        for (const offset_set *kind : {&items.leaves, &items.branches})
            kind->each_not_in(nodes, [&](uint64_t) { return all = false; });
        return all;
    }

    check_state &state_;
    uint64_t piece_bytes_ = 0;
    std::vector<std::unique_ptr<part>> pieces_;
    std::vector<pair_sum> sums_;       // of each tree
    std::vector<offset_set> visited_;  // its nodes
    std::atomic<size_t> next_ = 0;     // task: the trees come first, they take longest
    std::atomic<uint64_t> walked_ = 0; // bytes
    std::atomic<bool> stop_ = false, interrupted_ = false;
};

} // namespace

bool check_side_by_side(check_state &state)
{
    // In a file without trees the numbers of the slots count up from its begin.
    if (state.options.threads < 2 || state.facts.flat || state.facts.keys.empty()) return false;
    if (state.end < state.facts.metadata_size + 2 * state.options.piece_bytes) return false;
    return side_by_side{state}.run();
}
