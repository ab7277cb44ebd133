// Input files become records, and every row that does not is reported.
#include "input.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <unistd.h>

#include "errors.h"

namespace {

class Input : public testing::Test {
protected:
    void SetUp() override
    {
        directory_ = std::filesystem::temp_directory_path() / ("vfsctl_input_" + std::to_string(getpid()));
        std::filesystem::create_directory(directory_);
    }
    void TearDown() override { std::filesystem::remove_all(directory_); }

    std::string file(const std::string &name, const std::string &text)
    {
        const std::filesystem::path path = directory_ / name;
        std::ofstream{path, std::ios::binary} << text;
        return path;
    }

    struct rows {
        std::vector<input_record> records;
        std::vector<refused_row> refused;
        std::string layout;
    };
    static rows read(input_request request)
    {
        record_input input{std::move(request)};
        rows all;
        for (int pass = 0; pass < 2; ++pass) { // the second one has to see the same
            rows seen;
            input.each(
                [&](input_record &record) {
                    seen.records.push_back(record);
                    return true;
                },
                [&](refused_row &&row) { seen.refused.push_back(std::move(row)); });
            EXPECT_TRUE(pass == 0 || seen.records.size() == all.records.size());
            all = std::move(seen);
        }
        if (input.columns() != nullptr) all.layout = input.columns()->text();
        return all;
    }
    static input_request csv(std::vector<std::string> paths, std::optional<layout> columns)
    {
        return {.paths = std::move(paths), .columns = std::move(columns), .database = {}};
    }
    input_request dump(const std::string &text)
    {
        return {.paths = {file("dump", text)}, .format = input_format::dump, .columns = {}, .database = {}};
    }

private:
    std::filesystem::path directory_;
};

TEST_F(Input, CsvColumnsAreFoundByNameInEachFile)
{
    const auto first = file("1", "code,name\nA,one\nB,three\n");
    const auto second = file("2", "Name,CODE\nfour,C\n");
    const rows set = read(csv({first, second}, parse_layout("code:2,name:auto")));
    ASSERT_EQ(set.records.size(), 3U);
    EXPECT_EQ(set.layout, "code:2,name:5");
    EXPECT_EQ(set.records[0].bytes, "A one  ");
    EXPECT_EQ(set.records[2].bytes, "C four ");
    EXPECT_EQ(set.records[2].source, 1U);
    EXPECT_EQ(set.records[2].line, 2U);
}

TEST_F(Input, CsvRowsThatMakeNoRecordAreReportedWithLineAndReason)
{
    const auto path = file("1", "code,name\nA,one,more\nB,two\nCCC,x\n");
    const rows set = read(csv({path}, parse_layout("code:2,name:*")));
    ASSERT_EQ(set.records.size(), 1U);
    ASSERT_EQ(set.refused.size(), 2U);
    EXPECT_EQ(set.refused[0].line, 2U);
    EXPECT_EQ(set.refused[0].text, "A,one,more");
    EXPECT_EQ(set.refused[1].line, 4U);
    EXPECT_NE(set.refused[1].reason.find("code"), std::string::npos);
}

TEST_F(Input, CsvWithoutLayoutKeepsEveryColumn)
{
    const rows set = read(csv({file("1", "a,b,c\n1,22,333\n4444,5,\n")}, std::nullopt));
    EXPECT_EQ(set.layout, "a:4,b:2,c:*");
    ASSERT_EQ(set.records.size(), 2U);
    EXPECT_EQ(set.records[0].bytes, "1   22333");
}

TEST_F(Input, MissingColumnOrFileIsAnError)
{
    EXPECT_THROW(read(csv({file("1", "a,b\n")}, parse_layout("c:3"))), tool_error);
    EXPECT_THROW(read(csv({file("2", "")}, std::nullopt)), tool_error);
    EXPECT_THROW(read(csv({"/nowhere/at/all"}, std::nullopt)), tool_error);
}

TEST_F(Input, LinesKeepTheirNumbersAndEmptyLines)
{
    const rows set =
        read({.paths = {file("1", "one\n\nthree")}, .format = input_format::lines, .columns = {}, .database = {}});
    ASSERT_EQ(set.records.size(), 3U);
    EXPECT_EQ(set.records[1].bytes, "");
    EXPECT_EQ(set.records[2].bytes, "three");
    EXPECT_EQ(set.records[2].line, 3U);
}

TEST_F(Input, IncompleteLastRecordOfFixedLengthIsReported)
{
    const rows set =
        read({.paths = {file("1", "aabbc")}, .format = input_format::fixed, .fixed = 2, .columns = {}, .database = {}});
    ASSERT_EQ(set.records.size(), 2U);
    EXPECT_EQ(set.records[1].bytes, "bb");
    ASSERT_EQ(set.refused.size(), 1U);
    EXPECT_EQ(set.refused[0].line, 3U);
    EXPECT_EQ(set.refused[0].text, "c");
}

TEST_F(Input, DumpsAreReadInBothForms)
{
    const std::string head = "VERSION=3\nformat=print\ndatabase=one\ntype=btree\nmapsize=1048576\nHEADER=END\n";
    const rows print = read(dump(head + " k\\00\n a\\\\b\\0A \n \n \nDATA=END\n"));
    ASSERT_EQ(print.records.size(), 2U);
    EXPECT_EQ(print.records[0].key, std::string("k\0", 2));
    EXPECT_EQ(print.records[0].bytes, "a\\b\n ");
    EXPECT_EQ(print.records[0].line, 8U);
    EXPECT_EQ(print.records[1].bytes, "");
    const rows bytes = read(dump("VERSION=3\nformat=bytevalue\ntype=recno\nHEADER=END\n 616C\nDATA=END\n"));
    ASSERT_EQ(bytes.records.size(), 1U);
    EXPECT_EQ(bytes.records[0].bytes, "al");
    EXPECT_EQ(bytes.records[0].key, "");
}

TEST_F(Input, WhatIsNoDumpIsReportedWithItsLine)
{
    const std::string head = "VERSION=3\nformat=print\ntype=btree\nHEADER=END\n";
    const struct {
        std::string text, says;
    } cases[] = {
        {"", "empty"},
        {"format=print\n", "line 1: a dump begins with VERSION=3"},
        {"VERSION=3\nformat=octal\n", "line 2: format 'octal'"},
        {"VERSION=3\n", "line 2: the header has no end"},
        {head + " key\n", "line 6: a key without data"},
        {head + " key\n data\n", "line 7: DATA=END is missing"},
        {head + "key\n data\n", "line 5: a line of data begins with a blank"},
        {head + " key\\0g\n data\n", "line 5: two hexadecimal digits"},
        {head + " key\\\n data\n", "line 5: two hexadecimal digits"},
        {head + "DATA=END\n" + head + "DATA=END\n", "line 9: another database"},
    };
    for (const auto &each : cases) {
        try {
            read(dump(each.text));
            ADD_FAILURE() << each.text << " is taken";
        } catch (const tool_error &error) {
            EXPECT_NE(std::string{error.what()}.find(each.says), std::string::npos) << error.what();
        }
    }
}

} // namespace
