#include "lab/progress.h"

#include <cstdio>
#include <unistd.h>

namespace lab {

constexpr uint64_t NONE_DRAWN = UINT64_MAX;

static void draw(progress* bar) {
    constexpr uint64_t WIDTH = 40;
    const uint64_t percent = bar->total == 0 ? 100 : bar->done * 100 / bar->total;
    if (!bar->shown || percent == bar->percent) {
        return;
    }
    bar->percent = percent;
    char cells[WIDTH + 1];
    for (uint64_t i = 0; i < WIDTH; i++) {
        cells[i] = i * 100 < percent * WIDTH ? '#' : '.';
    }
    cells[WIDTH] = '\0';
    (void)fprintf(stderr, "\r%-14s [%s] %3u%%", bar->what, cells, static_cast<unsigned>(percent));
}

progress progress_of_terminal() {
    return {isatty(STDERR_FILENO) == 1, "", 0, 0, NONE_DRAWN};
}

void progress_start(progress* bar, const char* what, uint64_t total) {
    *bar = {bar->shown, what, total, 0, NONE_DRAWN};
    draw(bar);
}

void progress_step(progress* bar) {
    bar->done++;
    draw(bar);
}

void progress_end(progress* bar) {
    if (bar->shown) {
        (void)fputs("\r\033[K", stderr);
    }
}

}  // namespace lab
