// The campaign of `tarnctl check`: for each seed every kind of damage, and some pairs, sound and
// crashed servers. Run by scripts/prove check.
#include <gtest/gtest.h>

#include "campaign/asked.h"
#include "ctl/support/damage_table.h"
#include "ctl/support/trials.h"

static constexpr unsigned OF_EACH = 20;  // sound and crashed servers for each seed

class check_campaign {
public:
    void run(unsigned seed);

private:
    void judge(const std::string& what, const std::string& found, unsigned seed) {
        counted_.count("command|check " + what + (found == "no place" ? "|no place" : "|judged"));
        if (found != "right" && found != "no place") {
            right_ = false;
            ADD_FAILURE() << "violation|" << what << " " << seed << ": " << found
                          << "|scripts/prove check 1 --seed " << seed_;
        }
    }

    figures counted_;
    unsigned seed_ = 0;
    bool right_ = true;
};

void check_campaign::run(unsigned seed) {
    seed_ = seed;
    right_ = true;
    for (const damage_row& row : damage_rows()) {
        judge(row.kind, try_damage(row.kind, seed), seed);
    }
    for (unsigned i = 0; i < OF_EACH; i++) {
        const unsigned number = seed * OF_EACH + i;
        bool differs = false;
        judge("clean", try_clean(number), number);
        judge("crash", try_crash(number, &differs), number);
        counted_.count(std::string("command|raw look|") + (differs ? "differs" : "clean"));
    }
    judge("pair", try_pair(seed), seed);
    counted_.count(right_ ? "result|as the damages say" : "result|wrong");
}

TEST(campaign, check) {
    const seed_range seeds = asked_seeds();
    if (seeds.count == 0) {
        GTEST_SKIP() << "run by scripts/prove";
    }
    check_campaign campaign;
    for (uint64_t seed = seeds.first; seed < seeds.first + seeds.count; seed++) {
        campaign.run(static_cast<unsigned>(seed));
    }
}
