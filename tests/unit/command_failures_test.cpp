// The exit status of main after a write, a sync or a read of a command failed.
#include <cerrno>

#include "store/keep_journal.h"
#include "support/command_fixture.h"
#include "support/io_faults.h"
#include "support/io_outage.h"
#include "support/sample_maps.h"

class command_failures : public command_fixture {};

TEST_F(command_failures, a_sync_that_fails_ends_every_command_that_wrote_with_255) {
    put_files(0xFFFFFFFF);
    for (const words& command : writing_commands()) {
        put_files(0xFFFFFFFF);
        log_.clear();
        const io_outage outage(io_call::sync);
        EXPECT_EQ(run(command), -1) << command[0];
        EXPECT_TRUE(io_outage::came()) << command[0];
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

// Writing a single entry returns 0 even if it fails.
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

TEST_F(command_failures, a_check_that_could_not_read_everything_does_not_pass) {
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

// Their exit status reports what they found.
TEST_F(command_failures, status_queries_and_displays_keep_their_exit_status) {
    put_files(0x25521814);
    keep_journal(keep_reason::unread, "a reason\n");
    EXPECT_EQ(run({"--vaaick", "log"}), 0);
    EXPECT_EQ(run({"--search", "tbl", "-m", "-p", live("EP_TBL")}), 0);
    EXPECT_EQ(log_.count("main("), 0u);
}

TEST_F(command_failures, a_failed_read_ends_a_command_that_writes_with_255) {
    put_files(0x25521814);
    keep_journal(keep_reason::unread, "a reason\n");
    keep_journal(keep_reason::failed_write, "another reason\n");
    EXPECT_EQ(run({"--startup-replay"}), -1);
    EXPECT_EQ(log_.last(),
              "ERR: main(#) This run is not complete, failures 2, the first: a reason\n");
}

TEST_F(command_failures, damage_alone_does_not_change_the_exit_status) {
    put_files(0x25521814);
    keep_journal(keep_reason::damage, "a damaged node\n");
    EXPECT_EQ(run({"--startup-replay"}), 0);
    EXPECT_EQ(log_.lines(), log_lines({}));
}
