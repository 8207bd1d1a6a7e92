// Recoveries and repairs during which the power fails anywhere, with any unsynced change lost: the
// next run reaches the result that the first one would have reached.
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>

#include "campaign/asked.h"
#include "campaign/cut_forms.h"
#include "campaign/dice.h"
#include "campaign/fates.h"
#include "campaign/power_cut.h"
#include "campaign/samples.h"
#include "campaign/workshop.h"
#include "system/support/shell.h"
#include "system/support/tree.h"

static constexpr uint64_t CUTS_A_FORM = 10;    // seeds that follow each other and share a form
static constexpr uint64_t TURNS_A_SAMPLE = 2;  // all forms this many times, then other samples

// A command on one sample, recorded to its end.
struct recorded {
    const cut_form* form;
    uint64_t sample_seed;
    tree_lines before;
    tree_lines after;
    cut_run run;
};

class cut_driver {
public:
    cut_driver() : samples_(shop_) {}
    void run(uint64_t seed);

private:
    void prepare(uint64_t seed);
    bool record(const cut_form* form, uint64_t sample_seed);
    program_run run_recorded(cut_run* run) const;
    std::string cut(const cut_run& run, dice* rolls, size_t* at) const;
    cut_case case_of(bool checked, bool finished) const;

    workshop shop_;
    sample_store samples_;
    figures figures_;
    recorded first_ = {nullptr, 0, {}, {}, {}};
};

cut_case cut_driver::case_of(bool checked, bool finished) const {
    return {&shop_, first_.form->words, &first_.before, &first_.after, checked, finished};
}

// Runs the command on the files on the bench; `run->before` is already a copy of them.
program_run cut_driver::run_recorded(cut_run* run) const {
    run->root = shop_.bench();
    run->files = identities_of(shop_.bench());
    const std::string recording = shop_.path("recording");
    program_run got = shop_.run({first_.form->words, "", "", "", recording, 0});
    run->operations = read_recording(recording);
    return got;
}

// Returns false if even an undisturbed run does not repair the sample.
bool cut_driver::record(const cut_form* form, uint64_t sample_seed) {
    const sample& made = samples_.get(form->sample, sample_seed);
    first_ = {form, sample_seed, tree_of(made.tree), {}, {}};
    first_.run.before = made.tree;
    shop_.put_on_bench(made.tree);
    EXPECT_EQ(run_recorded(&first_.run).status, 0) << form->name;
    first_.after = tree_of(shop_.bench());
    return form->judge(case_of(false, false)).empty();
}

void cut_driver::prepare(uint64_t seed) {
    const std::span<const cut_form> forms = cut_forms();
    const cut_form* form = &forms[seed / CUTS_A_FORM % forms.size()];
    uint64_t sample_seed = 1 + seed / (CUTS_A_FORM * forms.size() * TURNS_A_SAMPLE);
    if (first_.form == form && first_.sample_seed % 1000000 == sample_seed) {
        return;
    }
    for (int tries = 0; !record(form, sample_seed); tries++) {
        sample_seed += 1000000;
        ASSERT_LT(tries, 10) << "no sample is sound after an undisturbed " << form->name;
    }
}

// An operation that is not a write is rare, and often the one that matters.
static size_t choose_moment(const std::vector<operation>& operations, dice* rolls) {
    const size_t end = operations.size();
    std::vector<size_t> rare;
    for (size_t i = 0; i < end; i++) {
        if (operations[i].kind != op_kind::write) {
            rare.push_back(i);
        }
    }
    if (rolls->percent(10)) {
        return end;
    }
    return rare.empty() || rolls->percent(40) ? rolls->below(end + 1)
                                              : rare[rolls->below(rare.size())] + rolls->below(2);
}

// Puts the state after a cut on the bench; returns the choice in words.
std::string cut_driver::cut(const cut_run& run, dice* rolls, size_t* at) const {
    *at = choose_moment(run.operations, rolls);
    disk_past past = past_of(run, *at);
    const named_fate chosen = choose_fate(rolls, loose_ends(&past));
    std::filesystem::remove_all(shop_.bench());
    write_state(&past, chosen.decide, shop_.bench());
    return "before operation " + std::to_string(*at + 1) + " of " +
           std::to_string(run.operations.size()) + ", " + chosen.name;
}

void cut_driver::run(uint64_t seed) {
    prepare(seed);
    dice rolls(seed);
    size_t at = 0;
    std::string words = cut(first_.run, &rolls, &at);
    bool finished = at == first_.run.operations.size();
    if (rolls.percent(25) && first_.form->goes_on(case_of(true, finished))) {
        cut_run second;
        second.before = shop_.path("state");
        shop_.keep_bench("state");
        const program_run got = run_recorded(&second);
        words += "; then " + cut(second, &rolls, &at);
        finished = got.status == 0 && at == second.operations.size();
    }
    const std::string wrong = first_.form->judge(case_of(true, finished));
    figures_.count("command|" + std::string(first_.form->name) + "|cuts");
    figures_.count(std::string("result|") + (wrong.empty() ? "exact" : "wrong"));
    if (!wrong.empty()) {
        ADD_FAILURE() << "violation|" << wrong << "|" << first_.form->words << "|" << words
                      << "|scripts/prove cuts 1 --seed " << seed;
    }
}

static void run_all(const seed_range& seeds) {
    cut_driver driver;
    for (uint64_t seed = seeds.first; seed < seeds.first + seeds.count; seed++) {
        driver.run(seed);
    }
}

class cuts : public testing::TestWithParam<uint64_t> {};

static constexpr uint64_t CUTS_A_TEST = 2 * CUTS_A_FORM;

TEST_P(cuts, are_repaired_by_the_next_run) {
    run_all({GetParam(), CUTS_A_TEST});
}

// Every form once.
INSTANTIATE_TEST_SUITE_P(from_seed, cuts,
                         testing::Range<uint64_t>(0, CUTS_A_FORM* cut_forms().size(), CUTS_A_TEST));

TEST(campaign, cuts) {
    const seed_range seeds = asked_seeds();
    if (seeds.count == 0) {
        GTEST_SKIP() << "run by scripts/prove";
    }
    run_all(seeds);
}

// The marker of a swap holds the times of the live files, which differ from run to run.
static tree_lines without_times(tree_lines tree) {
    const auto marker = tree.find("volume1/@EP_FIX/swap");
    if (marker != tree.end()) {
        marker->second = "the marker";
    }
    return tree;
}

// The recording and the states built from it are complete: a run that is killed leaves what the
// state with nothing lost holds.
TEST(cut_campaign, a_state_with_nothing_lost_is_what_a_killed_run_leaves) {
    const workshop shop;
    sample_store samples(shop);
    const std::string words = "--onekeyrepair --volpath {w}/volume1";
    const sample& made = samples.get(sample_kind::lone_crashed, 1);
    cut_run run = {made.tree, shop.bench(), {}, {}};
    shop.put_on_bench(made.tree);
    run.files = identities_of(shop.bench());
    EXPECT_EQ(shop.run({words, "", "", "", shop.path("recording"), 0}).status, 0);
    run.operations = read_recording(shop.path("recording"));
    const size_t step = 1 + run.operations.size() / 40;
    for (size_t at = 0; at < run.operations.size(); at += step) {
        shop.put_on_bench(made.tree);
        EXPECT_EQ(shop.run({words, "", "", "", shop.path("other"), at + 1}).signal, SIGKILL);
        const tree_lines killed = without_times(tree_of(shop.bench()));
        std::filesystem::remove_all(shop.bench());
        disk_past past = past_of(run, at);
        write_state(&past, nullptr, shop.bench());
        EXPECT_EQ(without_times(tree_of(shop.bench())), killed) << "before operation " << at + 1;
    }
}
