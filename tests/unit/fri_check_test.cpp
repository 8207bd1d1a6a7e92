#include "fri/fri_check.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "fri/fri_file.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/pool_files.h"
#include "support/stdout_capture.h"

class fri_check : public testing::Test {
protected:
    // An initialised group with one free extent, at offset 2, that links to group `next`.
    void set_group(uint64_t group, uint32_t next) {
        pool_.set_fri(group, next, 2 << 4, 0x8001);
        pool_.set_tbl(group * 4096 + 2, 0x1000);
    }

    pool_files pool_;
};

static std::string match_lines(uint64_t group) {
    const std::string number = std::to_string(group);
    const std::string lpa = std::to_string(group * 4096 + 2);
    return "TARN_INFO: TBL free start from group_num " + number + " group_offset 2 (lpa " + lpa +
           ")\n"
           "TARN_INFO: FREE_COUNT IS MATCH in TBL freelist, free count 1 check_free_count 1 "
           "group_num " +
           number + " group_offset 2 (lpa " + lpa + "), tail entry offset 2 (lpa " + lpa + ")\n";
}

TEST_F(fri_check, the_head_groups_list_is_checked) {
    set_group(5, 6);
    current_fri.header.fri_group_head = 5;
    stdout_capture out;
    EXPECT_EQ(fri_check_group_head(), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: FRI group_head 5 free_count 1\n" + match_lines(5));
    pool_.set_fri(5, 6, 2 << 4, 0x8002);
    EXPECT_EQ(fri_check_group_head(), -1);
}

TEST_F(fri_check, an_uninitialised_head_group_is_sound) {
    pool_.set_fri(0, 0, 0, 0x0003);
    stdout_capture out;
    EXPECT_EQ(fri_check_group_head(), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: FRI group_head 0 free_count 3\n");
}

TEST_F(fri_check, a_head_that_cannot_be_read_is_logged) {
    current_fri.header.fri_group_head = ~uint64_t{0};
    log_capture log;
    stdout_capture out;
    EXPECT_EQ(fri_check_group_head(), -1);
    EXPECT_EQ(log.lines().back(),
              "ERR: fri_check_group_head(#) fail to read fri , group_num "
              "18446744073709551615\n");
}

TEST_F(fri_check, every_listed_group_is_checked_up_to_the_first_uninitialised_one) {
    set_group(3, 1);
    set_group(1, 7);
    set_group(2, 0);  // not listed
    current_fri.header.fri_group_head = 3;
    log_capture log;
    stdout_capture out;
    EXPECT_EQ(fri_check_free_group_list(), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: FRI check free group list:\n" + match_lines(3) +
                              match_lines(1) + "TARN_INFO: FRI last group_num 7\n");
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(fri_check, the_first_bad_group_stops_the_walk) {
    set_group(3, 1);
    pool_.set_fri(1, 2, 0, 0x8002);
    current_fri.header.fri_group_head = 3;
    log_capture log;
    stdout_capture out;
    EXPECT_EQ(fri_check_free_group_list(), -1);
    EXPECT_EQ(log.count("NOT TAIL last entry in TBL freelist, group_num 1"), 1u);
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(fri_check, a_link_past_the_index_ends_the_list) {
    set_group(3, 0xFFFFFFFF);
    pool_.set_fri(3, 0xFFFFFFFF, (2 << 4) | 0xF, 0x8001);
    current_fri.header.fri_group_head = 3;
    stdout_capture out;
    EXPECT_EQ(fri_check_free_group_list(), 0);
    EXPECT_NE(out.text().find("TARN_INFO: FRI last group_num 68719476735\n"), std::string::npos);
}

TEST_F(fri_check, an_initialised_group_past_the_capacity_is_bad) {
    pool_.set_fri(0x1F800000, 0, 2 << 4, 0x8001);  // the file is longer than any index
    current_fri.header.fri_group_head = 0x1F800000;
    log_capture log;
    stdout_capture out;
    EXPECT_EQ(fri_check_free_group_list(), -1);
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(fri_check, a_group_that_cannot_be_read_is_logged_with_the_number_of_the_head) {
    const single_entry_path path;
    set_group(3, 1);
    current_fri.header.fri_group_head = 3;
    log_capture log;
    stdout_capture out;
    const io_fault_at fault(3, EIO, {io_call::read});  // entry 3, its list, entry 1
    EXPECT_EQ(fri_check_free_group_list(), -1);
    EXPECT_EQ(log.lines().back(),
              "ERR: fri_check_free_group_list(#) fail to read fri , group_num 3\n");
}

TEST_F(fri_check, a_looping_list_is_logged_whatever_its_shape) {
    for (uint32_t lead = 0; lead < 7; lead++) {      // groups before the loop
        for (uint32_t loop = 1; loop < 8; loop++) {  // groups of the loop
            for (uint32_t group = 0; group < lead + loop; group++) {
                set_group(group, group + 1 < lead + loop ? group + 1 : lead);
            }
            log_capture log;
            stdout_capture out;
            const io_fault_at reads(0, 0, {io_call::read});
            EXPECT_EQ(fri_check_free_group_list(), -1);
            EXPECT_EQ(log.lines(),
                      log_lines({"ERR: fri_check_free_group_list(#) error, group-list loops\n"}));
            EXPECT_LE(reads.calls(), 2 * 3 * (lead + loop)) << lead << " " << loop;
        }
    }
}
