// Records on standard output: as lines, as CSV or JSON by a layout, as bare bytes, or as text for other stores.
#pragma once

#include <string>
#include <string_view>

#include "json.h"
#include "schema.h"

enum class output_format { lines, csv, raw, json };

class record_printer {
public:
    record_printer(record_shape shape, output_format format);
    void print(std::string_view record);

private:
    record_shape shape_;
    output_format format_;
    bool header_due_;
};

void put_out(std::string_view bytes);   // to standard output; throws tool_error
void put_json(const json_value &value); // for people who look at it: indented
void put_json_line(const json_value &value);
