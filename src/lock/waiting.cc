// What becomes of a refused lock: waiting, retrying, giving up, and what is told about it. Runs without the mutex but
// where it says so. May use util/.
#include "lock/internal.h"
#include "util/errors.h"
#include "util/format_text.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <sched.h>
#include <unistd.h>

namespace {

constexpr long millisecond = 1000000; // nanoseconds

enum class next_step { again, block, give_up };

struct patience {
    const lock_target &target;
    const vfs_lock_request &policy;
    uint64_t waits = 0;
    bool delaying = false; // "Delaying" was printed
};

void pause_for(time_t seconds, long nanoseconds)
{
    const timespec whole{seconds, nanoseconds};
    while (nanosleep(&whole, nullptr) == -1 && errno == EINTR) {} // begins again in full
}

bool tracing()
{
    const lock_held held;
    return lock_tracing(held);
}

struct flock holder_in_kernel(const lock_wanted &wanted)
{
    struct flock holder = {};
    holder.l_type = F_UNLCK;
    const lock_held held;
    if (kernel_test(wanted, &holder, held) == -1) holder.l_type = F_UNLCK;
    return holder;
}

bool is_file_lock(const struct flock &holder)
{
    return holder.l_type != F_UNLCK && holder.l_start == 0 && holder.l_len == 0;
}

void print_refusal(const lock_wanted &wanted)
{
    struct flock holder = {};
    holder.l_type = static_cast<short>(wanted.type);
    holder.l_whence = SEEK_SET;
    holder.l_start = static_cast<off_t>(wanted.range.start);
    holder.l_len = static_cast<off_t>(length_of(wanted.range));
    std::fprintf(stderr, "Lock request for me (pid %ld):\n %ld @ 0x%lx for %s on file %s\n",
                 static_cast<long>(getpid()), static_cast<long>(holder.l_len), wanted.range.start,
                 type_word(wanted.type), wanted.file->path);
    (void)lock_test(wanted.file, &holder, static_cast<lock_kind>(wanted.kind));
    std::fprintf(stderr, "Lock request for one other (pid %ld):\n %ld @ 0x%lx for %s\n",
                 static_cast<long>(holder.l_pid), static_cast<long>(holder.l_len),
                 static_cast<unsigned long>(holder.l_start), type_word(static_cast<uint32_t>(holder.l_type)));
}

int report_deadlock(const lock_wanted &wanted, bool delaying)
{
    std::fprintf(stderr, "%s %s Lock deadlock detected on file(%s): size %ld @0x%lx\n", kind_word(wanted.kind),
                 type_word(wanted.type), wanted.file->path, static_cast<long>(length_of(wanted.range)),
                 wanted.range.start);
    (void)lock_release_records(wanted.file);
    if (delaying) lock_note(note_failing, wanted.file);
    return fail(EDEADLK);
}

// The kernel takes the threads of a process for one owner: its deadlock is none when this thread holds nothing that
// anybody could wait for, and on the metadata range, unless a lock that stays (a File lock) is in the way.
bool is_false_alarm(const lock_wanted &wanted)
{
    if (const lock_held held; holds_nothing(wanted.thread, held)) return true;
    if (wanted.kind != lock_metadata) return false;
    const struct flock holder = holder_in_kernel(wanted);
    if (holder.l_type == F_UNLCK) return true;
    return static_cast<uint64_t>(holder.l_start) == wanted.range.start &&
           static_cast<uint64_t>(holder.l_len) == length_of(wanted.range);
}

next_step bounded_retry(patience *state)
{
    if (state->waits == 0) {
        sched_yield();
        state->waits = 1;
        return next_step::again;
    }
    if (state->waits + 1 > state->policy.retry_count) return next_step::give_up;
    if (state->policy.sleep != 0) pause_for(static_cast<time_t>(state->policy.sleep), 0);
    ++state->waits;
    return next_step::again;
}

next_step poll_again(patience *state, long milliseconds)
{
    pause_for(0, milliseconds * millisecond);
    ++state->waits;
    return next_step::again;
}

// What to do about a refusal (EAGAIN).
next_step after_refusal(patience *state, const lock_attempt &attempt)
{
    const lock_target &target = state->target;
    const bool by_policy = target.kind != lock_block && target.kind != lock_metadata;
    if (attempt.same_thread) return next_step::give_up;
    if (target.opening && target.kind == lock_metadata) {
        const bool by_file = attempt.inside ? attempt.by_file : is_file_lock(holder_in_kernel(attempt.wanted));
        // Another sharer's bracket is over in a moment; waiting in the kernel could end up behind a File lock.
        if (!by_file) return attempt.inside ? next_step::block : poll_again(state, 1);
        if (state->policy.wait_mode == VFS_WAIT_KERNEL) return next_step::block;
    } else if (!by_policy || state->policy.wait_mode == VFS_WAIT_KERNEL) {
        // Readers that ask for exclusive use meet each other again unless they wait for different times.
        if (target.kind == lock_exclusive && !attempt.inside) return poll_again(state, 10 + getpid() % 8);
        return next_step::block;
    }
    return state->policy.wait_mode == VFS_WAIT_NEVER ? next_step::give_up : bounded_retry(state);
}

int give_up(const patience &state, const lock_attempt &attempt, int error)
{
    const lock_target &target = state.target;
    if (error == EAGAIN && target.kind == lock_exclusive) error = ETXTBSY;
    const bool silent = error == ENOLCK || (error == ETXTBSY && state.policy.wait_mode == VFS_WAIT_NEVER);
    if (!silent) print_refusal(attempt.wanted);
    if (state.delaying) lock_note(note_failing, target.file);
    return fail(error);
}

} // namespace

void lock_note(lock_note_kind which, const file_state *file)
{
    const char *stamp = time_stamp(nullptr);
    switch (which) {
    case note_delaying:
        std::fprintf(stderr, "%.79s Delaying due to lock conflict on file %s\n", stamp, file->path);
        break;
    case note_failing:
        std::fprintf(stderr, "%.79s Failing due to lock conflict on file %s\n", stamp, file->path);
        break;
    default: std::fprintf(stderr, "%.79s Resuming access to file %s\n", stamp, file->path); break;
    }
}

int wait_for_lock(const lock_target &target, const lock_wanted &wanted)
{
    patience state{target, target.policy != nullptr ? *target.policy : target.file->lock_defaults};
    lock_attempt attempt{wanted};
    for (bool blocking = false;;) {
        if (attempt_lock(&attempt, blocking) == 0) {
            if (state.delaying) lock_note(note_resuming, target.file);
            return static_cast<int>(std::min<uint64_t>(state.waits, INT32_MAX));
        }
        const int error = errno == EACCES ? EAGAIN : errno;
        if (error == EINTR || error == ETIMEDOUT) continue;
        if (error != EAGAIN && error != ENOLCK && error != EDEADLK) return fail(error);
        if (target.try_only) return fail(error == ENOLCK ? ENOLCK : EAGAIN);
        if (!state.delaying && tracing()) {
            lock_note(note_delaying, target.file);
            state.delaying = true;
        }
        if (error == EDEADLK) {
            if (attempt.inside || !is_false_alarm(wanted)) return report_deadlock(wanted, state.delaying);
            pause_for(0, millisecond);
            continue;
        }
        next_step step;
        if (error == ENOLCK) // never a wait in the kernel: it would end at once, again and again
            step = state.policy.wait_mode == VFS_WAIT_NEVER ? next_step::give_up : bounded_retry(&state);
        else
            step = after_refusal(&state, attempt);
        if (step == next_step::give_up) return give_up(state, attempt, error);
        blocking = step == next_step::block;
        if (blocking) ++state.waits;
    }
}
