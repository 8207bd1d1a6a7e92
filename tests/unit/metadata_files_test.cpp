// The opener: the order of loading, the line of the first failure, and the closing on every return
// path.
#include "volume/metadata_files.h"

#include <gtest/gtest.h>
#include <string>

#include "fri/fri_file.h"
#include "jnl/jnl_file.h"
#include "map/map_file.h"
#include "support/log_capture.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "tbl/tbl_file.h"

class metadata_files : public testing::Test {
protected:
    metadata_files() {
        const std::string root = volumes_.volume(1);
        make_sample_volume(root, 0x11);
        make_filled_map(root + "/@iSCSITrg/x_Extent_1", 63, 1, {{0, 5}});
        make_jnl(volumes_.journal(), 0xFFFFFFFF, {});
        set_volume_root(&paths_, root.c_str());
        EXPECT_EQ(set_table_paths(&paths_, EP_DIR), 0);
        set_map_path(&paths_, (root + "/@iSCSITrg/x_Extent_1").c_str());
        EXPECT_EQ(get_jnl_root_path(&paths_), 0);
    }
    // A bit for each kind that is open: 1 index, 2 table, 4 map, 8 journal.
    static int open_kinds() {
        return (current_fri.fd != 0 ? 1 : 0) + (current_tbl.fd != 0 ? 2 : 0) +
               (current_map.fd != 0 ? 4 : 0) + (current_jnl.fd != 0 ? 8 : 0);
    }
    sample_volumes volumes_;
    volume_paths paths_ = {};
    log_capture log_;
};

TEST_F(metadata_files, are_open_while_the_step_runs_and_closed_after_it) {
    const int open =
        with_files("who", &paths_, {KIND_FRI, KIND_TBL, KIND_MAP, KIND_JNL}, open_kinds);
    EXPECT_EQ(open, 15);
    EXPECT_EQ(open_kinds(), 0);
    EXPECT_EQ(with_files("who", &paths_, {KIND_MAP}, open_kinds), 4);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(metadata_files, are_closed_after_a_step_that_fails_and_its_result_is_kept) {
    EXPECT_EQ(with_files("who", &paths_, {KIND_FRI, KIND_JNL}, [] { return -7; }), -7);
    EXPECT_EQ(open_kinds(), 0);
}

TEST_F(metadata_files, without_one_of_them_the_step_does_not_run_and_the_first_is_logged) {
    struct {
        metadata_kind kind;
        char (volume_paths::*path)[PATH_TEXT_SIZE];
        const char* line;
    } const rows[] = {
        {KIND_FRI, &volume_paths::index, "ERR: who(#) Fail to load FRI /nowhere\n"},
        {KIND_TBL, &volume_paths::table, "ERR: who(#) Fail to load TBL /nowhere\n"},
        {KIND_MAP, &volume_paths::map, "ERR: who(#) Fail to load MAP /nowhere\n"},
        {KIND_JNL, &volume_paths::journal, "ERR: who(#) Fail to load JNL /nowhere\n"},
    };
    for (const auto& row : rows) {
        volume_paths paths = paths_;
        snprintf(paths.*row.path, PATH_TEXT_SIZE, "/nowhere");
        bool ran = false;
        EXPECT_EQ(with_files("who", &paths, {KIND_FRI, KIND_TBL, KIND_MAP, KIND_JNL},
                             [&] {
                                 ran = true;
                                 return 0;
                             }),
                  -1);
        EXPECT_FALSE(ran) << row.line;
        EXPECT_EQ(open_kinds(), 0) << row.line;
        EXPECT_TRUE(log_.has(row.line)) << row.line;
    }
    EXPECT_EQ(log_.count("Fail to load"), 4u);  // nothing after the first failure
}

TEST_F(metadata_files, have_one_row_a_kind_with_the_words_of_the_command_line) {
    EXPECT_STREQ(metadata_kind_of(KIND_FRI)->option, "fripath");
    EXPECT_STREQ(metadata_kind_of(KIND_TBL)->option, "tblpath");
    EXPECT_STREQ(metadata_kind_of(KIND_MAP)->option, "mappath");
    EXPECT_STREQ(metadata_kind_of(KIND_JNL)->option, "jnlpath");
    EXPECT_EQ(metadata_kind_of(KIND_TBL)->type, 1);
    EXPECT_EQ(metadata_kind_of(KIND_FRI)->type, 2);
    EXPECT_EQ(metadata_kind_of(KIND_MAP)->type, 4);
}
