// Sorts and merges.
#include "sorter.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "errors.h"
#include "text_input.h"

namespace {

struct stored_head {
    uint32_t key_length, length;
    uint64_t source, line;
};

[[noreturn]] void fail(const char *what)
{
    throw tool_error(
        failure_message("temporary file", fmt::format("it cannot be {}", what), errno, std::strerror(errno)) +
        "\n  TMPDIR names the folder for it");
}

void put(std::FILE *file, const void *bytes, size_t length)
{
    if (std::fwrite(bytes, 1, length, file) != length) fail("written");
}

void take(std::FILE *file, void *bytes, size_t length)
{
    if (std::fread(bytes, 1, length, file) != length) fail("read back");
}

} // namespace

void record_sorter::add(std::string_view key, std::string_view bytes, uint64_t source, uint64_t line)
{
    entries_.push_back({.at = text_.size(),
                        .key_length = static_cast<uint32_t>(key.size()),
                        .length = static_cast<uint32_t>(bytes.size()),
                        .source = source,
                        .line = line});
    text_ += key;
    text_ += bytes;
    if (text_.size() + entries_.size() * sizeof(entry) > memory_) spill();
}

void record_sorter::sort_memory()
{
    std::stable_sort(entries_.begin(), entries_.end(),
                     [this](const entry &left, const entry &right) { return key_of(left) < key_of(right); });
}

void record_sorter::spill()
{
    sort_memory();
    run piece;
    piece.file.reset(open_temporary());
    for (const entry &e : entries_) {
        const stored_head head{e.key_length, e.length, e.source, e.line};
        put(piece.file.get(), &head, sizeof head);
        put(piece.file.get(), text_.data() + e.at, size_t{e.key_length} + e.length);
    }
    if (std::fflush(piece.file.get()) != 0 || std::fseek(piece.file.get(), 0, SEEK_SET) != 0) fail("written");
    runs_.push_back(std::move(piece));
    entries_.clear();
    text_.clear();
}

bool record_sorter::run::read()
{
    stored_head head;
    const size_t got = std::fread(&head, 1, sizeof head, file.get());
    if (got == 0 && std::feof(file.get()) != 0) return false;
    if (got != sizeof head) fail("read back");
    front.key.resize(head.key_length);
    front.bytes.resize(head.length);
    front.source = head.source;
    front.line = head.line;
    take(file.get(), front.key.data(), head.key_length);
    take(file.get(), front.bytes.data(), head.length);
    return true;
}

// Of two runs; of equal keys the earlier run's came first.
bool record_sorter::comes_later(size_t left, size_t right) const
{
    const int order = runs_[left].front.key.compare(runs_[right].front.key);
    return order != 0 ? order > 0 : left > right;
}

void record_sorter::finish()
{
    if (runs_.empty()) {
        sort_memory();
        return;
    }
    if (!entries_.empty()) spill();
    for (size_t i = 0; i < runs_.size(); ++i)
        if (runs_[i].read()) heap_.push_back(i);
    std::make_heap(heap_.begin(), heap_.end(), [this](size_t l, size_t r) { return comes_later(l, r); });
}

bool record_sorter::next(sorted_record &record)
{
    if (runs_.empty()) {
        if (next_entry_ == entries_.size()) return false;
        const entry &e = entries_[next_entry_++];
        record = {.key = std::string{key_of(e)},
                  .bytes = text_.substr(e.at + e.key_length, e.length),
                  .source = e.source,
                  .line = e.line};
        return true;
    }
    if (heap_.empty()) return false;
    const auto later = [this](size_t l, size_t r) { return comes_later(l, r); };
    std::pop_heap(heap_.begin(), heap_.end(), later);
    run &from = runs_[heap_.back()];
    record = std::move(from.front);
    if (from.read())
        std::push_heap(heap_.begin(), heap_.end(), later);
    else
        heap_.pop_back();
    return true;
}
