// The campaign of `tarnctl export`: for each seed a sound and a crashed server, every LUN of them
// against the model, one of them also over NBD; and a damaged one, of which only what is damaged
// may be missing. Run by scripts/prove exports.
#include <filesystem>
#include <gtest/gtest.h>

#include "campaign/asked.h"
#include "ctl/support/export_run.h"
#include "ctl/support/nbd.h"
#include "system/support/lab_sample.h"

namespace fs = std::filesystem;

static constexpr const char* DAMAGES[] = {"map-node-bit", "three-entries", "torn-node",
                                          "two-bits",     "far-lpa",       "foreign-pool-row",
                                          "pool-uuid",    "map-truncated", "data-file-gap"};

class export_campaign {
public:
    void run(unsigned seed);

private:
    void judge(const std::string& what, const std::string& found) {
        counted_.count("command|export " + what + (found == "no place" ? "|no place" : "|judged"));
        if (!found.empty() && found != "no place") {
            right_ = false;
            ADD_FAILURE() << "violation|" << what << " " << seed_ << ": " << found
                          << "|scripts/prove exports 1 --seed " << seed_;
        }
    }
    std::string compare(const std::string& lun, const std::string& more, int most);
    std::string compare_all(const std::string& more, int most);
    std::string compare_nbd();
    std::string crashed();
    std::string damaged();

    figures counted_;
    scratch_dir place_;
    std::string sample_;
    unsigned seed_ = 0;
    bool right_ = true;
};

// "" or what is wrong. `most`: the highest exit status that is allowed.
std::string export_campaign::compare(const std::string& lun, const std::string& more, int most) {
    const std::string file = place_.file("x");
    const check_run run = export_on(sample_, sample_ + "/" + lun + " --force --to " + file + more);
    if (run.status != 0 && (run.status != most || most == 0)) {
        return lun + ": exit " + std::to_string(run.status) + " " + run.err + run.out;
    }
    if (!fs::exists(file)) {  // nothing is known of the LUN
        return run.err.find("the header of") != std::string::npos ? "" : lun + ": no file";
    }
    write_model(sample_, lun, place_.file("model"));
    const std::vector<byte_span> lost = spans_in(file + ".map", '-');
    const std::string wrong = difference(file, place_.file("model"), lost);
    fs::remove(file);
    return !wrong.empty()                      ? lun + ": " + wrong
           : lost.empty() != (run.status == 0) ? lun + ": status without a range"
                                               : "";
}

std::string export_campaign::compare_all(const std::string& more, int most) {
    for (const std::string& lun : luns_of(sample_)) {
        const std::string wrong = compare(lun, more, most);
        if (!wrong.empty()) {
            return wrong;
        }
    }
    return "";
}

std::string export_campaign::compare_nbd() {
    if (!why_no_nbd().empty()) {
        return "no place";
    }
    write_model(sample_, "volume1:LUN_0", place_.file("model"));
    const ran done = shell("timeout 60 nbdkit -U - " TARN_NBDKIT_PLUGIN " conf=" + sample_ +
                           "/platform.conf lun=" + sample_ +
                           "/volume1:LUN_0 --run 'qemu-img compare -f raw -F raw " +
                           place_.file("model") + " $uri' 2>&1");
    return done.text == "Images are identical.\n" ? "" : done.text;
}

std::string export_campaign::crashed() {
    const bool recovers = tarn_lab("expect " + sample_).text == "recovers\n";
    if (recovers) {
        return compare_all("", 0);
    }
    const std::string lun = luns_of(sample_)[0];
    const check_run run =
        export_on(sample_, sample_ + "/" + lun + " --to " + place_.file("refused"));
    return run.status == 32 && !fs::exists(place_.file("refused"))
               ? ""
               : "refused by replay, and exit " + std::to_string(run.status);
}

std::string export_campaign::damaged() {
    const char* kind = DAMAGES[seed_ % std::size(DAMAGES)];
    const ran done = damage(sample_, kind, seed_);
    if (done.status != 0) {
        return "no place";
    }
    const std::string wrong = compare_all(" --missing zero", 4);
    return wrong.empty() ? "" : std::string(kind) + ": " + wrong;
}

void export_campaign::run(unsigned seed) {
    seed_ = seed;
    right_ = true;
    sample_ = make_sample(place_, "s", seed, " --extents 700");
    judge("sound", compare_all("", 0));
    judge("nbd", compare_nbd());
    judge("damaged", damaged());
    fs::remove_all(sample_);
    sample_ = make_sample(place_, "s", seed, " --extents 700 --crash");
    judge("crashed", crashed());
    fs::remove_all(sample_);
    counted_.count(right_ ? "result|as the model says" : "result|wrong");
}

TEST(campaign, exports) {
    const seed_range seeds = asked_seeds();
    if (seeds.count == 0) {
        GTEST_SKIP() << "run by scripts/prove";
    }
    for (uint64_t seed = seeds.first; seed < seeds.first + seeds.count; seed++) {
        export_campaign().run(static_cast<unsigned>(seed));
    }
}
