// An inventory grows old: servers whose LUNs were deleted, recreated and trimmed since it was
// written, and which then crashed, must start. A map that is lost on such a server must stop it.
#include <gtest/gtest.h>

#include "campaign/asked.h"
#include "ctl/support/check_run.h"
#include "ctl/support/everything.h"
#include "system/support/lab_sample.h"

static ran ctl(const std::string& sample, const std::string& words) {
    return shell("env TARN_PLATFORM_CONF=" + sample + "/platform.conf " + TARN_CTL_PROGRAM + " " +
                 words);
}

// A map that has entries mapped, as the model has it after the recovery; of those the last one,
// which is a young one.
static std::string mapped_map(const std::string& sample) {
    const ran listed = shell(std::string(TARN_LAB_PROGRAM) + " maps " + sample +
                             " | awk '($3 == \"lun\" || $3 == \"snapshot\") && $6 > 0 {print $2}' "
                             "| tail -n 1");
    return listed.text.substr(0, listed.text.find('\n'));
}

static std::string judge_lost(const std::string& sample, const std::string& inventory) {
    const std::string map = mapped_map(sample);
    if (map.empty()) {
        return "";
    }
    EXPECT_EQ(shell("rm " + sample + "/" + map).status, 0);
    const check_run run = check_sample(sample, "--inventory " + inventory);
    const bool is_known =
        shell("grep -q '\"" + map.substr(map.find('/') + 1) + "\"' " + inventory).status == 0;
    if (run.status == 0) {
        return map + " is not missed: " + run.codes();
    }
    const ran guarded = ctl(sample, "guard --inventory " + inventory);
    return !is_known || guarded.status == 32
               ? ""
               : "the guard lets it start without " + map + ": " + run.codes();
}

// "right", "refused" if start-up replay would refuse, or what is wrong.
static std::string try_aged(unsigned seed) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", seed, " --transactions 60 --data 4");
    const std::string inventory = place.file("inventory");
    if (ctl(sample, "inventory --write " + inventory).status != 0) {
        return "cannot write an inventory";
    }
    const ran aged = tarn_lab("age " + sample + " --seed " + std::to_string(seed));
    if (aged.status != 0) {
        return aged.text;
    }
    if (tarn_lab("expect " + sample).text != "recovers\n") {
        return "refused";
    }
    const auto before = everything(sample);
    const ran guarded = ctl(sample, "guard --inventory " + inventory);
    if (guarded.status != 0) {
        return "the guard does not let it start: " + guarded.text;
    }
    const ran compared = ctl(sample, "inventory --compare " + inventory);
    if (compared.status != 0) {
        return "not only notes: " + compared.text;
    }
    if (everything(sample) != before) {
        return "something was changed";
    }
    const std::string wrong = judge_lost(sample, inventory);
    return wrong.empty() ? "right" : wrong;
}

TEST(aging, of_a_server_is_no_loss) {
    for (unsigned seed = 1; seed <= 6; seed++) {
        const std::string found = try_aged(seed);
        EXPECT_TRUE(found == "right" || found == "refused") << seed << ": " << found;
    }
}

TEST(campaign, aging) {
    const seed_range seeds = asked_seeds();
    if (seeds.count == 0) {
        GTEST_SKIP() << "run by scripts/prove";
    }
    figures counted;
    for (uint64_t seed = seeds.first; seed < seeds.first + seeds.count; seed++) {
        const std::string found = try_aged(static_cast<unsigned>(seed));
        const bool right = found == "right" || found == "refused";
        counted.count("command|guard|" + std::string(right ? found : "wrong"));
        counted.count(right ? "result|as it should be" : "result|wrong");
        EXPECT_TRUE(right) << "violation|" << seed << ": " << found
                           << "|scripts/prove aging 1 --seed " << seed;
    }
}
