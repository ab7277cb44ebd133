// An input as bytes that can be read more than once: widths, lengths and the order of keys are looked at before the
// first record is written. What cannot be read twice (a pipe) is first copied to a temporary file.
// Knows files; must not know what the bytes mean. Throws tool_error, and interruption when the user stops the reading.
#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

// A file without a name in $TMPDIR, or else /tmp; it is gone when it is closed.
std::FILE *open_temporary();

class text_input {
public:
    explicit text_input(const std::string &path);     // "-" is standard input
    static text_input of_text(std::string_view text); // which outlives the input

    static constexpr int end = EOF;
    int get()
    {
        const int c = getc_unlocked(file_.get());
        if (c == end) fail_unless_at_end();
        return c;
    }
    int peek()
    {
        const int c = get();
        if (c != end) ungetc(c, file_.get());
        return c;
    }
    bool line(std::string &into);           // without its newline; false at the end
    size_t read(char *into, size_t length); // fewer bytes only at the end
    void rewind();
    const std::string &path() const { return path_; }

private:
    struct closer {
        void operator()(std::FILE *stream) const
        {
            if (stream != stdin) std::fclose(stream);
        }
    };
    text_input() = default;
    void fail_unless_at_end() const;
    void copy_to_temporary();

    std::string path_;
    std::unique_ptr<std::FILE, closer> file_;
};
