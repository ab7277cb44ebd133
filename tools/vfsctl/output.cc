// Prints records.
#include "output.h"

#include <cstdio>

#include "csv.h"
#include "errors.h"
#include "json_record.h"

void put_out(std::string_view bytes)
{
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size())
        throw tool_error("standard output cannot be written");
}

// Names of files may be in any encoding.
void put_json(const json_value &value)
{
    put_out(value.dump(2, ' ', false, json_value::error_handler_t::replace) + "\n");
}

void put_json_line(const json_value &value)
{
    put_out(value.dump(-1, ' ', false, json_value::error_handler_t::replace) + "\n");
}

record_printer::record_printer(record_shape shape, output_format format)
    : shape_(std::move(shape)), format_(format), header_due_(format == output_format::csv)
{
}

void record_printer::print(std::string_view record)
{
    if (header_due_) {
        std::vector<std::string> names;
        for (const layout_column &column : shape_.columns->columns) names.push_back(column.name);
        put_out(csv_text(names) + "\n");
        header_due_ = false;
    }
    switch (format_) {
    case output_format::csv: put_out(csv_text(fields_of_record(*shape_.columns, record))); break;
    case output_format::json:
        put_out(json_of_record({.columns = shape_.columns ? &*shape_.columns : nullptr, .latin_1 = shape_.latin_1},
                               record));
        break;
    case output_format::lines:
    case output_format::raw: put_out(record); break;
    }
    if (format_ != output_format::raw) put_out("\n");
}
