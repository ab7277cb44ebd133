// Prints records.
#include "output.h"

#include <cstdio>

#include "csv.h"
#include "errors.h"

namespace {

void put(std::string_view bytes)
{
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size())
        throw tool_error("standard output cannot be written");
}

} // namespace

record_printer::record_printer(std::optional<layout> columns, bool raw)
    : columns_(std::move(columns)), raw_(raw), header_due_(columns_.has_value())
{
}

void record_printer::print(std::string_view record)
{
    if (header_due_) {
        std::vector<std::string> names;
        for (const layout_column &column : columns_->columns) names.push_back(column.name);
        put(csv_text(names) + "\n");
        header_due_ = false;
    }
    if (columns_) {
        put(csv_text(fields_of_record(*columns_, record)) + "\n");
        return;
    }
    put(record);
    if (!raw_) put("\n");
}
