// vfsctl diff: two files record by record, in the order of a key, or of the record numbers when they have none.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <fmt/format.h>

#include "commands.h"
#include "driver.h"
#include "errors.h"
#include "json.h"
#include "json_record.h"
#include "keys.h"
#include "output.h"
#include "progress.h"
#include "schema.h"

namespace {

struct diff_options {
    std::string files[2];
    uint64_t key = 0;
    shape_options shape;
    bool quiet = false;
    bool json = false;
    uint64_t limit = UINT64_MAX;
};

struct numbered {
    std::string key; // of a file without keys: its number as 8 bytes, the highest first
    std::string bytes;
};

std::string key_of_number(uint64_t rrn)
{
    std::string key;
    for (int shift = 56; shift >= 0; shift -= 8) key += static_cast<char>(rrn >> shift);
    return key;
}

// One of the two files, read forward; records with the same key come together.
class side {
public:
    side(const std::string &path, uint64_t key)
        : file_({.path = path, .flags = O_RDONLY, .sequential = key == 0}), number_(static_cast<int64_t>(key))
    {
        const vfs_open_block block = file_.info();
        organization_ = block.logical_organization;
        records_ = static_cast<uint64_t>(std::max<int64_t>(block.record_count, 0));
        if (indexed()) {
            key_ = choose_key(std::to_string(key), block.keys, nullptr).spec;
        } else if (key != 0) {
            throw usage_error(fmt::format("{}: it has no keys, so that there is no key {}", path, key));
        }
        take(file_.read(VFS_POS_FIRST, number_));
    }

    bool indexed() const { return organization_ == VFS_ORG_INDEXED; }
    uint32_t organization() const { return organization_; }
    const key_spec &key() const { return key_; }
    uint64_t records() const { return records_; }
    const std::optional<numbered> &front() const { return front_; }
    // All records with the key of the one in front.
    std::vector<std::string> next_group()
    {
        std::vector<std::string> group;
        const std::string key = front_->key;
        while (front_ && front_->key == key) {
            group.push_back(std::move(front_->bytes));
            take(file_.read(VFS_POS_NEXT));
        }
        return group;
    }
    void close() { file_.close(); }

private:
    void take(const std::optional<std::string_view> &record)
    {
        front_.reset();
        if (!record) return;
        front_ = {.key = indexed()                           ? key_value(key_, *record)
                         : organization_ == VFS_ORG_RELATIVE ? key_of_number(file_.rrn())
                                                             : key_of_number(count_),
                  .bytes = std::string{*record}};
        ++count_;
    }

    record_file file_;
    int64_t number_;
    uint32_t organization_ = VFS_ORG_INDEXED;
    key_spec key_;
    uint64_t records_ = 0;
    uint64_t count_ = 0;
    std::optional<numbered> front_;
};

class comparison {
public:
    explicit comparison(const diff_options &options)
        : options_(options), shape_(options.shape.read()), left_(options.files[0], options.key),
          right_(options.files[1], options.key)
    {
        if (left_.indexed() != right_.indexed() || (!left_.indexed() && left_.organization() != right_.organization()))
            throw usage_error(fmt::format("{} and {} are files of different kinds: 'vfsctl info' shows them",
                                          options.files[0], options.files[1]));
        if (left_.key().length() != right_.key().length())
            throw usage_error(fmt::format("key {} has {} bytes in {}, and {} in {}", options.key, left_.key().length(),
                                          options.files[0], right_.key().length(), options.files[1]));
    }

    int run();

private:
    void compare(std::vector<std::string> left, std::vector<std::string> right);
    void show(size_t side, const std::string &record);

    const diff_options &options_;
    record_shape shape_;
    side left_, right_;
    uint64_t equal_ = 0, only_[2] = {0, 0}, shown_ = 0;
};

void comparison::show(size_t from, const std::string &record)
{
    ++only_[from];
    if (options_.quiet || shown_ >= options_.limit) return;
    ++shown_;
    const json_shape shape{.columns = shape_.columns ? &*shape_.columns : nullptr, .latin_1 = shape_.latin_1};
    if (options_.json) {
        put_out(fmt::format("{{\"only_in\":{},\"record\":{}}}\n",
                            json_value(options_.files[from]).dump(-1, ' ', false, json_value::error_handler_t::replace),
                            json_of_record(shape, record)));
        return;
    }
    put_out(from == 0 ? "< " : "> ");
    put_out(shape.columns != nullptr ? json_of_record(shape, record) : record);
    put_out("\n");
}

// Records with one key; in each file their order is that of their arrival, which is no difference.
void comparison::compare(std::vector<std::string> left, std::vector<std::string> right)
{
    std::sort(left.begin(), left.end());
    std::sort(right.begin(), right.end());
    size_t i = 0, j = 0;
    while (i < left.size() || j < right.size()) {
        const int order = i == left.size() ? 1 : j == right.size() ? -1 : left[i].compare(right[j]);
        if (order == 0) {
            ++equal_;
            ++i;
            ++j;
        } else if (order < 0) {
            show(0, left[i++]);
        } else {
            show(1, right[j++]);
        }
    }
}

int comparison::run()
{
    progress bar{"comparing", std::max(left_.records(), right_.records())};
    while (left_.front() || right_.front()) {
        if (interrupted()) throw interruption("diff: interrupted; the files were not compared to their ends");
        bar.step();
        const int order = !left_.front() ? 1 : !right_.front() ? -1 : left_.front()->key.compare(right_.front()->key);
        std::vector<std::string> left, right;
        if (order <= 0) left = left_.next_group();
        if (order >= 0) right = right_.next_group();
        compare(std::move(left), std::move(right));
    }
    left_.close();
    right_.close();
    const bool same = only_[0] + only_[1] == 0;
    if (options_.json)
        fmt::print("{{\"equal\":{},\"only_in_first\":{},\"only_in_second\":{}}}\n", equal_, only_[0], only_[1]);
    else if (!options_.quiet)
        fmt::print("{} records are in both, {} only in {}, {} only in {}\n", equal_, only_[0], options_.files[0],
                   only_[1], options_.files[1]);
    return same ? exit_good : exit_different;
}

// As with diff(1): 1 says that they differ, so that a failure needs another status.
int diff_or_say_why(const diff_options &options)
{
    watch_for_interruption();
    try {
        return comparison{options}.run();
    } catch (const interruption &) {
        throw;
    } catch (const tool_error &error) {
        std::fflush(stdout);
        fmt::print(stderr, "vfsctl: {}\n", error.what());
        return exit_usage;
    }
}

} // namespace

command_body declare_diff(CLI::App &command)
{
    auto options = std::make_shared<diff_options>();
    command.add_option("first", options->files[0], "A file")->required();
    command.add_option("second", options->files[1], "Another one")->required();
    command.add_option("--key", options->key, "Number of the key under which they are compared (default: 0)");
    declare_layout(command, options->shape, "Show records as JSON with these columns");
    auto *quiet = command.add_flag("-q,--quiet", options->quiet, "Print nothing; the exit status says it");
    command.add_flag("--json", options->json, "Print JSON, an object on a line")->excludes(quiet);
    command.add_option("--limit", options->limit, "Show at most so many records");
    return [options] { return diff_or_say_why(*options); };
}
