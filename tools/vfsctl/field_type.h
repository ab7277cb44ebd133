// How a field's bytes in a record and its text for people stand for each other, for the types that COBOL programs have.
// Knows no files and no layout.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

enum class field_kind : uint8_t {
    text,           // padded with blanks
    hex,            // bytes, two hexadecimal digits for each
    digits,         // PIC 9(n): decimal digits
    zoned,          // PIC S9(n): decimal digits, the last one says the sign
    packed,         // COMP-3: two digits a byte, the last half byte is the sign
    packed_natural, // the same of a picture without sign
    integer,        // COMP, COMP-5: two's complement
    natural,        // the same without sign
};

struct field_type {
    field_kind kind = field_kind::text;
    bool little_endian = false; // integer, natural
    uint32_t decimals = 0;      // digits behind the point

    bool is_number() const { return kind != field_kind::text && kind != field_kind::hex; }
};

// The name of a kind as a schema has it, and back.
std::optional<field_kind> field_kind_named(std::string_view name);
std::string_view field_kind_name(field_kind kind);
bool width_fits(field_kind kind, uint64_t bytes); // integers have at most 8 bytes, numbers of digits at most 38

// The bytes for a text, `width` of them. Nothing is cut or rounded: an empty result has its reason in `reason`.
std::optional<std::string> field_bytes(const field_type &type, std::string_view text, uint64_t width,
                                       std::string *reason);

// The text of a field's bytes. A number's bytes that are no number come as 0x and their hexadecimal digits, which
// field_bytes takes too, so that nothing is lost on the way out and in.
std::string field_text(const field_type &type, std::string_view bytes);
