// CLOSE in its forms, and the files that are open: found again when the control block has gone, and closed when the
// program ends without closing them.
#include "bridge.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unistd.h>
#include <utility>

namespace {

struct locked_file { // closed WITH LOCK: not to be opened again by this SELECT
    std::string path;
    const void *record_area;
};

struct all_files {
    std::vector<open_file *> open;
    std::vector<locked_file> locked;

    // A program may end without closing: what it wrote is not to be lost.
    ~all_files() { forget_all(); }
};
all_files files;

} // namespace

open_file::~open_file()
{
    std::erase(files.open, this);
    // CANCEL, or the end of a program that has not closed it: nobody asks for a status.
    if (handle != nullptr && ops().close(handle, nullptr) == -1)
        fprintf(stderr, "%s (%s): closing it failed: %s\n", name.c_str(), path.c_str(), strerror(errno));
}

open_file *file_of(const control_block &fcd)
{
    if (fcd.handle() != nullptr) return static_cast<open_file *>(fcd.handle());
    for (open_file *each : files.open) // CLOSE REEL has left it open
        if (each->kept_open && each->record_area == fcd.record() && each->name == name_in_program(fcd)) return each;
    return nullptr;
}

open_file *file_of(const cob_file *owner)
{
    for (open_file *each : files.open)
        if (each->owner == owner) return each;
    return nullptr;
}

bool file_was_locked(const std::string &path, const void *record_area)
{
    return std::any_of(files.locked.begin(), files.locked.end(),
                       [&](const locked_file &each) { return each.path == path && each.record_area == record_area; });
}

void remember(open_file *file)
{
    files.open.push_back(file);
}

void forget(open_file *file)
{
    delete file;
}

void forget_file(const cob_file *owner)
{
    if (open_file *file = file_of(owner); file != nullptr) forget(file);
}

void forget_all()
{
    while (!files.open.empty()) forget(files.open.back());
}

file_status unlock(open_file *file)
{
    if (file->handle != nullptr && file->shared) (void)ops().unlock_all(file->handle);
    return {};
}

file_status unlock_everything(bool flush)
{
    file_status status{};
    for (open_file *each : files.open) {
        if (each->handle == nullptr) continue;
        if (flush && ops().flush(each->handle) == -1) {
            fprintf(stderr, "%s (%s): COMMIT could not write it: %s\n", each->name.c_str(), each->path.c_str(),
                    strerror(errno));
            status = status_of(30);
        }
        unlock(each);
    }
    return status;
}

bool give_back_unwritten(open_file *file)
{
    if (file->mode != open_mode::output || file->kind != organization::sequential || file->written) return false;
    // The runtime keeps the control block for the next OPEN. The file itself it empties, so a link stays a link.
    if (file->block != nullptr) control_block{file->block}.set_handle(nullptr);
    forget(file);
    return true;
}

file_status file_close(control_block *fcd, open_file *file, int how)
{
    if (how == COB_CLOSE_UNIT || how == COB_CLOSE_UNIT_REMOVAL) {
        file->kept_open = true;
        file->block = nullptr;
        return status_of(7);
    }
    if (how == COB_CLOSE_LOCK) files.locked.push_back({file->path, file->record_area});
    const organization kind = file->kind;
    int error = 0;
    if (file->handle != nullptr && ops().close(std::exchange(file->handle, nullptr), nullptr) == -1) error = errno;
    fcd->set_handle(nullptr);
    forget(file);
    if (error != 0) return status_of_error(error, asked::write, kind);
    return status_of(how == COB_CLOSE_NO_REWIND ? 7 : 0);
}
