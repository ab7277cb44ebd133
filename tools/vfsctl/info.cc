// vfsctl info
#include <cerrno>
#include <memory>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include "commands.h"
#include "driver.h"
#include "errors.h"
#include "json.h"
#include "keys.h"
#include "output.h"

namespace {

struct info_options {
    std::string file;
    bool json = false;
};

const char *organization_word(uint32_t code)
{
    constexpr const char *words[] = {"unknown", "sequential", "relative", "indexed"};
    return words[code < std::size(words) ? code : 0];
}

json_value facts_of(const std::string &path)
{
    record_file file{{.path = path, .flags = O_RDONLY}};
    const vfs_open_block block = file.info();
    json_value keys = json_value::array();
    const bool indexed = block.logical_organization == VFS_ORG_INDEXED;
    for (const key_spec &key : indexed ? keys_of(block.keys) : std::vector<key_spec>{}) {
        json_value parts = json_value::array();
        for (const key_part &part : key.parts) parts.push_back({{"offset", part.offset}, {"length", part.length}});
        keys.push_back(
            {{"key", key_text(key)}, {"length", key.length()}, {"duplicates", key.duplicates}, {"parts", parts}});
    }
    struct stat status {};
    if (stat(path.c_str(), &status) == -1) status.st_size = 0;
    json_value facts{{"file", path},
                     {"organization", organization_word(block.logical_organization)},
                     {"record_format", block.record_format == VFS_FORMAT_FIXED ? "fixed" : "variable"},
                     {"min_record_length", block.min_record_length},
                     {"max_record_length", block.max_record_length},
                     {"records", block.record_count},
                     {"deleted", block.empty_count},
                     {"moved", block.node_count},
                     {"bytes", status.st_size},
                     {"keys", keys},
                     {"driver", driver().name},
                     {"library", driver_path()}};
    file.close();
    return facts;
}

void print_for_people(const json_value &facts)
{
    fmt::print("{}: {}, records of {} to {} bytes ({} length)\n", facts["file"].get<std::string>(),
               facts["organization"].get<std::string>(), facts["min_record_length"].get<int64_t>(),
               facts["max_record_length"].get<int64_t>(), facts["record_format"].get<std::string>());
    fmt::print("  records {}, deleted slots {}, moved {}, {} bytes\n", facts["records"].get<int64_t>(),
               facts["deleted"].get<int64_t>(), facts["moved"].get<int64_t>(), facts["bytes"].get<int64_t>());
    size_t number = 0;
    for (const json_value &key : facts["keys"]) {
        fmt::print("  key {}: {}{}\n", number, key["key"].get<std::string>(), number == 0 ? "  (primary)" : "");
        ++number;
    }
    fmt::print("  driver {} from {}\n", facts["driver"].get<std::string>(), facts["library"].get<std::string>());
}

} // namespace

command_body declare_info(CLI::App &command)
{
    auto options = std::make_shared<info_options>();
    command.add_option("file", options->file, "The file")->required();
    command.add_flag("--json", options->json, "Print JSON");
    return [options] {
        const json_value facts = facts_of(options->file);
        if (options->json)
            put_json(facts);
        else
            print_for_people(facts);
        return static_cast<int>(exit_good);
    };
}
