// tool_fixture.h: files of every shape, made through the driver; the program vfsctl run as an operator runs it; and the
// reader of the format called directly.
#ifndef TESTS_TOOLS_TOOL_FIXTURE_H
#define TESTS_TOOLS_TOOL_FIXTURE_H

#include "checker.h"
#include "format/check.h"
#include "host.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

struct run_result {
    int status;
    std::string text; // both outputs

    bool says(const std::string &piece) const { return text.find(piece) != std::string::npos; }
};
inline std::ostream &operator<<(std::ostream &out, const run_result &result)
{
    return out << "status " << result.status << ", says:\n" << result.text;
}

class ToolTest : public host::DriverTest {
protected:
    using spec = host::file_spec;

    static run_result vfsctl(const std::string &arguments)
    {
        FILE *pipe = popen((std::string{VFSCTL} + " " + arguments + " 2>&1").c_str(), "re");
        run_result result{};
        char piece[4096];
        for (size_t got = 0; (got = fread(piece, 1, sizeof piece, pipe)) > 0;) result.text.append(piece, got);
        const int status = pclose(pipe);
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return result;
    }

    static inline uint64_t pieces = 0; // in which the last file was checked
    // The check without the program around it. By several threads, a small piece at a time, it comes to the same.
    static check_result check(const std::string &file)
    {
        const int descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC);
        file_image image{descriptor}, again{descriptor};
        check_result found = check_image(image, {.line_limit = 10, .progress = {}});
        const check_result side_by_side =
            check_image(again, {.line_limit = 10, .threads = 3, .piece_bytes = 20'000, .progress = {}});
        EXPECT_EQ(lines(side_by_side), lines(found));
        EXPECT_EQ(side_by_side.records, found.records);
        EXPECT_EQ(side_by_side.trees_sound(), found.trees_sound());
        pieces = side_by_side.pieces;
        close(descriptor);
        return found;
    }
    static std::string lines(const check_result &found)
    {
        std::string text;
        for (const finding &each : found.report.problems()) text += each.line() + "\n";
        for (const std::string &line : found.report.notes()) text += "note: " + line + "\n";
        return text;
    }

    static std::string text(int64_t n, size_t length)
    {
        std::string bytes = host::numbered("%08ld", n) + (n % 3 == 0 ? "red " : n % 3 == 1 ? "blue" : "grey");
        while (bytes.size() < length) bytes += static_cast<char>('a' + (n + static_cast<int64_t>(bytes.size())) % 26);
        bytes.resize(length);
        return bytes;
    }

    spec indexed() const
    {
        return host::indexed(path(), {{.parts = {{0, 8}}}, {.parts = {{8, 4}}, .duplicates = true}}, 300);
    }
    // Two keys, a tree of two levels, free slots, records that moved and a hole.
    void make_indexed() const
    {
        spec made = indexed();
        made.keys.push_back({.parts = {{2, 6}, {8, 240}}});
        host::file f{made};
        ASSERT_TRUE(f.ok());
        for (int64_t n = 0; n < 500; ++n) ASSERT_GT(f.write(text(n * 37 % 500, 260), host::by_record()).value, 0);
        for (int64_t n = 100; n < 220; ++n) ASSERT_EQ(f.erase(host::by_key(text(n, 8))).value, 0);
        for (int64_t n = 0; n < 5; ++n) ASSERT_GT(f.rewrite(text(n, 299), host::by_record()).value, 0);
        ASSERT_EQ(f.close(), 0);
    }
    void make_empty_indexed() const { ASSERT_EQ(host::file{indexed()}.close(), 0); }
    void make_relative() const
    {
        host::file f{host::relative(path(), VFS_FORMAT_VARIABLE, 100)};
        for (int64_t n = 0; n < 300; ++n) ASSERT_GT(f.write(text(n, 20), host::by_rrn(n * 3)).value, 0);
        for (int64_t n = 10; n < 40; ++n) ASSERT_EQ(f.erase(host::by_rrn(n * 3)).value, 0);
        ASSERT_GT(f.rewrite(text(60, 90), host::by_rrn(180)).value, 0);
        ASSERT_EQ(f.close(), 0);
    }
    void make_flat() const
    {
        host::file f{host::flat(path(), VFS_FORMAT_VARIABLE, 200)};
        for (int64_t n = 0; n < 400; ++n) ASSERT_GT(f.write(text(n, 30 + static_cast<size_t>(n % 7))).value, 0);
        for (const int64_t n : {4, 5, 90, 398}) ASSERT_EQ(f.erase(host::by_rrn(n)).value, 0);
        for (const int64_t n : {6, 200}) ASSERT_GT(f.rewrite(text(n, 150), host::by_rrn(n)).value, 0);
        ASSERT_EQ(f.close(), 0);
    }
    void make_fixed() const
    {
        host::file f{host::flat(path(), VFS_FORMAT_FIXED, 50)};
        for (int64_t n = 0; n < 300; ++n) ASSERT_EQ(f.write(text(n, 50)).value, 50);
        for (const int64_t n : {0, 17, 250}) ASSERT_EQ(f.erase(host::by_rrn(n)).value, 0);
        ASSERT_EQ(f.close(), 0);
    }

    struct shape {
        const char *name;
        std::function<void()> make;
    };
    std::vector<shape> shapes() const
    {
        return {{"indexed", [this] { make_indexed(); }},
                {"empty indexed", [this] { make_empty_indexed(); }},
                {"relative", [this] { make_relative(); }},
                {"flat", [this] { make_flat(); }},
                {"fixed", [this] { make_fixed(); }}};
    }
    void make(const shape &which) const
    {
        unlink(path().c_str());
        unlink(path("new").c_str());
        unlink(path("new.rejects").c_str());
        which.make();
    }
};

#endif
