// Records on standard output: as lines, as CSV by a layout, or as bare bytes.
#pragma once

#include <optional>
#include <string_view>

#include "layout.h"

class record_printer {
public:
    record_printer(std::optional<layout> columns, bool raw);
    void print(std::string_view record);

private:
    std::optional<layout> columns_;
    bool raw_;
    bool header_due_;
};
