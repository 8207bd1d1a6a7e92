#include "volume/one_key.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include "fri/fri_file.h"
#include "map/map_file.h"
#include "options.h"
#include "support/log_capture.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_file.h"

namespace fs = std::filesystem;

// Volume 1 has one map, lea 0 in extent 1; its table is all noise. There is no journal.
class one_key : public testing::Test {
protected:
    one_key() { make_volume(1); }
    ~one_key() override {
        EXPECT_EQ(current_tbl.fd, 0);
        EXPECT_EQ(current_fri.fd, 0);
        EXPECT_EQ(current_map.fd, 0);
    }

    void make_volume(unsigned number) const {
        make_sample_volume(root(number), 0x11);
        make_dat(live("EP_DAT_00000", number), 0x77, 0);
        make_filled_map(map(number), 63, 1, {{0, 1}});
        set_tbl_word(live("EP_TBL", number), 1, 0x8009);
    }
    std::string root(unsigned number = 1) const { return volumes_.volume(number); }
    std::string live(const std::string& name, unsigned number = 1) const {
        return root(number) + "/@EP/" + name;
    }
    std::string map(unsigned number = 1) const { return root(number) + "/@iSCSITrg/LUN_Extent_1"; }

    sample_volumes volumes_;
    log_capture log_;
};

class one_key_repair_of_a_volume : public one_key {
protected:
    one_key_repair_of_a_volume() {
        snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", root().c_str());
    }
    int repair() {
        stdout_capture out;
        const int result = one_key_repair(words_.count(), words_.values(), 0);
        text_ = out.text();
        return result;
    }

    arguments words_{{}};
    std::string text_;
};

TEST_F(one_key_repair_of_a_volume, swaps_the_rebuilt_files_in_and_keeps_the_previous_ones) {
    set_fri_word(live("EP_FRI"), 0, 0x9000000000000005);
    EXPECT_EQ(repair(), 0);
    EXPECT_EQ(tbl_word_of(live("EP_TBL"), 1), 0x8001);
    EXPECT_EQ(fri_word_of(live("EP_FRI"), 0), 0x8fff000000000001);
    EXPECT_EQ(tbl_word_of(live("EP_TBL.bkp"), 1), 0x8009);
    EXPECT_EQ(fri_word_of(live("EP_FRI.bkp"), 0), 0x9000000000000005);
    EXPECT_FALSE(file_exists(root() + "/@EP_FIX"));
}

TEST_F(one_key_repair_of_a_volume, overwrites_an_older_backup) {
    make_tbl(live("EP_TBL.bkp"), uuid_of(0x55));
    EXPECT_EQ(repair(), 0);
    EXPECT_EQ(uuid_in(live("EP_TBL.bkp")), uuid_of(0x11));
}

TEST_F(one_key_repair_of_a_volume, works_without_a_live_index) {
    unlink(live("EP_FRI").c_str());
    EXPECT_EQ(repair(), 0);
    EXPECT_EQ(uuid_in(live("EP_FRI")), uuid_of(0x77));
    EXPECT_FALSE(file_exists(live("EP_FRI.bkp")));
}

TEST_F(one_key_repair_of_a_volume, is_not_stopped_by_a_journal_that_cannot_be_replayed) {
    EXPECT_EQ(repair(), 0);  // there is none
    EXPECT_TRUE(log_.has("Fail to load JNL"));
}

TEST_F(one_key_repair_of_a_volume, moves_no_live_file_when_the_reconstruction_fails) {
    make_filled_map(map(), 63, 0, {{0, 1}});
    EXPECT_EQ(repair(), -1);
    EXPECT_EQ(tbl_word_of(live("EP_TBL"), 1), 0x8009);
    EXPECT_TRUE(file_exists(live("EP_FRI")));
    EXPECT_FALSE(file_exists(live("EP_TBL.bkp")));
    EXPECT_FALSE(file_exists(live("EP_FRI.bkp")));
    EXPECT_FALSE(file_exists(root() + "/@EP_FIX"));
}

TEST_F(one_key_repair_of_a_volume, refuses_a_path_that_would_be_cut_before_it_touches_anything) {
    snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s/%s", root().c_str(),
             std::string(250, '/').c_str());
    EXPECT_EQ(repair(), -1);
    EXPECT_TRUE(log_.has("path does not fit"));
    EXPECT_EQ(text_, "");
}

class one_key_check : public one_key {
protected:
    int check(std::vector<std::string> options = {}) {
        arguments words(std::move(options));
        stdout_capture out;
        const int result = one_key_check_all_vol(words.count(), words.values(), 0);
        text_ = out.text();
        return result;
    }
    bool printed(const std::string& part) const { return text_.find(part) != std::string::npos; }

    std::string text_;
};

TEST_F(one_key_check, of_no_volume_passes) {
    fs::remove_all(root() + "/@EP");
    EXPECT_EQ(check(), 0);
}

TEST_F(one_key_check, passes_when_table_and_maps_agree_and_removes_its_directory) {
    set_tbl_word(live("EP_TBL"), 1, 0x8001);
    EXPECT_EQ(check(), 0);
    EXPECT_TRUE(printed("TARN_INFO: import volume " + root() + "\n"));
    EXPECT_TRUE(printed("TARN_INFO: mapped_cnt matched: (1), on-disk(1)\n"));
    EXPECT_TRUE(printed("TARN_INFO: CHECK FRI " + live("EP_FRI") + " TBL " + live("EP_TBL") +
                        " Free-List CONSISTENCY\n"));
    EXPECT_TRUE(text_.ends_with("TARN_INFO: FreeList IS CONSISTENT\n"));
    EXPECT_FALSE(file_exists(root() + "/@EP_CHK"));
}

TEST_F(one_key_check, fails_on_a_wrong_table_and_removes_its_directory) {
    EXPECT_EQ(check(), -1);
    EXPECT_TRUE(log_.has("TBL: refer-cnt mismatch, lpa(1), (old, new)=(9, 1)\n"));
    EXPECT_FALSE(file_exists(root() + "/@EP_CHK"));
}

TEST_F(one_key_check, tells_an_inconsistent_free_list_and_passes) {
    set_tbl_word(live("EP_TBL"), 1, 0x8001);
    set_fri_word(live("EP_FRI"), 0, 0x8005000000000000);  // five free extents from extent 0 on
    EXPECT_EQ(check(), 0);
    EXPECT_TRUE(log_.has("ERR: one_key_check_all_vol(#) FreeList IS IN-CONSISTENT\n"));
    EXPECT_FALSE(printed("FreeList IS CONSISTENT"));
}

TEST_F(one_key_check, goes_through_every_volume_and_stops_at_the_first_bad_one) {
    set_tbl_word(live("EP_TBL"), 1, 0x8001);
    make_volume(2);
    EXPECT_EQ(check(), -1);
    EXPECT_TRUE(printed("TARN_INFO: import volume " + root(1) + "\n"));
    EXPECT_TRUE(printed("TARN_INFO: import volume " + root(2) + "\n"));
    set_tbl_word(live("EP_TBL", 2), 1, 0x8001);
    EXPECT_EQ(check(), 0);
}

TEST_F(one_key_check, reads_its_options_where_the_first_replay_scans_them) {
    set_tbl_word(live("EP_TBL"), 1, 0x8001);
    make_filled_map(map(), 63, 5, {{0, 1}});
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(mapped_count_of(map()), 5u);
    EXPECT_EQ(check({"--repair"}), 0);
    EXPECT_EQ(mapped_count_of(map()), 1u);
}

TEST_F(one_key_check, an_option_that_names_a_volume_does_not_lead_it_to_another_one) {
    set_tbl_word(live("EP_TBL"), 1, 0x8001);
    EXPECT_EQ(check({"--volpath", "/nowhere"}), 0);
    EXPECT_TRUE(printed("TARN_INFO: import volume " + root() + "\n"));
}

TEST_F(one_key_check, fails_without_a_live_index) {
    set_tbl_word(live("EP_TBL"), 1, 0x8001);
    unlink(live("EP_FRI").c_str());
    EXPECT_EQ(check(), -1);
    EXPECT_TRUE(log_.has("ERR: one_key_check_all_vol(#) Fail to load FRI " + live("EP_FRI")));
}

// The first volume's replay reads the option; the second volume starts at the configured journal
// again.
TEST_F(one_key_check, takes_the_configured_journal_for_every_volume_anew) {
    set_tbl_word(live("EP_TBL"), 1, 0x8001);
    make_volume(2);
    set_tbl_word(live("EP_TBL", 2), 1, 0x8001);
    EXPECT_EQ(check({"--jnlpath", "/nowhere/EP_JNL"}), 0);
    const std::string fails = "Fail to load JNL ";
    EXPECT_TRUE(log_.has(fails + "/nowhere/EP_JNL\n"));
    EXPECT_TRUE(log_.has(fails + volumes_.journal() + "\n"));
}

TEST_F(one_key_check, looks_at_no_map_of_a_volume_whose_table_is_wrong) {
    EXPECT_EQ(check(), -1);
    EXPECT_FALSE(printed("data-node"));
    EXPECT_FALSE(printed("Free-List CONSISTENCY"));
}

TEST_F(one_key_check, takes_each_map_as_what_it_is) {
    set_tbl_word(live("EP_TBL"), 1, 0x8001);
    set_tbl_word(live("EP_TBL"), 2, 0x8001);
    make_filled_map(live("EP_BUF"), 63, 1, {{0, 2}, {5, 3}});  // ends at its first unmapped entry
    EXPECT_EQ(check(), 0);
    EXPECT_TRUE(printed("TARN_INFO: mapped_cnt matched: (1), on-disk(1)\n"));
    EXPECT_FALSE(printed("mismatched"));
}
