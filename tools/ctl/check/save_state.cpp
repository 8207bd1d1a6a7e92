// Where a state file may be written, and how.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>

#include "ctl/check/silence.h"
#include "ctl/check/state_file.h"
#include "ctl/replace_file.h"
#include "ctl/text/escape.h"
#include "store/descriptor.h"

// The directory without links, and the whole path in it.
struct state_place {
    std::string directory;
    std::string path;
};

static bool find_place(const std::string& path, state_place* place) {
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    char real[PATH_MAX];
    if (name.empty() || name == "." || name == "..") {
        errno = EISDIR;
        return false;
    }
    if (io_real_path(directory.c_str(), real) == nullptr) {
        return false;
    }
    place->directory = real;
    place->path = (place->directory == "/" ? "" : place->directory) + "/" + name;
    return true;
}

static bool is_below(const std::string& path, const std::string& root) {
    return root == "/" || path == root || path.starts_with(root + "/");
}

static std::string real_path_of(const std::string& path) {
    char real[PATH_MAX];
    return io_real_path(path.c_str(), real) == nullptr ? path : real;
}

// Why nothing may be written there, whatever is there; empty: it may.
static std::string problem_of_place(const state_place& place, const server_files& server) {
    for (const volume_files& volume : server.volumes) {
        if (volume.state != volume_state::plain &&
            is_below(place.path, real_path_of(volume.root))) {
            return "it would lie in the volume " + shown(volume.root);
        }
    }
    if (!server.journal.empty() && (io_same_file(place.path.c_str(), server.journal.c_str()) != 0 ||
                                    place.path == real_path_of(server.journal))) {
        return "it is the journal";
    }
    struct stat64 status = {};
    if (io_lstat(place.path.c_str(), &status) != 0) {
        return errno == ENOENT ? "" : std::string("its status cannot be read: ") + strerror(errno);
    }
    return S_ISREG(status.st_mode) ? "" : "something is there that is no regular file";
}

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
    state_place place;
    if (!find_place(path, &place)) {
        return cannot_save(path, errno);
    }
    const std::string problem = problem_of_place(place, server);
    if (!problem.empty()) {
        return refuse_state(path, problem);
    }
    const machine_identity here = this_machine();
    state_record record = state_of(report, here, static_cast<uint64_t>(time(nullptr)));
    const state_reading before = read_state(place.path, here);
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
    return replace_file(place.directory, place.path, state_text(record)) ? 0
                                                                         : cannot_save(path, errno);
}

int save_state(const std::string& path, const check_report& report) {
    const quiet_log quiet;
    server_files server;
    std::string problem;
    return list_server(&server, &problem) ? save_state(path, report, server)
                                          : refuse_state(path, problem);
}
