// model.h: what an open file ought to answer, kept in memory: records, one ordered list for each key, the position of
// the handle as an identity with a side, and the record of the last operation. It knows nothing of blocks, caches or
// nodes. Where two sound drivers may differ it says so, and the test leaves the step out.
#ifndef TESTS_DRIVER_MODEL_H
#define TESTS_DRIVER_MODEL_H

#include "host.h"

namespace host {

enum class action { operate, flush, reopen };

// One step of a test: self-contained, so that a sequence stays meaningful when steps are taken out of it.
struct step {
    action what = action::operate;
    operation which = operation::read;
    place where;
    std::string record;
    size_t settings = 0; // reopen: row of the test's table
};

struct expectation {
    int64_t value = 0;
    int error = 0;
    std::optional<std::string> bytes = {};
    std::optional<uint64_t> rrn = {};
    std::optional<bool> duplicate = {};
    std::optional<bool> at_end = {};
};

class model {
public:
    explicit model(const file_spec &spec) : spec_(spec) { open(spec); }

    // What the step must give, after which the model stands behind it; nothing: the answer is not fixed, leave it out.
    std::optional<expectation> apply(const step &next_step);

    void open(const file_spec &spec); // positions as open does; the records stay
    void initialized_again() { highest_ = -1; }
    void sharing(bool shared) { shared_ = shared; }

    size_t records() const { return order_.empty() ? 0 : order_[0].size(); }
    size_t keys() const { return order_.size(); }
    std::vector<std::string> in_order(size_t key_number) const;

private:
    struct record {
        std::string bytes;
        int64_t rrn = 0;
        bool live = true;
        // Flat files of variable length: bytes of the home slot, and of the slot that the record moved to.
        uint64_t home = 0, target = 0;
    };
    struct entry {
        std::string key;
        size_t id;
        uint64_t stamp;
    };
    enum class side { on, gap, low_edge, high_edge };
    struct file_position {
        size_t key = 0;
        side where = side::low_edge;
        size_t index = 0;                 // of the entry, or of the gap before that entry
        std::optional<std::string> saved; // key of the entry, or of the one that stood in the gap
        bool searched = false;            // the saved key was searched and not found
        bool started = false;             // start found the entry, no read came yet
        bool browse = false;
        uint64_t stamp = 0; // entries above it are passed over by a browse
        bool uncertain = false;
        bool moved_at_edge = false; // entries came to an edge without saved key
    };
    struct last_operation {
        std::optional<size_t> id;  // none: the operation failed or ended
        std::optional<size_t> key; // none: not known
    };

    bool is_indexed() const { return spec_.logical == VFS_ORG_INDEXED; }
    bool is_flat() const { return spec_.organization == VFS_ORG_SEQUENTIAL; }
    bool is_unique(size_t k) const { return !is_indexed() || !spec_.keys[k].duplicates; }
    std::string key_of(size_t k, const record &which) const;
    std::pair<size_t, size_t> equal_range(size_t k, const std::string &key) const;
    size_t index_of(size_t k, size_t id) const;
    std::optional<size_t> id_of_rrn(int64_t rrn) const;

    void insert(size_t k, const std::string &key, size_t id);
    void remove(size_t k, size_t index);

    std::optional<expectation> read(const place &where);
    std::optional<expectation> step_read(bool forward);
    std::optional<expectation> start(const place &where);
    std::optional<expectation> write(const place &where, const std::string &bytes);
    std::optional<expectation> rewrite(const place &where, const std::string &bytes);
    std::optional<expectation> erase(const place &where);
    std::optional<expectation> check_position(const place &where);
    std::optional<size_t> find_relation(size_t k, const std::string &key, int32_t relation) const;
    std::optional<size_t> find_start(const place &where, bool &leave_out) const;

    // The record that rewrite or erase acts on: an id, an expectation of failure, or neither (leave it out).
    struct target {
        std::optional<size_t> id;
        std::optional<expectation> failure;
    };
    target find_target(const place &where, const std::string &bytes);
    std::optional<std::string> number_key(const place &where) const; // the rrn that a text key names, as order key

    expectation fail(int error);
    expectation fail_reading(int error);
    expectation ended();
    expectation deliver(size_t k, size_t index, bool forward_only, bool backward_only);
    bool duplicated(size_t k, size_t index, bool forward, bool backward) const;

    file_spec spec_;
    bool shared_ = false;
    std::vector<record> records_;
    std::vector<std::vector<entry>> order_;
    std::vector<uint64_t> tsn_;
    std::vector<size_t> layout_; // flat: record ids in the order of their slots in the file
    uint64_t largest_slot_ = 0;  // flat files: what a filler takes
    uint64_t slots_end_ = 0;     // flat files: bytes of all slots
    int64_t highest_ = -1;
    file_position position_;
    last_operation last_;
};

} // namespace host

#endif
