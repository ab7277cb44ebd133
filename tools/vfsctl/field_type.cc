// Encodes and decodes fields. Decimal numbers pass through a plain form: a sign, and the digits without a point.
#include "field_type.h"

#include <algorithm>
#include <array>
#include <charconv>

#include <fmt/format.h>

namespace {

constexpr std::array<std::string_view, 8> kind_names = {"text",           "hex",     "digits", "zoned", "packed",
                                                        "packed-natural", "integer", "natural"};
constexpr uint64_t most_digits = 38;
constexpr uint64_t most_integer_bytes = 8;

struct decimal {
    bool negative = false;
    std::string digits; // at least one
};

std::string hex_of(std::string_view bytes)
{
    std::string text;
    for (const char c : bytes) text += fmt::format("{:02x}", static_cast<unsigned char>(c));
    return text;
}

std::optional<std::string> bytes_of(std::string_view hex)
{
    if (hex.size() % 2 != 0) return std::nullopt;
    std::string bytes;
    for (size_t at = 0; at < hex.size(); at += 2) {
        unsigned value = 0;
        const auto [end, error] = std::from_chars(hex.data() + at, hex.data() + at + 2, value, 16);
        if (error != std::errc{} || end != hex.data() + at + 2) return std::nullopt;
        bytes += static_cast<char>(value);
    }
    return bytes;
}

// "-12.5" with two decimals: 1250, negative.
std::optional<decimal> decimal_of(std::string_view text, uint32_t decimals)
{
    decimal result;
    if (text.empty()) return decimal{false, "0"};
    if (text.front() == '-' || text.front() == '+') {
        result.negative = text.front() == '-';
        text.remove_prefix(1);
    }
    const size_t point = text.find('.');
    const std::string_view whole = text.substr(0, point);
    std::string fraction{point == std::string_view::npos ? std::string_view{} : text.substr(point + 1)};
    while (fraction.size() > decimals && fraction.back() == '0') fraction.pop_back();
    if (fraction.size() > decimals || whole.size() + fraction.size() == 0) return std::nullopt;
    fraction.resize(decimals, '0');
    result.digits = std::string{whole} + fraction;
    if (!std::all_of(result.digits.begin(), result.digits.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return std::nullopt;
    result.digits.erase(0, std::min(result.digits.find_first_not_of('0'), result.digits.size() - 1));
    return result;
}

std::string text_of(const decimal &value, uint32_t decimals)
{
    std::string digits = value.digits;
    if (digits.size() <= decimals) digits.insert(0, decimals + 1 - digits.size(), '0');
    digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size() - decimals - 1));
    if (decimals > 0) digits.insert(digits.size() - decimals, 1, '.');
    const bool zero = digits.find_first_not_of("0.") == std::string::npos;
    return (value.negative && !zero ? "-" : "") + digits;
}

// ---- Decimal forms: `room` digits are there, with leading zeros.

std::string zoned_bytes(const decimal &value, std::string padded)
{
    if (value.negative) padded.back() = static_cast<char>(padded.back() + ('p' - '0'));
    return padded;
}

std::string packed_bytes(field_kind kind, const decimal &value, const std::string &padded)
{
    const int sign = kind == field_kind::packed_natural ? 0xF : value.negative ? 0xD : 0xC;
    std::string bytes;
    for (size_t at = 0; at + 1 < padded.size(); at += 2)
        bytes += static_cast<char>((padded[at] - '0') << 4 | (padded[at + 1] - '0'));
    bytes += static_cast<char>((padded.back() - '0') << 4 | sign);
    return bytes;
}

std::optional<decimal> decimal_of_zoned(std::string_view bytes)
{
    decimal value{false, std::string{bytes}};
    if (value.digits.empty()) return std::nullopt;
    char &last = value.digits.back();
    if (last >= 'p' && last <= 'y') {
        value.negative = true;
        last = static_cast<char>(last - ('p' - '0'));
    }
    return value;
}

std::optional<decimal> decimal_of_packed(std::string_view bytes)
{
    decimal value;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        value.digits += static_cast<char>('0' + (byte >> 4));
        value.digits += static_cast<char>('0' + (byte & 15));
    }
    if (value.digits.empty()) return std::nullopt;
    const int sign = value.digits.back() - '0';
    value.digits.pop_back();
    if (sign != 0xC && sign != 0xD && sign != 0xF) return std::nullopt;
    value.negative = sign == 0xD;
    return value;
}

// ---- Binary integers

std::optional<std::string> integer_bytes(const field_type &type, const decimal &value, uint64_t width)
{
    uint64_t magnitude = 0;
    const char *end = value.digits.data() + value.digits.size();
    if (std::from_chars(value.digits.data(), end, magnitude).ec != std::errc{}) return std::nullopt;
    const unsigned bits = static_cast<unsigned>(width) * 8;
    const uint64_t top = uint64_t{1} << (bits - 1);
    const bool fits = type.kind == field_kind::natural ? bits == 64 || magnitude >> bits == 0
                      : value.negative                 ? magnitude <= top
                                                       : magnitude < top;
    if (!fits || (value.negative && type.kind == field_kind::natural && magnitude != 0)) return std::nullopt;
    const uint64_t word = value.negative ? 0 - magnitude : magnitude;
    std::string bytes;
    for (unsigned i = 0; i < width; ++i) bytes += static_cast<char>(word >> 8 * i);
    if (!type.little_endian) std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

std::optional<decimal> decimal_of_integer(const field_type &type, std::string_view bytes)
{
    if (bytes.empty() || bytes.size() > most_integer_bytes) return std::nullopt;
    std::string ordered{bytes};
    if (type.little_endian) std::reverse(ordered.begin(), ordered.end());
    const bool negative = type.kind == field_kind::integer && (ordered.front() & 0x80) != 0;
    uint64_t word = negative ? UINT64_MAX : 0;
    for (const char c : ordered) word = word << 8 | static_cast<unsigned char>(c);
    return decimal{negative, std::to_string(negative ? 0 - word : word)};
}

bool is_packed(field_kind kind)
{
    return kind == field_kind::packed || kind == field_kind::packed_natural;
}

uint64_t digits_in(field_kind kind, uint64_t width)
{
    return is_packed(kind) ? 2 * width - 1 : width;
}

std::optional<std::string> number_bytes(const field_type &type, std::string_view text, uint64_t width,
                                        std::string *reason)
{
    std::optional<decimal> value = decimal_of(text, type.decimals);
    if (!value) {
        *reason = fmt::format("'{}' is no number with {} decimals", text, type.decimals);
        return std::nullopt;
    }
    if (type.kind == field_kind::integer || type.kind == field_kind::natural) {
        auto bytes = integer_bytes(type, *value, width);
        if (!bytes) *reason = fmt::format("{} does not fit {} bytes", text, width);
        return bytes;
    }
    const uint64_t room = digits_in(type.kind, width);
    const bool no_sign = (type.kind == field_kind::digits || type.kind == field_kind::packed_natural) &&
                         value->negative && value->digits != "0";
    if (value->digits.size() > room || no_sign) {
        *reason = no_sign ? fmt::format("{} has a sign, its place none", text)
                          : fmt::format("{} does not fit {} digits", text, room);
        return std::nullopt;
    }
    const std::string padded = std::string(room - value->digits.size(), '0') + value->digits;
    if (type.kind == field_kind::zoned) return zoned_bytes(*value, padded);
    if (is_packed(type.kind)) return packed_bytes(type.kind, *value, padded);
    return padded;
}

std::optional<decimal> decimal_of_bytes(const field_type &type, std::string_view bytes)
{
    switch (type.kind) {
    case field_kind::zoned: return decimal_of_zoned(bytes);
    case field_kind::packed:
    case field_kind::packed_natural: return decimal_of_packed(bytes);
    case field_kind::integer:
    case field_kind::natural: return decimal_of_integer(type, bytes);
    default: return decimal{false, std::string{bytes}};
    }
}

} // namespace

std::optional<field_kind> field_kind_named(std::string_view name)
{
    const auto *const found = std::find(kind_names.begin(), kind_names.end(), name);
    if (found == kind_names.end()) return std::nullopt;
    return static_cast<field_kind>(found - kind_names.begin());
}

std::string_view field_kind_name(field_kind kind)
{
    return kind_names[static_cast<size_t>(kind)];
}

bool width_fits(field_kind kind, uint64_t bytes)
{
    if (kind == field_kind::text || kind == field_kind::hex) return bytes > 0;
    const uint64_t most = kind == field_kind::integer || kind == field_kind::natural ? most_integer_bytes
                          : is_packed(kind)                                          ? (most_digits + 1) / 2
                                                                                     : most_digits;
    return bytes > 0 && bytes <= most;
}

std::optional<std::string> field_bytes(const field_type &type, std::string_view text, uint64_t width,
                                       std::string *reason)
{
    std::optional<std::string> bytes;
    if (type.kind == field_kind::text)
        bytes = text;
    else if (type.kind == field_kind::hex)
        bytes = bytes_of(text);
    else if (text.starts_with("0x"))
        bytes = bytes_of(text.substr(2));
    else
        return number_bytes(type, text, width, reason);
    if (!bytes) {
        *reason = fmt::format("'{}' is not hexadecimal", text);
        return std::nullopt;
    }
    if (bytes->size() > width || (type.is_number() && bytes->size() != width)) {
        *reason = fmt::format("it has {} bytes, its place {}", bytes->size(), width);
        return std::nullopt;
    }
    bytes->resize(width, type.kind == field_kind::hex ? '\0' : ' ');
    return bytes;
}

std::string field_text(const field_type &type, std::string_view bytes)
{
    if (type.kind == field_kind::text) return std::string{bytes.substr(0, bytes.find_last_not_of(' ') + 1)};
    if (type.kind == field_kind::hex) return hex_of(bytes);
    const std::optional<decimal> value = decimal_of_bytes(type, bytes);
    if (!value || value->digits.empty() || value->digits.find_first_not_of("0123456789") != std::string::npos)
        return "0x" + hex_of(bytes);
    std::string text = text_of(*value, type.decimals);
    // Another form of the same number (another sign nibble, a negative zero) has to come back as it was.
    std::string reason;
    if (field_bytes(type, text, bytes.size(), &reason) != std::string{bytes}) return "0x" + hex_of(bytes);
    return text;
}
