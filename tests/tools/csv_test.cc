// The CSV reader and writer. Method: small texts with one difficulty each, and a random round trip.
#include "csv.h"

#include <random>

#include <gtest/gtest.h>

#include "errors.h"

namespace {

using rows = std::vector<std::vector<std::string>>;

rows all_rows(std::string_view text)
{
    text_input input = text_input::of_text(text);
    csv_reader reader{input};
    csv_row row;
    rows result;
    while (reader.next(row)) result.push_back(row.fields);
    return result;
}

std::string message_of(std::string_view text)
{
    try {
        all_rows(text);
    } catch (const tool_error &error) {
        return error.what();
    }
    return {};
}

TEST(Csv, PlainRowsAreSplitAtCommas)
{
    EXPECT_EQ(all_rows("a,b\nc,d\n"), (rows{{"a", "b"}, {"c", "d"}}));
}

TEST(Csv, EmptyFieldsAreKept)
{
    EXPECT_EQ(all_rows(",\na,\n,b"), (rows{{"", ""}, {"a", ""}, {"", "b"}}));
}

TEST(Csv, LastLineNeedsNoNewline)
{
    EXPECT_EQ(all_rows("a,b\nc,d"), (rows{{"a", "b"}, {"c", "d"}}));
}

TEST(Csv, CarriageReturnsBelongToTheLineEnd)
{
    EXPECT_EQ(all_rows("a,b\r\nc,d\r\n"), (rows{{"a", "b"}, {"c", "d"}}));
    EXPECT_EQ(all_rows("a,b\r"), (rows{{"a", "b"}}));
    EXPECT_EQ(all_rows("a\rb,c\n"), (rows{{"a\rb", "c"}}));
}

TEST(Csv, ByteOrderMarkIsNoPartOfTheFirstName)
{
    EXPECT_EQ(all_rows("\xEF\xBB\xBF"
                       "name,x\n"),
              (rows{{"name", "x"}}));
}

TEST(Csv, QuotedFieldsKeepCommasQuotesAndNewlines)
{
    EXPECT_EQ(all_rows("\"a,b\",\"say \"\"yes\"\"\",\"two\nlines\"\n\"\",x\n"),
              (rows{{"a,b", "say \"yes\"", "two\nlines"}, {"", "x"}}));
    EXPECT_EQ(all_rows("\"a\"\r\n\"b\"\r\n"), (rows{{"a"}, {"b"}}));
}

TEST(Csv, LineNumbersCountNewlinesInsideQuotesAndEmptyLines)
{
    text_input input = text_input::of_text("h\n\"1\n2\"\n\nlast\n");
    csv_reader reader{input};
    csv_row row;
    std::vector<size_t> lines;
    while (reader.next(row)) lines.push_back(row.line);
    EXPECT_EQ(lines, (std::vector<size_t>{1, 2, 5}));
}

TEST(Csv, BrokenQuotesAreReportedWithTheirLine)
{
    EXPECT_NE(message_of("a\nb,\"never closed\n\n").find("line 2"), std::string::npos);
    EXPECT_NE(message_of("a\n\"b\"c\n").find("line 2"), std::string::npos);
}

TEST(Csv, WrittenRowsAreReadBackTheSame)
{
    std::mt19937 random{20261124};
    const std::string alphabet = "ab ,\"\n\r\xC3\xBC";
    for (int round = 0; round < 2000; ++round) {
        std::vector<std::string> fields(1 + random() % 4);
        for (std::string &field : fields)
            for (size_t length = random() % 6; length > 0; --length) field += alphabet[random() % alphabet.size()];
        const std::string text = csv_text(fields) + (round % 2 == 0 ? "\n" : "\r\n");
        EXPECT_EQ(all_rows(text), rows{fields}) << testing::PrintToString(text);
    }
}

} // namespace
