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

private:
    std::filesystem::path directory_;
};

TEST_F(Input, CsvColumnsAreFoundByNameInEachFile)
{
    const auto first = file("1", "code,name\nA,one\nB,three\n");
    const auto second = file("2", "Name,CODE\nfour,C\n");
    const input_set set = read_csv({first, second}, parse_layout("code:2,name:auto"));
    ASSERT_EQ(set.records.size(), 3U);
    EXPECT_EQ(set.columns->text(), "code:2,name:5");
    EXPECT_EQ(set.records[0].bytes, "A one  ");
    EXPECT_EQ(set.records[2].bytes, "C four ");
    EXPECT_EQ(set.records[2].source, 1U);
    EXPECT_EQ(set.records[2].line, 2U);
}

TEST_F(Input, CsvRowsThatMakeNoRecordAreReportedWithLineAndReason)
{
    const auto path = file("1", "code,name\nA,one,more\nB,two\nCCC,x\n");
    const input_set set = read_csv({path}, parse_layout("code:2,name:*"));
    ASSERT_EQ(set.records.size(), 1U);
    ASSERT_EQ(set.refused.size(), 2U);
    EXPECT_EQ(set.refused[0].line, 2U);
    EXPECT_EQ(set.refused[0].text, "A,one,more");
    EXPECT_EQ(set.refused[1].line, 4U);
    EXPECT_NE(set.refused[1].reason.find("code"), std::string::npos);
}

TEST_F(Input, CsvWithoutLayoutKeepsEveryColumn)
{
    const input_set set = read_csv({file("1", "a,b,c\n1,22,333\n4444,5,\n")}, std::nullopt);
    EXPECT_EQ(set.columns->text(), "a:4,b:2,c:*");
    ASSERT_EQ(set.records.size(), 2U);
    EXPECT_EQ(set.records[0].bytes, "1   22333");
}

TEST_F(Input, MissingColumnOrFileIsAnError)
{
    EXPECT_THROW(read_csv({file("1", "a,b\n")}, parse_layout("c:3")), tool_error);
    EXPECT_THROW(read_csv({file("2", "")}, std::nullopt), tool_error);
    EXPECT_THROW(read_lines({"/nowhere/at/all"}), tool_error);
}

TEST_F(Input, LinesKeepTheirNumbersAndEmptyLines)
{
    const input_set set = read_lines({file("1", "one\n\nthree")});
    ASSERT_EQ(set.records.size(), 3U);
    EXPECT_EQ(set.records[1].bytes, "");
    EXPECT_EQ(set.records[2].bytes, "three");
    EXPECT_EQ(set.records[2].line, 3U);
}

TEST_F(Input, IncompleteLastRecordOfFixedLengthIsReported)
{
    const input_set set = read_fixed({file("1", "aabbc")}, 2);
    ASSERT_EQ(set.records.size(), 2U);
    EXPECT_EQ(set.records[1].bytes, "bb");
    ASSERT_EQ(set.refused.size(), 1U);
    EXPECT_EQ(set.refused[0].line, 3U);
    EXPECT_EQ(set.refused[0].text, "c");
}

} // namespace
