// Diagnostic texts: byte counts, times, stamps. The C locale groups nothing, so the digits are fixed.
#include "util/format_text.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <unistd.h>

namespace {

TEST(FormatText, SizesUseTheLargestUnitReached)
{
    const struct {
        uint64_t bytes;
        const char *text;
    } rows[] = {
        {0, "0.00"},
        {1023, "1023.00"},
        {1024, "1.00Ki"},
        {1048575, "1024.00Ki"},
        {1048576, "1.00Mi"},
        {3u << 29, "1.50Gi"},
        {uint64_t{1} << 40, "1.00Ti"},
        {uint64_t{1} << 50, "1.00Pi"},
        {UINT64_MAX, "16.00Ei"},
    };
    for (const auto &row : rows) EXPECT_STREQ(format_size(row.bytes), row.text);
}

TEST(FormatText, TimesCountFromTheStartAndTellTheRate)
{
    const clock_t hertz = sysconf(_SC_CLK_TCK), start = 5 * hertz, end = 9 * hertz;
    rusage before{}, after{};
    before.ru_utime = {1, 900000};
    after.ru_utime = {3, 150000};
    after.ru_stime = {0, 500000};
    const uint64_t bytes = 8192, nothing = 0;
    EXPECT_STREQ(format_times(&start, &before, &end, &after, nullptr), "Elapsed: 4.00s  User: 1.25s  Sys: 0.50s");
    EXPECT_STREQ(format_times(&start, &before, &end, &after, &bytes),
                 "Elapsed: 4.00s  User: 1.25s  Sys: 0.50s  I/O: 8.00KiB  2.00KiBps");
    EXPECT_STREQ(format_times(&start, &before, &end, &after, &nothing),
                 "Elapsed: 4.00s  User: 1.25s  Sys: 0.50s  I/O: 0.00B  *Free*");
    EXPECT_STREQ(format_times(nullptr, nullptr, &end, &after, nullptr), "Elapsed: 9.00s  User: 3.15s  Sys: 0.50s");
    tms unused;
    const clock_t now = times(&unused);
    rusage mine{};
    getrusage(RUSAGE_THREAD, &mine);
    const std::string since_now = format_times(&now, &mine, nullptr, nullptr, nullptr);
    EXPECT_EQ(since_now.substr(0, 11), "Elapsed: 0.") << since_now; // until now, by this thread
}

TEST(FormatText, StampNamesProcessTimeAndZone)
{
    setenv("TZ", "EST5:30", 1);
    const std::string pid = std::to_string(getpid());
    const std::regex form(pid + R"(\.\d{8}\.\d{6}\.\d{6}\+0530)");
    EXPECT_TRUE(std::regex_match(time_stamp(nullptr), form)) << time_stamp(nullptr);
    EXPECT_TRUE(std::regex_match(time_stamp(""), form));
    EXPECT_EQ(std::string(time_stamp("orders")).rfind("orders." + pid + ".", 0), 0u);
    setenv("TZ", "CET-1", 1);
    EXPECT_TRUE(std::regex_match(time_stamp(nullptr), std::regex(R"(.*-0100)"))) << time_stamp(nullptr);
    unsetenv("TZ");
}

} // namespace
