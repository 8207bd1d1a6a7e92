#include "volume/stop_signals.h"

#include <csignal>
#include <cstring>
#include <ctime>

#include "store/log.h"

static constexpr int STOP_SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};

struct stop_state {
    bool armed;
    bool logged;
    sigset_t watched;  // of the three, those that were blocked here
};
static stop_state state;

static bool is_ignored(int number) {
    struct sigaction now = {};
    return sigaction(number, nullptr, &now) == 0 && now.sa_handler == SIG_IGN;
}

void stop_signals_block() {
    if (state.armed) {
        return;
    }
    sigset_t before;
    sigprocmask(SIG_SETMASK, nullptr, &before);
    sigemptyset(&state.watched);
    for (const int number : STOP_SIGNALS) {
        if (!is_ignored(number) && sigismember(&before, number) == 0) {
            sigaddset(&state.watched, number);
        }
    }
    sigprocmask(SIG_BLOCK, &state.watched, nullptr);
    state.armed = true;
}

// The first of the watched signals that is pending; 0 for none.
static int pending_signal() {
    sigset_t pending;
    if (sigpending(&pending) != 0) {
        return 0;
    }
    for (const int number : STOP_SIGNALS) {
        if (sigismember(&state.watched, number) == 1 && sigismember(&pending, number) == 1) {
            return number;
        }
    }
    return 0;
}

bool stop_requested() {
    const int number = state.armed ? pending_signal() : 0;
    if (number != 0 && !state.logged) {
        log_err("signal %d (%s) stops this run\n", number, strsignal(number));
        state.logged = true;
    }
    return number != 0;
}

void stop_signals_forget() {
    if (!state.armed) {
        return;
    }
    const timespec at_once = {};
    while (pending_signal() != 0) {
        (void)sigtimedwait(&state.watched, nullptr, &at_once);
    }
    sigprocmask(SIG_UNBLOCK, &state.watched, nullptr);
    state = {};
}
