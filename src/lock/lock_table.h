// The lock table of one file in this process, as data: entries, ranges, conflicts, and what the kernel should hold.
// May use util/; makes no system call and knows no policy. Everything here runs under the process mutex (lock_held).
//
// Invariant between any two holders of the mutex: for every byte, the kernel's lock of this process is of the
// strongest type among the granted entries that cover the byte (none: no lock). A pending entry marks a range for
// which a system call is under way without the mutex: others treat it as held, and where they give up a lock beneath
// it, the kernel keeps what it has until the pending entry is settled.
#ifndef VFS_LOCK_LOCK_TABLE_H
#define VFS_LOCK_LOCK_TABLE_H

#include "lock/lock.h"

#include <pthread.h>

inline constexpr uint32_t lock_entries_at_most = 256; // Record and Block entries; the other kinds always find room
inline constexpr uint32_t no_entry = ~uint32_t{0};

// An inclusive range; a length of 0 reaches to the end of all offsets.
struct lock_range {
    uint64_t start, last;
    bool operator==(const lock_range &) const = default;
};
inline lock_range range_of(uint64_t start, uint64_t length)
{
    return {start, length == 0 || start + length - 1 < start ? none : start + length - 1};
}
inline uint64_t length_of(const lock_range &range)
{
    return range.last == none ? 0 : range.last - range.start + 1;
}
inline bool overlap(const lock_range &a, const lock_range &b)
{
    return a.start <= b.last && b.start <= a.last;
}
inline bool contains(const lock_range &a, const lock_range &b)
{
    return a.start <= b.start && b.last <= a.last;
}

struct vfs_lock_entry {
    lock_range range;
    file_state *owner; // null: free
    uint32_t type;     // F_RDLCK, F_WRLCK; F_UNLCK: free
    uint32_t kind;
    pthread_t thread; // that took it
    bool pending;
};

struct vfs_lock_table {
    uint64_t low, high;  // bounds of all ranges ever recorded; they only widen
    uint32_t high_water; // highest index in use; scans run from 0 to it inclusive
    uint32_t in_use;
    uint32_t limited; // of these, Record and Block entries
    uint32_t capacity;
    vfs_lock_entry *entries; // owned; may move when an entry is added
    vfs_lock_table *next;    // of the process, in no order
};

// The one mutex of all lock operations of the process. A forked child finds it free.
class [[nodiscard]] lock_held {
public:
    lock_held();
    ~lock_held();
    lock_held(const lock_held &) = delete;
    lock_held &operator=(const lock_held &) = delete;
    int error() const { return error_; } // 0, or why the mutex could not be had
    void drop();                         // around a call that may block
    void take();
    void wait_for_release(int milliseconds) const; // until a lock is released, at most so long
    void announce_release() const;

private:
    int error_;
    bool locked_ = false;
};

// Asked for, and, in the process-wide list of waiters, waited for.
struct lock_wanted {
    file_state *file;
    pthread_t thread;
    lock_range range;
    uint32_t type, kind;
};

vfs_lock_table *lock_table_of(file_state *file, const lock_held &);     // created on first use; null: ENOMEM
bool may_overlap(const vfs_lock_table *table, const lock_range &range); // by the bounds alone

template <typename Visit> void for_each_entry(const vfs_lock_table *table, Visit &&visit)
{
    for (uint32_t i = 0; table->in_use != 0 && i <= table->high_water; ++i)
        if (table->entries[i].owner != nullptr && !visit(table->entries[i], i)) return;
}

// An entry of another handle that keeps the wanted lock out, or no_entry.
uint32_t find_conflict(const vfs_lock_table *table, const lock_wanted &wanted);
// The handle's entry of this kind and exactly this range, or no_entry.
uint32_t find_same(const vfs_lock_table *table, const lock_wanted &wanted);
// The handle's entry of this kind that a release means: the exact one, else an overlapping one, write locks first.
uint32_t find_held(const vfs_lock_table *table, const lock_wanted &wanted);
// One granted entry of the process, of this type or a stronger one, contains the whole range.
bool is_covered(const vfs_lock_table *table, const lock_range &range, uint32_t type);

// The first piece of the range over which the same entries hold: its end, and the strongest type among them
// (F_UNLCK: none holds it).
struct lock_piece {
    lock_range range;
    uint32_t type;
};
lock_piece first_piece(const vfs_lock_table *table, const lock_range &range, bool pending_too);

// Its index, or no_entry with errno ENOLCK (as many as there may be) or ENOMEM.
uint32_t entry_add(vfs_lock_table *table, const lock_wanted &wanted);
void entry_free(vfs_lock_table *table, uint32_t index);

// The locks that the wanted one waits for, directly or through other waiting handles, wait for the wanted one.
bool closes_a_circle(const vfs_lock_table *table, const lock_wanted &wanted, const lock_held &);

// Whether the thread has taken no lock that is still held, of whatever file: then nobody waits for it.
bool holds_nothing(pthread_t thread, const lock_held &);

// On the list of waiters while it lives.
class [[nodiscard]] lock_waiting {
public:
    lock_waiting(const vfs_lock_table *waited_table, const lock_wanted &wanted, const lock_held &);
    ~lock_waiting();
    lock_waiting(const lock_waiting &) = delete;
    lock_waiting &operator=(const lock_waiting &) = delete;

    const vfs_lock_table *table;
    lock_wanted wants;
    lock_waiting *next;
    bool reached; // by the search for a circle
};

inline bool stronger(uint32_t a, uint32_t b) // write, then read, then none
{
    const auto rank = [](uint32_t type) { return type == F_WRLCK ? 2 : type == F_RDLCK ? 1 : 0; };
    return rank(a) > rank(b);
}

const char *kind_word(uint32_t kind);
const char *type_word(uint32_t type);
void table_print(const vfs_lock_table *table);

#endif
