// Power failures by the number: the sample of a seed is recovered exactly, or refused with nothing
// changed. The suite's own sample of them is power_failure, with the system tests.
#include <gtest/gtest.h>
#include <string>

#include "campaign/asked.h"
#include "campaign/workshop.h"
#include "system/support/shell.h"

// "", or what is wrong.
static std::string recover(const workshop& shop, bool recovers) {
    const program_run run = shop.run("--startup-replay");
    const int expected = recovers ? 0 : 255;
    if (run.status != expected) {
        return "exit " + std::to_string(run.status) +
               (run.log.empty() ? "" : ", " + run.log.back());
    }
    const ran checked = tarn_lab("verify " + shop.bench() + (recovers ? "" : " --refused"));
    return checked.status == 0 ? "" : checked.text.substr(0, checked.text.find('\n'));
}

TEST(campaign, crashes) {
    const seed_range seeds = asked_seeds();
    if (seeds.count == 0) {
        GTEST_SKIP() << "run by scripts/prove";
    }
    const workshop shop;
    figures counted;
    for (uint64_t seed = seeds.first; seed < seeds.first + seeds.count; seed++) {
        const bool recovers = shop.make("sample", "--crash --seed " + std::to_string(seed));
        shop.put_on_bench(shop.path("sample"));
        const std::string wrong = recover(shop, recovers);
        const std::string good = recovers ? "recovered exactly" : "refused, nothing changed";
        counted.count("command|startup-replay|crashes");
        counted.count("result|" + (wrong.empty() ? good : "wrong"));
        if (!wrong.empty()) {
            ADD_FAILURE() << "violation|" << wrong << "|scripts/prove crashes 1 --seed " << seed;
        }
    }
}
