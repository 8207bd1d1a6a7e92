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
        {"swapped-maps", "mv $L0 x; mv $L1 $L0; mv x $L1", "S05", "L0 L1", true},
        {"deleted-map", "rm $L1", "S04", "L1", true},
        {"old-map", "$LAB damage $PWD map-old --seed $SEED >../line", "S05", "", true},
        {"deleted-snapshot", "rm $SNAPSHOT", "S04", "snapshot", true},
        {"missing-data-file", "rm $V/@EP/EP_DAT_00001", "S06", "", true},
        {"missing-first-data-file", "rm $V/@EP/EP_DAT_00000", "S06", "all", true},
        {"cut-data-file", "truncate -s 300M $V/@EP/EP_DAT_00000", "S06", "past the cut", true},
        {"unmounted-volume", "mv $V gone; mkdir $V", "S04", "all", true},
        {"unplugged-volume", "mv $V gone", "S04", "all", true},
        {"forgotten-volume", "sed -i \"s# [^ ]*/$V##\" platform.conf", "S04", "all", true},
        {"cloned-volume",
         "cp -a $V volume9; sed -i \"s#^volumes = .*#& $PWD/volume9#\" platform.conf", "S08", "",
         false},
        {"swapped-volumes", "mv volume1 x; mv volume2 volume1; mv x volume2", "S05", "", true},
        {"foreign-journal", "cp ../other/journal/EP_JNL journal/EP_JNL", "S07", "", true},
    };
    return rows;
}

namespace {

// Maps of volume1 with mapped entries, below the sample.
struct sample_maps {
    std::vector<std::string> luns;
    std::vector<std::string> snapshots;
};

}  // namespace

static sample_maps maps_of(const std::string& sample) {
    sample_maps maps;
    std::istringstream lines(tarn_lab("maps " + sample).text);
    std::string volume;
    std::string path;
    std::string kind;
    std::string uuid;
    uint64_t total = 0;
    uint64_t mapped = 0;
    std::string rest;
    while (lines >> volume >> path >> kind >> uuid >> total >> mapped &&
           std::getline(lines, rest)) {
        if (volume == "volume1" && mapped > 0 && (kind == "lun" || kind == "snapshot")) {
            (kind == "lun" ? maps.luns : maps.snapshots).push_back(path);
        }
    }
    return maps;
}

static std::string in_sample(const std::string& sample, const sample_maps& maps, unsigned seed,
                             const std::string& commands) {
    return "cd " + sample + " && SEED=" + std::to_string(seed) + " LAB=" + TARN_LAB_PROGRAM +
           " V=volume1 L0='" + maps.luns[0] + "' L1='" + maps.luns[1] + "' SNAPSHOT='" +
           maps.snapshots[0] + "' && { " + commands + "; }";
}

static constexpr uint64_t CUT_SIZE = 300;  // MiB, of a data file; its first MiB holds no extent

static bool has_data_past(const std::string& map, uint64_t extent) {
    for (const uint64_t word : entries_of(map)) {
        const uint64_t lpa = word & 0xFFFFFFFFFFFF;
        if (word >> 63 != 0 && lpa >= extent) {
            return true;
        }
    }
    return false;
}

// What people call the LUN: its directory.
static std::string lun_name(const std::string& path) {
    const size_t end = path.rfind('/');
    return path.substr(path.rfind('/', end - 1) + 1, end - path.rfind('/', end - 1) - 1);
}

// The LUNs that have to be named.
static std::vector<std::string> names_for(const loss_row& row, const std::string& sample,
                                          const sample_maps& maps) {
    std::vector<std::string> names;
    const std::string wanted = row.named;
    if (wanted == "snapshot") {
        const std::string& path = maps.snapshots[0];
        return {"snapshot " + path.substr(path.rfind('/') + 1)};
    }
    for (size_t i = 0; i < maps.luns.size(); i++) {
        const bool is_meant =
            wanted.find("L" + std::to_string(i)) != std::string::npos || wanted == "all" ||
            (wanted == "past the cut" && has_data_past(sample + "/" + maps.luns[i], CUT_SIZE - 1));
        if (is_meant) {
            names.push_back(lun_name(maps.luns[i]));
        }
    }
    return names;
}

// The words that have to stand in the text that people read.
static std::string named_problem(const std::string& text, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
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
                              const loss_row& row, const std::vector<std::string>& names) {
    const std::string wrong = judge_check(sample, inventory, row);
    if (!wrong.empty()) {
        return wrong;
    }
    const ran compared = shell(ctl(sample, "inventory --compare " + inventory));
    if (compared.status != 4 && compared.status != 5) {
        return "exit " + std::to_string(compared.status) + " of the comparison: " + compared.text;
    }
    const std::string unnamed = named_problem(compared.text, names);
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
    const sample_maps maps = maps_of(sample);
    if (maps.luns.size() < 2 || maps.snapshots.empty()) {
        return "no place";
    }
    const std::vector<std::string> names = names_for(row, sample, maps);
    const bool is_foreign = std::string(row.name) == "foreign-journal";
    if (is_foreign) {
        const std::string other =
            make_sample(place, "other", seed + 1, " --transactions 60 --crash");
        if (tarn_lab("expect " + other).text != "recovers\n") {
            return "no place";  // its replay is refused on any server
        }
    }
    const ran written = shell(ctl(sample, "inventory --write " + inventory));
    if (written.status != 0) {
        return "cannot write: " + written.text;
    }
    const ran lost = shell(in_sample(sample, maps, seed, row.commands));
    if (lost.status != 0) {
        return lost.text.starts_with("tarn-lab:") ? "no place" : lost.text;
    }
    const auto before = everything(sample);
    const std::string wrong = judge_loss(sample, inventory, row, names);
    return !wrong.empty()                 ? wrong
           : everything(sample) == before ? "right"
                                          : "something was changed";
}
