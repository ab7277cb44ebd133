// The lock table as data; see lock_table.h. May use util/ only.
#include "lock/lock_table.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace {

pthread_mutex_t lock_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t lock_released;
pthread_once_t prepared = PTHREAD_ONCE_INIT;
lock_waiting *waiters;  // of all files
vfs_lock_table *tables; // of all files

void make_condition()
{
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&lock_released, &attributes);
    pthread_condattr_destroy(&attributes);
}

void before_fork()
{
    pthread_mutex_lock(&lock_mutex);
}
void after_fork()
{
    pthread_mutex_unlock(&lock_mutex);
}
void in_child() // none of the waiting threads came along
{
    waiters = nullptr;
    tables = nullptr; // their locks are the parent's
    make_condition();
    pthread_mutex_unlock(&lock_mutex);
}

void prepare()
{
    make_condition();
    pthread_atfork(before_fork, after_fork, in_child);
}

bool is_limited(uint32_t kind)
{
    return kind == lock_record || kind == lock_block;
}

// The entry keeps the wanted lock out: another handle's, not both are read locks.
bool conflicts(const vfs_lock_entry &entry, const lock_wanted &wanted)
{
    return entry.owner != wanted.file && overlap(entry.range, wanted.range) &&
           (entry.type == F_WRLCK || entry.type != wanted.type);
}

bool taken_by(const vfs_lock_entry &entry, const lock_wanted &waiter)
{
    return entry.owner == waiter.file || pthread_equal(entry.thread, waiter.thread) != 0;
}

// Does `first` wait for a lock of `second`?
bool waits_for(const vfs_lock_table *table, const lock_wanted &first, const lock_wanted &second)
{
    bool found = false;
    for_each_entry(table, [&](const vfs_lock_entry &entry, uint32_t) {
        found = conflicts(entry, first) && taken_by(entry, second);
        return !found;
    });
    return found;
}

bool grow(vfs_lock_table *table)
{
    const uint32_t capacity = table->capacity == 0 ? 16 : 2 * table->capacity;
    void *moved = std::realloc(table->entries, capacity * sizeof(vfs_lock_entry));
    if (moved == nullptr) return false;
    table->entries = static_cast<vfs_lock_entry *>(moved);
    for (uint32_t i = table->capacity; i < capacity; ++i) table->entries[i] = {{}, nullptr, F_UNLCK, 0, {}, false};
    table->capacity = capacity;
    return true;
}

} // namespace

void lock_watch_forks()
{
    pthread_once(&prepared, prepare);
}

lock_held::lock_held()
{
    lock_watch_forks();
    error_ = pthread_mutex_lock(&lock_mutex);
    locked_ = error_ == 0;
}
lock_held::~lock_held()
{
    if (locked_) pthread_mutex_unlock(&lock_mutex);
}
void lock_held::drop()
{
    pthread_mutex_unlock(&lock_mutex);
    locked_ = false;
}
void lock_held::take()
{
    locked_ = pthread_mutex_lock(&lock_mutex) == 0;
}
void lock_held::announce_release() const
{
    pthread_cond_broadcast(&lock_released);
}
void lock_held::wait_for_release(int milliseconds) const
{
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_nsec += milliseconds * 1000000L;
    until.tv_sec += until.tv_nsec / 1000000000;
    until.tv_nsec %= 1000000000;
    pthread_cond_timedwait(&lock_released, &lock_mutex, &until);
}

vfs_lock_table *lock_table_of(file_state *file, const lock_held &)
{
    vfs_lock_table *&table = file->shared->lock_table;
    if (table == nullptr) {
        table = static_cast<vfs_lock_table *>(std::calloc(1, sizeof(vfs_lock_table)));
        if (table == nullptr) return nullptr;
        table->low = none;
        table->next = tables;
        tables = table;
    }
    return table;
}

void lock_table_free(vfs_lock_table *table)
{
    if (table == nullptr) return;
    {
        const lock_held held;
        vfs_lock_table **place = &tables;
        while (*place != nullptr && *place != table) place = &(*place)->next;
        if (*place != nullptr) *place = table->next;
    }
    std::free(table->entries);
    std::free(table);
}

bool holds_nothing(pthread_t thread, const lock_held &)
{
    bool nothing = true;
    for (const vfs_lock_table *table = tables; table != nullptr && nothing; table = table->next)
        for_each_entry(table, [&](const vfs_lock_entry &entry, uint32_t) {
            nothing = entry.pending || pthread_equal(entry.thread, thread) == 0;
            return nothing;
        });
    return nothing;
}

bool may_overlap(const vfs_lock_table *table, const lock_range &range)
{
    return range.last >= table->low && range.start <= table->high;
}

uint32_t find_conflict(const vfs_lock_table *table, const lock_wanted &wanted)
{
    uint32_t found = no_entry;
    if (!may_overlap(table, wanted.range)) return found;
    for_each_entry(table, [&](const vfs_lock_entry &entry, uint32_t index) {
        if (conflicts(entry, wanted)) found = index;
        return found == no_entry;
    });
    return found;
}

uint32_t find_same(const vfs_lock_table *table, const lock_wanted &wanted)
{
    uint32_t found = no_entry;
    for_each_entry(table, [&](const vfs_lock_entry &entry, uint32_t index) {
        if (entry.owner == wanted.file && entry.kind == wanted.kind && entry.range == wanted.range) found = index;
        return found == no_entry;
    });
    return found;
}

uint32_t find_held(const vfs_lock_table *table, const lock_wanted &wanted)
{
    uint32_t found = find_same(table, wanted);
    if (found != no_entry || !may_overlap(table, wanted.range)) return found;
    for_each_entry(table, [&](const vfs_lock_entry &entry, uint32_t index) {
        if (entry.owner != wanted.file || entry.kind != wanted.kind || !overlap(entry.range, wanted.range)) return true;
        if (found == no_entry || entry.type == F_WRLCK) found = index;
        return entry.type != F_WRLCK;
    });
    return found;
}

bool is_covered(const vfs_lock_table *table, const lock_range &range, uint32_t type)
{
    bool covered = false;
    for_each_entry(table, [&](const vfs_lock_entry &entry, uint32_t) {
        covered = !entry.pending && contains(entry.range, range) && !stronger(type, entry.type);
        return !covered;
    });
    return covered;
}

lock_piece first_piece(const vfs_lock_table *table, const lock_range &range, bool pending_too)
{
    lock_piece piece{range, F_UNLCK};
    for_each_entry(table, [&](const vfs_lock_entry &entry, uint32_t) {
        if ((entry.pending && !pending_too) || !overlap(entry.range, range)) return true;
        if (entry.range.start > range.start) {
            piece.range.last = std::min(piece.range.last, entry.range.start - 1);
            return true;
        }
        piece.range.last = std::min(piece.range.last, entry.range.last);
        if (stronger(entry.type, piece.type)) piece.type = entry.type;
        return true;
    });
    return piece;
}

uint32_t entry_add(vfs_lock_table *table, const lock_wanted &wanted)
{
    if (is_limited(wanted.kind) && table->limited >= lock_entries_at_most) {
        errno = ENOLCK;
        return no_entry;
    }
    uint32_t index = 0;
    while (index < table->capacity && table->entries[index].owner != nullptr) ++index;
    if (index == table->capacity && !grow(table)) return no_entry;
    table->entries[index] = {wanted.range, wanted.file, wanted.type, wanted.kind, wanted.thread, false};
    ++table->in_use;
    if (is_limited(wanted.kind)) ++table->limited;
    table->high_water = std::max(table->high_water, index);
    table->low = std::min(table->low, wanted.range.start);
    table->high = std::max(table->high, wanted.range.last);
    return index;
}

void entry_free(vfs_lock_table *table, uint32_t index)
{
    vfs_lock_entry &entry = table->entries[index];
    if (is_limited(entry.kind)) --table->limited;
    entry.owner = nullptr;
    entry.type = F_UNLCK;
    entry.pending = false;
    --table->in_use;
    while (table->high_water > 0 && table->entries[table->high_water].owner == nullptr) --table->high_water;
}

lock_waiting::lock_waiting(const vfs_lock_table *waited_table, const lock_wanted &wanted, const lock_held &)
    : table(waited_table), wants(wanted), next(waiters), reached(false)
{
    waiters = this;
}
lock_waiting::~lock_waiting()
{
    lock_waiting **link = &waiters;
    while (*link != this) link = &(*link)->next;
    *link = next;
}

bool closes_a_circle(const vfs_lock_table *table, const lock_wanted &wanted, const lock_held &)
{
    for (lock_waiting *waiter = waiters; waiter != nullptr; waiter = waiter->next)
        waiter->reached = waits_for(table, wanted, waiter->wants);
    for (bool more = true; more;) {
        more = false;
        for (lock_waiting *from = waiters; from != nullptr; from = from->next) {
            if (!from->reached) continue;
            if (waits_for(from->table, from->wants, wanted)) return true;
            for (lock_waiting *to = waiters; to != nullptr; to = to->next) {
                if (to->reached || !waits_for(from->table, from->wants, to->wants)) continue;
                to->reached = more = true;
            }
        }
    }
    return false;
}

const char *kind_word(uint32_t kind)
{
    switch (kind) {
    case lock_exclusive: return "Exclusive";
    case lock_file: return "File";
    case lock_block: return "Block";
    case lock_record: return "Record";
    case lock_metadata: return "Metadata";
    default: return "?";
    }
}

const char *type_word(uint32_t type)
{
    switch (type) {
    case F_RDLCK: return "Read";
    case F_WRLCK: return "Write";
    case F_UNLCK: return "Unlock";
    default: return "?";
    }
}

void table_print(const vfs_lock_table *table)
{
    std::fprintf(stderr, "Lock Table @%p entries=%ld/%ld max=%ld low 0x%lx high 0x%lx\n",
                 static_cast<const void *>(table), static_cast<long>(table->in_use),
                 static_cast<long>(table->high_water), static_cast<long>(lock_entries_at_most), table->low,
                 table->high);
    for_each_entry(table, [](const vfs_lock_entry &entry, uint32_t index) {
        std::fprintf(stderr, " [%ld]: %ld @ 0x%lx for %s %s on file %s\n", static_cast<long>(index),
                     static_cast<long>(length_of(entry.range)), entry.range.start, kind_word(entry.kind),
                     type_word(entry.type), entry.owner->path);
        return true;
    });
}
