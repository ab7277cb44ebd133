// Reads through the C library's buffers.
#include "text_input.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "errors.h"

std::FILE *open_temporary()
{
    const char *named = std::getenv("TMPDIR");
    const std::string folder = named != nullptr && *named != '\0' ? named : "/tmp";
    int descriptor = open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (descriptor == -1) { // a file system without such files
        std::string name = folder + "/vfsctl.XXXXXX";
        descriptor = mkostemp(name.data(), O_CLOEXEC);
        if (descriptor != -1) unlink(name.c_str());
    }
    std::FILE *file = descriptor == -1 ? nullptr : fdopen(descriptor, "w+b");
    if (file == nullptr)
        throw tool_error(failure_message(folder, "no temporary file can be made in it", errno, std::strerror(errno)) +
                         "\n  TMPDIR names another folder");
    return file;
}

text_input::text_input(const std::string &path)
    : path_(path), file_(path == "-" ? stdin : std::fopen(path.c_str(), "rbe"))
{
    if (file_ == nullptr) throw tool_error(failure_message(path, "cannot be read", errno, std::strerror(errno)));
    if (lseek(fileno(file_.get()), 0, SEEK_CUR) == -1) copy_to_temporary();
}

text_input text_input::of_text(std::string_view text)
{
    text_input input;
    input.path_ = "text";
    input.file_.reset(fmemopen(const_cast<char *>(text.data()), text.size(), "rb")); // it is only read
    if (input.file_ == nullptr) throw tool_error(std::strerror(errno));
    return input;
}

void text_input::fail_unless_at_end() const
{
    if (std::ferror(file_.get()) == 0) return;
    if (errno == EINTR) throw interruption(fmt::format("{}: interrupted", path_));
    throw tool_error(failure_message(path_, "cannot be read", errno, std::strerror(errno)));
}

void text_input::copy_to_temporary()
{
    std::unique_ptr<std::FILE, closer> copy{open_temporary()};
    char piece[1 << 16];
    for (size_t count; (count = read(piece, sizeof piece)) > 0;)
        if (std::fwrite(piece, 1, count, copy.get()) != count)
            throw tool_error(failure_message(path_, "cannot be kept in a temporary file", errno, std::strerror(errno)));
    file_ = std::move(copy);
    rewind();
}

void text_input::rewind()
{
    if (std::fseek(file_.get(), 0, SEEK_SET) != 0)
        throw tool_error(failure_message(path_, "cannot be read again", errno, std::strerror(errno)));
}

bool text_input::line(std::string &into)
{
    into.clear();
    int c = get();
    if (c == end) return false;
    for (; c != end && c != '\n'; c = get()) into += static_cast<char>(c);
    return true;
}

size_t text_input::read(char *into, size_t length)
{
    const size_t count = std::fread(into, 1, length, file_.get());
    if (count < length) fail_unless_at_end();
    return count;
}
