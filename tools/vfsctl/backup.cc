// vfsctl backup: a copy of a file at one moment, taken while other programs use it.
#include <cerrno>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "commands.h"
#include "errors.h"
#include "format/check.h"
#include "format/clear.h"
#include "hold.h"
#include "json.h"
#include "new_file.h"
#include "output.h"
#include "progress.h"

namespace {

struct backup_options {
    std::string file;
    std::string target;
    bool json = false;
};

class descriptor {
public:
    explicit descriptor(int number) : number_(number) {}
    ~descriptor()
    {
        if (number_ != -1) close(number_);
    }
    descriptor(const descriptor &) = delete;
    descriptor &operator=(const descriptor &) = delete;
    int get() const { return number_; }

private:
    int number_;
};

[[noreturn]] void fail(const std::string &path, const char *what)
{
    throw tool_error(failure_message(path, what, errno, std::strerror(errno)));
}

// The bytes of one data range of a file with holes.
void copy_range(int from, int to, off_t begin, off_t end, const backup_options &options, progress &bar)
{
    constexpr size_t piece = size_t{16} << 20;
    while (begin < end) {
        if (interrupted()) throw interruption(options.file + ": interrupted; no copy was made");
        off_t in = begin, out = begin;
        const ssize_t copied =
            copy_file_range(from, &in, to, &out, std::min<size_t>(piece, static_cast<size_t>(end - begin)), 0);
        if (copied == -1 && errno == EINTR) continue;
        if (copied == -1) fail(options.target, "the copy cannot be written");
        if (copied == 0) throw tool_error(options.file + ": it became shorter while it was copied");
        begin += copied;
        bar.reach(static_cast<uint64_t>(begin));
    }
}

// Nobody changes the file meanwhile. A file system that can shares the bytes of both files, which takes no time.
void copy_bytes(int from, int to, off_t size, const backup_options &options)
{
    if (ioctl(to, FICLONE, from) == 0) return;
    progress bar{"copying", static_cast<uint64_t>(size)};
    for (off_t at = 0; at < size;) {
        const off_t data = lseek(from, at, SEEK_DATA);
        if (data == -1 && errno == ENXIO) break; // only a hole is left
        if (data == -1) fail(options.file, "cannot be read");
        const off_t hole = lseek(from, data, SEEK_HOLE);
        if (hole == -1) fail(options.file, "cannot be read");
        copy_range(from, to, data, std::min(hole, size), options, bar);
        at = hole;
    }
    if (ftruncate(to, size) == -1) fail(options.target, "the copy cannot be given its length");
}

int backup(const backup_options &options)
{
    watch_for_interruption();
    refuse_existing(options.target, "backup");
    new_file copy{options.target};
    const descriptor to{open(copy.path().c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600)};
    if (to.get() == -1) fail(options.target, "the copy cannot be made");
    {
        const held_file held{options.file, hold_kind::read};
        if (!held.locked())
            throw tool_error(fmt::format(
                "{}: in use by {}, which has it for itself and keeps changes in its memory; back "
                "it up when that has closed it",
                options.file, held.holder() > 0 ? fmt::format("process {}", held.holder()) : "another program"));
        struct stat facts {};
        if (fstat(held.descriptor(), &facts) == -1) fail(options.file, "cannot be read");
        copy_bytes(held.descriptor(), to.get(), facts.st_size, options);
    }
    // From here on the others go on. What they had open is closed in the copy, so that it opens by itself.
    file_image image{to.get()};
    staged_progress bar;
    const check_result found =
        check_image(image, {.line_limit = 1,
                            .threads = all_processors(),
                            .progress = [&](std::string_view what, uint64_t done, uint64_t total) {
                                bar.show(what, done, total);
                                return !interrupted();
                            }});
    bar.finish();
    if (!found.complete) throw interruption(options.file + ": interrupted; no copy was made");
    if (const std::string reason = reason_not_to_clear(found); !reason.empty())
        throw tool_error(fmt::format("{}: {}; no copy was made: 'vfsctl check' says more", options.file, reason));
    if (const int error = clear_words(to.get(), found); error != 0) {
        errno = error;
        fail(options.target, "the copy cannot be written");
    }
    copy.take_attributes_of(options.file);
    copy.publish(replacing::no);
    if (options.json)
        put_json({{"file", options.file}, {"to", options.target}, {"records", found.records}, {"bytes", image.size()}});
    else
        fmt::print("{}: {} records, checked\n", options.target, found.records);
    return exit_good;
}

} // namespace

command_body declare_backup(CLI::App &command)
{
    auto options = std::make_shared<backup_options>();
    command.add_option("file", options->file, "The file; programs that share it wait while it is copied")->required();
    command.add_option("--to", options->target, "The copy, which must not exist")->required();
    command.add_flag("--json", options->json, "Print JSON");
    return [options] { return backup(*options); };
}
