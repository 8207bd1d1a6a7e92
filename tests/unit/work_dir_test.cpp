#include "volume/work_dir.h"

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>

#include "cli/operations.h"
#include "options.h"
#include "store/keep_journal.h"
#include "support/io_faults.h"
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
                                       "/@EP_FIX is a symbolic link and is not removed\n"}));
}

TEST_F(work_dir, whose_path_would_be_cut_stays) {
    const std::string deep = root() + "/" + std::string(250 - root().size(), 'd');
    make_empty_file(deep + "/@EP_FIX/EP_TBL");  // "<deep>/@EP_FIX" has 259 characters
    make_empty_file(deep + "/@EP/EP_TBL");      // its first 255 characters name this one
    snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", deep.c_str());
    remove_work_dir("@EP_FIX");
    EXPECT_TRUE(file_exists(deep + "/@EP_FIX/EP_TBL"));
    EXPECT_TRUE(file_exists(deep + "/@EP/EP_TBL"));
    EXPECT_TRUE(log_.has("path does not fit"));
}

TEST_F(work_dir, that_is_not_removed_is_logged) {
    make_empty_file(root() + "/@EP_CHK/EP_TBL");
    {
        const io_fault_at fault(1, EAGAIN, {io_call::spawn});
        remove_work_dir("@EP_CHK");
    }
    EXPECT_TRUE(file_exists(root() + "/@EP_CHK/EP_TBL"));
    {
        const io_fault_at fault(1, EIO, {io_call::stat});
        remove_work_dir("@EP_CHK");
    }
    EXPECT_TRUE(file_exists(root() + "/@EP_CHK/EP_TBL"));
    EXPECT_EQ(log_.lines(), log_lines({"ERR: remove_work_dir(#) Fail to remove " + root() +
                                           "/@EP_CHK: '/bin/rm' gave -1\n",
                                       "ERR: remove_work_dir(#) Fail to get the status of " +
                                           root() + "/@EP_CHK: Input/output error\n"}));
}

TEST_F(work_dir, whose_removal_fails_is_logged_with_the_status_of_the_program) {
    remove_work_dir(".");  // which the program refuses
    EXPECT_TRUE(file_exists(root()));
    EXPECT_EQ(log_.lines(), log_lines({"ERR: remove_work_dir(#) Fail to remove " + root() +
                                       "/.: '/bin/rm' gave 1\n"}));
}

TEST_F(work_dir, whose_names_cannot_be_synced_is_a_failure) {
    EXPECT_EQ(sync_directory(root().c_str()), 0);
    EXPECT_EQ(keep_journal_failures().count, 0u);
    for (const io_call kind : {io_call::open, io_call::sync}) {
        log_.clear();
        const io_fault_at fault(1, EIO, {kind});
        EXPECT_EQ(sync_directory(root().c_str()), -1);
        EXPECT_EQ(log_.lines(), log_lines({"ERR: sync_directory(#) Fail to sync directory " +
                                           root() + ": Input/output error\n"}));
    }
    EXPECT_EQ(keep_journal_failures().count, 2u);
}
