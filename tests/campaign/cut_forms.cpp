#include "campaign/cut_forms.h"

#include <filesystem>

#include "system/support/shell.h"
#include "system/support/tree.h"

namespace fs = std::filesystem;
using enum sample_kind;

static constexpr const char* TABLE = "volume1/@EP/EP_TBL";
static constexpr const char* INDEX = "volume1/@EP/EP_FRI";
static constexpr const char* WORK_DIR = "volume1/@EP_FIX";

static std::string line_of(const tree_lines& tree, const std::string& name) {
    const auto found = tree.find(name);
    return found != tree.end() ? found->second : "not there";
}

static bool is_on_bench(const cut_case& cut, const std::string& name) {
    return fs::exists(cut.shop->bench() + "/" + name);
}

static std::string run_again(const cut_case& cut, const std::string& words) {
    const program_run run = cut.shop->run(words);
    if (run.status == 0) {
        return "";
    }
    const std::string last = run.log.empty() ? "" : ": " + run.log.back();
    return words + " exits with " + std::to_string(run.status) + last;
}

static std::string verify(const cut_case& cut, const std::string& words) {
    const ran checked = tarn_lab("verify " + cut.shop->bench() + words);
    return checked.status == 0 ? "" : "wrong: " + checked.text.substr(0, checked.text.find('\n'));
}

// ---- the journal's replay

// The volumes are as expected; the journal may be there.
static std::string verify_recovered(const cut_case& cut) {
    return cut.checked && tree_of(cut.shop->bench()) == *cut.after &&
                   !is_on_bench(cut, "journal/EP_JNL")
               ? ""
               : verify(cut, "");
}

static std::string judge_startup_replay(const cut_case& cut) {
    if (cut.finished && is_on_bench(cut, "journal/EP_JNL")) {
        return "an old journal is back after success";
    }
    if (cut.finished && !verify_recovered(cut).empty()) {
        return "after success " + verify_recovered(cut);
    }
    const std::string wrong = run_again(cut, cut.words);
    return wrong.empty() ? verify_recovered(cut) : wrong;
}

static std::string replay_and_verify(const cut_case& cut) {
    const std::string wrong = run_again(cut, "--startup-replay");
    return wrong.empty() ? verify(cut, "") : wrong;
}

static std::string judge_rpvjnl(const cut_case& cut) {
    const std::string wrong = run_again(cut, cut.words);
    return wrong.empty() ? replay_and_verify(cut) : wrong;
}

static std::string judge_onekeycheck(const cut_case& cut) {
    std::string wrong;
    do {  // a run that finds an old work directory removes it and fails
        const bool left =
            is_on_bench(cut, "volume1/@EP_CHK") || is_on_bench(cut, "volume2/@EP_CHK");
        wrong = run_again(cut, cut.words);
        if (!left) {
            break;
        }
    } while (!wrong.empty());
    return wrong.empty() ? replay_and_verify(cut) : wrong;
}

// ---- rebuilds

static std::string backup_of(const char* live) {
    return std::string(live) + ".bkp";
}

// Whether the bench holds what the undisturbed run leaves, which was checked, kept files ignored.
static bool is_as_after(const cut_case& cut, tree_lines now) {
    tree_lines after = *cut.after;
    for (tree_lines* tree : {&now, &after}) {
        tree->erase(backup_of(TABLE));
        tree->erase(backup_of(INDEX));
    }
    return now == after;
}

static std::string check_pair(const cut_case& cut) {
    if (cut.checked && is_as_after(cut, tree_of(cut.shop->bench()))) {
        return "";
    }
    const std::string volume = cut.shop->bench() + "/volume1";
    for (const std::string& words :
         {"--fullck --volpath " + volume,
          "--freeck --fripath " + volume + "/@EP/EP_FRI --tblpath " + volume + "/@EP/EP_TBL"}) {
        std::string wrong = run_again(cut, words);
        if (!wrong.empty()) {
            return wrong;
        }
    }
    return verify(cut, " --rebuilt");
}

// A run that finds an old work directory removes it and fails; the next one then passes.
static std::string run_up_to_twice(const cut_case& cut, bool may_fail_once) {
    std::string wrong = run_again(cut, cut.words);
    if (!wrong.empty() && may_fail_once) {
        wrong = run_again(cut, cut.words);
    }
    return wrong;
}

// Which of a pair of files holds what the undisturbed run leaves there.
static bool as_after(const cut_case& cut, const tree_lines& now, const std::string& name) {
    return line_of(now, name) == line_of(*cut.after, name);
}

static bool swap_is_complete(const cut_case& cut, const tree_lines& now) {
    return as_after(cut, now, TABLE) && as_after(cut, now, INDEX) &&
           as_after(cut, now, backup_of(TABLE)) && as_after(cut, now, backup_of(INDEX)) &&
           now.count(std::string(WORK_DIR) + "/swap") == 0;
}

static bool swap_has_begun(const cut_case& cut, const tree_lines& now) {
    const auto changed = [&](const char* live) {
        return as_after(cut, now, live) && line_of(*cut.before, live) != line_of(*cut.after, live);
    };
    return changed(TABLE) || changed(INDEX);
}

static std::string missing_live(const cut_case& cut, const tree_lines& now) {
    for (const char* live : {TABLE, INDEX}) {
        if (cut.before->count(live) != 0 && now.count(live) == 0) {
            return std::string("no live ") + live;
        }
    }
    return "";
}

// The originals, as they were when the swap began; without an original there is nothing to keep.
static std::string lost_original(const cut_case& cut, const tree_lines& now) {
    for (const char* live : {TABLE, INDEX}) {
        if (cut.before->count(live) != 0 && !as_after(cut, now, backup_of(live))) {
            return "the original is not kept in " + backup_of(live);
        }
    }
    return "";
}

static std::string left_behind(const tree_lines& now) {
    for (const std::string& name :
         {backup_of(TABLE) + ".new", backup_of(INDEX) + ".new", std::string(WORK_DIR)}) {
        if (now.count(name) != 0) {
            return name + " is left";
        }
    }
    return "";
}

static std::string judge_onekeyrepair(const cut_case& cut) {
    const tree_lines state = tree_of(cut.shop->bench());
    const bool complete = swap_is_complete(cut, state);
    if (!missing_live(cut, state).empty()) {
        return missing_live(cut, state);
    }
    if (cut.finished && !complete) {
        return "a repair that succeeded is not on the disk";
    }
    std::string wrong = run_up_to_twice(
        cut, state.count(WORK_DIR) != 0 && (complete || !swap_has_begun(cut, state)));
    if (!wrong.empty()) {
        return wrong;
    }
    const tree_lines now = tree_of(cut.shop->bench());
    wrong = complete ? "" : lost_original(cut, now);
    wrong = wrong.empty() ? left_behind(now) : wrong;
    return wrong.empty() ? check_pair(cut) : wrong;
}

static bool swap_is_open(const cut_case& cut) {
    return !swap_is_complete(cut, tree_of(cut.shop->bench()));
}

static std::string changed_live(const cut_case& cut, const tree_lines& now) {
    for (const char* live : {TABLE, INDEX}) {
        if (line_of(now, live) != line_of(*cut.before, live)) {
            return std::string("changed: ") + live;
        }
    }
    return "";
}

static void move_into_place(const cut_case& cut) {
    for (const char* name : {"/EP_TBL", "/EP_FRI"}) {
        fs::rename(cut.shop->bench() + "/" + WORK_DIR + name,
                   cut.shop->bench() + "/volume1/@EP" + name);
    }
}

static std::string judge_reconstruct(const cut_case& cut) {
    const std::string table = std::string(WORK_DIR) + "/EP_TBL";
    const std::string index = std::string(WORK_DIR) + "/EP_FRI";
    const tree_lines state = tree_of(cut.shop->bench());
    if (cut.finished && !(as_after(cut, state, table) && as_after(cut, state, index))) {
        return "a rebuild that succeeded is not on the disk";
    }
    std::string wrong = run_up_to_twice(cut, state.count(WORK_DIR) != 0);
    const tree_lines now = tree_of(cut.shop->bench());
    wrong = wrong.empty() ? changed_live(cut, now) : wrong;
    if (wrong.empty() && !(as_after(cut, now, table) && as_after(cut, now, index))) {
        wrong = "@EP_FIX is not complete";
    }
    if (!wrong.empty()) {
        return wrong;
    }
    move_into_place(cut);
    return check_pair(cut);
}

static bool always(const cut_case&) {
    return true;
}

static constexpr cut_form forms[] = {
    {"startup-replay", crashed, "--startup-replay", judge_startup_replay, always},
    {"startup-replay", read_only, "--startup-replay", judge_startup_replay, always},
    {"startup-replay", lone_crashed, "--startup-replay", judge_startup_replay, always},
    {"rpvjnl", crashed, "--rpvjnl", judge_rpvjnl, always},
    {"onekeycheck", crashed, "--onekeycheck", judge_onekeycheck, always},
    {"onekeyrepair", lone, "--onekeyrepair --volpath {w}/volume1", judge_onekeyrepair,
     swap_is_open},
    {"onekeyrepair", lone_crashed, "--onekeyrepair --volpath {w}/volume1", judge_onekeyrepair,
     swap_is_open},
    {"onekeyrepair", no_index, "--onekeyrepair --volpath {w}/volume1", judge_onekeyrepair,
     swap_is_open},
    {"onekeyrepair", noisy, "--onekeyrepair --volpath {w}/volume1", judge_onekeyrepair,
     swap_is_open},
    {"onekeyrepair", repaired, "--onekeyrepair --volpath {w}/volume1", judge_onekeyrepair,
     swap_is_open},
    {"reconstruct", lone, "--reconstruct --volpath {w}/volume1", judge_reconstruct, always},
    {"reconstruct", noisy, "--reconstruct --volpath {w}/volume1", judge_reconstruct, always},
};

std::span<const cut_form> cut_forms() {
    return forms;
}
