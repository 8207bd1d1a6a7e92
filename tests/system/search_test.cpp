#include <gtest/gtest.h>

#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "system/support/sandbox.h"
#include "system/support/tree.h"

namespace {

using words = std::vector<std::string>;

// One volume with a file of each kind, and a journal of two transactions.
class search_command : public testing::Test {
protected:
    search_command() {
        make_sample_volume(box_.volume(1), 0xAB);
        set_fri_word(box_.volume(1) + "/@EP/EP_FRI", 1, 0x8FFF'0012'0000'0007);
        set_tbl_word(box_.volume(1) + "/@EP/EP_TBL", 3 * 4096 + 5, 0x8009);
        make_filled_map(box_.volume(1) + "/EP_MAP", 200, 1, {{63, 2000}});
        make_jnl(box_.journal(), 0xFFFFFFFF,
                 {tbl_block(uuid_of(0xAB), 7, 0x8001), tbl_block(uuid_of(0xAB), 8, 0x8002)});
    }
    // Standard output of a run that must exit 0 and print and log nothing else.
    std::string shown(words options) {
        options.insert(options.begin(), "--search");
        const run_result got = box_.run(options);
        EXPECT_EQ(got.status, 0) << testing::PrintToString(options);
        EXPECT_EQ(got.err, "");
        EXPECT_EQ(got.log, words{});
        return got.out;
    }

    sandbox box_;
    const std::string fri_ = "/volume1/@EP/EP_FRI";
    const std::string tbl_ = "/volume1/@EP/EP_TBL";
    const std::string map_ = "/volume1/EP_MAP";
};

const std::string SECOND_BLOCK =
    "TARN_INFO: jnl_transid      2\n"
    "TARN_INFO: jnl_seq_num      0\n"
    "TARN_INFO: jnl_flags        1\n"
    "TARN_INFO: jnl_commit_time  0\n"
    "TARN_INFO: jnl_entry_count  1\n"
    "TARN_INFO: -------------------------\n"
    "TARN_INFO: [0] TBL - lpa 8\n"
    "TARN_INFO: OLD TBL\n"
    "TARN_INFO: used[0] tail[0] count/next 0\n"
    "TARN_INFO: NEW TBL\n"
    "TARN_INFO: used[1] tail[0] count/next 2\n";
const std::string JOURNAL_META =
    "TARN_INFO: jnl_total_count                 64\n"
    "TARN_INFO: jnl_shutdown_tag                Abnormal Shutdown\n"
    "TARN_INFO: jnl_sync_count                  0\n"
    "TARN_INFO: jnl_last_trans_id               2\n"
    "TARN_INFO: jnl_last_record_start           1\n"
    "TARN_INFO: jnl_last_flush_errno            0\n"
    "TARN_INFO: jnl_last_recovery_error         0\n"
    "TARN_INFO: jnl_empty_record_start          2\n";

}  // namespace

TEST_F(search_command, shows_an_entry_of_a_table_by_group_and_offset_in_either_order) {
    const std::string entry = "TARN_INFO: used[1] tail[0] count/next 9\n";
    EXPECT_EQ(shown({"tbl", "-p", tbl_, "-g", "3", "-o", "5"}), entry);
    EXPECT_EQ(shown({"tbl", "-p", tbl_, "-o", "5", "-g", "3"}), entry);
    EXPECT_EQ(shown({"tbl", "-a", "12293", "-p", tbl_}), entry);
}

TEST_F(search_command, shows_the_other_kinds) {
    EXPECT_EQ(shown({"fri", "-g", "1", "-p", fri_}),
              "TARN_INFO: FRI - group_num 1\n"
              "TARN_INFO: init[1] next 8589934599 freelisthead 1 free_count 4095\n");
    EXPECT_EQ(shown({"map", "-p", map_, "-a", "63"}),
              "TARN_INFO: LEA [63] MAP-Entry:\n"
              "TARN_INFO: poolnum[0] mapped[1] sync[0] lpa 2000\n");
    EXPECT_EQ(shown({"jnl", "-b", "1", "-p", "/var/lib/tarn/EP_JNL"}), SECOND_BLOCK);
    EXPECT_EQ(shown({"jnl", "-t", "2", "-d"}),
              "TARN_INFO: SEARCH TRANSACTION 2 START @block 1\n" + SECOND_BLOCK +
                  "TARN_INFO: SEARCH TRANSACTION 2 LAST @block 1\n");
}

TEST_F(search_command, uses_the_configured_journal_without_a_path) {
    EXPECT_EQ(shown({"jnl", "-m"}), JOURNAL_META);
}

TEST_F(search_command, reads_its_options_after_the_command) {
    EXPECT_EQ(shown({"jnl", "-m", "an unknown word"}), JOURNAL_META);
    const run_result got = box_.run({"-search=tbl", "-p" + tbl_, "-o5", "-g3", "-l", "-h"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, "TARN_INFO: used[1] tail[0] count/next 9\n");
}

TEST_F(search_command, refuses_two_displays_and_logs_the_number_of_the_first) {
    const run_result got = box_.run({"--search", "tbl", "-p", "x", "-m", "-g", "1"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out, "");
    EXPECT_EQ(got.log,
              words{"ERR: search_tbl(#) Don't support combinational executive command 1\n"});
}

TEST_F(search_command, logs_a_missing_mode_and_exits_0) {
    const run_result got = box_.run({"--search", "fri", "-p", fri_});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, "");
    EXPECT_EQ(got.log, words{"ERR: search_fri(#) No cmd execute\n"});
}

TEST_F(search_command, logs_a_missing_argument_after_the_line_of_the_option_scanner) {
    const run_result got = box_.run({"--search", "map", "-p", map_, "-a"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log, words{"ERR: search_map(#) Bad param for -a option\n"});
    EXPECT_NE(got.err.find("'a'"), std::string::npos) << got.err;
}

TEST_F(search_command, ignores_an_unknown_option) {
    const run_result got = box_.run({"--search", "fri", "-z", "-g", "2", "-p", fri_});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out,
              "TARN_INFO: FRI - group_num 2\n"
              "TARN_INFO: init[0] next 0 freelisthead 0 free_count 0\n");
    EXPECT_EQ(got.log, words{"ERR: search_fri(#) UNKNOW cmd z\n"});
}

TEST_F(search_command, refuses_a_long_path) {
    const run_result got = box_.run({"--search", "fri", "-m"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log, words{"ERR: search_fri(#) Please assign -p fripath\n"});
}

TEST_F(search_command, refuses_a_type_word_that_it_does_not_know) {
    const run_result got = box_.run({"--search", "vol", "-p", "/volume1", "-m"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log, words{"ERR: get_funs(#) Not define option 'vol'\n"});
}

TEST_F(search_command, never_changes_a_file) {
    const auto before = tree_of(box_.volume(1));
    for (const words& options :
         {words{"fri", "-p", fri_, "-g", "-1"}, words{"tbl", "-p", tbl_, "-g", "0", "-l"},
          words{"tbl", "-p", tbl_, "-g", "9223372036854775807"}, words{"map", "-p", map_, "-m"},
          words{"map", "-p", map_, "-a", "-1"}, words{"map", "-p", tbl_, "-m"}}) {
        words run = options;
        run.insert(run.begin(), "--search");
        EXPECT_EQ(box_.run(run).signal, 0) << testing::PrintToString(options);
    }
    EXPECT_EQ(tree_of(box_.volume(1)), before);
}

TEST_F(search_command, survives_the_reader_of_its_output) {
    run_conditions nobody_reads;
    nobody_reads.output = output_kind::broken_pipe;
    EXPECT_EQ(box_.run({"--search", "jnl", "-m"}, nobody_reads).status, 0);
}
