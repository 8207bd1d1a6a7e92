#include "ctl/text/progress.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <unistd.h>

#include "ctl/text/escape.h"
#include "ctl/text/terminal.h"

static constexpr std::chrono::milliseconds FIRST_DRAW{500};  // shorter work shows nothing
static constexpr std::chrono::milliseconds REDRAW{200};
static constexpr size_t BAR_WIDTH = 30;
static constexpr size_t BAR_WIDTH_MIN = 8;
static constexpr size_t NAME_WIDTH =
    24;  // of what is looked at: more of it only beside a whole bar
static constexpr uint64_t GUESS_AFTER = 2;  // seconds

static std::string time_words(uint64_t seconds) {
    char words[40];
    if (seconds < 3600) {
        snprintf(words, sizeof words, "%u:%02u", static_cast<unsigned>(seconds / 60),
                 static_cast<unsigned>(seconds % 60));
    } else {
        snprintf(words, sizeof words, "%u:%02u h", static_cast<unsigned>(seconds / 3600),
                 static_cast<unsigned>(seconds / 60 % 60));
    }
    return words;
}

static std::string bar(double share, size_t width) {
    const auto filled = static_cast<size_t>(share * static_cast<double>(width));
    return "[" + std::string(filled, '#') + std::string(width - filled, ' ') + "] ";
}

// At most `columns` characters of UTF-8, none of them cut.
static std::string cut(const std::string& text, size_t columns) {
    size_t end = 0;
    for (size_t characters = 0; end < text.size(); end++) {
        const bool begins = (static_cast<unsigned char>(text[end]) & 0xC0) != 0x80;
        if (begins && characters++ == columns) {
            break;
        }
    }
    return text.substr(0, end);
}

std::string progress_text(const std::string& what, uint64_t done, uint64_t planned,
                          uint64_t seconds, size_t columns) {
    const double share =
        planned == 0 ? 0 : std::min(1.0, static_cast<double>(done) / static_cast<double>(planned));
    char percent[8];
    snprintf(percent, sizeof percent, "%3u %%", static_cast<unsigned>(share * 100));
    std::string words = percent + ("  " + time_words(seconds));
    if (seconds >= GUESS_AFTER && share > 0) {
        const double left = static_cast<double>(seconds) * (1 - share) / share;
        words +=
            ", about " + time_words(static_cast<uint64_t>(std::min(left + 0.5, 1e9))) + " left";
    }
    constexpr size_t FRAME = 3;  // "[] "
    const size_t others = words.size() + 2 + std::min(columns_of(what), NAME_WIDTH) + FRAME + 1;
    if (columns >= others + BAR_WIDTH_MIN) {
        words = bar(share, std::min(BAR_WIDTH, columns - others)) + words;
    }
    words += "  " + what;
    return cut(words, columns - std::min<size_t>(columns, 1));
}

progress_line::progress_line(bool shown, clock::time_point (*now)())
    : now_(now), shown_(shown), begin_(now()), next_(begin_ + FIRST_DRAW) {
}

void progress_line::plan(uint64_t units) {
    planned_ += units;
}

void progress_line::did(uint64_t units, const std::string& what) {
    done_ += units;
    if (!shown_) {
        return;
    }
    const clock::time_point now = now_();
    if (now >= next_) {
        draw(now, what);
    }
}

void progress_line::draw(clock::time_point now, const std::string& what) {
    const int error = errno;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - begin_).count();
    const std::string text = progress_text(what, done_, planned_, static_cast<uint64_t>(seconds),
                                           terminal_columns(STDERR_FILENO, 80));
    fprintf(stderr, "\r%s\x1b[K", text.c_str());
    errno = error;
    drawn_ = true;
    next_ = now + REDRAW;
}

void progress_line::clear() {
    if (drawn_) {
        const int error = errno;
        fputs("\r\x1b[K", stderr);
        errno = error;
        drawn_ = false;
    }
}
