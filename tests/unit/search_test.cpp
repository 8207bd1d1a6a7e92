#include "cli/search.h"

#include <cstring>
#include <getopt.h>
#include <gtest/gtest.h>

#include "fri/fri_file.h"
#include "jnl/jnl_file.h"
#include "map/map_file.h"
#include "options.h"
#include "support/log_capture.h"
#include "support/raw_journal.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_file.h"

namespace {

using words = std::vector<std::string>;
using handler = int (*)(int argc, char** argv, int argument);

// One file of each kind, with a few entries.
class search : public testing::Test {
protected:
    search() : journal_(8) {
        opterr = 0;  // the scanner's own lines on standard error
        make_sample_volume(volumes_.volume(1), 0xAB);
        fri_ = volumes_.volume(1) + "/@EP/EP_FRI";
        tbl_ = volumes_.volume(1) + "/@EP/EP_TBL";
        map_ = volumes_.volume(1) + "/EP_MAP";
        set_fri_word(fri_, 63, 0x8FFF'0012'0000'0007);
        make_filled_map(map_, 200, 2, {{62, 1000}, {63, 2000}});
    }
    ~search() override { opterr = 1; }

    int run(handler search_kind, const words& options) {
        log_.clear();
        arguments run(options);
        stdout_capture out;
        const int result = search_kind(run.count(), run.values(), 0);
        text_ = out.text();
        EXPECT_EQ(current_fri.fd + current_tbl.fd + current_map.fd + current_jnl.fd, 0);
        return result;
    }
    // The output of a run that must succeed and log nothing.
    std::string shown(handler search_kind, const words& options) {
        EXPECT_EQ(run(search_kind, options), 0);
        EXPECT_EQ(log_.lines(), log_lines({}));
        return text_;
    }
    // The log of a run that must fail and print nothing.
    std::vector<std::string> refused(handler search_kind, const words& options) {
        EXPECT_EQ(run(search_kind, options), -1);
        EXPECT_EQ(text_, "");
        return log_.lines();
    }
    void expect_combination(handler search_kind, const std::string& name, const words& options,
                            int mode) {
        EXPECT_EQ(refused(search_kind, options),
                  log_lines({"ERR: " + name + "(#) Don't support combinational executive command " +
                             std::to_string(mode) + "\n"}))
            << testing::PrintToString(options);
    }
    void expect_missing(handler search_kind, const std::string& name, char letter) {
        const std::string line = "ERR: " + name + "(#) Bad param for -" + letter + " option\n";
        EXPECT_EQ(refused(search_kind, {std::string("-") + letter}), log_lines({line}));
        EXPECT_EQ(refused(search_kind, {"-p", "x", "-m", std::string("-") + letter}),
                  log_lines({line}));
    }

    sample_volumes volumes_;
    log_capture log_;
    std::string fri_, tbl_, map_, text_;
    raw_journal journal_;
};

class search_fri_handler : public search {};
class search_tbl_handler : public search {};
class search_map_handler : public search {};
class search_jnl_handler : public search {
protected:
    // Transaction 20 fills blocks 1 and 2, transaction 21 block 3.
    search_jnl_handler() {
        journal_.put(0, raw_block(19, 0, 1));
        journal_.put(1, raw_block(20, 0, 0));
        raw_block unmap(20, 1, 1);
        unmap.u32(32, 7).u64(52, 40).u8(60, 1).u64(64, 13).u64(72, 0x8000000000000005);
        unmap.u16(416, 0x8003);
        journal_.put(2, unmap);
        journal_.put(3, raw_block(21, 0, 1));
    }
    words with_path(words options) {
        options.insert(options.end(), {"-p", journal_.path()});
        return options;
    }
};

// What the transaction dumps of the journal above print.
const std::string START = "TARN_INFO: SEARCH TRANSACTION 20 START @block 1\n";
const std::string LAST = "TARN_INFO: SEARCH TRANSACTION 20 LAST @block 2\n";
const std::string BLOCK_1 =
    "TARN_INFO: jnl_transid      20\n"
    "TARN_INFO: jnl_seq_num      0\n"
    "TARN_INFO: jnl_flags        0\n"
    "TARN_INFO: jnl_commit_time  0\n"
    "TARN_INFO: jnl_entry_count  0\n"
    "TARN_INFO: -------------------------\n";
const std::string BLOCK_2 =
    "TARN_INFO: jnl_transid      20\n"
    "TARN_INFO: jnl_seq_num      1\n"
    "TARN_INFO: jnl_flags        1\n"
    "TARN_INFO: jnl_commit_time  0\n"
    "TARN_INFO: jnl_entry_count  0\n"
    "TARN_INFO: -------------------------\n"
    "TARN_INFO: [7] UNMAP TYPE\n"
    "TARN_INFO: dst_uuid          0 0 0 0- 0 0- 0 0- 0 0- 0 0 0 0 0 0\n"
    "TARN_INFO: DST LEA_START 40\n"
    "TARN_INFO: count 1\n"
    "TARN_INFO: mapped_count_new 13\n";
const std::string BLOCK_2_SLOTS =
    "TARN_INFO: UNMAP DETAIL\n"
    "TARN_INFO: [0] dst LEA 40\n"
    "TARN_INFO: poolnum[0] mapped[1] sync[0] lpa 5\n"
    "TARN_INFO: used[1] tail[0] count/next 3\n";
const std::string SEPARATOR = "TARN_INFO: -------------------------\n";

}  // namespace

TEST_F(search_fri_handler, shows_the_header_wherever_the_path_is_given) {
    const std::string header =
        "TARN_INFO: fri_version     65536\n"
        "TARN_INFO: fri_magic_code  0x18140633\n"
        "TARN_INFO: fri_type        2\n"
        "TARN_INFO: fri_uuid        abababab-abab-abab-abab-abababababab\n"
        "TARN_INFO: fri_data_offset 1048576\n"
        "TARN_INFO: fri_create_time 0\n"
        "TARN_INFO: fri_entry_size  8\n"
        "TARN_INFO: fri_group_count 0\n"
        "TARN_INFO: fri_free_count  4096\n"
        "TARN_INFO: fri_group_head  0\n";
    EXPECT_EQ(shown(search_fri, {"-m", "-p", fri_}), header);
    EXPECT_EQ(shown(search_fri, {"-p", fri_, "-m"}), header);
    EXPECT_EQ(shown(search_fri, {"-mp", fri_}), header);
    EXPECT_EQ(shown(search_fri, {"-p" + fri_, "-m", "left over"}), header);
}

TEST_F(search_fri_handler, shows_a_group) {
    const std::string group =
        "TARN_INFO: FRI - group_num 63\n"
        "TARN_INFO: init[1] next 8589934599 freelisthead 1 free_count 4095\n";
    EXPECT_EQ(shown(search_fri, {"-g", "63", "-p", fri_}), group);
    EXPECT_EQ(shown(search_fri, {"-p", fri_, "-g63"}), group);
    EXPECT_EQ(shown(search_fri, {"-p", fri_, "-g", "0x3F"}),  // decimal: the number ends at the x
              "TARN_INFO: FRI - group_num 0\n"
              "TARN_INFO: init[0] next 0 freelisthead 0 free_count 0\n");
}

TEST_F(search_fri_handler, shows_one_display_only) {
    expect_combination(search_fri, "search_fri", {"-p", fri_, "-m", "-g", "1"}, 1);
    expect_combination(search_fri, "search_fri", {"-p", fri_, "-g", "1", "-m"}, 2);
    expect_combination(search_fri, "search_fri", {"-m", "-m", "-p", fri_}, 1);
    expect_combination(search_fri, "search_fri", {"-g", "1", "-g", "2", "-p", fri_}, 2);
}

TEST_F(search_fri_handler, logs_a_missing_mode_and_returns_0) {
    EXPECT_EQ(run(search_fri, {"-p", fri_}), 0);
    EXPECT_EQ(text_, "");
    EXPECT_EQ(log_.lines(), log_lines({"ERR: search_fri(#) No cmd execute\n"}));
}

TEST_F(search_fri_handler, uses_no_path_but_its_own) {
    snprintf(opt_ctx.fripath, sizeof opt_ctx.fripath, "%s", fri_.c_str());
    EXPECT_EQ(refused(search_fri, {"-m"}),
              log_lines({"ERR: search_fri(#) Please assign -p fripath\n"}));
    EXPECT_STREQ(opt_ctx.fripath, "");
    EXPECT_EQ(refused(search_fri, {"-m", "-p", ""}),
              log_lines({"ERR: search_fri(#) Please assign -p fripath\n"}));
}

TEST_F(search_fri_handler, uses_the_last_of_several_paths) {
    EXPECT_EQ(shown(search_fri, {"-p", "/nonexistent", "-g", "1", "-p", fri_}),
              "TARN_INFO: FRI - group_num 1\n"
              "TARN_INFO: init[0] next 0 freelisthead 0 free_count 0\n");
}

TEST_F(search_fri_handler, refuses_a_path_that_does_not_fit) {
    const std::string path(4096, '/');
    EXPECT_EQ(run(search_fri, {"-m", "-p", path}), -1);
    EXPECT_TRUE(log_.has("path does not fit into 4096 bytes"));
    EXPECT_EQ(run(search_fri, {"-m", "-p", path.substr(1)}), -1);  // fits, but does not exist
    EXPECT_TRUE(log_.has("Fail to load FRI //"));
}

TEST_F(search_fri_handler, logs_a_file_that_does_not_load) {
    EXPECT_EQ(refused(search_fri, {"-m", "-p", "/nonexistent"}),
              log_lines({"ERR: open_fd(#) open file /nonexistent fail\n",
                         "ERR: load_fri(#) fri file descriptor is invalid\n",
                         "ERR: search_fri(#) Fail to load FRI /nonexistent\n"}));
    make_empty_file(volumes_.root() + "/empty");
    EXPECT_EQ(run(search_fri, {"-m", "-p", volumes_.root() + "/empty"}), -1);
    EXPECT_TRUE(log_.has("Fail to load FRI " + volumes_.root() + "/empty\n"));
}

TEST_F(search_fri_handler, logs_a_missing_argument_and_ignores_unknown_options) {
    expect_missing(search_fri, "search_fri", 'g');
    expect_missing(search_fri, "search_fri", 'p');
    EXPECT_EQ(run(search_fri, {"-z", "-g", "1", "-a", "-p", fri_}), 0);
    EXPECT_EQ(text_,
              "TARN_INFO: FRI - group_num 1\n"
              "TARN_INFO: init[0] next 0 freelisthead 0 free_count 0\n");
    EXPECT_EQ(log_.lines(), log_lines({"ERR: search_fri(#) UNKNOW cmd z\n",
                                       "ERR: search_fri(#) UNKNOW cmd a\n"}));
}

TEST_F(search_fri_handler, shows_a_group_past_the_file_as_never_initialised) {
    EXPECT_EQ(shown(search_fri, {"-g", "528482304", "-p", fri_}),  // 0x1F800000
              "TARN_INFO: FRI - group_num 528482304\n"
              "TARN_INFO: init[0] next 0 freelisthead 0 free_count 0\n");
}

TEST_F(search_fri_handler, prints_nothing_of_a_group_past_the_largest_file) {
    for (const char* group :
         {"-1", "9223372036854775807", "-9223372036854775808", "99999999999999999999"}) {
        EXPECT_EQ(run(search_fri, {"-g", group, "-p", fri_}), 0) << group;
        EXPECT_EQ(text_, "") << group;
        EXPECT_TRUE(log_.has("ERR: dump_fri_group(#) dump fri group ")) << group;
    }
}

TEST_F(search_tbl_handler, shows_the_header) {
    const std::string header =
        "TARN_INFO: tbl_version     65536\n"
        "TARN_INFO: tbl_magic_code  0x18140633\n"
        "TARN_INFO: tbl_type        1\n"
        "TARN_INFO: tbl_uuid        abababab-abab-abab-abab-abababababab\n"
        "TARN_INFO: tbl_data_offset 1048576\n"
        "TARN_INFO: tbl_create_time 0\n"
        "TARN_INFO: tbl_extent_size 1048576\n"
        "TARN_INFO: tbl_entry_size  2\n"
        "TARN_INFO: tbl_total_count 2164663517184\n";
    EXPECT_EQ(shown(search_tbl, {"-m", "-p", tbl_}), header);
    EXPECT_EQ(shown(search_tbl, {"-p", tbl_, "-m"}), header);
    EXPECT_EQ(shown(search_tbl, {"-l", "-p", tbl_, "-m", "-h"}), header);  // flags do not conflict
}

TEST_F(search_tbl_handler, shows_an_entry_by_its_lpa) {
    set_tbl_word(tbl_, 253, 0x8007);
    EXPECT_EQ(shown(search_tbl, {"-a", "253", "-p", tbl_}),
              "TARN_INFO: used[1] tail[0] count/next 7\n");
    EXPECT_EQ(shown(search_tbl, {"-h", "-p", tbl_, "-l", "-a253"}),
              "TARN_INFO: used[1] tail[0] count/next 7\n");
}

TEST_F(search_tbl_handler, shows_an_entry_by_group_and_offset_in_either_order) {
    set_tbl_word(tbl_, 3 * 4096 + 5, 0x8009);
    const std::string entry = "TARN_INFO: used[1] tail[0] count/next 9\n";
    EXPECT_EQ(shown(search_tbl, {"-p", tbl_, "-g", "3", "-o", "5"}), entry);
    EXPECT_EQ(shown(search_tbl, {"-p", tbl_, "-o", "5", "-g", "3"}), entry);
    EXPECT_EQ(shown(search_tbl, {"-g", "3", "-l", "-p", tbl_, "-h", "-o", "5"}), entry);
}

TEST_F(search_tbl_handler, shows_group_0_if_only_an_offset_is_given) {
    set_tbl_word(tbl_, 5, 0x1000);
    EXPECT_EQ(shown(search_tbl, {"-o", "5", "-p", tbl_}),
              "TARN_INFO: used[0] tail[1] count/next 0\n");
}

TEST_F(search_tbl_handler, lists_the_free_list_of_a_group_with_the_given_flags) {
    for (uint64_t offset = 0; offset < 4096; offset++) {
        set_tbl_word(tbl_, 4096 + offset, 0x8001);
    }
    set_tbl_word(tbl_, 4096 + 5, 9);
    set_tbl_word(tbl_, 4096 + 9, 0x1000);
    const std::string list = "TARN_INFO: LIST in Group 1\n";
    const std::string head = "TARN_INFO: [0] offset 5, LPA 4101\n";
    const std::string head_entry = "TARN_INFO: used[0] tail[0] count/next 9\n";
    const std::string tail = "TARN_INFO: [1] offset 9, LPA 4105\n";
    const std::string tail_entry = "TARN_INFO: used[0] tail[1] count/next 0\n";
    EXPECT_EQ(shown(search_tbl, {"-g", "1", "-p", tbl_}), list + head + tail);
    for (const words& options : {words{"-g", "1", "-l"}, words{"-l", "-g", "1"}}) {
        words run = options;
        run.insert(run.end(), {"-p", tbl_});
        EXPECT_EQ(shown(search_tbl, run), list + head + head_entry + tail + tail_entry);
    }
    for (const words& options : {words{"-g", "1", "-h"}, words{"-h", "-g", "1"}}) {
        words run = options;
        run.insert(run.end(), {"-p", tbl_});
        EXPECT_EQ(shown(search_tbl, run), list + head);
    }
    for (const words& options : {words{"-g", "1", "-l", "-h"}, words{"-h", "-l", "-g", "1"}}) {
        words run = options;
        run.insert(run.end(), {"-p", tbl_});
        EXPECT_EQ(shown(search_tbl, run), list + head + head_entry);
    }
}

TEST_F(search_tbl_handler, shows_one_display_only) {
    const struct {
        words options;
        int mode;
    } rows[] = {
        {{"-m", "-m"}, 1},
        {{"-m", "-g", "1"}, 1},
        {{"-m", "-o", "1"}, 1},
        {{"-m", "-a", "1"}, 1},
        {{"-g", "1", "-m"}, 2},
        {{"-g", "1", "-g", "1"}, 2},
        {{"-g", "1", "-a", "1"}, 2},
        {{"-o", "1", "-m"}, 3},
        {{"-o", "1", "-o", "1"}, 3},
        {{"-o", "1", "-a", "1"}, 3},
        {{"-a", "1", "-m"}, 4},
        {{"-a", "1", "-g", "1"}, 4},
        {{"-a", "1", "-o", "1"}, 4},
        {{"-a", "1", "-a", "1"}, 4},
        {{"-g", "1", "-o", "1", "-g", "1"}, 3},
        {{"-g", "1", "-o", "1", "-o", "1"}, 3},
        {{"-g", "1", "-o", "1", "-m"}, 3},
        {{"-g", "1", "-o", "1", "-a", "1"}, 3},
        {{"-o", "1", "-g", "1", "-g", "1"}, 3},
        {{"-o", "1", "-g", "1", "-o", "1"}, 3},
        {{"-o", "1", "-g", "1", "-m"}, 3},
        {{"-o", "1", "-g", "1", "-a", "1"}, 3},
        {{"-g", "1", "-l", "-h", "-g", "1"}, 2},
    };
    for (const auto& row : rows) {
        words options = row.options;
        options.insert(options.begin(), {"-p", tbl_});
        expect_combination(search_tbl, "search_tbl", options, row.mode);
    }
}

TEST_F(search_tbl_handler, logs_a_missing_mode_or_path) {
    EXPECT_EQ(run(search_tbl, {"-l", "-h", "-p", tbl_}), 0);
    EXPECT_EQ(text_, "");
    EXPECT_EQ(log_.lines(), log_lines({"ERR: search_tbl(#) No cmd execute\n"}));
    snprintf(opt_ctx.tblpath, sizeof opt_ctx.tblpath, "%s", tbl_.c_str());
    EXPECT_EQ(refused(search_tbl, {"-a", "1"}),
              log_lines({"ERR: search_tbl(#) Please assign -p tblpath\n"}));
}

TEST_F(search_tbl_handler, logs_a_file_that_does_not_load) {
    EXPECT_EQ(refused(search_tbl, {"-m", "-p", "/nonexistent"}),
              log_lines({"ERR: open_fd(#) open file /nonexistent fail\n",
                         "ERR: load_tbl(#) tbl file descriptor is invalid\n",
                         "ERR: search_tbl(#) Fail to load TBL /nonexistent\n"}));
}

TEST_F(search_tbl_handler, logs_a_missing_argument_and_ignores_unknown_options) {
    for (const char letter : {'a', 'g', 'p'}) {
        expect_missing(search_tbl, "search_tbl", letter);
    }
    EXPECT_EQ(refused(search_tbl, {"-g", "1", "-o"}),
              log_lines({"ERR: search_tbl(#) Bad param for -o option\n"}));
    EXPECT_EQ(run(search_tbl, {"-z", "-a", "1", "-p", tbl_}), 0);
    EXPECT_EQ(text_, "TARN_INFO: used[0] tail[0] count/next 0\n");
    EXPECT_EQ(log_.lines(), log_lines({"ERR: search_tbl(#) UNKNOW cmd z\n"}));
}

TEST_F(search_tbl_handler, is_safe_from_numbers_past_the_largest_file) {
    EXPECT_EQ(shown(search_tbl, {"-a", "2164663517184", "-p", tbl_}),  // past the end of the table
              "TARN_INFO: used[0] tail[0] count/next 0\n");
    for (const char* value :
         {"-1", "9223372036854775807", "-9223372036854775808", "99999999999999999999"}) {
        for (const words& options :
             {words{"-a", value}, words{"-g", value}, words{"-g", value, "-o", "4095"},
              words{"-o", "-1", "-g", value}}) {
            words run_words = options;
            run_words.insert(run_words.end(), {"-p", tbl_});
            EXPECT_EQ(run(search_tbl, run_words), 0);
            EXPECT_EQ(text_, "") << testing::PrintToString(options);
            EXPECT_GE(log_.lines().size(), 1u) << testing::PrintToString(options);
        }
    }
}

TEST_F(search_map_handler, shows_the_header) {
    EXPECT_EQ(run(search_map, {"-m", "-p", map_}), 0);
    EXPECT_NE(text_.find("TARN_INFO: map_magic_code           0x18140633\n"), std::string::npos);
    EXPECT_NE(text_.find("TARN_INFO: map_total_count          200\n"), std::string::npos);
    EXPECT_NE(text_.find("TARN_INFO: map_mapped_count         2\n"), std::string::npos);
    const std::string header = text_;
    EXPECT_EQ(shown(search_map, {"-p", map_, "-m"}), header);
}

TEST_F(search_map_handler, shows_an_entry_by_its_lea) {
    EXPECT_EQ(shown(search_map, {"-a", "62", "-p", map_}),
              "TARN_INFO: LEA [62] MAP-Entry:\n"
              "TARN_INFO: poolnum[0] mapped[1] sync[0] lpa 1000\n");
    EXPECT_EQ(shown(search_map, {"-p", map_, "-a", "63"}),
              "TARN_INFO: LEA [63] MAP-Entry:\n"
              "TARN_INFO: poolnum[0] mapped[1] sync[0] lpa 2000\n");
    EXPECT_EQ(shown(search_map, {"-p", map_, "-a", "64"}),
              "TARN_INFO: LEA [64] MAP-Entry:\n"
              "TARN_INFO: poolnum[0] mapped[0] sync[0] lpa 0\n");
}

TEST_F(search_map_handler, shows_one_display_only) {
    expect_combination(search_map, "search_map", {"-p", map_, "-m", "-a", "1"}, 1);
    expect_combination(search_map, "search_map", {"-p", map_, "-a", "1", "-m"}, 2);
    expect_combination(search_map, "search_map", {"-m", "-m", "-p", map_}, 1);
    expect_combination(search_map, "search_map", {"-a", "1", "-a", "2", "-p", map_}, 2);
}

TEST_F(search_map_handler, logs_a_missing_mode_path_or_file) {
    EXPECT_EQ(run(search_map, {"-p", map_}), 0);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: search_map(#) No cmd execute\n"}));
    snprintf(opt_ctx.mappath, sizeof opt_ctx.mappath, "%s", map_.c_str());
    EXPECT_EQ(refused(search_map, {"-m"}),
              log_lines({"ERR: search_map(#) Please assign -p mappath\n"}));
    EXPECT_EQ(refused(search_map, {"-m", "-p", "/nonexistent"}),
              log_lines({"ERR: open_fd(#) open file /nonexistent fail\n",
                         "ERR: load_map(#) map file descriptor is invalid\n",
                         "ERR: search_map(#) Fail to load MAP /nonexistent\n"}));
}

TEST_F(search_map_handler, logs_a_missing_argument_and_ignores_unknown_options) {
    expect_missing(search_map, "search_map", 'a');
    expect_missing(search_map, "search_map", 'p');
    EXPECT_EQ(run(search_map, {"-g", "-a", "64", "-p", map_}), 0);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: search_map(#) UNKNOW cmd g\n"}));
}

TEST_F(search_map_handler, is_safe_from_numbers_past_the_largest_file) {
    for (const char* lea : {"-1", "9223372036854775807", "-9223372036854775808"}) {
        EXPECT_EQ(run(search_map, {"-a", lea, "-p", map_}), 0) << lea;
        EXPECT_EQ(text_, "") << lea;
        EXPECT_GE(log_.lines().size(), 1u) << lea;
    }
}

TEST_F(search_jnl_handler, shows_the_meta_nodes) {
    const std::string meta =
        "TARN_INFO: jnl_total_count                 8\n"
        "TARN_INFO: jnl_shutdown_tag                Not Initialized\n"
        "TARN_INFO: jnl_sync_count                  0\n"
        "TARN_INFO: jnl_last_trans_id               0\n"
        "TARN_INFO: jnl_last_record_start           0\n"
        "TARN_INFO: jnl_last_flush_errno            0\n"
        "TARN_INFO: jnl_last_recovery_error         0\n"
        "TARN_INFO: jnl_empty_record_start          0\n";
    EXPECT_EQ(shown(search_jnl, with_path({"-m"})), meta);
    EXPECT_EQ(shown(search_jnl, {"-p", journal_.path(), "-dlx", "-s", "7", "-m"}), meta);
}

TEST_F(search_jnl_handler, shows_a_block_and_its_slots_with_x) {
    EXPECT_EQ(shown(search_jnl, with_path({"-b", "2"})), BLOCK_2 + SEPARATOR);
    EXPECT_EQ(shown(search_jnl, with_path({"-b", "2", "-d", "-l"})), BLOCK_2 + SEPARATOR);
    EXPECT_EQ(shown(search_jnl, with_path({"-b", "2", "-x"})), BLOCK_2 + BLOCK_2_SLOTS + SEPARATOR);
    EXPECT_EQ(shown(search_jnl, with_path({"-x", "-b", "2"})), BLOCK_2 + BLOCK_2_SLOTS + SEPARATOR);
}

TEST_F(search_jnl_handler, shows_a_transaction_with_the_given_flags_in_either_order) {
    const std::string blocks = START + BLOCK_1 + LAST + BLOCK_2;
    const struct {
        words flags;
        std::string text;
    } rows[] = {
        {{}, START + LAST},
        {{"-l"}, START + LAST},  // the blocks between the first and the last: there are none
        {{"-x"}, START + LAST},
        {{"-d"}, blocks + SEPARATOR},
        {{"-d", "-x"}, blocks + BLOCK_2_SLOTS + SEPARATOR},
        {{"-x", "-l", "-d"}, blocks + BLOCK_2_SLOTS + SEPARATOR},
    };
    for (const auto& row : rows) {
        words flags_last = {"-t", "20"};
        flags_last.insert(flags_last.end(), row.flags.begin(), row.flags.end());
        EXPECT_EQ(shown(search_jnl, with_path(flags_last)), row.text);
        words before = row.flags;
        before.insert(before.end(), {"-t", "20"});
        EXPECT_EQ(shown(search_jnl, with_path(before)), row.text);
    }
}

TEST_F(search_jnl_handler, shows_the_numbers_of_the_middle_blocks_with_l) {
    journal_.put(0, raw_block(30, 0, 0));
    journal_.put(1, raw_block(30, 1, 0));
    journal_.put(2, raw_block(30, 2, 1));
    const std::string trace =
        "TARN_INFO: SEARCH TRANSACTION 30 START @block 0\n"
        "TARN_INFO: SEARCH TRANSACTION 30 SEQ 1 @block 1\n"
        "TARN_INFO: SEARCH TRANSACTION 30 LAST @block 2\n";
    EXPECT_EQ(shown(search_jnl, with_path({"-t", "30", "-l"})), trace);
    EXPECT_EQ(shown(search_jnl, with_path({"-l", "-t", "30"})), trace);
}

TEST_F(search_jnl_handler, begins_a_transaction_search_at_the_start_number) {
    journal_.put(4, raw_block(20, 0, 1));  // another one with the same id
    const std::string second =
        "TARN_INFO: SEARCH TRANSACTION 20 START @block 4\n"
        "TARN_INFO: SEARCH TRANSACTION 20 LAST @block 4\n";
    EXPECT_EQ(shown(search_jnl, with_path({"-t", "20"})), START + LAST);
    EXPECT_EQ(shown(search_jnl, with_path({"-t", "20", "-s", "2"})), second);
    EXPECT_EQ(shown(search_jnl, with_path({"-s", "2", "-t", "20"})), second);
    EXPECT_EQ(shown(search_jnl, with_path({"-s", "0", "-s", "3", "-t", "20"})), second);
}

TEST_F(search_jnl_handler, returns_0_for_a_missing_transaction) {
    EXPECT_EQ(run(search_jnl, with_path({"-t", "99"})), 0);
    EXPECT_EQ(text_, "TARN_INFO: NO TRANSACTION 99 in JOURNAL\n");
}

TEST_F(search_jnl_handler, shows_one_display_only) {
    const struct {
        words options;
        int mode;
    } rows[] = {
        {{"-m", "-m"}, 1},           {{"-m", "-b", "1"}, 1},
        {{"-m", "-t", "1"}, 1},      {{"-b", "1", "-m"}, 2},
        {{"-b", "1", "-b", "1"}, 2}, {{"-b", "1", "-t", "1"}, 2},
        {{"-t", "1", "-m"}, 3},      {{"-t", "1", "-b", "1"}, 3},
        {{"-t", "1", "-t", "1"}, 3}, {{"-s", "1", "-dlx", "-b", "1", "-m"}, 2},
    };
    for (const auto& row : rows) {
        expect_combination(search_jnl, "search_jnl", with_path(row.options), row.mode);
        words path_first = {"-p", journal_.path()};
        path_first.insert(path_first.end(), row.options.begin(), row.options.end());
        expect_combination(search_jnl, "search_jnl", path_first, row.mode);
    }
}

TEST_F(search_jnl_handler, uses_the_configured_journal_without_a_path) {
    make_jnl(volumes_.journal(), 0x66656800, {});
    snprintf(opt_ctx.jnlpath, sizeof opt_ctx.jnlpath, "%s", journal_.path());
    EXPECT_EQ(shown(search_jnl, {"-m"}),
              "TARN_INFO: jnl_total_count                 64\n"
              "TARN_INFO: jnl_shutdown_tag                Status Bad, Inconsistent\n"
              "TARN_INFO: jnl_sync_count                  0\n"
              "TARN_INFO: jnl_last_trans_id               0\n"
              "TARN_INFO: jnl_last_record_start           0\n"
              "TARN_INFO: jnl_last_flush_errno            0\n"
              "TARN_INFO: jnl_last_recovery_error         0\n"
              "TARN_INFO: jnl_empty_record_start          0\n");
    EXPECT_EQ(opt_ctx.jnlpath, volumes_.journal());
}

TEST_F(search_jnl_handler, logs_a_missing_mode_or_journal) {
    EXPECT_EQ(run(search_jnl, with_path({"-x"})), 0);
    EXPECT_EQ(text_, "");
    EXPECT_EQ(log_.lines(), log_lines({"ERR: search_jnl(#) No cmd execute\n"}));
    EXPECT_EQ(refused(search_jnl, {"-m"}),
              log_lines({"ERR: open_fd(#) open file " + volumes_.journal() + " fail\n",
                         "ERR: load_jnl(#) jnl file descriptor is invalid\n",
                         "ERR: search_jnl(#) Fail to load JNL " + volumes_.journal() + "\n"}));
}

TEST_F(search_jnl_handler, logs_a_missing_argument_and_ignores_unknown_options) {
    for (const char letter : {'b', 't', 's', 'p'}) {
        const std::string option = std::string("-") + letter;
        EXPECT_EQ(refused(search_jnl, {"-x", option}),
                  log_lines({"ERR: search_jnl(#) Bad param for " + option + " option\n"}));
    }
    EXPECT_EQ(run(search_jnl, with_path({"-z", "-b", "2", "-h"})), 0);
    EXPECT_EQ(text_, BLOCK_2 + SEPARATOR);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: search_jnl(#) UNKNOW cmd z\n",
                                       "ERR: search_jnl(#) UNKNOW cmd h\n"}));
}

TEST_F(search_jnl_handler, is_safe_from_numbers_past_the_largest_file) {
    for (const char* number :
         {"-1", "8", "9223372036854775807", "-9223372036854775808", "99999999999999999999"}) {
        EXPECT_EQ(run(search_jnl, with_path({"-b", number})), 0) << number;
        EXPECT_EQ(text_, "") << number;
        EXPECT_GE(log_.lines().size(), 1u) << number;
        EXPECT_EQ(run(search_jnl, with_path({"-t", "20", "-s", number})), 0) << number;
        EXPECT_EQ(text_, "TARN_INFO: NO TRANSACTION 20 in JOURNAL\n") << number;
    }
}

TEST_F(search_jnl_handler, uses_the_low_32_bits_of_a_transaction_number) {
    journal_.put(4, raw_block(4294967295, 0, 1));
    const std::string found =
        "TARN_INFO: SEARCH TRANSACTION 4294967295 START @block 4\n"
        "TARN_INFO: SEARCH TRANSACTION 4294967295 LAST @block 4\n";
    EXPECT_EQ(shown(search_jnl, with_path({"-t", "4294967295"})), found);
    EXPECT_EQ(shown(search_jnl, with_path({"-t", "-1"})), found);
}
