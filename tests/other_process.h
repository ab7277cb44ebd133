// A process that makes lock calls for a test, and asks the kernel what locks the test's own process has: the kernel
// tells a process nothing about its own. It ends with the test. May call the C library only.
#pragma once

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

class other_process {
public:
    explicit other_process(const std::string &path)
    {
        EXPECT_EQ(pipe2(questions_, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(answers_, O_CLOEXEC), 0);
        pid_ = fork();
        if (pid_ == 0) serve(path);
        close(questions_[0]);
        close(answers_[1]);
    }
    ~other_process()
    {
        close(questions_[1]);
        close(answers_[0]);
        waitpid(pid_, nullptr, 0);
    }
    other_process(const other_process &) = delete;
    other_process &operator=(const other_process &) = delete;

    // ask() is the two halves of a call together: 0, or its error number.
    void send(int command, short type, uint64_t start, uint64_t length)
    {
        message asked{command, {}};
        asked.lock.l_type = type;
        asked.lock.l_start = static_cast<off_t>(start);
        asked.lock.l_len = static_cast<off_t>(length);
        EXPECT_EQ(write(questions_[1], &asked, sizeof asked), ssize_t(sizeof asked));
    }
    int answer() { return receive().number; }
    int ask(int command, short type, uint64_t start, uint64_t length)
    {
        send(command, type, start, length);
        return answer();
    }
    // The lock that would keep this one out; its type is F_UNLCK when there is none.
    struct flock in_the_way(short type, uint64_t start, uint64_t length)
    {
        send(F_GETLK, type, start, length);
        return receive().lock;
    }
    uint32_t type_at(uint64_t offset) // of the lock that the test's process holds there
    {
        if (in_the_way(F_RDLCK, offset, 1).l_type != F_UNLCK) return F_WRLCK;
        return in_the_way(F_WRLCK, offset, 1).l_type != F_UNLCK ? F_RDLCK : F_UNLCK;
    }
    pid_t pid() const { return pid_; }

private:
    struct message {
        int number; // the command, or the error number of the answer
        struct flock lock;
    };
    message receive()
    {
        message told{-1, {}};
        EXPECT_EQ(read(answers_[0], &told, sizeof told), ssize_t(sizeof told));
        return told;
    }
    [[noreturn]] void serve(const std::string &path)
    {
        close(questions_[1]);
        const int fd = open(path.c_str(), O_RDWR);
        message call;
        while (read(questions_[0], &call, sizeof call) == ssize_t(sizeof call)) {
            call.number = fcntl(fd, call.number, &call.lock) == 0 ? 0 : errno;
            if (write(answers_[1], &call, sizeof call) != ssize_t(sizeof call)) break;
        }
        _exit(0);
    }
    int questions_[2], answers_[2];
    pid_t pid_;
};
