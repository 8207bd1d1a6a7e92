// The next command of each finding. A rebuild believes the maps, a repair of a map blanks what it
// cannot read, a replay deletes the journal when it is done: none of them is recommended while
// another finding says that it would lose something.
#include <cstring>
#include <string_view>

#include "ctl/check/fold.h"
#include "ctl/text/escape.h"
#include "volume_layout.h"

static bool is_in_ep(const finding& of, const char* name) {
    return of.file == std::string(EP_DIR) + "/" + name;
}

static bool is_one_of(finding_code code, std::initializer_list<finding_code> codes) {
    for (const finding_code one : codes) {
        if (code == one) {
            return true;
        }
    }
    return false;
}

// A header or file that a rebuild replaces.
static bool is_lost_index(const finding& of) {
    using enum finding_code;
    return is_one_of(of.code, {H01, H02, H03, H05}) && is_in_ep(of, INDEX_NAME);
}

// A journal that has to be replayed first.
static bool is_pending(const finding& of, const check_report& report) {
    return of.code == finding_code::J01 && report.journal_status != "success";
}

// Whether a rebuild of the volume would free what a LUN needs, cannot run, or comes too early.
static bool keeps_from_rebuild(const finding& of, const check_report& report) {
    using enum finding_code;
    if (of.because != NO_CAUSE || is_lost_index(of)) {
        return false;
    }
    const bool is_lost =
        of.level >= severity::damage && is_one_of(of.code, {S04, S05, S06, S07, S08});
    return is_pending(of, report) || is_lost ||
           is_one_of(of.code, {H01, H02, H03, H05, M01, M05, M06, M07, M08, M11, R02, R04, R06,
                               R07, P01, P02, D01, D03, D05, J02, J03, J04, J08, S01, S02, X01});
}

// Whether a repair of the map's count would also blank entries, or comes too early.
static bool keeps_from_map_repair(const finding& of, const check_report& report) {
    using enum finding_code;
    return of.because == NO_CAUSE &&
           (is_pending(of, report) ||
            is_one_of(of.code, {H01, H03, M01, M05, J02, J03, J04, J08, X01}));
}

// Whether start-up replay would lose the evidence of something that is worse than an unclean end.
static bool keeps_from_replay(const finding& of, const check_report&) {
    return of.level >= severity::damage || of.code == finding_code::X01;
}

using keeps_from = bool (*)(const finding&, const check_report&);

// The first finding of the volume or of the whole server that forbids the command; null: none.
// `file`: if it is not empty, findings of the volume's other files do not count.
static const finding* obstacle_of(const check_report& report, const std::string& volume,
                                  const std::string& file, keeps_from forbids) {
    for (const finding& one : report.findings) {
        const bool concerns = volume.empty() || one.volume.empty() ||
                              (one.volume == volume && (file.empty() || one.file == file));
        if (concerns && forbids(one, report)) {
            return &one;
        }
    }
    return nullptr;
}

static const finding* obstacle_of(const check_report& report, const finding& of,
                                  std::string_view command) {
    if (command.starts_with("tarn --onekeyrepair")) {
        return obstacle_of(report, of.volume, "", keeps_from_rebuild);
    }
    if (command.starts_with("tarn --check-map") && command.ends_with(" --repair")) {
        return obstacle_of(report, of.volume, of.file, keeps_from_map_repair);
    }
    if (command.starts_with("tarn --startup-replay")) {
        return obstacle_of(report, "", "", keeps_from_replay);
    }
    return nullptr;
}

static void replace_all(std::string* text, std::string_view what, std::string_view by) {
    for (size_t at = text->find(what); at != std::string::npos;
         at = text->find(what, at + by.size())) {
        text->replace(at, what.size(), by);
    }
}

static std::string explain_command(const finding& of) {
    return std::string("tarnctl explain ") + finding_row_of(of.code)->name;
}

static std::string map_words(const finding& of) {
    std::string words = shell_word(of.volume + "/" + of.file);
    if (is_in_ep(of, UNMAP_BUFFER_NAME)) {
        words += " --unmap";
    } else if (is_in_ep(of, ROD_MAP_NAME)) {
        words += " --rod";
    }
    return words;
}

// The command with the paths of the finding.
static std::string with_paths(std::string command, const finding& of) {
    if (of.volume.empty()) {
        replace_all(&command, " --volume VOLUME", "");
    }
    const bool needs_map = command.find("MAP") != std::string::npos;
    const bool needs_volume = command.find("VOLUME") != std::string::npos;
    if ((needs_map && of.file.empty()) || ((needs_map || needs_volume) && of.volume.empty())) {
        return explain_command(of);
    }
    // At the only place, and once: a path may hold either word.
    const std::string map = needs_map ? map_words(of) : "";
    const std::string volume = shell_word(of.volume);
    if (needs_map) {
        replace_all(&command, "MAP", map);
    } else {
        replace_all(&command, "VOLUME", volume);
    }
    return command;
}

static std::string usual_command(const finding& of) {
    if (is_lost_index(of)) {
        return "tarn --onekeyrepair --volpath VOLUME";
    }
    std::string command = finding_row_of(of.code)->next;
    if (of.code == finding_code::M03 && is_in_ep(of, UNMAP_BUFFER_NAME)) {
        replace_all(&command, " --repair", "");  // its count may be right, and entries be hidden
    }
    return command;
}

void choose_next(check_report* report) {
    for (finding& one : report->findings) {
        if (!one.next.empty()) {
            continue;
        }
        const std::string command = usual_command(one);
        const finding* obstacle = obstacle_of(*report, one, command);
        one.next = obstacle == nullptr ? with_paths(command, one) : explain_command(*obstacle);
    }
}
