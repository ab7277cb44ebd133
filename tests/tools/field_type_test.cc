// Fields of COBOL records: bytes as the compiler lays them out, and the way to text and back without loss.
#include "field_type.h"

#include <random>
#include <string>

#include <gtest/gtest.h>

#include "errors.h"
#include "json_record.h"
#include "schema.h"
#include "sorter.h"

using namespace std::string_literals;

namespace {

struct known_field {
    field_type type;
    std::string bytes, text;
};

const known_field known_fields[] = {
    {{.kind = field_kind::text}, "ab  ", "ab"},
    {{.kind = field_kind::hex}, std::string("a\0", 2), "6100"},
    {{.kind = field_kind::digits}, "0042", "42"},
    {{.kind = field_kind::digits, .decimals = 2}, "0042", "0.42"},
    {{.kind = field_kind::zoned}, "0042", "42"},
    {{.kind = field_kind::zoned, .decimals = 1}, "004r", "-4.2"},
    {{.kind = field_kind::packed}, "\x12\x3c", "123"},
    {{.kind = field_kind::packed, .decimals = 2}, "\x12\x3d", "-1.23"},
    {{.kind = field_kind::packed_natural}, "\x12\x3f", "123"},
    {{.kind = field_kind::integer}, "\xff\xfe", "-2"},
    {{.kind = field_kind::integer, .little_endian = true}, "\xfe\xff", "-2"},
    {{.kind = field_kind::integer}, "\x80", "-128"},
    {{.kind = field_kind::natural}, std::string("\xff\xff\xff\xff\xff\xff\xff\xff"), "18446744073709551615"},
    {{.kind = field_kind::natural, .decimals = 3}, "\x07", "0.007"},
    // No numbers, or not in the form that would be written: they come back as they are.
    {{.kind = field_kind::digits}, "4 2", "0x342032"},
    {{.kind = field_kind::packed}, "\x12\x3f", "0x123f"},
    {{.kind = field_kind::packed}, "\x12\xa3", "0x12a3"},
    {{.kind = field_kind::zoned}, "00p", "0x303070"},
};

TEST(FieldType, KnownBytesHaveKnownTexts)
{
    for (const known_field &each : known_fields) {
        EXPECT_EQ(field_text(each.type, each.bytes), each.text);
        std::string reason;
        const auto bytes = field_bytes(each.type, each.text, each.bytes.size(), &reason);
        EXPECT_EQ(bytes.value_or("none: " + reason), each.bytes) << each.text;
    }
}

TEST(FieldType, WhatDoesNotFitIsRefusedAndNeverCut)
{
    const struct {
        field_type type;
        uint64_t width;
        const char *text;
    } cases[] = {
        {{.kind = field_kind::text}, 2, "abc"},      {{.kind = field_kind::hex}, 1, "616"},
        {{.kind = field_kind::hex}, 1, "6162"},      {{.kind = field_kind::digits}, 2, "100"},
        {{.kind = field_kind::digits}, 4, "-1"},     {{.kind = field_kind::digits, .decimals = 1}, 4, "0.25"},
        {{.kind = field_kind::packed}, 2, "1000"},   {{.kind = field_kind::packed_natural}, 2, "-1"},
        {{.kind = field_kind::integer}, 1, "128"},   {{.kind = field_kind::integer}, 1, "-129"},
        {{.kind = field_kind::natural}, 2, "65536"}, {{.kind = field_kind::natural}, 8, "18446744073709551616"},
        {{.kind = field_kind::natural}, 8, "-1"},    {{.kind = field_kind::zoned}, 4, "1e3"},
        {{.kind = field_kind::zoned}, 4, "-"},       {{.kind = field_kind::zoned}, 4, "."},
        {{.kind = field_kind::zoned}, 4, "0x31"},
    };
    for (const auto &each : cases) {
        std::string reason;
        EXPECT_FALSE(field_bytes(each.type, each.text, each.width, &reason).has_value()) << each.text;
        EXPECT_NE(reason, "") << each.text;
    }
}

TEST(FieldType, EveryBytesComeBack)
{
    std::mt19937 random{20261125};
    for (int round = 0; round < 20000; ++round) {
        const field_type type{.kind = static_cast<field_kind>(1 + random() % 7),
                              .little_endian = random() % 2 == 0,
                              .decimals = static_cast<uint32_t>(random() % 4)};
        if (!type.is_number() && type.decimals > 0) continue;
        std::string bytes(1 + random() % 8, '\0');
        const bool digits = random() % 2 == 0;
        for (char &c : bytes) c = static_cast<char>(digits ? '0' + random() % 10 : random());
        const std::string text = field_text(type, bytes);
        std::string reason;
        ASSERT_EQ(field_bytes(type, text, bytes.size(), &reason).value_or(reason), bytes) << text;
    }
}

const char *const customer = R"({"fields": [
    {"name": "number", "type": "digits", "bytes": 4}, {"name": "name", "bytes": 6},
    {"name": "balance", "type": "packed", "bytes": 3, "decimals": 2, "at": 12}, {"name": "note"}],
    "keys": ["number", "name,dup"], "max": 40})";

TEST(Schema, JsonLinesComeBackThroughIt)
{
    const record_shape shape = parse_schema(customer, "s");
    EXPECT_EQ(shape.keys, (std::vector<std::string>{"number", "name,dup"}));
    EXPECT_EQ(shape.max, 40U);
    const json_shape json{.columns = &*shape.columns};
    std::string reason;
    const auto record = record_of_json(json, R"({"name": "Zoe", "NUMBER": 7, "balance": -1.5, "note": "x"})", &reason);
    ASSERT_EQ(record.value_or(reason), "0007Zoe     \x00\x15\x0dx"s);
    EXPECT_EQ(json_of_record(json, *record), R"({"number":7,"name":"Zoe","balance":-1.5,"note":"x"})");
    EXPECT_EQ(json_of_record(json, "0007Zo"), R"({"number":7,"name":"Zo","balance":null,"note":""})");
    for (const char *line : {"", "[]", "{", R"({"nam": "x"})", R"({"name": ["x"]})", R"({"number": 12345})"})
        EXPECT_FALSE(record_of_json(json, line, &reason).has_value()) << line;
    EXPECT_THROW(json_of_record(json, "0007\xfc"), tool_error);
    EXPECT_NE(json_of_record({.columns = &*shape.columns, .latin_1 = true}, "0007\xfc").find("\xc3\xbc"),
              std::string::npos);
    for (const std::string &whole : {"plain"s, "\xff\x00"s})
        EXPECT_EQ(record_of_json({}, json_of_record({}, whole), &reason).value_or(reason), whole);
}

TEST(Schema, MistakesAreNamedWithTheirPlace)
{
    const struct {
        const char *text, *says;
    } cases[] = {
        {"{", "no JSON"},
        {"1e999", "no JSON"},
        {"[]", "object"},
        {R"({"field": []})", "'field' is not known"},
        {R"({"fields": {}})", "'fields' is a list"},
        {R"({"fields": [{"bytes": 3}]})", "field 1: it has no 'name'"},
        {R"({"fields": [{"name": "a", "bytes": -3}]})", "field 1: 'bytes' is a whole number"},
        {R"({"fields": [{"name": "a"}, {"name": "b"}]})", "field 1: it has no 'bytes'"},
        {R"({"fields": [{"name": "a", "bytes": 2}, {"name": "A"}]})", "field 2: the name 'A'"},
        {R"({"fields": [{"name": "a", "bytes": 2}, {"name": "b", "at": 1}]})", "field 2: it begins at byte 1"},
        {R"({"fields": [{"name": "a", "bytes": 9, "type": "integer"}]})", "cannot have 9 bytes"},
        {R"({"fields": [{"name": "a", "bytes": 2, "type": "float"}]})", "type 'float'"},
        {R"({"fields": [{"name": "a", "bytes": 2, "decimals": 2}]})", "only numbers"},
        {R"({"fixed": 3, "max": 4})", "'fixed' excludes"},
        {R"({"encoding": "ebcdic"})", "utf-8 or latin-1"},
    };
    for (const auto &each : cases) {
        try {
            parse_schema(each.text, "s");
            ADD_FAILURE() << each.text << " is taken";
        } catch (const usage_error &error) {
            EXPECT_NE(std::string{error.what()}.find(each.says), std::string::npos) << error.what();
        }
    }
}

TEST(Sorter, RunsAreMergedInOrderAndEqualKeysStayAsTheyCame)
{
    for (const size_t memory : {size_t{1} << 20, size_t{5000}}) {
        record_sorter sorter{memory};
        std::mt19937 random{20261125};
        for (uint64_t n = 0; n < 3000; ++n)
            sorter.add("key" + std::to_string(random() % 100), "record " + std::to_string(n), 1, n);
        sorter.finish();
        sorted_record record;
        std::string last_key;
        uint64_t last_line = 0, count = 0;
        for (; sorter.next(record); ++count) {
            ASSERT_TRUE(last_key < record.key || (last_key == record.key && last_line < record.line) || count == 0);
            ASSERT_EQ(record.bytes, "record " + std::to_string(record.line));
            last_key = record.key;
            last_line = record.line;
        }
        EXPECT_EQ(count, 3000U);
    }
}

} // namespace
