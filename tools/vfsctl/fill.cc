// Looks at all of the input once to know lengths and order, then writes record by record and reports what was refused.
#include "fill.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "csv.h"
#include "driver.h"
#include "errors.h"
#include "json.h"
#include "keys.h"
#include "output.h"
#include "progress.h"
#include "replace.h"
#include "sorter.h"

namespace {

constexpr const char *random_cache_size = "64M"; // records may come in any order of their keys

// What the file is, or is going to be.
struct target {
    std::vector<key_spec> keys;
    uint64_t min = 0;
    uint64_t max = 0; // of a new file; 0 until the records are known
    bool has_records = false;
    uint32_t organization = VFS_ORG_INDEXED;
};

target target_of(const fill_request &request, const record_input &input)
{
    target result;
    if (!request.make) {
        record_file file{{.path = request.file, .flags = O_RDONLY}};
        const vfs_open_block block = file.info();
        result.organization = block.logical_organization;
        if (result.organization == VFS_ORG_INDEXED) result.keys = keys_of(block.keys);
        result.min = static_cast<uint64_t>(block.min_record_length);
        result.has_records = block.record_count > 0;
        file.close();
        return result;
    }
    result.organization = request.organization;
    result.min = request.min;
    result.max = request.max;
    for (const std::string &text : request.keys) {
        result.keys.push_back(parse_key(text, input.columns()));
        result.min = std::max(result.min, result.keys.back().end());
    }
    if (request.fixed > 0 && request.fixed < result.min)
        throw usage_error(
            fmt::format("records of {} bytes do not hold the keys, which end at byte {}", request.fixed, result.min));
    return result;
}

// Everything refused so far, written as soon as it is known, so that it needs no memory.
class refused_rows {
public:
    refused_rows(const std::string &path, const record_input &input) : path_(path), input_(input)
    {
        if (!path.empty() && (file_ = std::fopen(path.c_str(), "we")) == nullptr) fail();
    }
    ~refused_rows()
    {
        if (file_ != nullptr && file_ != stderr) std::fclose(file_);
    }
    refused_rows(const refused_rows &) = delete;
    refused_rows &operator=(const refused_rows &) = delete;

    void add(const refused_row &row)
    {
        ++count_;
        fmt::print(file_ == nullptr ? stderr : file_, "{}:{}: {}: {}\n", input_.name(row.source), row.line, row.reason,
                   row.text);
    }
    void close()
    {
        if (file_ == nullptr) return;
        const int failed = std::fclose(file_);
        file_ = nullptr;
        if (failed != 0) fail();
    }
    uint64_t count() const { return count_; }

private:
    [[noreturn]] void fail() const
    {
        throw tool_error(failure_message(path_, "cannot be written", errno, std::strerror(errno)));
    }

    std::string path_;
    const record_input &input_;
    std::FILE *file_ = nullptr; // null: standard error
    uint64_t count_ = 0;
};

// What has to be known before the first record is written.
struct survey {
    uint64_t records = 0;
    uint64_t longest = 0;
    bool ascending = true;
};

[[noreturn]] void throw_interruption(const fill_request &request, uint64_t stored)
{
    throw interruption(fmt::format("{}: interrupted; {}", request.file,
                                   request.make ? "no file was made"
                                   : stored > 0 ? "the file holds the records so far"
                                                : "nothing was stored"));
}

std::string key_or_nothing(const target &target, const std::string &record)
{
    return target.keys.empty() ? std::string{} : key_value(target.keys.front(), record);
}

class filler {
public:
    filler(const fill_request &request, record_input &input)
        : request_(request), input_(input), target_(target_of(request, input)), refused_(request.rejects, input)
    {
    }

    int run();

private:
    void pad(input_record &record) const
    {
        if (request_.pad && record.bytes.size() < target_.min) record.bytes.resize(target_.min, ' ');
    }
    survey look();
    void write_all();
    bool write(const input_record &record);
    outcome store(const input_record &record, std::string *reason);
    std::optional<std::string> why_not(const input_record &record) const;
    std::string text_of(const input_record &record) const;
    std::string reason_for(int error) const;
    open_request request_for(const survey &seen, const std::string &path, bool sequential,
                             const vfs_key_desc *keys) const;
    void report(double seconds, bool sequential) const;

    const fill_request &request_;
    record_input &input_;
    target target_;
    refused_rows refused_;
    record_sorter sorter_;
    std::unique_ptr<record_file> file_;
    std::unique_ptr<progress> bar_;
    uint64_t stored_ = 0;
};

// Rows that make no record are reported in this pass, and passed over in the next.
survey filler::look()
{
    survey seen;
    std::string highest;
    progress bar{request_.sort ? "sorting" : "reading", 0};
    input_.each(
        [&](input_record &record) {
            if (interrupted()) throw_interruption(request_, 0);
            bar.step();
            pad(record);
            ++seen.records;
            seen.longest = std::max<uint64_t>(seen.longest, record.bytes.size());
            std::string key = key_or_nothing(target_, record.bytes);
            if (request_.sort) {
                sorter_.add(key, record.bytes, record.source, record.line);
                return true;
            }
            seen.ascending = seen.ascending && highest <= key;
            if (seen.ascending) highest.swap(key);
            return true;
        },
        [&](refused_row &&row) { refused_.add(row); });
    if (request_.sort) sorter_.finish();
    return seen;
}

open_request filler::request_for(const survey &seen, const std::string &path, bool sequential,
                                 const vfs_key_desc *keys) const
{
    if (!request_.make)
        return {.path = path,
                .flags = O_RDWR,
                .sequential = sequential,
                .organization = target_.organization,
                .logical = target_.organization};
    const uint64_t max = request_.max > 0 ? request_.max : seen.longest;
    return {.path = path,
            .flags = O_RDWR | O_CREAT | O_EXCL,
            .sequential = sequential,
            .keys = keys,
            .min_record_length = static_cast<int64_t>(request_.fixed > 0 ? request_.fixed : target_.min),
            .max_record_length = static_cast<int64_t>(request_.fixed > 0 ? request_.fixed : std::max(max, target_.min)),
            .fixed_length = request_.fixed > 0,
            .organization = target_.organization,
            .logical = target_.organization};
}

std::string filler::reason_for(int error) const
{
    switch (error) {
    case EADDRINUSE: return "a record with this key is there already";
    case EEXIST:
        return target_.keys.empty() ? "a record with this number is there already"
                                    : "its key is lower than the last one";
    case ERANGE: return "its length does not fit the file";
    default: return file_->error_text(error);
    }
}

// The record as it came; for CSV without the columns that the layout leaves out.
std::string filler::text_of(const input_record &record) const
{
    return input_.format() == input_format::csv ? csv_text(fields_of_record(*input_.columns(), record.bytes))
                                                : record.bytes;
}

// A dump says the key beside the record: a file whose primary key lies elsewhere would hold other records than the store.
std::optional<std::string> filler::why_not(const input_record &record) const
{
    if (record.key.empty() || target_.keys.empty() || key_value(target_.keys.front(), record.bytes) == record.key)
        return std::nullopt;
    return "the key that came with it is not the primary key in its bytes";
}

outcome filler::store(const input_record &record, std::string *reason)
{
    if (target_.organization == VFS_ORG_INDEXED) return file_->write(record.bytes);
    if (record.key.empty()) return file_->append(record.bytes);
    uint64_t number = 0;
    const char *end = record.key.data() + record.key.size();
    const auto [stop, error] = std::from_chars(record.key.data(), end, number);
    if (error != std::errc{} || stop != end || number == 0 || number > INT64_MAX) {
        *reason = fmt::format("its record number '{}' is none", record.key);
        return outcome::not_found;
    }
    return target_.organization == VFS_ORG_RELATIVE ? file_->write_at(static_cast<int64_t>(number) - 1, record.bytes)
                                                    : file_->append(record.bytes);
}

bool filler::write(const input_record &record)
{
    if (interrupted()) return false;
    bar_->step();
    std::optional<std::string> fault = why_not(record);
    if (!fault) {
        std::string reason;
        const outcome result = store(record, &reason);
        if (result == outcome::done)
            ++stored_;
        else
            fault = reason.empty() ? reason_for(file_->last_error()) : reason;
    }
    if (fault) refused_.add({record.source, record.line, *fault, text_of(record)});
    return true;
}

void filler::write_all()
{
    try {
        if (!request_.sort) {
            input_.each(
                [&](input_record &record) {
                    pad(record);
                    return write(record);
                },
                [](refused_row &&) {});
            return;
        }
        sorted_record sorted;
        while (sorter_.next(sorted))
            if (!write({.bytes = sorted.bytes, .source = sorted.source, .line = sorted.line, .key = {}})) return;
    } catch (const interruption &stop) {
        throw interruption(request_.make
                               ? fmt::format("{}\n  no file was made", stop.what())
                               : fmt::format("{}\n  {} records were stored before that", stop.what(), stored_));
    } catch (const tool_error &error) {
        throw tool_error(request_.make
                             ? fmt::format("{}\n  no file was made", error.what())
                             : fmt::format("{}\n  {} records were stored before that", error.what(), stored_));
    }
}

void filler::report(double seconds, bool sequential) const
{
    const bool has_layout = input_.format() == input_format::csv;
    if (request_.json) {
        json_value all{{"file", request_.file},
                       {"records", stored_},
                       {"refused", refused_.count()},
                       {"seconds", seconds},
                       {"sequential", sequential}};
        if (has_layout) all["layout"] = input_.columns()->text();
        put_json(all);
        return;
    }
    if (has_layout) fmt::print("layout: {}\n", input_.columns()->text());
    fmt::print("{}: {} records loaded in {:.2f} s ({:.0f} a second, {} access), {} rows refused\n", request_.file,
               stored_, seconds, static_cast<double>(stored_) / std::max(seconds, 1e-6),
               sequential ? "sequential" : "dynamic", refused_.count());
}

int filler::run()
{
    const std::string path = request_.make ? publishable_path(request_.file, request_.force) : request_.file;
    const survey seen = look();
    // Sequential access takes ascending keys into a file that has no others, and the end of one without keys.
    const bool sequential = target_.keys.empty() ? target_.organization == VFS_ORG_SEQUENTIAL
                                                 : !target_.has_records && (request_.sort || seen.ascending);
    if (!sequential) setenv("VFS_CACHE_SIZE", random_cache_size, 0);
    std::optional<key_description> keys;
    if (request_.make && !target_.keys.empty()) keys.emplace(target_.keys);

    const auto started = std::chrono::steady_clock::now();
    // A new file that is not filled to the end is of no use: the input has all that is in it.
    new_file made{path};
    file_ = std::make_unique<record_file>(
        request_for(seen, request_.make ? made.path() : path, sequential, keys ? keys->get() : nullptr));
    bar_ = std::make_unique<progress>("loading", seen.records);
    write_all();
    bar_.reset();
    if (interrupted() && request_.make) throw_interruption(request_, stored_);
    file_->close();
    if (request_.make) publish_made(made, path, request_.force);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - started;
    report(took.count(), sequential);
    refused_.close();
    if (interrupted()) throw_interruption(request_, stored_);
    return refused_.count() == 0 ? exit_good : exit_refused_rows;
}

} // namespace

int fill(const fill_request &request, record_input &input)
{
    watch_for_interruption();
    return filler{request, input}.run();
}
