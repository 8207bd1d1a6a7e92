#include "ctl/punch/gate.h"

#include <algorithm>
#include <cstring>

#include "ctl/check/place_words.h"
#include "ctl/text/escape.h"
#include "platform.h"

// Findings that are no damage, and still keep from it: a map with other entries than it counts, or
// with entries that no count sees; a map that lies where nobody looks for it, whose extents may be
// free by now; a repair that is not finished.
static bool is_doubt_about_maps(finding_code code) {
    using enum finding_code;
    return code == M03 || code == M04 || code == M08 || code == M10 || code == M11 || code == S02 ||
           code == X01;
}

// The rest of the notes, and counts: lists and counts of the index are not asked which extents are
// free, and an extent that is counted too often is in use. What the journal's status says has words
// of its own.
static bool keeps_from_punching(const finding& of) {
    return of.level >= severity::damage || is_doubt_about_maps(of.code) ||
           (of.code == finding_code::S01 && of.level == severity::note);
}

static bool is_consequence(const finding& of, const check_report& report) {
    return of.because != NO_CAUSE &&
           keeps_from_punching(report.findings[static_cast<size_t>(of.because)]);
}

static void refuse_findings(const check_report& report, std::vector<punch_refusal>* refusals) {
    for (const finding& of : report.findings) {
        if (!keeps_from_punching(of) || is_consequence(of, report)) {
            continue;
        }
        const finding_row* row = finding_row_of(of.code);
        std::string words = subject_words(of) + ": " + row->sentence;
        if (!of.detail.empty()) {
            words += " " + shown(of.detail);
        }
        refusals->push_back({row->name, of.volume, words});
    }
}

static void refuse_journal(const server_look& look, const check_report& report,
                           std::vector<punch_refusal>* refusals) {
    if (look.state.server.journal.empty() ||
        look.state.server.journal_state == view_state::absent) {
        return;
    }
    if (!look.journal || report.journal_status.empty()) {
        refusals->push_back({"", "",
                             "The journal cannot be read: what it holds may change which "
                             "extents are free."});
    } else if (report.journal_status != "success" && report.journal_status != "init") {
        refusals->push_back({"J01", "",
                             "The journal's status is " + report.journal_status +
                                 ": the service runs, or was not shut down cleanly, or a replay "
                                 "failed."});
    }
}

// A volume that was not asked for is looked at no further.
static void refuse_missing(const server_look& look, std::vector<punch_refusal>* refusals) {
    for (const volume_files& volume : look.state.server.volumes) {
        const bool missing =
            volume.state == volume_state::missing || volume.state == volume_state::empty;
        if (missing && !volume.chosen) {
            refusals->push_back(
                {"S01", volume.root,
                 shown(volume.root) + ": the configuration names it, and it is missing or empty."});
        }
    }
}

// tarn punches extents of the platform's size, and would take another one's bytes.
static void refuse_sizes(const server_look& look, std::vector<punch_refusal>* refusals) {
    for (const volume_check& volume : look.state.volumes) {
        uint32_t size = 0;
        uint32_t shift = 0;
        if (volume.files->state == volume_state::sound &&
            (ORBAiSCSIVAAIExtentSizeAndShiftGet(volume.files->root.c_str(), &size, &shift) < 0 ||
             shift != volume.shift)) {
            refusals->push_back({"", volume.files->root,
                                 shown(volume.files->root) +
                                     ": the configuration and the table do not agree on the size "
                                     "of an extent, or none is known."});
        }
    }
}

std::vector<punch_refusal> refusals_of(const server_look& look, const check_report& report) {
    std::vector<punch_refusal> refusals;
    refuse_journal(look, report, &refusals);
    refuse_missing(look, &refusals);
    refuse_findings(report, &refusals);
    refuse_sizes(look, &refusals);
    for (const std::string& sentence : report.left_out) {
        refusals.push_back({"", "", "Not everything was looked at: " + shown(sentence)});
    }
    if (refusals.empty() && !report.complete) {
        refusals.push_back({"", "", "Not everything could be looked at."});
    }
    return refusals;
}
