#include "fri/fri_journal.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "fri/fri_file.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/pool_files.h"
#include "support/stdout_capture.h"

class fri_journal : public testing::Test {
protected:
    ~fri_journal() override { fri_mismatch_report = 0; }

    pool_files pool_;
};

TEST_F(fri_journal, an_equal_entry_is_1_and_prints_the_recorded_one) {
    pool_.set_fri(5, 7, 0x1235, 0xD000);
    const fri_entry entry{7, 0x1235, 0xD000};
    fri_mismatch_report = 1;
    stdout_capture out;
    EXPECT_EQ(fri_entry_check(&entry, 5), 1);
    EXPECT_EQ(out.text(),
              "TARN_INFO: FRI JOURNAL : next 21474836487 head 291 free_count 4096 @group 5\n");
}

TEST_F(fri_journal, a_difference_in_any_field_is_0_and_shown_when_the_report_is_on) {
    pool_.set_fri(5, 7, 0x1235, 0xD000);
    const fri_entry others[] = {{8, 0x1235, 0xD000}, {7, 0x1234, 0xD000}, {7, 0x1235, 0x9000}};
    for (const fri_entry& other : others) {
        stdout_capture out;
        EXPECT_EQ(fri_entry_check(&other, 5), 0);
        EXPECT_EQ(out.text().find("MISSMATCH"), std::string::npos);
    }
    fri_mismatch_report = 1;
    stdout_capture out;
    EXPECT_EQ(fri_entry_check(&others[2], 5), 0);
    EXPECT_EQ(out.text(),
              "TARN_INFO: FRI JOURNAL : next 21474836487 head 291 free_count 4096 @group 5\n"
              "TARN_INFO: FRI ENTRY MISSMATCH: org ef_next1 7 ef_next2_freelisthead 4661 "
              "ef_count_attr 53248\n"
              "TARN_INFO: FRI ENTRY MISSMATCH: jnl ef_next1 7 ef_next2_freelisthead 4661 "
              "ef_count_attr 36864\n");
}

TEST_F(fri_journal, an_unreadable_entry_is_minus_1) {
    const fri_entry entry{};
    log_capture log;
    stdout_capture out;
    EXPECT_EQ(fri_entry_check(&entry, ~uint64_t{0}), -1);
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(log.lines().back(),
              "ERR: fri_entry_check(#) fri entry check fail, group_num "
              "18446744073709551615\n");
}

TEST_F(fri_journal, a_replayed_entry_is_written_and_a_failure_is_logged) {
    const fri_entry entry{7, 0x1235, 0xD000};
    EXPECT_EQ(fri_entry_replay(&entry, 5), 0);
    EXPECT_EQ(pool_.fri(5), "07 00 00 00 35 12 00 d0 ");
    log_capture log;
    EXPECT_EQ(fri_entry_replay(&entry, 0x1F800000), -1);
    EXPECT_EQ(log.lines().back(),
              "ERR: fri_entry_replay(#) fri entry replay fail, group_num 528482304\n");
}

TEST_F(fri_journal, only_a_record_that_initialises_its_group_links_its_list) {
    const fri_entry bare{0, 0, 0x4000};
    const fri_entry init{0, 0, 0x9000};
    EXPECT_EQ(fri_entry_replay_link(&init, &init, 1), 0);
    EXPECT_EQ(fri_entry_replay_link(&bare, &init, 1), 0);
    EXPECT_EQ(fri_entry_replay_link(&bare, &bare, 1), 0);
    EXPECT_EQ(pool_.tbl_file.size(), 1048576u);
    EXPECT_EQ(fri_entry_replay_link(&init, &bare, 1), 4096);
    EXPECT_EQ(pool_.tbl(4096), 1);
    EXPECT_EQ(pool_.tbl(8191), 0x1000);
    log_capture log;
    EXPECT_EQ(fri_entry_replay_link(&init, &bare, 0x1F800000), -1);
}

TEST_F(fri_journal, the_counters_compare_as_a_unit) {
    current_fri.header.fri_group_head = 9;
    fri_mismatch_report = 1;
    stdout_capture out;
    EXPECT_EQ(fri_var0_check(1000000, 9), 1);
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(fri_var0_check(1000001, 9), 0);
    EXPECT_EQ(fri_var0_check(1000000, 8), 0);
    EXPECT_EQ(out.text(),
              "TARN_INFO: FRI VAR0 MISSMATCH: org fri_free_count 1000000 group_head 9\n"
              "TARN_INFO: FRI VAR0 MISSMATCH: jnl fri_free_count 1000001 group_head 9\n"
              "TARN_INFO: FRI VAR0 MISSMATCH: org fri_free_count 1000000 group_head 9\n"
              "TARN_INFO: FRI VAR0 MISSMATCH: jnl fri_free_count 1000000 group_head 8\n");
    fri_mismatch_report = 0;
    EXPECT_EQ(fri_var0_check(1, 9), 0);
    EXPECT_EQ(out.text().find("jnl fri_free_count 1 "), std::string::npos);
}

TEST_F(fri_journal, replayed_counters_are_saved_at_once) {
    EXPECT_EQ(fri_var0_replay(77, 3), 0);
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(4100), 77u);
    EXPECT_EQ(pool_.fri_file.read_at<uint64_t>(4108), 3u);
    pool_.reload();
    log_capture log;
    for (uint64_t n = 1; n <= 6; n++) {  // seek and write of three nodes
        const io_fault_at fault(n, EIO);
        EXPECT_EQ(fri_var0_replay(78, 4), -1) << n;
    }
    const io_fault_at fault(7, EIO);
    EXPECT_EQ(fri_var0_replay(78, 4), 0);
}
