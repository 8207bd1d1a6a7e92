#include "volume/journal_state.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>

#include "cli/operations.h"
#include "jnl/jnl_file.h"
#include "journal_status.h"
#include "options.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"

class journal_state : public testing::Test {
protected:
    journal_state() { snprintf(opt_ctx.jnlpath, sizeof opt_ctx.jnlpath, "%s", path().c_str()); }
    std::string path() const { return volumes_.journal(); }

    sample_volumes volumes_;
    log_capture log_;
};

TEST_F(journal_state, setting_the_status_changes_only_its_word_and_the_checksum_of_its_node) {
    make_jnl(path(), JNL_STATUS_SUCCESS, {tbl_block(uuid_of(1), 2, 0x8001)});
    const auto before = file_bytes(path(), 0, 1048576 + 512);
    EXPECT_EQ(tarn_set_journal_status(JNL_STATUS_RO), 0);
    EXPECT_EQ(jnl_status_of(path()), JNL_STATUS_RO);
    auto after = file_bytes(path(), 0, 1048576 + 512);
    std::copy_n(before.begin() + 4096, 8, after.begin() + 4096);  // checksum and status
    EXPECT_TRUE(after == before);
    EXPECT_EQ(current_jnl.fd, 0);
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(journal_state, an_unknown_status_is_not_replaced) {
    make_jnl(path(), 1, {});
    EXPECT_EQ(tarn_set_journal_status(JNL_STATUS_RO), -1);
    EXPECT_EQ(jnl_status_of(path()), 1u);
    EXPECT_EQ(current_jnl.fd, 0);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: tarn_set_journal_status(#) Fail to set journal " +
                                       path() + " BAD\n"}));
}

TEST_F(journal_state, a_missing_journal_can_be_neither_set_nor_read) {
    EXPECT_EQ(tarn_set_journal_status(JNL_STATUS_BAD), -1);
    EXPECT_EQ(log_.count("ERR: tarn_set_journal_status(#) Fail to load JNL " + path() + "\n"), 1u);
    uint32_t status = 7;
    EXPECT_EQ(tarn_get_journal_status(&status), -1);
    EXPECT_EQ(status, 7u);
    EXPECT_EQ(log_.count("ERR: tarn_get_journal_status(#) Fail to load JNL " + path() + "\n"), 1u);
}

TEST_F(journal_state, reading_distinguishes_every_status_from_a_failure) {
    for (const uint32_t status : {JNL_STATUS_INIT, JNL_STATUS_SUCCESS, JNL_STATUS_ABNORMAL,
                                  JNL_STATUS_BAD, JNL_STATUS_RO, 1u}) {
        make_jnl(path(), status, {});
        uint32_t read = 7;
        EXPECT_EQ(tarn_get_journal_status(&read), 0);
        EXPECT_EQ(read, status);
        EXPECT_EQ(current_jnl.fd, 0);
    }
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(journal_state, a_damaged_header_is_a_failure_and_the_journal_is_closed) {
    make_jnl(path(), JNL_STATUS_SUCCESS, {});
    write_file_bytes(path(), 4096 + 20, "x", 1);
    const auto before = file_bytes(path(), 0, 8192);
    uint32_t status = 7;
    EXPECT_EQ(tarn_get_journal_status(&status), -1);
    EXPECT_EQ(tarn_set_journal_status(JNL_STATUS_BAD), -1);
    EXPECT_EQ(current_jnl.fd, 0);
    EXPECT_TRUE(file_bytes(path(), 0, 8192) == before);
}

TEST_F(journal_state, the_journal_is_closed_and_unchanged_whichever_read_or_open_fails) {
    make_jnl(path(), JNL_STATUS_SUCCESS, {});
    failed_calls failed;
    for (uint64_t n = 1;; n++) {
        uint32_t status = 7;
        io_fault_at fault(n, EIO, {io_call::open, io_call::read, io_call::seek});
        const int result = tarn_get_journal_status(&status);
        EXPECT_EQ(current_jnl.fd, 0);
        EXPECT_EQ(jnl_status_of(path()), JNL_STATUS_SUCCESS);
        if (!failed.add(fault)) {
            EXPECT_EQ(result, 0);
            EXPECT_EQ(status, JNL_STATUS_SUCCESS);
            EXPECT_EQ(failed.in_order(), "open seek read");
            break;
        }
        EXPECT_EQ(result, -1) << n;
        EXPECT_EQ(status, 7u);
    }
}

TEST_F(journal_state, the_guard_leaves_the_journal_alone_when_every_volume_is_writable) {
    make_sample_volume(volumes_.volume(1), 0x11);
    make_sample_volume(volumes_.volume(2), 0x22);
    make_jnl(path(), JNL_STATUS_ABNORMAL, {});
    const auto before = file_bytes(path(), 0, 8192);
    stdout_capture out;
    EXPECT_EQ(set_journal_ro_bad_when_ro_volume_exist(), 0);
    EXPECT_TRUE(file_bytes(path(), 0, 8192) == before);
    EXPECT_EQ(out.text(), "TARN_INFO: " + volumes_.other() + " is not a VAAI volume\n");
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(journal_state, the_guard_marks_the_journal_when_the_volumes_cannot_be_enumerated) {
    make_jnl(path(), JNL_STATUS_SUCCESS, {});
    volumes_.let_platform_fail();
    EXPECT_EQ(set_journal_ro_bad_when_ro_volume_exist(), -1);
    EXPECT_EQ(jnl_status_of(path()), JNL_STATUS_RO);
    EXPECT_TRUE(log_.has("ERR: is_read_only_volume_exist(#) Fail to enum all volumes\n"));
    EXPECT_EQ(log_.last(), "ERR: set_journal_ro_bad_when_ro_volume_exist(#) Set journal " + path() +
                               " Read-Only BAD\n");
}

TEST_F(journal_state, the_guard_logs_that_it_cannot_mark_the_journal) {
    make_jnl(path(), 1, {});  // a status that is not replaced
    volumes_.let_platform_fail();
    EXPECT_EQ(set_journal_ro_bad_when_ro_volume_exist(), -1);
    EXPECT_EQ(jnl_status_of(path()), 1u);
    EXPECT_EQ(log_.last(), "ERR: set_journal_ro_bad_when_ro_volume_exist(#) Fail to set journal " +
                               path() + " Read-Only BAD\n");
}
