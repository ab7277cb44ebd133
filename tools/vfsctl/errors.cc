// The hints that turn an error number into something to do.
#include "errors.h"

#include <cerrno>

#include <fmt/format.h>

namespace {

struct hint {
    int error;
    const char *text;
};

constexpr hint hints[] = {
    {ENOENT, "there is no such file; 'vfsctl create' makes one, 'vfsctl load --key ...' makes and fills one"},
    {EEXIST, "the file exists already; --force overwrites it"},
    {ENOEXEC,
     "the file is damaged, or the program that changed it last did not close it; 'vfsctl check' says which, and "
     "\"After a crash\" in docs/operations.md what to do"},
    {EAGAIN, "another program has the file or the record locked; try again when it is done, or see VFS_LOCK"},
    {ETXTBSY, "another program has the file open for itself; try again when it has closed it"},
    {EDEADLK, "this and another program wait for each other's locks; try again"},
    {ENOLCK, "the system or the driver has no room for another lock; unlock records that are no longer needed"},
    {EINVAL,
     "this is no indexed file of this driver, or its keys are not what was asked for; 'vfsctl info' shows them"},
    {ERANGE, "the record's length or the key number does not fit the file; 'vfsctl info' shows what does"},
    {EADDRINUSE, "a record with this key exists already, and the key allows no duplicates"},
    {EROFS, "the file was opened for reading only"},
    {EACCES, "check the permissions of the file and of its directory"},
    {EPERM, "check the permissions of the file and of its directory"},
    {EISDIR, "give the name of a file, not of a directory"},
    {EBADF, "only regular files can hold records"},
    {EFBIG, "the file or its keys are larger than allowed; check 'ulimit -f' and the number and length of the keys"},
    {ENOSPC, "make room on the file system, then run the command again"},
    {EDQUOT, "make room in the quota, then run the command again"},
    {ESTALE, "another program made the file anew or changed it without locks; open it again"},
    {EIO, "the storage failed; look into the system's log before using the file again"},
};

} // namespace

std::string hint_for(int error)
{
    for (const hint &row : hints)
        if (row.error == error) return row.text;
    return {};
}

std::string failure_message(const std::string &path, const std::string &what, int error, const std::string &text)
{
    std::string message = fmt::format("{}: {}: {}", path, what, text);
    if (const std::string hint = hint_for(error); !hint.empty()) message += "\n  " + hint;
    return message;
}
