#include "volume/work_dir.h"

#include <filesystem>
#include <gtest/gtest.h>

#include "options.h"
#include "support/log_capture.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"

namespace fs = std::filesystem;

class work_dir : public testing::Test {
protected:
    work_dir() {
        make_directories(root());
        snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", root().c_str());
    }
    std::string root() const { return volumes_.volume(1); }

    sample_volumes volumes_;
    log_capture log_;
};

TEST_F(work_dir, is_removed_with_all_that_it_holds_and_nothing_beside_it) {
    make_empty_file(root() + "/@EP_CHK/deep/EP_TBL");
    make_empty_file(root() + "/@EP_CHK2/EP_TBL");
    remove_work_dir("@EP_CHK");
    EXPECT_FALSE(file_exists(root() + "/@EP_CHK"));
    EXPECT_TRUE(file_exists(root() + "/@EP_CHK2/EP_TBL"));
    remove_work_dir("@EP_CHK");  // one that is not there
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(work_dir, that_is_a_link_stays_and_so_does_what_it_points_to) {
    make_empty_file(volumes_.root() + "/elsewhere/EP_TBL");
    fs::create_directory_symlink(volumes_.root() + "/elsewhere", root() + "/@EP_FIX");
    remove_work_dir("@EP_FIX");
    EXPECT_TRUE(file_exists(volumes_.root() + "/elsewhere/EP_TBL"));
    EXPECT_TRUE(fs::is_symlink(root() + "/@EP_FIX"));
    EXPECT_EQ(log_.lines(), log_lines({"ERR: remove_work_dir(#) " + root() +
                                       "/@EP_FIX is a symbolic link and stays\n"}));
}

TEST_F(work_dir, whose_path_would_be_cut_stays) {
    const std::string deep = root() + "/" + std::string(250 - root().size(), 'd');
    make_empty_file(deep + "/@EP_FIX/EP_TBL");  // "<deep>/@EP_FIX" has 259 characters
    make_empty_file(deep + "/@EP/EP_TBL");      // what 255 characters of it would name
    snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", deep.c_str());
    remove_work_dir("@EP_FIX");
    EXPECT_TRUE(file_exists(deep + "/@EP_FIX/EP_TBL"));
    EXPECT_TRUE(file_exists(deep + "/@EP/EP_TBL"));
    EXPECT_TRUE(log_.has("path does not fit"));
}
