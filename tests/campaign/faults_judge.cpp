#include "campaign/faults_judge.h"

#include "campaign/known_results.h"

static constexpr const char* JOURNAL = "journal/EP_JNL";
static constexpr size_t LINES_MORE = 5000;  // a replay logs each record that it cannot apply

using tree_lines = std::map<std::string, std::string>;

static bool has(const tree_lines& tree, const std::string& name) {
    return tree.count(name) != 0;
}

static bool ends_with(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// The journal is gone and may come back with its unsynced directory: the run logs that and fails.
static bool only_journal_may_return(const observed& got) {
    return got.run.status != 0 && got.run.hit.rfind("sync ", 0) == 0 &&
           ends_with(got.run.hit, "/journal");
}

static std::string lost_journal(const observed& undisturbed, const observed& got) {
    if (has(got.tree, JOURNAL) || only_journal_may_return(got)) {
        return "";
    }
    if (got.run.status != 0) {
        return has(undisturbed.tree, JOURNAL) ? "V1 the journal is gone"
                                              : "V1 the journal is gone although the run failed";
    }
    return got.tree != undisturbed.tree ? "V1 the journal is gone and the result is wrong" : "";
}

static std::string lost_table(const tree_lines& before, const observed& got) {
    for (const char* volume : {"volume1", "volume2"}) {
        for (const char* name : {"EP_TBL", "EP_FRI"}) {
            const std::string live = std::string(volume) + "/@EP/" + name;
            if (has(before, live) && !has(got.tree, live)) {
                return std::string("V2 no live ") + name;
            }
        }
    }
    return "";
}

static std::string wrong_success(const command_form& form, const observed& undisturbed,
                                 const observed& got) {
    if (got.run.status != 0) {
        return "";
    }
    if (undisturbed.run.status != 0) {
        return "V3 success, where the undisturbed run fails";
    }
    if (got.tree != undisturbed.tree) {
        return "V3 success, and the files are wrong";
    }
    return (form.traits & OUTPUT) != 0 && got.run.out != undisturbed.run.out
               ? "V3 success, and the output is wrong"
               : "";
}

static std::string misbehaved(const observed& undisturbed, const observed& got) {
    if (got.run.hung) {
        return "V4 does not end";
    }
    if (got.run.signal != 0) {
        return "V4 ended by a signal";
    }
    return got.run.log.size() > undisturbed.run.log.size() + LINES_MORE ? "V4 floods the log" : "";
}

verdict judge(const command_form& form, const tree_lines& before, const observed& undisturbed,
              const observed& got) {
    for (const std::string& result :
         {misbehaved(undisturbed, got), lost_journal(undisturbed, got), lost_table(before, got),
          wrong_success(form, undisturbed, got)}) {
        if (!result.empty()) {
            const char* reason = known_reason(form, result, undisturbed, got);
            return reason != nullptr ? verdict{std::string("known: ") + reason, false, true}
                                     : verdict{result, true, false};
        }
    }
    if (got.run.hit.empty()) {
        return {"the call was not reached", true, false};
    }
    return {got.run.status == undisturbed.run.status ? "as undisturbed" : "failed", false, false};
}
