#include "volume/consistency.h"

#include <gtest/gtest.h>
#include <string>

#include "cli/operations.h"
#include "fri/fri_file.h"
#include "jnl/jnl_file.h"
#include "journal_status.h"
#include "options.h"
#include "support/log_capture.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_file.h"

class consistency : public testing::Test {
protected:
    consistency() {
        make_sample_volume(volumes_.volume(1), 0x11);
        make_jnl(jnl_, JNL_STATUS_SUCCESS, {});
        set(opt_ctx.fripath, fri_);
        set(opt_ctx.tblpath, tbl_);
        set(opt_ctx.jnlpath, jnl_);
    }

    static void set(char* field, const std::string& path) {
        snprintf(field, PATH_TEXT_SIZE, "%s", path.c_str());
    }

    // Group 0 initialised with head 0 and `free_count`; all its extents in use but 4094 and 4095,
    // which form a free list of two that begins at 4094 while head says 0.
    void make_group(const std::string& volume, uint16_t head, uint16_t free_count) const {
        const uint16_t entry[4] = {1, 0, static_cast<uint16_t>(head << 4),
                                   static_cast<uint16_t>(0x8000 | free_count)};
        write_file_bytes(volume + "/@EP/EP_FRI", METADATA_DATA_OFFSET, entry, sizeof entry);
        const uint16_t used = 0x8001;
        for (uint64_t lpa = 0; lpa < 4094; lpa++) {
            write_tbl_word(volume, lpa, used);
        }
        write_tbl_word(volume, 4094, 4095);    // free, the next one is 4095
        write_tbl_word(volume, 4095, 0x1000);  // free, the tail
    }

    static void write_tbl_word(const std::string& volume, uint64_t lpa, uint16_t word) {
        write_file_bytes(volume + "/@EP/EP_TBL", (lpa / 252 + 2048) * 512 + lpa % 252 * 2, &word,
                         sizeof word);
    }

    static void expect_everything_closed() {
        EXPECT_EQ(current_fri.fd, 0);
        EXPECT_EQ(current_tbl.fd, 0);
        EXPECT_EQ(current_jnl.fd, 0);
    }

    std::string both() const { return "FRI " + fri_ + " TBL " + tbl_; }

    sample_volumes volumes_;
    const std::string fri_ = volumes_.volume(1) + "/@EP/EP_FRI";
    const std::string tbl_ = volumes_.volume(1) + "/@EP/EP_TBL";
    const std::string jnl_ = volumes_.journal();
    arguments none_{{}};
    stdout_capture out_;
    log_capture log_;
};

TEST_F(consistency, an_uninitialised_head_group_is_consistent) {
    EXPECT_EQ(check_metadata_consistent(none_.count(), none_.values()), 0);
    EXPECT_EQ(out_.text(), "TARN_INFO: CHECK " + both() + " CONSISTENT\n" +
                               "TARN_INFO: FRI group_head 0 free_count 0\n" +
                               "TARN_INFO: " + both() + " IS CONSISTENT\n");
    EXPECT_EQ(log_.lines(), log_lines({}));
    expect_everything_closed();
}

TEST_F(consistency, a_head_group_whose_list_matches_its_count_is_consistent) {
    make_group(volumes_.volume(1), 4094, 2);
    EXPECT_EQ(check_metadata_consistent(none_.count(), none_.values()), 0);
    EXPECT_TRUE(out_.text().ends_with("TARN_INFO: " + both() + " IS CONSISTENT\n"));
}

TEST_F(consistency, a_head_group_whose_list_does_not_match_is_reported) {
    make_group(volumes_.volume(1), 4094, 3);
    const auto before = file_bytes(tbl_, 0, METADATA_DATA_OFFSET + 64 * 512);
    EXPECT_EQ(check_metadata_consistent(none_.count(), none_.values()), -1);
    EXPECT_EQ(log_.last(), "ERR: check_metadata_consistent(#) " + both() + " IS IN-CONSISTENT\n");
    EXPECT_TRUE(file_bytes(tbl_, 0, METADATA_DATA_OFFSET + 64 * 512) == before);
    expect_everything_closed();
}

TEST_F(consistency, the_first_file_that_does_not_load_is_logged) {
    struct {
        char* field;
        const char* title;
    } files[] = {{opt_ctx.fripath, "FRI"}, {opt_ctx.tblpath, "TBL"}, {opt_ctx.jnlpath, "JNL"}};
    for (const auto& file : files) {
        const std::string kept = file.field;
        set(file.field, "/nowhere/file");
        EXPECT_EQ(check_metadata_consistent(none_.count(), none_.values()), -1);
        EXPECT_EQ(log_.last(), std::string("ERR: check_metadata_consistent(#) Fail to load ") +
                                   file.title + " /nowhere/file\n");
        expect_everything_closed();
        set(file.field, kept);
    }
    EXPECT_EQ(out_.text(), "");
}

TEST_F(consistency, all_volumes_skips_a_volume_that_lacks_one_of_the_three_files) {
    make_sample_volume(volumes_.volume(2), 0x22);
    remove(fri_.c_str());
    EXPECT_EQ(check_all_vol_metadata_consistent(none_.count(), none_.values()), 0);
    const std::string text = out_.text();
    EXPECT_NE(text.find("TARN_INFO: SKIP VAAI CONSISTENT CHECK, volume " + volumes_.volume(1) +
                        "\nTARN_INFO: CHECK FRI " + volumes_.volume(2) + "/@EP/EP_FRI TBL " +
                        volumes_.volume(2) + "/@EP/EP_TBL CONSISTENT\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(opt_ctx.volpath, volumes_.volume(2));
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(consistency, all_volumes_skips_every_volume_without_a_journal) {
    remove(jnl_.c_str());
    make_group(volumes_.volume(1), 4094, 3);
    EXPECT_EQ(check_all_vol_metadata_consistent(none_.count(), none_.values()), 0);
    EXPECT_NE(out_.text().find("TARN_INFO: SKIP VAAI CONSISTENT CHECK, volume " +
                               volumes_.volume(1) + "\n"),
              std::string::npos);
}

TEST_F(consistency, all_volumes_stops_at_the_first_inconsistent_one) {
    make_sample_volume(volumes_.volume(2), 0x22);
    make_group(volumes_.volume(1), 4094, 3);
    EXPECT_EQ(check_all_vol_metadata_consistent(none_.count(), none_.values()), -1);
    EXPECT_EQ(opt_ctx.volpath, volumes_.volume(1));
}

TEST_F(consistency, the_group_list_is_walked_to_the_first_uninitialised_group) {
    make_group(volumes_.volume(1), 4094, 2);  // its next group is 1
    EXPECT_EQ(check_freelist_consistent(), 0);
    const std::string text = out_.text();
    EXPECT_TRUE(text.starts_with("TARN_INFO: CHECK " + both() + " Free-List CONSISTENCY\n" +
                                 "TARN_INFO: FRI check free group list:\n"))
        << text;
    EXPECT_TRUE(
        text.ends_with("TARN_INFO: FRI last group_num 1\n"
                       "TARN_INFO: FreeList IS CONSISTENT\n"))
        << text;
    expect_everything_closed();
}

TEST_F(consistency, a_bad_group_on_the_list_is_reported) {
    make_group(volumes_.volume(1), 4094, 1);
    EXPECT_EQ(check_freelist_consistent(), -1);
    EXPECT_EQ(log_.last(), "ERR: check_freelist_consistent(#) FreeList IS IN-CONSISTENT\n");
    expect_everything_closed();
}

TEST_F(consistency, the_group_list_check_and_the_repair_need_both_files) {
    const std::string kept = opt_ctx.fripath;
    set(opt_ctx.fripath, "/nowhere/file");
    EXPECT_EQ(check_freelist_consistent(), -1);
    EXPECT_EQ(log_.last(), "ERR: check_freelist_consistent(#) Fail to load FRI /nowhere/file\n");
    EXPECT_EQ(fix_fri_tbl_metadata_to_consistent(), -1);
    EXPECT_EQ(log_.last(),
              "ERR: fix_fri_tbl_metadata_to_consistent(#) Fail to load FRI /nowhere/file\n");
    set(opt_ctx.fripath, kept);
    set(opt_ctx.tblpath, "/nowhere/file");
    EXPECT_EQ(check_freelist_consistent(), -1);
    EXPECT_EQ(log_.last(), "ERR: check_freelist_consistent(#) Fail to load TBL /nowhere/file\n");
    EXPECT_EQ(fix_fri_tbl_metadata_to_consistent(), -1);
    EXPECT_EQ(log_.last(),
              "ERR: fix_fri_tbl_metadata_to_consistent(#) Fail to load TBL /nowhere/file\n");
    expect_everything_closed();
}

TEST_F(consistency, the_repair_links_a_free_extent_that_is_on_no_list_and_then_finds_nothing) {
    make_group(volumes_.volume(1), 4094, 2);
    write_tbl_word(volumes_.volume(1), 10, 0);  // free, on no list
    EXPECT_EQ(fix_fri_tbl_metadata_to_consistent(), 0);
    EXPECT_EQ(out_.text().find("FreeList"), std::string::npos);
    EXPECT_EQ(check_freelist_consistent(), 0);
    EXPECT_EQ(check_metadata_consistent(none_.count(), none_.values()), 0);
    EXPECT_EQ(tbl_word_of(tbl_, 10), 4094);  // links to the next free extent
    const auto entry = file_bytes(fri_, METADATA_DATA_OFFSET, 8);
    EXPECT_EQ(entry[4] | entry[5] << 8, 10 << 4);
    EXPECT_EQ(entry[6] | entry[7] << 8, 0x8000 | 3);

    const auto repaired_tbl = file_bytes(tbl_, 0, METADATA_DATA_OFFSET + 64 * 512);
    const auto repaired_fri = file_bytes(fri_, 0, METADATA_DATA_OFFSET + 64 * 512);
    EXPECT_EQ(fix_fri_tbl_metadata_to_consistent(), 0);
    EXPECT_TRUE(file_bytes(tbl_, 0, METADATA_DATA_OFFSET + 64 * 512) == repaired_tbl);
    EXPECT_TRUE(file_bytes(fri_, 0, METADATA_DATA_OFFSET + 64 * 512) == repaired_fri);
    expect_everything_closed();
}

TEST_F(consistency, a_failing_enumeration_is_a_failure) {
    volumes_.let_platform_fail();
    EXPECT_EQ(check_all_vol_metadata_consistent(none_.count(), none_.values()), -1);
    EXPECT_EQ(log_.last(), "ERR: check_all_vol_metadata_consistent(#) Fail to enum all volumes\n");
}
