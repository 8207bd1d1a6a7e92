// Hole punching by the built program, with its question answered through a pipe or not answered.
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "system/support/sandbox.h"

static constexpr const char* QUESTION = "Do you wants to PUCH the data?(YES/NO) [NO]: ";

// /volume1: six extents of a mebibyte; extents 0 and 2 are in use.
class punch_run : public testing::Test {
protected:
    punch_run() {
        make_sample_volume(root(), 0x11);
        make_dat(dat(), 0x11, 6);
        set_tbl_word(root() + "/@EP/EP_TBL", 0, 0x8001);
        set_tbl_word(root() + "/@EP/EP_TBL", 2, 0x8003);
    }

    std::string root() const { return box_.volume(1); }
    std::string dat() const { return root() + "/@EP/EP_DAT_00000"; }
    bool extent_is(uint64_t lpa, uint8_t value) const {
        return file_bytes(dat(), (lpa + 1) << 20, 1u << 20) ==
               std::vector<uint8_t>(1u << 20, value);
    }
    run_result punch(input_kind input, const std::string& text) const {
        run_conditions conditions;
        conditions.input = input;
        conditions.input_text = text;
        return box_.run({"--punch", "-p", "/volume1", "-o", "0", "-l", "4"}, conditions);
    }

    sandbox box_;
};

TEST_F(punch_run, yes_through_a_pipe_punches_the_free_extents_of_the_range) {
    const run_result run = punch(input_kind::text, "YES\n");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, QUESTION + std::string("TARN_INFO: PUNCH volume: /volume1\n"
                                              "TARN_INFO: There are '1' DAT files\n"
                                              "TARN_INFO: Success to punch 2/2 (Success/Planned), "
                                              "lpa from '0' to '4'\n"));
    EXPECT_TRUE(extent_is(1, 0));
    EXPECT_TRUE(extent_is(3, 0));
    for (const uint64_t lpa : {0, 2, 4, 5}) {
        EXPECT_TRUE(extent_is(lpa, 0xd5)) << lpa;
    }
}

TEST_F(punch_run, any_other_answer_punches_nothing_and_is_not_a_failure) {
    for (const char* text : {"yes\n", "YES", "NO\n", "\n"}) {
        const run_result run = punch(input_kind::text, text);
        EXPECT_EQ(run.status, 0) << text;
        EXPECT_EQ(run.out, QUESTION) << text;
    }
    EXPECT_TRUE(extent_is(1, 0xd5));
}

TEST_F(punch_run, an_input_at_its_end_punches_nothing_and_is_not_a_failure) {
    const run_result run = punch(input_kind::empty, "");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, QUESTION);
    EXPECT_TRUE(extent_is(1, 0xd5));
}

TEST_F(punch_run, without_a_standard_input_nothing_is_punched) {
    const run_result run = punch(input_kind::closed, "");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, QUESTION);
    EXPECT_TRUE(extent_is(1, 0xd5));
}

// A line is logged before the question: the log socket must not become the input.
TEST_F(punch_run, without_a_standard_input_the_log_socket_is_not_read_for_an_answer) {
    run_conditions conditions;
    conditions.input = input_kind::closed;
    const run_result run = box_.run({"--punch", "-z", "-p", "/volume1"}, conditions);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, QUESTION);
}

TEST_F(punch_run, more_data_files_than_the_soft_limit_of_open_files_are_all_reached) {
    for (unsigned number = 1; number < 1100; number++) {
        char name[32];
        snprintf(name, sizeof name, "/@EP/EP_DAT_%05u", number);
        make_empty_file(root() + name);
    }
    run_conditions conditions;
    conditions.input = input_kind::text;
    conditions.input_text = "YES\n";
    const std::string last = std::to_string(uint64_t{1099} << 22);
    const run_result run =
        box_.run({"--punch", "-p", "/volume1", "-o", last, "-l", "1"}, conditions);
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find("There are '1100' DAT files\n"), std::string::npos);
    EXPECT_NE(run.out.find("Success to punch 1/1"), std::string::npos);
}
