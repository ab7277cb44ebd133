// The floor: the same bytes in a flat file in which a record's number is its place, written and read by plain system
// calls in pieces of 128 KiB, or record by record when the order is random. May call the C library only.
#include "engine.h"

#include <cerrno>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr size_t piece_bytes = 128 * 1024;

struct plain_session : session {
    int fd = -1;
    purpose use{};
    direction way{};
    std::vector<char> piece; // of a load: what is not written yet; of a scan: what is not handed out yet
    size_t used = 0;         // bytes of the piece that are filled or handed out, from its scan's beginning
    off_t rest = 0;          // backward scan: bytes of the file before the piece
};

plain_session &of(session *file)
{
    return *static_cast<plain_session *>(file);
}

[[noreturn]] void fail(const char *call)
{
    throw engine_error(std::string(call) + ": " + strerror(errno));
}

off_t place_of(const char *key)
{
    record bytes;
    memcpy(bytes.data(), key, key_bytes);
    return static_cast<off_t>(number_of(bytes) * record_bytes);
}

void write_all(int fd, const char *bytes, size_t count)
{
    while (count > 0) {
        const ssize_t done = write(fd, bytes, count);
        if (done < 0) fail("write");
        bytes += done;
        count -= static_cast<size_t>(done);
    }
}

std::string plain_configuration(const engine_settings &)
{
    return "flat file, read(2) and write(2) of 128 KiB; random order: pread(2) and pwrite(2) of a record at its place";
}

session *plain_open(const std::string &path, purpose use, const engine_settings &)
{
    auto file = std::make_unique<plain_session>();
    file->use = use;
    file->fd = open(path.c_str(), is_update(use) ? O_RDWR | O_CREAT : O_RDONLY, 0666);
    if (file->fd == -1) fail("open");
    file->piece.reserve(piece_bytes);
    return file.release();
}

void plain_put(session *opaque, const record &bytes)
{
    plain_session &file = of(opaque);
    if (file.use != purpose::load_ascending) {
        if (pwrite(file.fd, bytes.data(), record_bytes, place_of(bytes.data())) != static_cast<ssize_t>(record_bytes))
            fail("pwrite");
        return;
    }
    // Records go across the ends of pieces, so that every piece but the last has the full size.
    const size_t fits = std::min(record_bytes, piece_bytes - file.piece.size());
    file.piece.insert(file.piece.end(), bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(fits));
    if (file.piece.size() < piece_bytes) return;
    write_all(file.fd, file.piece.data(), piece_bytes);
    file.piece.assign(bytes.begin() + static_cast<ptrdiff_t>(fits), bytes.end());
}

bool plain_get(session *opaque, const char *key, record &bytes)
{
    const ssize_t got = pread(of(opaque).fd, bytes.data(), record_bytes, place_of(key));
    if (got < 0) fail("pread");
    return got == static_cast<ssize_t>(record_bytes) && memcmp(bytes.data(), key, key_bytes) == 0;
}

void plain_rewrite(session *opaque, const record &bytes)
{
    if (pwrite(of(opaque).fd, bytes.data(), record_bytes, place_of(bytes.data())) != static_cast<ssize_t>(record_bytes))
        fail("pwrite");
}

void plain_scan_from_end(session *opaque, direction way)
{
    plain_session &file = of(opaque);
    file.way = way;
    file.piece.clear();
    file.used = 0;
    file.rest = lseek(file.fd, 0, way == direction::forward ? SEEK_SET : SEEK_END);
    if (file.rest == -1) fail("lseek");
}

// Forward: reads on behind what is left of the piece, which moves to its beginning.
bool fill_forward(plain_session &file)
{
    const size_t left = file.piece.size() - file.used;
    if (left > 0) memmove(file.piece.data(), file.piece.data() + file.used, left);
    file.piece.resize(left + piece_bytes);
    const ssize_t got = read(file.fd, file.piece.data() + left, piece_bytes);
    if (got < 0) fail("read");
    file.piece.resize(left + static_cast<size_t>(got));
    file.used = 0;
    return file.piece.size() >= record_bytes;
}

// Backward: whole records only, since the piece before this one is read next.
bool fill_backward(plain_session &file)
{
    const off_t whole = static_cast<off_t>(piece_bytes / record_bytes * record_bytes);
    const off_t wanted = std::min(file.rest, whole);
    if (wanted == 0) return false;
    file.rest -= wanted;
    file.piece.resize(static_cast<size_t>(wanted));
    if (pread(file.fd, file.piece.data(), static_cast<size_t>(wanted), file.rest) != wanted) fail("pread");
    file.used = 0;
    return true;
}

bool plain_scan_next(session *opaque, record &bytes)
{
    plain_session &file = of(opaque);
    const bool forward = file.way == direction::forward;
    if (file.piece.size() - file.used < record_bytes && !(forward ? fill_forward(file) : fill_backward(file)))
        return false;
    const size_t begin = forward ? file.used : file.piece.size() - file.used - record_bytes;
    memcpy(bytes.data(), file.piece.data() + begin, record_bytes);
    file.used += record_bytes;
    return true;
}

void plain_close(session *opaque)
{
    const std::unique_ptr<plain_session> file{&of(opaque)};
    if (file->use == purpose::load_ascending) write_all(file->fd, file->piece.data(), file->piece.size());
    if (is_update(file->use) && fdatasync(file->fd) == -1) fail("fdatasync");
    if (close(file->fd) == -1) fail("close");
}

} // namespace

const engine plain_engine{.name = "plain",
                          .title = "plain calls",
                          .configuration = plain_configuration,
                          .open = plain_open,
                          .put = plain_put,
                          .get = plain_get,
                          .rewrite = plain_rewrite,
                          .scan_from_end = plain_scan_from_end,
                          .scan_next = plain_scan_next,
                          .close = plain_close};
