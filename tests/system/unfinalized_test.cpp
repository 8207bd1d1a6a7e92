// Samples whose indexes were never finalized: their headers count the groups in use, not all that
// an index can have. The tool recovers, checks and rebuilds them like the others.
#include <gtest/gtest.h>

#include "support/sample_maps.h"
#include "system/support/lab_sample.h"
#include "system/support/tree.h"

static std::string index_of(const std::string& sample, unsigned number) {
    return sample + "/volume" + std::to_string(number) + "/@EP/EP_FRI";
}

static void expect_success(const ran& run) {
    EXPECT_EQ(run.status, 0) << run.text;
}

// One more than the highest group whose entry has bit 63; no sample reaches group 63.
static uint64_t groups_in_use(const std::string& index) {
    uint64_t count = 0;
    for (uint64_t group = 0; group < 63; group++) {
        count = (fri_word_of(index, group) >> 63) != 0 ? group + 1 : count;
    }
    return count;
}

TEST(unfinalized, the_header_counts_the_groups_in_use_and_nothing_else_differs) {
    for (unsigned seed = 1; seed <= 6; seed++) {
        const scratch_dir place;
        const std::string plain = make_sample(place, "plain", seed);
        const std::string other = make_sample(place, "other", seed, " --unfinalized");
        for (const unsigned number : {1u, 2u}) {
            EXPECT_EQ(fri_group_count_of(index_of(plain, number)), 0x1F800000u);
            EXPECT_EQ(fri_group_count_of(index_of(other, number)),
                      groups_in_use(index_of(other, number)));
        }
        EXPECT_EQ(changed_files(tree_of(plain), tree_of(other)),
                  (std::vector<std::string>{"lab.conf", "platform.conf", "volume1/@EP/EP_FRI",
                                            "volume2/@EP/EP_FRI"}));
    }
}

static void expect_checks_pass(const std::string& sample) {
    for (const unsigned number : {1u, 2u}) {
        const std::string root = sample + "/volume" + std::to_string(number);
        expect_success(tarn_on(sample, "--freeck --fripath " + root + "/@EP/EP_FRI --tblpath " +
                                           root + "/@EP/EP_TBL"));
        expect_success(tarn_on(sample, "--fullck --volpath " + root));
    }
}

TEST(unfinalized, a_crashed_sample_is_recovered_exactly) {
    unsigned recovered = 0;
    for (unsigned seed = 1; seed <= 20; seed++) {
        SCOPED_TRACE(seed);
        const scratch_dir place;
        const std::string sample = make_sample(place, "s", seed, " --crash --unfinalized");
        if (tarn_lab("expect " + sample).text != "recovers\n") {
            continue;
        }
        recovered++;
        expect_success(tarn_on(sample, "--startup-replay"));
        expect_success(tarn_lab("verify " + sample));
        expect_checks_pass(sample);
    }
    EXPECT_GE(recovered, 15u);
}

TEST(unfinalized, a_rebuild_finalizes_the_index) {
    for (unsigned seed = 1; seed <= 6; seed++) {
        SCOPED_TRACE(seed);
        const scratch_dir place;
        const std::string sample = make_sample(place, "s", seed, " --unfinalized");
        expect_success(tarn_lab("verify " + sample));
        expect_success(tarn_lab("verify " + sample + " --rebuilt"));
        expect_checks_pass(sample);
        expect_success(damage(sample, "index-lost", seed));
        expect_success(tarn_on(sample, "--onekeyrepair --volpath " + sample + "/volume1"));
        EXPECT_EQ(fri_group_count_of(index_of(sample, 1)), 0x1F800000u);
        expect_success(tarn_lab("verify " + sample + " --rebuilt"));
    }
}

TEST(unfinalized, a_wrong_group_count_is_a_difference_even_after_a_rebuild) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 5, " --unfinalized");
    const std::string index = index_of(sample, 1);
    const uint64_t count = fri_group_count_of(index);
    for (const uint64_t wrong : {count - 1, count + 1}) {
        set_header_u64(index, 64, 72, wrong);
        const std::string report = "volume1/@EP/EP_FRI: group count: expected " +
                                   std::to_string(count) + ", found " + std::to_string(wrong) +
                                   "\n";
        EXPECT_EQ(tarn_lab("verify " + sample).text, report);
        EXPECT_EQ(tarn_lab("verify " + sample + " --rebuilt").text, report);
    }
}
