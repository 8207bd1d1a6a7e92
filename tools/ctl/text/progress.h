// One line on a terminal about work that takes long: a bar, what is being looked at, the time so
// far and about how much is left. It goes to standard error and is gone when the work is done.
// Below: escape.h. Above: the commands.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>

// Units of work are the command's own: blocks of metadata, or bytes.
class progress_line {
public:
    using clock = std::chrono::steady_clock;

    // Nothing is ever printed unless `shown`. A test brings a clock of its own.
    explicit progress_line(bool shown, clock::time_point (*now)() = clock::now);
    progress_line(const progress_line&) = delete;
    progress_line& operator=(const progress_line&) = delete;
    ~progress_line() { clear(); }

    // Adds to what is to be done, all of it before the first did() if it is known by then.
    void plan(uint64_t units);
    // Draws the line if it is time to: first after half a second, then five times a second at most.
    // `what` is being looked at; its control characters are escaped already.
    void did(uint64_t units, const std::string& what);
    // Removes the line; the next did() may draw it again. Neither changes errno.
    void clear();

private:
    void draw(clock::time_point now, const std::string& what);

    clock::time_point (*now_)();
    bool shown_;
    bool drawn_ = false;
    uint64_t planned_ = 0;
    uint64_t done_ = 0;
    clock::time_point begin_;
    clock::time_point next_;
};

// A part of the planned work, reported by the position in it. What was left out counts at its end.
class progress_part {
public:
    // A null line is ignored. The line outlives the part.
    progress_part(progress_line* line, std::string what, uint64_t units)
        : line_(line), what_(std::move(what)), units_(units) {}
    progress_part(const progress_part&) = delete;
    progress_part& operator=(const progress_part&) = delete;
    ~progress_part() { reached(units_); }

    void reached(uint64_t units) {
        const bool is_far = units >= done_ + STEP || units == units_;
        if (is_far && units > done_ && units <= units_ && line_ != nullptr) {
            line_->did(units - done_, what_);
            done_ = units;
        }
    }

private:
    static constexpr uint64_t STEP = 1024;  // units that are not worth a look at the clock

    progress_line* line_;
    std::string what_;
    uint64_t units_;
    uint64_t done_ = 0;
};

// The line for a terminal of that many columns, at most one column less:
// "[######              ]  31 %  0:12, about 0:27 left  LUN_7". Without a bar if there is no room,
// and without what is left for the first two seconds.
std::string progress_text(const std::string& what, uint64_t done, uint64_t planned,
                          uint64_t seconds, size_t columns);
