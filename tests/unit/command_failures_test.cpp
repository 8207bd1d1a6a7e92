// What main answers when a write, a sync or a read failed on the way of a command.
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "options.h"
#include "store/keep_journal.h"
#include "support/io_faults.h"
#include "support/io_outage.h"
#include "support/log_capture.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/stdout_capture.h"

using words = std::vector<std::string>;

class command_failures : public testing::Test {
protected:
    std::string root() const { return volumes_->volume(1); }
    std::string live(const std::string& name) const { return root() + "/@EP/" + name; }
    std::string lun() const { return root() + "/@iSCSITrg/LUN_Extent_1"; }

    // Volume 1 is whole: a map of one extent, counted in the table, and a journal that records one
    // change of each kind of file. Volume 2 is no volume.
    void put_files(uint32_t status) {
        volumes_.reset();  // the old tree goes before the new one comes
        volumes_ = std::make_unique<sample_volumes>();
        make_sample_volume(root(), 0x11);
        make_dat(live("EP_DAT_00000"), 0x11, 0);
        make_filled_map(lun(), 63, 1, {{0, 300}});
        set_tbl_word(live("EP_TBL"), 300, 0x8001);
        jnl_block index = {};
        index.ej_header.jnl_entry_count = 1;
        index.entry[0].type = FILE_TYPE_FRI;
        memcpy(index.entry[0].uuid, uuid_of(0x11).data(), UUID_SIZE);
        index.entry[0].fri.new_entry = {0, 0, 0x8000};
        make_jnl(volumes_->journal(), status,
                 {xcopy_block(uuid_of_number(1), 300, 0x8001),
                  tbl_block(uuid_of(0x11), 300, 0x8001), index});
    }
    int run(const words& command) {
        opt_ctx = option_record{};
        arguments run(command);
        const stdout_capture out;
        return run_command(run.count(), run.values());
    }
    // The forms that write; every one of them makes something that needs a sync.
    std::vector<words> writing_commands() const {
        const words paths = {"--fripath", live("EP_FRI"), "--tblpath", live("EP_TBL"),
                             "--mappath", lun(),          "--volpath", root()};
        const auto with_paths = [&paths](words command) {
            command.insert(command.end(), paths.begin(), paths.end());
            return command;
        };
        const std::string made = root() + "/made";
        return {with_paths({"--rpjnl", "fri", "--jnlpath", volumes_->journal()}),
                with_paths({"--rpjnl", "tbl", "--jnlpath", volumes_->journal()}),
                with_paths({"--rpjnl", "map", "--jnlpath", volumes_->journal()}),
                with_paths({"--rpjnl", "vol", "--jnlpath", volumes_->journal()}),
                {"--rpvjnl"},
                {"--startup-replay"},
                {"--set-status", "ro"},
                with_paths({"--vaaifix"}),
                {"--create", "fri", "--path", made, "--oldpath", live("EP_FRI")},
                {"--create", "tbl", "--path", made, "--oldpath", live("EP_TBL")},
                {"--create", "map", "--path", made, "--oldpath", lun()},
                with_paths({"--change-uuid", "fri"}),
                with_paths({"--change-uuid", "tbl"}),
                with_paths({"--import-volume"}),
                with_paths({"--finalize"}),
                with_paths({"--reconstruct"}),
                with_paths({"--fullck"}),
                {"--onekeycheck"},
                with_paths({"--onekeyrepair"})};
    }

    std::unique_ptr<sample_volumes> volumes_ = std::make_unique<sample_volumes>();
    log_capture log_;
};

TEST_F(command_failures, a_sync_that_fails_ends_every_command_that_wrote_with_255) {
    put_files(0xFFFFFFFF);
    for (const words& command : writing_commands()) {
        put_files(0xFFFFFFFF);
        log_.clear();
        const io_outage outage(io_call::sync);
        EXPECT_EQ(run(command), -1) << command[0];
        EXPECT_GT(io_outage::calls(), 0u) << command[0];
        EXPECT_EQ(log_.count("ERR: main(#) This run is not complete, failures "), 1u) << command[0];
        EXPECT_TRUE(log_.has(", the first: Fail to sync ")) << command[0] << log_.last();
    }
}

TEST_F(command_failures, a_single_sync_that_fails_is_enough) {
    put_files(0xFFFFFFFF);
    ASSERT_EQ(run({"--rpvjnl"}), 0);
    EXPECT_EQ(log_.count("main("), 0u);
    put_files(0xFFFFFFFF);
    log_.clear();
    const io_fault_at fault(1, ENOSPC, {io_call::sync});
    EXPECT_EQ(run({"--rpvjnl"}), -1);
    EXPECT_EQ(log_.last(),
              "ERR: main(#) This run is not complete, failures 1, the first: Fail to sync " +
                  live("EP_FRI") + ": No space left on device\n");
}

// A single entry's write answers 0 whatever becomes of it.
TEST_F(command_failures, a_write_that_fails_or_is_short_ends_the_command_with_255) {
    for (const int error : {EIO, 0}) {
        put_files(0xFFFFFFFF);
        log_.clear();
        const io_fault_at fault(1, error, {io_call::write});
        EXPECT_EQ(
            run({"--rpjnl", "tbl", "--jnlpath", volumes_->journal(), "--tblpath", live("EP_TBL")}),
            -1);
        EXPECT_TRUE(fault.fired());
        EXPECT_TRUE(log_.last().starts_with(
            "ERR: main(#) This run is not complete, failures 1, the first: "))
            << log_.last();
    }
}

TEST_F(command_failures, a_check_that_could_not_read_everything_is_not_passed) {
    put_files(0x25521814);
    make_filled_map(live("EP_BUF"), 63, 0, {});
    ASSERT_EQ(run({"--ckvbuf"}), 0);
    const io_fault_at fault(1, EACCES, {io_call::stat});  // of a volume's directory
    EXPECT_EQ(run({"--ckvbuf"}), -1);
    EXPECT_EQ(
        log_.last(),
        "ERR: main(#) This run is not complete, failures 1, the first: Fail to get the status "
        "of " +
            volumes_->volume(1) + "/@EP: Permission denied\n");
}

// What they answer with is what they found.
TEST_F(command_failures, a_question_for_the_status_and_a_display_keep_their_answer) {
    put_files(0x25521814);
    keep_journal(keep_reason::unread, "a reason\n");
    EXPECT_EQ(run({"--vaaick", "log"}), 0);
    EXPECT_EQ(run({"--search", "tbl", "-m", "-p", live("EP_TBL")}), 0);
    EXPECT_EQ(log_.count("main("), 0u);
}

TEST_F(command_failures, something_unread_ends_a_command_that_writes_with_255) {
    put_files(0x25521814);
    keep_journal(keep_reason::unread, "a reason\n");
    keep_journal(keep_reason::failed_write, "another reason\n");
    EXPECT_EQ(run({"--startup-replay"}), -1);
    EXPECT_EQ(log_.last(),
              "ERR: main(#) This run is not complete, failures 2, the first: a reason\n");
}

TEST_F(command_failures, damage_alone_changes_no_answer) {
    put_files(0x25521814);
    keep_journal(keep_reason::damage, "a damaged node\n");
    EXPECT_EQ(run({"--startup-replay"}), 0);
    EXPECT_EQ(log_.lines(), log_lines({}));
}
