// vfsctl locks: who holds which lock on a file, and who waits for one. The byte ranges of the driver's locks say what each
// of them is.
#include <cerrno>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "commands.h"
#include "errors.h"
#include "field_type.h"
#include "format/facts.h"
#include "format/frames.h"
#include "json.h"
#include "output.h"
#include "system_view.h"

namespace {

struct locks_options {
    std::string file;
    bool json = false;
};

constexpr uint64_t exclusive_byte = 0x1900000000, metadata_byte = 0x3200000000;

// What is read of the file is what stands in it at the moment; a program may be about to change it.
class locked_file {
public:
    explicit locked_file(const std::string &path) : descriptor_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK))
    {
        if (descriptor_ == -1) throw tool_error(failure_message(path, "cannot open it", errno, std::strerror(errno)));
        image_ = std::make_unique<file_image>(descriptor_);
        facts_ = read_facts(*image_);
    }
    ~locked_file() { close(descriptor_); }
    locked_file(const locked_file &) = delete;
    locked_file &operator=(const locked_file &) = delete;

    json_value kind_of(const system_lock &lock)
    {
        if (lock.last == UINT64_MAX) return {{"kind", "File"}};
        if (lock.first == exclusive_byte && lock.last == lock.first) return {{"kind", "Exclusive"}};
        if (lock.first == metadata_byte && lock.last == lock.first) return {{"kind", "Metadata"}};
        if (facts_.region_known && lock.last < facts_.metadata_size) return {{"kind", "Metadata"}};
        frame item;
        if (read_frame(*image_, lock.first, image_->size(), &item) == frame_fault::none && item.is_slot() &&
            item.length == lock.last - lock.first + 1)
            return record(item);
        return {{"kind", "Block"}};
    }

private:
    json_value record(const frame &item)
    {
        json_value said{{"kind", "Record"}, {"number", item.rrn + 1}};
        std::vector<std::byte> value;
        if (!facts_.indexed || !facts_.keys_known || !item.is_record()) return said;
        const file_key &key = facts_.keys[facts_.primary];
        if (!key_of_record(*image_, key, item.offset, &value)) return said;
        const std::string_view text{reinterpret_cast<const char *>(value.data()), key.length};
        const bool printable = text.find_first_not_of(' ') != std::string_view::npos &&
                               std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
        said["key"] = printable ? std::string{text} : "0x" + field_text({.kind = field_kind::hex}, text);
        return said;
    }

    int descriptor_;
    std::unique_ptr<file_image> image_;
    file_facts facts_;
};

std::string holder_text(pid_t process)
{
    return process > 0 ? fmt::format("{} ({})", process, process_name(process)) : "an open file of some process";
}

void print_for_people(const std::string &file, const json_value &facts)
{
    for (const json_value &user : facts["users"])
        fmt::print("{}: open in {} ({}), for {}\n", file, user["process"].get<pid_t>(), user["name"].get<std::string>(),
                   user["writes"].get<bool>() ? "reading and writing" : "reading");
    for (const json_value &lock : facts["locks"]) {
        const bool waits = lock["waits"].get<bool>();
        fmt::print("  {} {} {} {}", holder_text(lock["process"].get<pid_t>()), waits ? "waits for" : "holds",
                   lock["type"].get<std::string>(), lock["kind"].get<std::string>());
        if (lock.contains("number")) fmt::print(" number {}", lock["number"].get<uint64_t>());
        if (lock.contains("key")) fmt::print(", key '{}'", lock["key"].get<std::string>());
        if (lock.contains("last"))
            fmt::print(", bytes 0x{:x} to 0x{:x}\n", lock["first"].get<uint64_t>(), lock["last"].get<uint64_t>());
        else
            fmt::print(", bytes 0x{:x} to the end\n", lock["first"].get<uint64_t>());
    }
    fmt::print("{}: {} lock{} held, {} waited for\n", file, facts["held"].get<size_t>(),
               facts["held"].get<size_t>() == 1 ? "" : "s", facts["waited_for"].get<size_t>());
}

int locks(const locks_options &options)
{
    const std::vector<system_lock> found = locks_on(options.file);
    json_value facts{{"file", options.file}, {"users", json_value::array()}, {"locks", json_value::array()}};
    for (const file_user &user : users_of(options.file))
        facts["users"].push_back(
            {{"process", user.process}, {"name", process_name(user.process)}, {"writes", user.writes}});
    locked_file file{options.file};
    size_t waiting = 0;
    for (const system_lock &lock : found) {
        json_value row{{"process", lock.process}, {"name", process_name(lock.process)}, {"waits", lock.waits}};
        row["type"] = lock.write ? "write" : "read";
        row.update(file.kind_of(lock));
        row["first"] = lock.first;
        if (lock.last != UINT64_MAX) row["last"] = lock.last;
        waiting += lock.waits ? 1 : 0;
        facts["locks"].push_back(row);
    }
    facts["held"] = found.size() - waiting;
    facts["waited_for"] = waiting;
    if (options.json)
        put_json(facts);
    else
        print_for_people(options.file, facts);
    return exit_good;
}

} // namespace

command_body declare_locks(CLI::App &command)
{
    auto options = std::make_shared<locks_options>();
    command.add_option("file", options->file, "The file")->required();
    command.add_flag("--json", options->json, "Print JSON");
    return [options] { return locks(*options); };
}
