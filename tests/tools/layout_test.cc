// Layouts: parsing, widths from data, and the way to a record and back without loss.
#include "layout.h"

#include <gtest/gtest.h>

#include "errors.h"

namespace {

TEST(Layout, WidthsGiveOffsets)
{
    const layout columns = parse_layout("a:9,b:4,c:*");
    ASSERT_EQ(columns.columns.size(), 3U);
    EXPECT_EQ(columns.columns[1].offset, 9U);
    EXPECT_EQ(columns.columns[2].offset, 13U);
    EXPECT_EQ(columns.text(), "a:9,b:4,c:*");
}

TEST(Layout, WhatIsNoLayoutIsRefused)
{
    for (const char *text : {"", "a", "a:", ":3", "a:0", "a:x", "a:*,b:3", "a:1,A:2", "a:1,"})
        EXPECT_THROW(parse_layout(text), tool_error) << text;
}

TEST(Layout, AutomaticColumnsTakeTheWidestValue)
{
    layout columns = parse_layout("a:auto,b:auto,c:*");
    EXPECT_THROW(parse_settled_layout("a:auto"), tool_error);
    columns.widen(0, "xyz");
    columns.widen(0, "x");
    columns.settle();
    EXPECT_EQ(columns.text(), "a:3,b:1,c:*"); // a column without any value still has a place
    EXPECT_EQ(columns.columns[2].offset, 4U);
}

TEST(Layout, ValueTooWideForItsColumnIsNeverCut)
{
    const layout columns = parse_layout("a:3,b:*");
    std::string reason;
    EXPECT_EQ(record_of_fields(columns, {"abc", "long enough"}, &reason), "abclong enough");
    EXPECT_FALSE(record_of_fields(columns, {"abcd", ""}, &reason).has_value());
    EXPECT_NE(reason.find("'a'"), std::string::npos);
}

TEST(Layout, FieldsComeBackWithoutPadding)
{
    const layout columns = parse_layout("a:3,b:5,c:*");
    std::string reason;
    const auto record = record_of_fields(columns, {"x", " y", "blanks stay  "}, &reason);
    ASSERT_TRUE(record.has_value());
    EXPECT_EQ(fields_of_record(columns, *record), (std::vector<std::string>{"x", " y", "blanks stay  "}));
    EXPECT_EQ(fields_of_record(columns, "ab"), (std::vector<std::string>{"ab", "", ""}));
}

} // namespace
