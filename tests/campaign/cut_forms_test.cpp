// The judges of cuts, on states that no cut may leave.
#include "campaign/cut_forms.h"

#include <filesystem>
#include <gtest/gtest.h>

#include "system/support/tree.h"

namespace fs = std::filesystem;

// A command that was run to its end on a sample; a test spoils what it left.
class spoiled_state : public testing::Test {
protected:
    spoiled_state() : samples_(shop_) {}
    void run(const char* name, sample_kind kind) {
        for (const cut_form& form : cut_forms()) {
            if (std::string(form.name) == name && form.sample == kind) {
                form_ = &form;
            }
        }
        const sample& made = samples_.get(kind, 1);
        sample_ = made.tree;
        before_ = tree_of(made.tree);
        shop_.put_on_bench(made.tree);
        EXPECT_EQ(shop_.run(form_->words).status, 0);
        after_ = tree_of(shop_.bench());
    }
    std::string judge(bool finished) {
        return form_->judge({&shop_, form_->words, &before_, &after_, true, finished});
    }
    std::string at(const std::string& name) const { return shop_.bench() + "/" + name; }

    workshop shop_;
    sample_store samples_;
    const cut_form* form_ = nullptr;
    std::string sample_;
    tree_lines before_;
    tree_lines after_;
};

TEST_F(spoiled_state, a_finished_replay_passes_and_its_old_journal_does_not) {
    run("startup-replay", sample_kind::crashed);
    EXPECT_EQ(judge(true), "");
    fs::copy(sample_ + "/journal/EP_JNL", at("journal/EP_JNL"));
    EXPECT_EQ(judge(false), "");
    fs::copy(sample_ + "/journal/EP_JNL", at("journal/EP_JNL"));
    EXPECT_EQ(judge(true), "an old journal is back after success");
}

TEST_F(spoiled_state, a_replay_whose_journal_is_gone_too_early_is_found) {
    run("startup-replay", sample_kind::crashed);
    shop_.put_on_bench(sample_);
    fs::remove(at("journal/EP_JNL"));
    EXPECT_EQ(judge(false).rfind("wrong: volume", 0), 0u) << judge(false);
}

TEST_F(spoiled_state, a_repair_without_a_live_file_is_found) {
    run("onekeyrepair", sample_kind::lone);
    EXPECT_EQ(judge(true), "");
    fs::remove(at("volume1/@EP/EP_FRI"));
    EXPECT_EQ(judge(false), "no live volume1/@EP/EP_FRI");
}

TEST_F(spoiled_state, a_repair_of_only_one_of_the_two_files_is_found) {
    run("onekeyrepair", sample_kind::lone);
    fs::rename(at("volume1/@EP/EP_FRI.bkp"), at("volume1/@EP/EP_FRI"));
    EXPECT_EQ(judge(true), "a repair that succeeded is not on the disk");
    EXPECT_EQ(judge(false), "the original is not kept in volume1/@EP/EP_TBL.bkp");
}

TEST_F(spoiled_state, a_rebuild_that_left_one_file_is_found) {
    run("reconstruct", sample_kind::noisy);
    fs::remove(at("volume1/@EP_FIX/EP_TBL"));
    EXPECT_EQ(judge(true), "a rebuild that succeeded is not on the disk");
    EXPECT_EQ(judge(false), "");  // the second run after this one rebuilds it
}

TEST_F(spoiled_state, a_rebuild_that_touched_a_live_file_is_found) {
    run("reconstruct", sample_kind::noisy);
    fs::resize_file(at("volume1/@EP/EP_TBL"), fs::file_size(at("volume1/@EP/EP_TBL")) + 512);
    EXPECT_EQ(judge(false), "changed: volume1/@EP/EP_TBL");
}
