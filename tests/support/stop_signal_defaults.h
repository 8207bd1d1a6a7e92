// The tests may be run in the background or under nohup, where some stop signals are ignored.
#pragma once

#include <csignal>
#include <initializer_list>

// Alive: SIGINT, SIGTERM and SIGHUP have their default action, here and in programs started here.
class stop_signal_defaults {
public:
    stop_signal_defaults() {
        for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
            before_[number] = signal(number, SIG_DFL);
        }
    }
    ~stop_signal_defaults() {
        for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
            signal(number, before_[number]);
        }
    }
    stop_signal_defaults(const stop_signal_defaults&) = delete;
    stop_signal_defaults& operator=(const stop_signal_defaults&) = delete;

private:
    void (*before_[32])(int) = {};
};
