// See rejects.h. Long ranges are written in pieces, each a line of its own.
#include "rejects.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include <fmt/format.h>
#include <unistd.h>

#include "errors.h"
#include "json.h"

namespace {

constexpr uint64_t piece_bytes = 32768;

std::string hex_of(std::span<const std::byte> bytes)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * bytes.size());
    for (const std::byte each : bytes) {
        text += digits[std::to_integer<unsigned>(each) >> 4];
        text += digits[std::to_integer<unsigned>(each) & 15];
    }
    return text;
}

} // namespace

void reject_file::fail(int error) const
{
    throw tool_error(failure_message(path_, "cannot be written", error, std::strerror(error)));
}

void reject_file::add(const rejected_bytes &what)
{
    ++count_;
    ++by_reason_[std::string{what.reason}];
    if (file_ == nullptr) {
        file_.reset(std::fopen(path_.c_str(), "wxe"));
        if (file_ == nullptr) fail(errno);
        made_ = true;
    }
    // A record is one line, however long; so its bytes come back by one reading.
    const uint64_t step = what.rrn ? std::max<uint64_t>(what.length, 1) : piece_bytes;
    for (uint64_t done = 0; done == 0 || done < what.length; done += step) {
        std::vector<std::byte> bytes(std::min(step, what.length - done));
        const bool readable = image_.read(what.offset + done, bytes);
        json_value line{{"offset", what.offset + done}, {"length", bytes.size()}, {"reason", what.reason}};
        if (what.rrn) line["rrn"] = *what.rrn;
        line["hex"] = readable ? hex_of(bytes) : "";
        if (std::fputs((line.dump() + "\n").c_str(), file_.get()) == EOF) fail(errno);
    }
}

void reject_file::close()
{
    if (file_ != nullptr && std::fclose(file_.release()) != 0) fail(errno);
}

void reject_file::remove()
{
    file_.reset();
    if (made_) unlink(path_.c_str());
}
