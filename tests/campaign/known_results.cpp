#include "campaign/known_results.h"

#include <iterator>

static bool same_files(const observed& undisturbed, const observed& got) {
    return got.tree == undisturbed.tree;
}

// The work directory of a finished rebuild stays, and nothing else differs.
static bool only_work_dir_left(const observed& undisturbed, const observed& got) {
    std::map<std::string, std::string> rest = got.tree;
    for (auto at = rest.begin(); at != rest.end();) {
        const bool is_work = at->first.find("/@EP_FIX") != std::string::npos ||
                             at->first.find("/@EP_CHK") != std::string::npos;
        at = is_work && undisturbed.tree.count(at->first) == 0 ? rest.erase(at) : std::next(at);
    }
    return rest.size() < got.tree.size() && rest == undisturbed.tree;
}

static bool replay_failed(const observed& /*undisturbed*/, const observed& got) {
    for (const std::string& line : got.run.log) {
        for (const char* name :
             {"replay_vol_journal(", "replay_fri_journal(", "replay_tbl_journal(",
              "replay_map_journal(", "/@EP_FIX: "}) {  // it is unknown whether a repair was cut
            if (line.find(name) != std::string::npos) {
                return true;
            }
        }
    }
    return false;
}

struct known_result {
    const char* command;  // begins with
    const char* result;   // begins with
    const char* hit;      // begins "KIND PATH" of the call that failed
    bool (*holds)(const observed& undisturbed, const observed& got);
    const char* reason;
};
static constexpr known_result known_results[] = {
    {"search", "V3", "", same_files, "a display that was reached counts as done"},
    {"search", "V4", "", same_files, "every entry of a group that cannot be shown has its line"},
    {"vaaick", "V3", "stat", same_files, "what is not certainly a regular file is no journal"},
    {"onekey", "V3", "", replay_failed, "a failed replay is logged and stops no one-key command"},
    {"", "V3", "spawn /bin/rm", only_work_dir_left,
     "a work directory stays, and all else is right"},
    {"", "V3", "stat", only_work_dir_left, "a work directory stays, and all else is right"},
};

static bool begins_with(const std::string& text, const char* begin) {
    return text.rfind(begin, 0) == 0;
}

const char* known_reason(const command_form& form, const std::string& result,
                         const observed& undisturbed, const observed& got) {
    for (const known_result& row : known_results) {
        if (begins_with(form.name, row.command) && begins_with(result, row.result) &&
            begins_with(got.run.hit, row.hit) && row.holds(undisturbed, got)) {
            return row.reason;
        }
    }
    return nullptr;
}
