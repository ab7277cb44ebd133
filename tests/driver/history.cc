// history.cc: see history.h. The search of Wing and Gong keeps a partial order of events and backtracks; here all
// partial orders advance together through time, and those that agree in the value of the register and in the set of
// open calls that have taken effect are one (the memoisation, and the lazy choice of the instant, of G. Lowe, "Testing
// for linearizability", Concurrency and Computation: Practice and Experience 29, 2017). Calls that overlap are few, so
// the set stays small however long the history is.
#include "history.h"

#include <algorithm>
#include <set>
#include <vector>

namespace host {
namespace {

struct configuration {
    uint64_t value = 0;
    uint64_t effective = 0; // bit s: the open call in place s has taken effect
    auto operator<=>(const configuration &) const = default;
};

// The value after the event takes effect on `value`; false: its answer does not fit.
bool take_effect(const event &what, uint64_t value, uint64_t *after)
{
    *after = value;
    switch (what.answer) {
    case reply::absent: return value == 0;
    case reply::exists: return value != 0;
    default: break;
    }
    switch (what.what) {
    case act::read: return value == what.value;
    case act::insert: *after = what.value; return value == 0;
    case act::replace: *after = what.value; break;
    case act::remove: *after = 0; break;
    }
    return value != 0 && (what.expected == 0 || value == what.expected);
}

struct moment {
    int64_t at;
    bool end; // at equal times calls come before answers: they may overlap
    size_t which;
    auto operator<=>(const moment &) const = default;
};

std::vector<moment> moments_of(std::span<const event> events)
{
    std::vector<moment> moments;
    for (size_t i = 0; i < events.size(); ++i) {
        if (events[i].what == act::read && events[i].answer == reply::unknown) continue;
        moments.push_back({events[i].from, false, i});
        moments.push_back({events[i].to, true, i});
    }
    std::sort(moments.begin(), moments.end());
    return moments;
}

class search {
public:
    search(std::span<const event> events, uint64_t initial) : events_(events) { reached_.insert({initial, 0}); }

    bool open(size_t which)
    {
        for (size_t place = 0; place < 64; ++place) {
            if (places_[place] != nullptr) continue;
            places_[place] = &events_[which];
            return true;
        }
        return false;
    }

    // The call has been answered: it has taken effect by now, unless nobody heard the answer.
    bool close(size_t which)
    {
        const event *wanted = &events_[which];
        const size_t place = static_cast<size_t>(std::find(places_, places_ + 64, wanted) - places_);
        expand(uint64_t{1} << place, wanted->answer == reply::unknown);
        places_[place] = nullptr;
        return !reached_.empty();
    }

private:
    void expand(uint64_t bit, bool optional)
    {
        std::set<configuration> seen = reached_, kept;
        std::vector<configuration> todo(seen.begin(), seen.end());
        while (!todo.empty()) {
            const configuration now = todo.back();
            todo.pop_back();
            if ((now.effective & bit) != 0 || optional) kept.insert({now.value, now.effective & ~bit});
            if ((now.effective & bit) != 0) continue; // what is not needed yet takes effect later
            for (size_t place = 0; place < 64; ++place) {
                const uint64_t other = uint64_t{1} << place;
                configuration after{0, now.effective | other};
                if (places_[place] == nullptr || (now.effective & other) != 0) continue;
                if (!take_effect(*places_[place], now.value, &after.value)) continue;
                if (seen.insert(after).second) todo.push_back(after);
            }
        }
        reached_ = std::move(kept);
    }

    std::span<const event> events_;
    std::set<configuration> reached_;
    const event *places_[64] = {};
};

} // namespace

std::string check_history(std::span<const event> events, uint64_t initial)
{
    search orders{events, initial};
    const std::vector<moment> moments = moments_of(events);
    for (size_t i = 0; i < moments.size(); ++i) {
        if (!moments[i].end) {
            if (!orders.open(moments[i].which)) return "more than 64 calls at once";
        } else if (!orders.close(moments[i].which)) {
            std::string text = "no order explains " + describe(events[moments[i].which]) + "; before it:\n";
            for (size_t back = 0; back <= i && back < 24; ++back)
                if (moments[i - back].end) text += "    " + describe(events[moments[i - back].which]) + "\n";
            return text;
        }
    }
    return "";
}

std::string describe(const event &what)
{
    static const char *const acts[] = {"read", "insert", "replace", "remove"};
    static const char *const replies[] = {"done", "absent", "exists", "unknown"};
    std::string text = std::string{acts[static_cast<size_t>(what.what)]} + " " + std::to_string(what.value);
    if (what.expected != 0) text += " over " + std::to_string(what.expected);
    return text + " -> " + replies[static_cast<size_t>(what.answer)] + " [" + std::to_string(what.from) + ", " +
           (what.to == without_end ? "..." : std::to_string(what.to)) + "]";
}

} // namespace host
