#include "ctl/support/trials.h"

#include <iterator>

#include "ctl/support/damage_table.h"
#include "ctl/support/everything.h"
#include "system/support/lab_sample.h"

static std::string first_line(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

// Codes that the sample has before it is damaged.
static std::set<std::string> notes_of(const std::string& sample) {
    std::set<std::string> notes;
    for (const seen_finding& seen : check_sample(sample).findings) {
        notes.insert(seen.code);
    }
    return notes;
}

static std::string words_of(const std::vector<damage_done>& done, const check_run& run,
                            const std::string& wrong) {
    if (wrong.empty()) {
        return "right";
    }
    std::string words = wrong + "; found: " + run.codes().substr(0, 300);
    for (const damage_done& one : done) {
        words += "; " + one.kind + ": " + one.line;
    }
    return words;
}

// Samples that differ in their sizes. A crashed one for the damage that a replay has to meet.
static std::string shape_for(const std::string& kind, unsigned seed) {
    static constexpr const char* SHAPES[] = {"", " --unfinalized", " --extents 700 --luns 5",
                                             " --volumes 3 --transactions 60"};
    const bool crash = kind == "journal-block-in-window" && seed % 2 == 1;
    return crash ? " --crash" : SHAPES[seed % std::size(SHAPES)];
}

std::string try_damage(const std::string& kind, unsigned seed) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", seed, shape_for(kind, seed));
    if (tarn_lab("expect " + sample).text != "recovers\n") {
        return "no place";  // its replay is refused without any damage
    }
    const std::set<std::string> notes = notes_of(sample);
    const ran damaged = damage(sample, kind, seed);
    if (damaged.status != 0) {
        return damaged.status == 1 ? "no place" : damaged.text;
    }
    const std::vector<damage_done> done = {{kind, first_line(damaged.text), sample}};
    const auto before = everything(sample);
    const check_run run = check_sample(sample);
    const std::string changed = everything(sample) == before ? "" : "something was changed; ";
    return words_of(done, run, changed + judge(done, run, notes));
}

// Kinds that do not undo each other.
static constexpr const char* PAIRS[] = {
    "index-block-bit",  "table-block-bit", "map-node-bit",   "reference-count",
    "list-loop",        "list-tail",       "free-count",     "mapped-count",
    "pool-table",       "alias",           "dangling",       "leak",
    "foreign-pool-row", "unsummed-node",   "index-open-end", "orphan-map",
    "data-file-gap",    "entry-behind-end"};

std::string try_pair(unsigned seed) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", seed);
    const std::set<std::string> notes = notes_of(sample);
    const bool apart = seed % 2 == 0;
    const size_t first = seed % std::size(PAIRS);
    const size_t second =
        (first + 1 + seed / std::size(PAIRS) % (std::size(PAIRS) - 1)) % std::size(PAIRS);
    std::vector<damage_done> done;
    for (const size_t kind : {first, second}) {
        const unsigned volume = apart && kind == second ? 2 : 1;
        const ran damaged = damage(sample, PAIRS[kind], 1 + (kind == first ? seed : seed + 7919),
                                   " --volume " + std::to_string(volume));
        if (damaged.status != 0) {
            return damaged.status == 1 ? "no place" : damaged.text;
        }
        done.push_back({PAIRS[kind], first_line(damaged.text), sample, volume});
    }
    const check_run run = check_sample(sample);
    return words_of(done, run, apart ? judge(done, run, notes) : judge_mixed(done, run, notes));
}

static constexpr unsigned WAYS = 3;  // to be clean

static unsigned volumes_of(unsigned seed) {
    return 1 + seed % 4;
}

std::string clean_shape(unsigned seed) {
    static constexpr unsigned EXTENTS[] = {3000, 1, 63, 64, 500, 5000, 12600};
    std::string words = " --volumes " + std::to_string(volumes_of(seed)) + " --luns " +
                        std::to_string(2 + seed / 4 % 5) + " --extents " +
                        std::to_string(EXTENTS[seed % std::size(EXTENTS)]);
    words += seed % 5 == 0 ? " --transactions 20" : "";
    words += seed % 2 == 0 ? " --unfinalized" : "";
    return words + (seed % WAYS == 2 ? " --crash" : "");
}

// "", or what did not work.
static std::string repair(const std::string& sample, unsigned seed) {
    if (seed % WAYS == 2) {
        return tarn_on(sample, "--startup-replay").status == 0 ? "" : "no recovery";
    }
    for (unsigned volume = 1; seed % WAYS == 1 && volume <= volumes_of(seed); volume++) {
        const std::string root = sample + "/volume" + std::to_string(volume);
        const ran repaired = tarn_on(sample, "--onekeyrepair --volpath " + root);
        if (repaired.status != 0) {
            return "no rebuild: " + repaired.text;
        }
    }
    return "";
}

static std::string notes_only(const check_run& run) {
    return run.status == 0 && run.complete && run.left_out.empty() && run.has_only_notes()
               ? "right"
               : "exit " + std::to_string(run.status) + ", found: " + run.codes();
}

std::string try_clean(unsigned seed) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", seed, clean_shape(seed));
    const bool refused = seed % WAYS == 2 && tarn_lab("expect " + sample).text != "recovers\n";
    if (refused) {
        return "no place";
    }
    const std::string problem = repair(sample, seed);
    return problem.empty() ? notes_only(check_sample(sample)) : problem;
}

std::string try_crash(unsigned seed, bool* differs) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", seed, " --crash");
    const bool recovers = tarn_lab("expect " + sample).text == "recovers\n";
    const auto before = everything(sample);
    const check_run run = check_sample(sample);
    const check_run raw = check_sample(sample, "--raw");
    *differs = !raw.has_only_notes();
    if (everything(sample) != before) {
        return "something was changed";
    }
    if (run.mode != (recovers ? "as-if-replayed" : "as-found") || raw.mode != "raw") {
        return "mode " + run.mode + ", raw " + raw.mode;
    }
    if (recovers) {
        return run.has("J08") ? "J08" : notes_only(run);
    }
    bool only_consequences = true;
    for (const seen_finding& seen : run.findings) {
        only_consequences = only_consequences &&
                            (seen.because != 0 || seen.code == "J08" || seen.severity == "note");
    }
    return run.has("J08") && only_consequences && run.status >= 4 && run.status <= 5
               ? "right"
               : "exit " + std::to_string(run.status) + ", found: " + run.codes();
}
