// A guard that runs an action when its scope is left, keeping errno as the cause of leaving.
//
//     scope_guard release{[&] { lock_drop(file); }};   // runs on every early return
//     ...
//     release.dismiss();                               // the good path releases openly and takes the result
#ifndef VFS_UTIL_SCOPE_GUARD_H
#define VFS_UTIL_SCOPE_GUARD_H

#include <cerrno>
#include <utility>

template <typename Action> class [[nodiscard]] scope_guard {
public:
    explicit scope_guard(Action action) : action_(std::move(action)) {}
    scope_guard(const scope_guard &) = delete;
    scope_guard &operator=(const scope_guard &) = delete;
    ~scope_guard()
    {
        if (!armed_) return;
        const int cause = errno;
        action_();
        errno = cause;
    }
    void dismiss() { armed_ = false; }

private:
    Action action_;
    bool armed_ = true;
};

#endif
