// Where a state file may be written, and how.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "ctl/check/silence.h"
#include "ctl/check/state_file.h"
#include "ctl/own_place.h"
#include "ctl/text/escape.h"
#include "ctl/whole_file.h"

static void take_history(state_record* record, const state_record& before) {
    record->history = before.history;
    record->history.push_back(before.last);
    std::erase_if(record->history, [record](const state_moment& moment) {
        return moment.completed > record->last.completed;
    });
    std::stable_sort(record->history.begin(), record->history.end(),
                     [](const state_moment& one, const state_moment& other) {
                         return one.completed < other.completed;
                     });
    if (record->history.size() >= STATE_HISTORY_MAX) {
        const size_t surplus = record->history.size() - (STATE_HISTORY_MAX - 1);
        record->history.erase(record->history.begin(),
                              record->history.begin() + static_cast<ptrdiff_t>(surplus));
    }
}

static int refuse_state(const std::string& path, const std::string& reason) {
    return refuse("the state is not written to " + shown(path) + ": " + reason +
                  ". The result above holds.");
}

static int cannot_save(const std::string& path, int error) {
    return complain("cannot write the state to " + shown(path) + ": " + strerror(error) +
                    ". The result above holds.");
}

int save_state(const std::string& path, const check_report& report, const server_files& server) {
    std::string place;
    if (!find_place(path, &place)) {
        return cannot_save(path, errno);
    }
    const std::string problem = problem_of_place(place, server);
    if (!problem.empty()) {
        return refuse_state(path, problem);
    }
    const machine_identity here = this_machine();
    state_record record = state_of(report, here, static_cast<uint64_t>(time(nullptr)));
    const state_reading before = read_state(place, here);
    switch (before.kind) {
        case state_kind::known:
            take_history(&record, before.record);
            break;
        case state_kind::missing:
            break;
        case state_kind::damaged:
            (void)complain(shown(path) + ": " + before.reason +
                           ". It is replaced; its history is lost.");
            break;
        default:
            return refuse_state(path, before.reason + ". Move it away, or name another file");
    }
    return replace_file(place, state_text(record)) ? 0 : cannot_save(path, errno);
}

int save_state(const std::string& path, const check_report& report) {
    const quiet_log quiet;
    server_files server;
    std::string problem;
    return list_server(&server, &problem) ? save_state(path, report, server)
                                          : refuse_state(path, problem);
}
