#include "tbl/tbl_show.h"

#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>

#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/pool_files.h"
#include "support/stdout_capture.h"

TEST(tbl_show, an_entry_prints_its_three_fields) {
    stdout_capture out;
    const tbl_entry used{0xEFFF};  // bits 13 and 14 are not shown
    const tbl_entry tail{0x1000};
    show_tbl_entry(&used);
    show_tbl_entry(&tail);
    EXPECT_EQ(out.text(),
              "TARN_INFO: used[1] tail[0] count/next 4095\n"
              "TARN_INFO: used[0] tail[1] count/next 0\n");
}

TEST(tbl_show, a_missing_entry_is_logged) {
    log_capture log;
    stdout_capture out;
    show_tbl_entry(nullptr);
    EXPECT_EQ(log.lines(), log_lines({"ERR: show_tbl_entry(#) NULL pointer of tbl\n"}));
    EXPECT_EQ(out.text(), "");
}

TEST(tbl_show, an_lpa_and_a_group_with_offset_name_the_same_entry) {
    pool_files pool;
    pool.set_tbl(3 * 4096 + 5, 0x8002);
    stdout_capture out;
    EXPECT_EQ(show_tbl_lpa(12293), 0);
    EXPECT_EQ(show_tbl_group_offset(3, 5), 0);
    EXPECT_EQ(out.text(),
              "TARN_INFO: used[1] tail[0] count/next 2\n"
              "TARN_INFO: used[1] tail[0] count/next 2\n");
}

TEST(tbl_show, numbers_that_would_wrap_show_nothing) {
    pool_files pool;
    log_capture log;
    stdout_capture out;
    EXPECT_EQ(show_tbl_lpa(~uint64_t{0}), -1);
    EXPECT_EQ(show_tbl_group_offset(uint64_t{1} << 52, 0), -1);
    EXPECT_EQ(show_tbl_group_offset(1, ~uint64_t{0}), -1);
    EXPECT_EQ(list_tbl_group_freelist(~uint64_t{0}, true, false), -1);
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(log.count("no table holds group_num"), 3u);
}

TEST(tbl_show, an_entry_that_cannot_be_read_is_not_shown) {
    pool_files pool;
    log_capture log;
    stdout_capture out;
    const io_fault_at fault(1, EIO, {io_call::read});
    EXPECT_EQ(show_tbl_lpa(4), -1);
    EXPECT_EQ(out.text(), "");
}

// Group 1 with the list 7 -> 3 -> 4095, all other entries used.
static void lay_out_list(pool_files* pool) {
    pool->fill_group(1, 0x8001);
    pool->set_tbl(4096 + 7, 3);
    pool->set_tbl(4096 + 3, 4095);
    pool->set_tbl(4096 + 4095, 0x1000);
}

TEST(tbl_list, a_list_prints_in_its_order) {
    pool_files pool;
    lay_out_list(&pool);
    stdout_capture out;
    EXPECT_EQ(list_tbl_group_freelist(1, false, false), 0);
    EXPECT_EQ(out.text(),
              "TARN_INFO: LIST in Group 1\n"
              "TARN_INFO: [0] offset 7, LPA 4103\n"
              "TARN_INFO: [1] offset 3, LPA 4099\n"
              "TARN_INFO: [2] offset 4095, LPA 8191\n");
}

TEST(tbl_list, a_head_alone_prints_with_its_entry) {
    pool_files pool;
    lay_out_list(&pool);
    stdout_capture out;
    EXPECT_EQ(list_tbl_group_freelist(1, true, true), 0);
    EXPECT_EQ(out.text(),
              "TARN_INFO: LIST in Group 1\n"
              "TARN_INFO: [0] offset 7, LPA 4103\n"
              "TARN_INFO: used[0] tail[0] count/next 3\n");
}

TEST(tbl_list, a_list_that_begins_at_offset_0_is_reported_as_missing) {
    pool_files pool;
    pool.fill_group(1, 0x8001);
    pool.set_tbl(4096, 0x1000);
    stdout_capture out;
    EXPECT_EQ(list_tbl_group_freelist(1, true, false), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: NO freelist in Group 1\n");
}

TEST(tbl_list, several_heads_are_listed_in_ascending_order) {
    pool_files pool;
    lay_out_list(&pool);
    pool.set_tbl(4096 + 4000, 3);  // links to 3 as 7 does
    stdout_capture out;
    EXPECT_EQ(list_tbl_group_freelist(1, true, false), -1);
    EXPECT_EQ(out.text(),
              "TARN_INFO: List all multiple freelisthead in Group 1\n"
              "TARN_INFO: Group 1 offset 7 is freelisthead\n"
              "TARN_INFO: Group 1 offset 4000 is freelisthead\n");
}

TEST(tbl_list, a_list_without_a_tail_ends_after_4096_elements_in_red) {
    pool_files pool;
    lay_out_list(&pool);
    pool.set_tbl(4096 + 4095, 3);  // back to 3
    stdout_capture out;
    EXPECT_EQ(list_tbl_group_freelist(1, false, false), -1);
    const std::string text = out.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4098);
    EXPECT_NE(text.find("TARN_INFO: [4095] offset 3, LPA 4099\n"
                        "\033[31mTARN_RPT: error, more than 4096 element in FRI group 1\n\033[0m"),
              std::string::npos);
}

TEST(tbl_list, an_entry_that_cannot_be_read_ends_it) {
    const single_entry_path path;
    pool_files pool;
    lay_out_list(&pool);
    for (const uint64_t n : {1, 4096, 4097, 4099}) {  // the marking, then the walk
        log_capture log;
        stdout_capture out;
        const io_fault_at fault(n, EIO, {io_call::read});
        EXPECT_EQ(list_tbl_group_freelist(1, false, false), -1) << n;
        EXPECT_EQ(log.count("tbl read error"), 1u) << n;
    }
}

TEST(tbl_list, a_group_that_cannot_be_read_whole_is_read_entry_by_entry) {
    pool_files pool;
    lay_out_list(&pool);
    log_capture log;
    stdout_capture whole;
    ASSERT_EQ(list_tbl_group_freelist(1, true, false), 0);
    const std::string wanted = whole.text();
    stdout_capture out;
    const io_fault_at fault(1, EIO, {io_call::read});
    EXPECT_EQ(list_tbl_group_freelist(1, true, false), 0);
    EXPECT_EQ(out.text(), wanted);
    EXPECT_EQ(log.lines(), log_lines({}));
}
