// Reads input files.
#include "input.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "csv.h"
#include "db_text.h"
#include "errors.h"
#include "json_record.h"

namespace {

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

// Calls row(const csv_row &) behind the header, until it returns false.
template <typename action> bool each_row(text_input &input, action row)
{
    try {
        input.rewind();
        csv_reader reader{input};
        csv_row current;
        reader.next(current); // the header
        while (reader.next(current))
            if (!row(current)) return false;
        return true;
    } catch (const interruption &) {
        throw;
    } catch (const tool_error &error) {
        throw tool_error(fmt::format("{}: {}", input.path(), error.what()));
    }
}

} // namespace

record_input::record_input(input_request request) : request_(std::move(request))
{
    for (const std::string &path : request_.paths) inputs_.emplace_back(path);
    if (request_.format != input_format::csv) return;
    for (size_t s = 0; s < inputs_.size(); ++s) read_header(s);
    if (!request_.columns->is_settled()) settle_widths();
}

void record_input::read_header(size_t source)
{
    csv_row header;
    if (!csv_reader{inputs_[source]}.next(header))
        throw tool_error(fmt::format("{}: it is empty, not even a header", name(source)));
    if (!request_.columns) request_.columns = layout_of_header(header.fields);
    headers_.push_back({places_of(*request_.columns, header.fields, name(source)), header.fields.size()});
}

void record_input::settle_widths()
{
    for (size_t s = 0; s < inputs_.size(); ++s)
        each_row(inputs_[s], [&](const csv_row &row) {
            if (row.fields.size() != headers_[s].header_fields) return true;
            for (size_t i = 0; i < headers_[s].places.size(); ++i)
                request_.columns->widen(i, row.fields[headers_[s].places[i]]);
            return true;
        });
    request_.columns->settle();
}

bool record_input::each_csv(size_t source, const receiver &to)
{
    const csv_places &header = headers_[source];
    std::vector<std::string_view> fields;
    input_record record{.bytes = {}, .source = source, .line = 0, .key = {}};
    return each_row(inputs_[source], [&](const csv_row &row) {
        std::string reason = fmt::format("it has {} fields, the header {}", row.fields.size(), header.header_fields);
        fields.clear();
        if (row.fields.size() == header.header_fields)
            for (const size_t place : header.places) fields.push_back(row.fields[place]);
        std::optional<std::string> bytes;
        if (!fields.empty()) bytes = record_of_fields(*request_.columns, fields, &reason);
        if (!bytes) {
            to.refused({source, row.line, reason, csv_text(row.fields)});
            return true;
        }
        record.bytes = std::move(*bytes);
        record.line = row.line;
        return to.record(record);
    });
}

bool record_input::each_line(size_t source, const receiver &to)
{
    input_record record{.bytes = {}, .source = source, .line = 1, .key = {}};
    for (; inputs_[source].line(record.bytes); ++record.line)
        if (!to.record(record)) return false;
    return true;
}

bool record_input::each_fixed(size_t source, const receiver &to)
{
    input_record record{.bytes = {}, .source = source, .line = 1, .key = {}};
    for (;; ++record.line) {
        record.bytes.resize(request_.fixed);
        record.bytes.resize(inputs_[source].read(record.bytes.data(), record.bytes.size()));
        if (record.bytes.empty()) return true;
        if (record.bytes.size() < request_.fixed)
            to.refused({source, record.line,
                        fmt::format("it has {} bytes instead of {}", record.bytes.size(), request_.fixed),
                        record.bytes});
        else if (!to.record(record))
            return false;
    }
}

bool record_input::each_json(size_t source, const receiver &to)
{
    const json_shape shape{.columns = columns(), .latin_1 = request_.latin_1};
    input_record record{.bytes = {}, .source = source, .line = 1, .key = {}};
    std::string line;
    for (; inputs_[source].line(line); ++record.line) {
        if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
        std::string reason;
        auto bytes = record_of_json(shape, line, &reason);
        if (!bytes) {
            to.refused({source, record.line, reason, line});
            continue;
        }
        record.bytes = std::move(*bytes);
        if (!to.record(record)) return false;
    }
    return true;
}

bool record_input::each_dump(size_t source, const receiver &to)
{
    db_text_reader reader{inputs_[source]};
    db_text_header header;
    input_record record{.bytes = {}, .source = source, .line = 0, .key = {}};
    size_t databases = 0;
    while (reader.next_database(header)) {
        const bool wanted = request_.database.empty() || request_.database == header.database;
        if (wanted && ++databases > 1)
            throw tool_error(
                fmt::format("{}: line {}: another database, '{}', begins; --database says which one is meant",
                            name(source), reader.line(), header.database));
        while (reader.next(record.key, record.bytes)) {
            if (!wanted) continue;
            record.line = reader.line();
            if (request_.join_key) {
                record.bytes.insert(0, record.key);
                record.key.clear();
            }
            if (!to.record(record)) return false;
        }
    }
    if (databases == 0)
        throw tool_error(request_.database.empty()
                             ? fmt::format("{}: it is empty, not even a header", name(source))
                             : fmt::format("{}: there is no database '{}' in it", name(source), request_.database));
    return true;
}

bool record_input::each_of(size_t source, const receiver &to)
{
    switch (request_.format) {
    case input_format::csv: return each_csv(source, to);
    case input_format::lines: return each_line(source, to);
    case input_format::fixed: return each_fixed(source, to);
    case input_format::json: return each_json(source, to);
    case input_format::dump: return each_dump(source, to);
    }
    return false;
}

void record_input::each(const std::function<bool(input_record &)> &record,
                        const std::function<void(refused_row &&)> &refused)
{
    const receiver to{record, refused};
    for (size_t s = 0; s < inputs_.size(); ++s) {
        inputs_[s].rewind();
        if (!each_of(s, to)) return;
    }
}
