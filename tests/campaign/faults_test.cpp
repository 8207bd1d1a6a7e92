// Runs of every command in which one system call fails, or all from one on: no journal and no table
// is lost, and no run with a wrong result succeeds.
#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "campaign/asked.h"
#include "campaign/dice.h"
#include "campaign/faults_judge.h"
#include "campaign/forms.h"
#include "campaign/samples.h"
#include "campaign/workshop.h"
#include "system/support/tree.h"

static constexpr uint64_t RUNS_A_TURN = 6;  // seeds that follow each other and share a form

// The forms in order of their turns. After each turn has come once, other samples are used.
static const std::vector<const command_form*>& turns() {
    static const std::vector<const command_form*> all = [] {
        std::vector<const command_form*> list;
        for (const command_form& form : command_forms()) {
            list.insert(list.end(), (form.traits & OFTEN) != 0 ? 3 : 1, &form);
        }
        return list;
    }();
    return all;
}

// A form on one sample, undisturbed.
struct baseline {
    uint64_t sample_seed;
    const command_form* form;
    std::map<std::string, std::string> before;
    observed undisturbed;
};

class fault_driver {
public:
    fault_driver() : samples_(shop_) {}
    void run(uint64_t seed);

private:
    void prepare(uint64_t seed);
    run_setup setup_of(const std::string& fault) const;
    observed observe(const run_setup& setup) const;
    std::string choose_fault(dice* rolls) const;
    bool table_is_sound() const;
    std::string without_root(std::string text) const;

    workshop shop_;
    sample_store samples_;
    figures figures_;
    const sample* sample_ = nullptr;
    std::unique_ptr<baseline> base_;
};

run_setup fault_driver::setup_of(const std::string& fault) const {
    const std::string volume = shop_.bench() + "/volume1";
    const std::string words =
        filled_in(base_->form->words, {{"v", volume},
                                       {"t", volume + "/@EP/EP_TBL"},
                                       {"f", volume + "/@EP/EP_FRI"},
                                       {"x", volume + "/@EP_FIX"},
                                       {"j", shop_.bench() + "/journal/EP_JNL"},
                                       {"m", shop_.bench() + "/" + sample_->map}});
    const std::string configuration =
        shop_.bench() +
        ((base_->form->traits & FIXED_SHIFT) != 0 ? "/shift.conf" : "/platform.conf");
    return {words, configuration, base_->form->input, fault, "", 0};
}

observed fault_driver::observe(const run_setup& setup) const {
    shop_.put_on_bench(sample_->tree);
    observed seen = {shop_.run(setup), {}};
    seen.tree = tree_of(shop_.bench());
    return seen;
}

// The undisturbed run, unless it is that of the previous seed.
void fault_driver::prepare(uint64_t seed) {
    const uint64_t turn = seed / RUNS_A_TURN;
    const command_form* form = turns()[turn % turns().size()];
    const uint64_t sample_seed = 1 + turn / turns().size();
    if (base_ != nullptr && base_->form == form && base_->sample_seed == sample_seed) {
        return;
    }
    sample_ = &samples_.get(form->sample, sample_seed);
    base_ = std::make_unique<baseline>();
    base_->sample_seed = sample_seed;
    base_->form = form;
    base_->before = tree_of(sample_->tree);
    base_->undisturbed = observe(setup_of(""));
    EXPECT_EQ(base_->undisturbed.run.signal, 0) << form->words;
    if (form->status != ANY) {
        EXPECT_EQ(base_->undisturbed.run.status, form->status) << form->words;
    }
}

std::string fault_driver::choose_fault(dice* rolls) const {
    const auto& calls = base_->undisturbed.run.calls;
    size_t kind = 0;
    do {
        kind = rolls->below(CALL_KINDS);
    } while (calls[kind] == 0);
    const uint64_t most = rolls->percent(20) ? std::min<uint64_t>(calls[kind], 8) : calls[kind];
    const uint64_t number = 1 + rolls->below(most);
    const bool transfers = kind == static_cast<size_t>(call_kind::read) ||
                           kind == static_cast<size_t>(call_kind::write);
    const std::string errors[] = {std::to_string(EIO), std::to_string(ENOSPC),
                                  std::to_string(EACCES), "short"};
    return std::string(CALL_NAMES[kind]) + ":" + std::to_string(number) + ":" +
           errors[rolls->below(transfers ? 4 : 3)] + (rolls->percent(50) ? ":once" : ":forever");
}

// Whether table and maps of the first volume agree, whether or not the journal is still there.
bool fault_driver::table_is_sound() const {
    return shop_.run("--fullck --volpath {w}/volume1").status == 0;
}

std::string fault_driver::without_root(std::string text) const {
    for (size_t at = 0; (at = text.find(shop_.bench(), at)) != std::string::npos;) {
        text.erase(at, shop_.bench().size());
    }
    return text;
}

void fault_driver::run(uint64_t seed) {
    prepare(seed);
    dice rolls(seed);
    const std::string fault = choose_fault(&rolls);
    const observed got = observe(setup_of(fault));
    verdict found = judge(*base_->form, base_->before, base_->undisturbed, got);
    if (found.is_known && std::string(base_->form->name) == "onekeyrepair" && !table_is_sound()) {
        found = {"V3 success, and the new table is not sound", true, false};
    }
    const std::string kind = fault.substr(0, fault.find(':'));
    figures_.count("command|" + std::string(base_->form->name) + "|" + kind);
    figures_.count("result|" + found.result);
    if (found.wrong) {
        const std::string last = got.run.log.empty() ? "" : got.run.log.back();
        ADD_FAILURE() << "violation|" << found.result << "|" << base_->form->words << "|" << fault
                      << "|" << without_root(got.run.hit) << "|exit " << got.run.status
                      << "|scripts/prove faults 1 --seed " << seed << "|" << without_root(last);
    }
}

class faults : public testing::TestWithParam<uint64_t> {};

static constexpr uint64_t TURNS_A_TEST = 10;
static constexpr uint64_t RUNS_OF_A_TURN = 3;  // of each turn's, in the suite

TEST_P(faults, lose_nothing_and_are_never_reported_as_success) {
    fault_driver driver;
    const uint64_t end = std::min<uint64_t>(GetParam() + TURNS_A_TEST, turns().size());
    for (uint64_t turn = GetParam(); turn < end; turn++) {
        for (uint64_t run = 0; run < RUNS_OF_A_TURN; run++) {
            driver.run(turn * RUNS_A_TURN + run);
        }
    }
}

// Every form once.
INSTANTIATE_TEST_SUITE_P(from_turn, faults,
                         testing::Range<uint64_t>(0, turns().size(), TURNS_A_TEST));

TEST(campaign, faults) {
    const seed_range seeds = asked_seeds();
    if (seeds.count == 0) {
        GTEST_SKIP() << "run by scripts/prove";
    }
    fault_driver driver;
    for (uint64_t seed = seeds.first; seed < seeds.first + seeds.count; seed++) {
        driver.run(seed);
    }
}

TEST(fault_campaign, an_undisturbed_run_is_the_same_every_time) {
    const workshop shop;
    sample_store samples(shop);
    for (const char* words : {"--startup-replay", "--onekeyrepair --volpath {w}/volume1"}) {
        const sample& crashed = samples.get(sample_kind::crashed, 1);
        observed seen[2] = {};
        for (observed& one : seen) {
            shop.put_on_bench(crashed.tree);
            one = {shop.run(words), tree_of(shop.bench())};
        }
        EXPECT_EQ(seen[0].run.status, 0);
        EXPECT_EQ(seen[0].run.out, seen[1].run.out);
        EXPECT_EQ(seen[0].run.log, seen[1].run.log);
        EXPECT_EQ(seen[0].run.calls, seen[1].run.calls);
        EXPECT_EQ(seen[0].tree, seen[1].tree);
    }
}
