// File status from the driver's error numbers.
#include "bridge.h"

#include <cerrno>

namespace {

bool is_open(asked what)
{
    return what == asked::open || what == asked::output_open || what == asked::making;
}

int code_of_open(int error, asked what)
{
    switch (error) {
    case EAGAIN:
    case ENOLCK:
    case ETXTBSY: return 61;
    case ENOENT:
    case ENOTDIR: return what == asked::output_open ? 30 : 35;
    case EACCES:
    case EPERM:
    case EISDIR:
    case EROFS: return 37;
    case EINVAL: return what == asked::making ? 30 : 39;
    default: return 30;
    }
}

int code_of_record(int error, asked what, organization kind)
{
    switch (error) {
    case ESPIPE: return what == asked::sequential_read ? 10 : 23;
    case EADDRINUSE: return 22;
    case EEXIST: return 21;
    case EAGAIN: return 51;
    case EDEADLK: return 52;
    case ENOLCK: return 54;
    case EROFS: return what == asked::write ? 48 : what == asked::rewrite || what == asked::other ? 49 : 47;
    case ERANGE: return what == asked::write || what == asked::rewrite ? 44 : 30;
    case EFBIG:
    case ENOSPC:
    case EDQUOT: return kind == organization::sequential ? 34 : 24;
    default: return 30;
    }
}

} // namespace

file_status status_of_error(int error, asked what, organization kind)
{
    return status_of(is_open(what) ? code_of_open(error, what) : code_of_record(error, what, kind));
}
