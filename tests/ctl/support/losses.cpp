#include "ctl/support/losses.h"

#include <sstream>

#include "ctl/support/check_run.h"
#include "ctl/support/everything.h"
#include "system/support/lab_sample.h"

static std::string ctl(const std::string& sample, const std::string& words) {
    return "env TARN_PLATFORM_CONF=" + sample + "/platform.conf " + TARN_CTL_PROGRAM + " " + words;
}

const std::vector<loss_row>& loss_rows() {
    static const std::vector<loss_row> rows = {
        {"swapped-maps", "mv $L0 x; mv $L1 $L0; mv x $L1", "S05", "LUN_0 LUN_1", true},
        {"deleted-map", "rm $L1", "S04", "LUN_1", true},
        {"old-map", "$LAB damage $PWD map-old --seed $SEED >../line", "S05", "", true},
        {"deleted-snapshot", "rm \"$(find $V/@Snapshot -type f | head -1)\"", "S04", "snapshot",
         true},
        {"missing-data-file", "rm $V/@EP/EP_DAT_00001", "S06", "", true},
        {"missing-first-data-file", "rm $V/@EP/EP_DAT_00000", "S06", "LUN_0 LUN_1", true},
        {"cut-data-file", "truncate -s 300M $V/@EP/EP_DAT_00000", "S06", "LUN_0 LUN_1", true},
        {"unmounted-volume", "mv $V gone; mkdir $V", "S04", "LUN_0 LUN_1", true},
        {"unplugged-volume", "mv $V gone", "S04", "LUN_0 LUN_1", true},
        {"forgotten-volume", "sed -i \"s# [^ ]*/$V##\" platform.conf", "S04", "LUN_0 LUN_1", true},
        {"cloned-volume",
         "cp -a $V volume9; sed -i \"s#^volumes = .*#& $PWD/volume9#\" platform.conf", "S08",
         "volume9", false},
        {"swapped-volumes", "mv volume1 x; mv volume2 volume1; mv x volume2", "S05", "", true},
        {"foreign-journal", "cp ../other/journal/EP_JNL journal/EP_JNL", "S07", "", true},
    };
    return rows;
}

static std::string in_sample(const std::string& sample, unsigned seed,
                             const std::string& commands) {
    return "cd " + sample + " && SEED=" + std::to_string(seed) + " LAB=" + TARN_LAB_PROGRAM +
           " && V=volume1 && L0=$V/@iSCSITrg/LUN_0/LUN_0_Extent_0 && "
           "L1=$V/@iSCSITrg/LUN_1/LUN_1_Extent_0 && { " +
           commands + "; }";
}

// The words that a finding of the code has to hold, in the text that people read.
static std::string named_problem(const std::string& text, const loss_row& row) {
    std::istringstream names(row.named);
    for (std::string name; names >> name;) {
        if (text.find(name) == std::string::npos) {
            return name + " is not named: " + text;
        }
    }
    return "";
}

// The map that tarn-lab made old: it says so in its first word.
static std::string old_map(const std::string& sample) {
    const std::string line = shell("cat " + sample + "/../line").text;
    const std::string path = line.substr(0, line.find(':'));
    return path.substr(path.find('/') + 1);
}

static std::string judge_check(const std::string& sample, const std::string& inventory,
                               const loss_row& row) {
    const check_run run = check_sample(sample, "--inventory " + inventory);
    const bool is_old = std::string(row.name) == "old-map";
    for (const seen_finding& seen : run.findings) {
        if (seen.code == row.code && seen.severity != "note" &&
            (!is_old || seen.file == old_map(sample))) {
            return run.status == 4 || run.status == 5
                       ? ""
                       : "exit " + std::to_string(run.status) + " of the check";
        }
    }
    return std::string("no ") + row.code + ", only " + run.codes();
}

static std::string judge_loss(const std::string& sample, const std::string& inventory,
                              const loss_row& row) {
    const std::string wrong = judge_check(sample, inventory, row);
    if (!wrong.empty()) {
        return wrong;
    }
    const ran compared = shell(ctl(sample, "inventory --compare " + inventory));
    if (compared.status != 4 && compared.status != 5) {
        return "exit " + std::to_string(compared.status) + " of the comparison: " + compared.text;
    }
    const std::string unnamed = named_problem(compared.text, row);
    if (!unnamed.empty()) {
        return unnamed;
    }
    const ran guarded = shell(ctl(sample, "guard --inventory " + inventory));
    if (guarded.status != (row.guard_stops ? 32 : 0)) {
        return "exit " + std::to_string(guarded.status) + " of the guard: " + guarded.text;
    }
    const ran written = shell(ctl(sample, "inventory --write " + inventory));
    return written.status == 32 ? "" : "a new inventory forgets it: " + written.text;
}

std::string try_loss(const loss_row& row, unsigned seed) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", seed, " --transactions 60");
    const std::string inventory = place.file("inventory");
    const bool is_foreign = std::string(row.name) == "foreign-journal";
    if (is_foreign) {
        (void)make_sample(place, "other", seed + 1, " --transactions 60 --crash");
    }
    const ran written = shell(ctl(sample, "inventory --write " + inventory));
    if (written.status != 0) {
        return "cannot write: " + written.text;
    }
    const ran lost = shell(in_sample(sample, seed, row.commands));
    if (lost.status != 0) {
        return lost.text.starts_with("tarn-lab:") ? "no place" : lost.text;
    }
    const auto before = everything(sample);
    const std::string wrong = judge_loss(sample, inventory, row);
    return !wrong.empty()                 ? wrong
           : everything(sample) == before ? "right"
                                          : "something was changed";
}
