// Reads input files.
#include "input.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "csv.h"
#include "errors.h"

namespace {

std::string whole_file(const std::string &path)
{
    const auto close = [](std::FILE *file) {
        if (file != stdin) std::fclose(file);
    };
    const std::unique_ptr<std::FILE, decltype(close)> file{path == "-" ? stdin : std::fopen(path.c_str(), "rb"), close};
    if (file == nullptr) throw tool_error(failure_message(path, "cannot be read", errno, std::strerror(errno)));
    std::string text;
    char piece[1 << 16];
    for (size_t count; (count = std::fread(piece, 1, sizeof piece, file.get())) > 0;) text.append(piece, count);
    if (std::ferror(file.get()) != 0 && errno == EINTR) throw interruption(fmt::format("{}: interrupted", path));
    if (std::ferror(file.get()) != 0)
        throw tool_error(failure_message(path, "cannot be read", errno, std::strerror(errno)));
    return text;
}

// For each column of the layout the position of its field in the rows of one file.
std::vector<size_t> places_of(const layout &columns, const std::vector<std::string> &header, const std::string &path)
{
    std::vector<size_t> places;
    for (const layout_column &column : columns.columns) {
        size_t place = 0;
        while (place < header.size() && !same_name(header[place], column.name)) ++place;
        if (place == header.size())
            throw tool_error(fmt::format("{}: it has no column '{}'; its header has: {}", path, column.name,
                                         fmt::join(header, ", ")));
        places.push_back(place);
    }
    return places;
}

// One CSV file: its text, and where the layout's columns stand in its rows.
struct csv_source {
    std::string text;
    std::vector<size_t> places;
    size_t header_fields = 0;

    // Calls row(const csv_row &, fields in the layout's order, which are empty when the row has not the header's count).
    template <typename action> void each_row(const std::string &path, action row) const
    {
        try {
            csv_reader reader{text};
            csv_row current;
            reader.next(current); // the header
            std::vector<std::string_view> fields;
            while (reader.next(current)) {
                fields.clear();
                if (current.fields.size() == header_fields)
                    for (const size_t place : places) fields.push_back(current.fields[place]);
                row(current, fields);
            }
        } catch (const tool_error &error) {
            throw tool_error(fmt::format("{}: {}", path, error.what()));
        }
    }
};

csv_source open_csv(const std::string &path, std::optional<layout> &columns)
{
    csv_source source{.text = whole_file(path), .places = {}};
    csv_row header;
    if (!csv_reader{source.text}.next(header))
        throw tool_error(fmt::format("{}: it is empty, not even a header", path));
    if (!columns) columns = layout_of_header(header.fields);
    source.places = places_of(*columns, header.fields, path);
    source.header_fields = header.fields.size();
    return source;
}

} // namespace

input_set read_csv(const std::vector<std::string> &paths, std::optional<layout> wanted)
{
    input_set set{.sources = paths, .records = {}, .refused = {}, .columns = std::move(wanted)};
    std::vector<csv_source> sources;
    for (const std::string &path : paths) {
        sources.push_back(open_csv(path, set.columns));
        sources.back().each_row(path, [&](const csv_row &, const std::vector<std::string_view> &fields) {
            for (size_t i = 0; i < fields.size(); ++i) set.columns->widen(i, fields[i]);
        });
    }
    set.columns->settle();
    for (size_t s = 0; s < sources.size(); ++s) {
        sources[s].each_row(paths[s], [&](const csv_row &row, const std::vector<std::string_view> &fields) {
            std::string reason =
                fmt::format("it has {} fields, the header {}", row.fields.size(), sources[s].header_fields);
            std::optional<std::string> record;
            if (!fields.empty()) record = record_of_fields(*set.columns, fields, &reason);
            if (record)
                set.records.push_back({std::move(*record), s, row.line});
            else
                set.refused.push_back({s, row.line, reason, csv_text(row.fields)});
        });
    }
    return set;
}

input_set read_lines(const std::vector<std::string> &paths)
{
    input_set set{.sources = paths, .records = {}, .refused = {}, .columns = std::nullopt};
    for (size_t s = 0; s < paths.size(); ++s) {
        const std::string text = whole_file(paths[s]);
        std::string_view rest = text;
        for (size_t line = 1; !rest.empty(); ++line) {
            const size_t end = rest.find('\n');
            set.records.push_back({std::string{rest.substr(0, end)}, s, line});
            rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        }
    }
    return set;
}

input_set read_fixed(const std::vector<std::string> &paths, uint64_t length)
{
    input_set set{.sources = paths, .records = {}, .refused = {}, .columns = std::nullopt};
    for (size_t s = 0; s < paths.size(); ++s) {
        const std::string text = whole_file(paths[s]);
        size_t number = 1;
        for (size_t at = 0; at < text.size(); at += length, ++number) {
            std::string bytes = text.substr(at, length);
            if (bytes.size() == length)
                set.records.push_back({std::move(bytes), s, number});
            else
                set.refused.push_back(
                    {s, number, fmt::format("it has {} bytes instead of {}", bytes.size(), length), std::move(bytes)});
        }
    }
    return set;
}
