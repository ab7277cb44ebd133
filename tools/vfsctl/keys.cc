// Reads key descriptions and writes the driver's block.
#include "keys.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>

#include <fmt/format.h>

#include "errors.h"
#include "layout.h"

namespace {

std::optional<uint64_t> number(std::string_view text)
{
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value > longest_record) return std::nullopt;
    return value;
}

std::vector<std::string_view> split(std::string_view text, char separator)
{
    std::vector<std::string_view> pieces;
    for (;;) {
        const size_t at = text.find(separator);
        pieces.push_back(text.substr(0, at));
        if (at == std::string_view::npos) return pieces;
        text.remove_prefix(at + 1);
    }
}

key_part parse_part(std::string_view text, const layout *columns)
{
    if (columns != nullptr)
        if (const auto column = columns->find(text)) return {column->offset, column->width};
    const size_t colon = text.find(':');
    if (colon != std::string_view::npos) {
        const auto offset = number(text.substr(0, colon));
        const auto length = number(text.substr(colon + 1));
        if (offset && length && *length > 0) return {*offset, *length};
    }
    throw usage_error(fmt::format("key part '{}': write offset:length{}", text,
                                  columns != nullptr ? ", or the name of a column of fixed width" : ""));
}

} // namespace

uint64_t key_spec::length() const
{
    uint64_t sum = 0;
    for (const key_part &part : parts) sum += part.length;
    return sum;
}

uint64_t key_spec::end() const
{
    uint64_t last = 0;
    for (const key_part &part : parts) last = std::max(last, part.offset + part.length);
    return last;
}

key_spec parse_key(std::string_view text, const layout *columns)
{
    key_spec key;
    const auto words = split(text, ',');
    for (const std::string_view word : std::vector(words.begin() + 1, words.end())) {
        if (word != "dup") throw usage_error(fmt::format("key '{}': '{}' is not known, only 'dup' is", text, word));
        key.duplicates = true;
    }
    for (const std::string_view part : split(words.front(), '+')) key.parts.push_back(parse_part(part, columns));
    return key;
}

std::string key_text(const key_spec &key)
{
    std::string text;
    for (const key_part &part : key.parts)
        text += fmt::format("{}{}:{}", text.empty() ? "" : "+", part.offset, part.length);
    return text + (key.duplicates ? ",dup" : "");
}

key_description::key_description(const std::vector<key_spec> &keys)
{
    size_t part_count = 0;
    uint64_t longest = 0;
    bool duplicates = false;
    for (const key_spec &key : keys) {
        part_count += key.parts.size();
        longest = std::max(longest, key.length());
        duplicates = duplicates || key.duplicates;
    }
    size_t part_at = sizeof(vfs_key_desc) + keys.size() * sizeof(vfs_key_desc_entry);
    const size_t total = part_at + part_count * sizeof(vfs_key_part);
    block_.resize(total / sizeof(uint64_t));
    auto *bytes = reinterpret_cast<unsigned char *>(block_.data());

    const vfs_key_desc head{.total_size = static_cast<int64_t>(total),
                            .count = static_cast<int64_t>(keys.size()),
                            .max_extent = static_cast<int64_t>(longest),
                            .primary_key = 0,
                            .flags = duplicates ? 1 : 0};
    std::memcpy(bytes, &head, sizeof head);
    size_t entry_at = sizeof head;
    for (const key_spec &key : keys) {
        unsigned flags = 0;
        if (entry_at == sizeof head) flags |= VFS_KEY_PRIMARY;
        if (key.duplicates) flags |= VFS_KEY_DUPLICATES;
        if (key.parts.size() > 1) flags |= VFS_KEY_MULTI_PART;
        const vfs_key_desc_entry entry{.length = static_cast<int64_t>(key.length()),
                                       .part_count = static_cast<int64_t>(key.parts.size()),
                                       .part_list = static_cast<int64_t>(part_at),
                                       .flags = static_cast<uint8_t>(flags),
                                       .unused = {}};
        std::memcpy(bytes + entry_at, &entry, sizeof entry);
        entry_at += sizeof entry;
        for (const key_part &part : key.parts) {
            const vfs_key_part stored{
                .offset = static_cast<int64_t>(part.offset), .length = static_cast<int64_t>(part.length), .unused = 0};
            std::memcpy(bytes + part_at, &stored, sizeof stored);
            part_at += sizeof stored;
        }
    }
}

std::vector<key_spec> keys_of(const vfs_key_desc *block)
{
    std::vector<key_spec> keys;
    if (block == nullptr) return keys;
    const auto *bytes = reinterpret_cast<const unsigned char *>(block);
    for (int64_t k = 0; k < block->count; ++k) {
        vfs_key_desc_entry entry;
        std::memcpy(&entry, bytes + sizeof *block + static_cast<size_t>(k) * sizeof entry, sizeof entry);
        key_spec key;
        key.duplicates = (entry.flags & VFS_KEY_DUPLICATES) != 0;
        for (int64_t p = 0; p < entry.part_count; ++p) {
            vfs_key_part part;
            std::memcpy(&part, bytes + entry.part_list + static_cast<size_t>(p) * sizeof part, sizeof part);
            key.parts.push_back({static_cast<uint64_t>(part.offset), static_cast<uint64_t>(part.length)});
        }
        keys.push_back(std::move(key));
    }
    return keys;
}

chosen_key choose_key(std::string_view text, const vfs_key_desc *block, const layout *columns)
{
    const std::vector<key_spec> keys = keys_of(block);
    const auto column = columns != nullptr ? columns->find(text) : std::nullopt;
    const auto wanted = number(text);
    for (size_t k = 0; k < keys.size(); ++k) {
        const std::vector<key_part> &parts = keys[k].parts;
        const bool is_column = column && parts.size() == 1 && parts.front().offset == column->offset &&
                               parts.front().length == column->width;
        if (is_column || (!column && wanted && *wanted == k)) return {keys[k], static_cast<int64_t>(k)};
    }
    throw usage_error(fmt::format("there is no key '{}'; the file has the keys 0 to {}, 'vfsctl info' shows them", text,
                                  keys.empty() ? 0 : keys.size() - 1));
}

std::string key_value(const key_spec &key, std::string_view record)
{
    std::string value;
    for (const key_part &part : key.parts) {
        const std::string_view covered =
            part.offset < record.size() ? record.substr(part.offset, part.length) : std::string_view{};
        value += covered;
        value.append(part.length - covered.size(), '\0');
    }
    return value;
}

std::string padded_key(std::string_view text, uint64_t length)
{
    if (text.size() > length)
        throw usage_error(fmt::format("key value '{}' has {} bytes, the key only {}", text, text.size(), length));
    std::string value{text};
    value.resize(length, ' ');
    return value;
}

std::string bytes_of_hex(std::string_view text)
{
    if (text.size() % 2 != 0) throw usage_error(fmt::format("'{}': hexadecimal digits come in pairs", text));
    std::string bytes;
    for (size_t at = 0; at < text.size(); at += 2) {
        unsigned value = 0;
        const auto [end, error] = std::from_chars(text.data() + at, text.data() + at + 2, value, 16);
        if (error != std::errc{} || end != text.data() + at + 2)
            throw usage_error(fmt::format("'{}' is not hexadecimal", text.substr(at, 2)));
        bytes += static_cast<char>(value);
    }
    return bytes;
}
