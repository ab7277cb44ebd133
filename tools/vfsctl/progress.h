// A progress bar on standard error when that is a terminal, nothing otherwise: how much is done, how fast, and the time
// left at the mean rate so far; and the wish of the user to stop.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

class progress {
public:
    progress(std::string label, uint64_t total); // total 0: unknown, only the count is shown
    ~progress();                                 // clears the line
    progress(const progress &) = delete;
    progress &operator=(const progress &) = delete;

    void step()
    {
        if (++done_ >= next_look_) draw();
    }

    void reach(uint64_t done) // of work that is not counted in steps
    {
        done_ = done;
        if (terminal_) draw();
    }

private:
    void draw();
    std::string numbers(double seconds) const;

    std::string label_;
    uint64_t total_;
    uint64_t done_ = 0;
    uint64_t next_look_; // the clock is not asked at every step
    bool terminal_;
    bool drawn_ = false;
    std::chrono::steady_clock::time_point began_, last_draw_;
};

// The bars of work in several stages, one at a time.
class staged_progress {
public:
    void show(std::string_view what, uint64_t done, uint64_t total);
    void finish() { bar_.reset(); }

private:
    std::string what_;
    std::unique_ptr<progress> bar_;
};

// From the first call on, the first SIGINT or SIGTERM only asks long work to stop, so that files are closed in order;
// a second one ends the program.
void watch_for_interruption();
bool interrupted();
