#include "cli/status_commands.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>

#include "cli/operations.h"
#include "jnl/jnl_file.h"
#include "journal_status.h"
#include "options.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"
#include "volume/startup_replay.h"

class status_commands : public testing::Test {
protected:
    int check(const char* mode, std::vector<std::string> words = {}) {
        arguments run(std::move(words));
        opt_ctx = option_record{};
        return vaai_status_check(run.count(), run.values(), mode);
    }
    int set(const char* word, std::vector<std::string> words = {}) {
        arguments run(std::move(words));
        opt_ctx = option_record{};
        return vaai_status_set(run.count(), run.values(), word);
    }
    int replay(std::vector<std::string> words = {}) {
        arguments run(std::move(words));
        opt_ctx = option_record{};
        return vaai_startup_replay(run.count(), run.values());
    }
    // A group whose free list does not match its count, in a volume that is otherwise sound.
    static void spoil(const std::string& volume) {
        const uint16_t entry[4] = {1, 0, 0, 0x8005};
        write_file_bytes(volume + "/@EP/EP_FRI", METADATA_DATA_OFFSET, entry, sizeof entry);
    }

    sample_volumes volumes_;
    const std::string jnl_ = volumes_.journal();
    const std::string tbl_ = volumes_.volume(1) + "/@EP/EP_TBL";
    stdout_capture out_;
    log_capture log_;
};

TEST_F(status_commands, vaaick_fails_for_a_bad_journal_only) {
    for (const uint32_t status :
         {JNL_STATUS_INIT, JNL_STATUS_SUCCESS, JNL_STATUS_ABNORMAL, JNL_STATUS_RO, 1u}) {
        make_jnl(jnl_, status, {});
        EXPECT_EQ(check("log"), 0) << status;
        EXPECT_EQ(check("nolog"), 0) << status;
    }
    EXPECT_EQ(log_.lines(), log_lines({}));
    make_jnl(jnl_, JNL_STATUS_BAD, {});
    EXPECT_EQ(check("log"), -1);
    EXPECT_EQ(check("anything"), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: vaai_status_check(#) BAD JOURNAL\n",
                                       "ERR: vaai_status_check(#) BAD JOURNAL\n"}));
    log_.clear();
    EXPECT_EQ(check("nolog"), -1);
    EXPECT_EQ(check("NoLog"), -1);
    EXPECT_EQ(log_.lines(), log_lines({}));
    EXPECT_EQ(out_.text(), "");
    EXPECT_EQ(jnl_status_of(jnl_), JNL_STATUS_BAD);
    EXPECT_EQ(current_jnl.fd, 0);
}

TEST_F(status_commands, vaaick_passes_without_a_journal_and_reports_that) {
    EXPECT_EQ(check("log"), 0);
    EXPECT_EQ(out_.text(), "TARN_INFO: REPLAY jnlPath doesn't exist " + jnl_ + "\n");
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(status_commands, vaaick_fails_for_a_journal_that_does_not_load) {
    make_empty_file(jnl_);
    write_file_bytes(jnl_, 0, "damage", 6);
    EXPECT_EQ(check("nolog"), -1);
    EXPECT_EQ(log_.last(), "ERR: vaai_status_check(#) Fail to load JNL " + jnl_ + "\n");
    EXPECT_EQ(current_jnl.fd, 0);
}

TEST_F(status_commands, vaaick_accepts_a_journal_path_and_no_stray_words) {
    make_jnl(jnl_ + "2", JNL_STATUS_BAD, {});
    EXPECT_EQ(check("nolog", {"--jnlpath", jnl_ + "2"}), -1);
    make_jnl(jnl_, JNL_STATUS_SUCCESS, {});
    EXPECT_EQ(check("nolog", {"x"}), -1);
    EXPECT_EQ(out_.text(), "none-option argv element:x \n");
}

TEST_F(status_commands, set_status_stores_each_word_and_always_returns_minus_1) {
    const struct {
        const char* word;
        uint32_t status;
    } rows[] = {
        {"bad", 0x66656800},
        {"BAD", 0x66656800},
        {"ro", 0x77777777},
        {"Ro", 0x77777777},
        {"abnormal", 0xFFFFFFFF},
        {"Abnormal", 0xFFFFFFFF},
        {"success", 0x25521814},
        {"SUCCESS", 0x25521814},
        {"init", 0},
        {"", 0},
        {"successful", 0},
        {nullptr, 0x66656800},
    };
    for (const auto& row : rows) {
        make_jnl(jnl_, JNL_STATUS_RO, {});
        EXPECT_EQ(set(row.word), -1);
        EXPECT_EQ(jnl_status_of(jnl_), row.status) << row.word;
        EXPECT_EQ(current_jnl.fd, 0);
    }
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(status_commands, set_status_logs_a_journal_that_cannot_be_set) {
    EXPECT_EQ(set("success"), -1);
    EXPECT_EQ(log_.last(), "ERR: vaai_status_set(#) Fail to set journal " + jnl_ + " BAD\n");
    EXPECT_EQ(out_.text(), "TARN_INFO: REPLAY jnlPath doesn't exist " + jnl_ + "\n");
    EXPECT_FALSE(file_exists(jnl_));
}

TEST_F(status_commands, set_status_changes_nothing_if_words_are_left_over) {
    make_jnl(jnl_, JNL_STATUS_RO, {});
    EXPECT_EQ(set("success", {"x"}), -1);
    EXPECT_EQ(jnl_status_of(jnl_), JNL_STATUS_RO);
}

TEST_F(status_commands, without_a_journal_startup_replay_has_nothing_to_do) {
    make_sample_volume(volumes_.volume(1), 0x11);
    EXPECT_EQ(replay(), 0);
    EXPECT_EQ(out_.text(), "TARN_INFO: jnlPath=" + jnl_ + "\n");  // and no volume was enumerated
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(status_commands, a_journal_that_was_given_is_not_announced) {
    EXPECT_EQ(replay({"--jnlpath", "/nowhere/EP_JNL"}), 0);
    EXPECT_EQ(out_.text(), "");
}

TEST_F(status_commands, startup_replay_stops_at_leftover_words) {
    make_jnl(jnl_, JNL_STATUS_ABNORMAL, {});
    EXPECT_EQ(replay({"x"}), -1);
    EXPECT_TRUE(file_exists(jnl_));
}

TEST_F(status_commands, startup_replay_fails_for_a_journal_that_does_not_load) {
    write_file_bytes(jnl_, 0, "damage", 6);
    EXPECT_EQ(replay(), -1);
    const auto lines = log_.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2],
              "ERR: tarn_get_journal_status(#) Fail to load JNL " + jnl_ + "\n");
    EXPECT_EQ(lines.back(),
              "ERR: vaai_startup_replay(#) Fail to get journal status, jnlPath " + jnl_ + "\n");
    EXPECT_TRUE(file_exists(jnl_));
}

TEST_F(status_commands, a_bad_journal_is_never_replayed) {
    make_sample_volume(volumes_.volume(1), 0x11);
    make_jnl(jnl_, JNL_STATUS_BAD, {tbl_block(uuid_of(0x11), 5, 0x8003)});
    EXPECT_EQ(replay(), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: vaai_startup_replay(#) Journal In-Consistent\n"}));
    EXPECT_EQ(tbl_word_of(tbl_, 5), 0);
    EXPECT_EQ(jnl_status_of(jnl_), JNL_STATUS_BAD);
}

TEST_F(status_commands, any_other_status_is_refused_and_touches_nothing) {
    make_sample_volume(volumes_.volume(1), 0x11);
    for (const uint32_t status : {JNL_STATUS_INIT, 1u, 0x77777776u}) {
        make_jnl(jnl_, status, {tbl_block(uuid_of(0x11), 5, 0x8003)});
        const auto before = file_bytes(jnl_, 0, METADATA_DATA_OFFSET + 512);
        EXPECT_EQ(replay(), -1);
        EXPECT_TRUE(file_bytes(jnl_, 0, METADATA_DATA_OFFSET + 512) == before);
        EXPECT_EQ(tbl_word_of(tbl_, 5), 0);
    }
    EXPECT_EQ(log_.lines(), log_lines({}));
    EXPECT_EQ(out_.text(), "TARN_INFO: jnlPath=" + jnl_ + "\n" + "TARN_INFO: jnlPath=" + jnl_ +
                               "\n" + "TARN_INFO: jnlPath=" + jnl_ + "\n");
}

TEST_F(status_commands, after_an_unclean_shutdown_the_journal_is_replayed_and_removed) {
    for (const uint32_t status : {JNL_STATUS_ABNORMAL, JNL_STATUS_RO}) {
        make_sample_volume(volumes_.volume(1), 0x11);
        make_jnl(jnl_, status, {tbl_block(uuid_of(0x11), 5, 0x8003)});
        log_.clear();
        EXPECT_EQ(replay(), 0);
        EXPECT_EQ(tbl_word_of(tbl_, 5), 0x8003);
        EXPECT_FALSE(file_exists(jnl_));
        EXPECT_EQ(log_.lines(),
                  log_lines({"vaai_startup_replay(#) Start to replaying Journal\n",
                             "jnl_block_read(#) jnl block all zero value @block 63\n",
                             "jnl_block_read(#) jnl block all zero value @block 63\n",
                             "vaai_startup_replay(#) Journal Consistent, Remove " + jnl_ + "\n"}));
        EXPECT_EQ(replay(), 0);  // the second run finds nothing
    }
}

TEST_F(status_commands, a_journal_that_cannot_be_removed_is_kept_and_not_marked_bad) {
    make_sample_volume(volumes_.volume(1), 0x11);
    make_jnl(jnl_, JNL_STATUS_ABNORMAL, {tbl_block(uuid_of(0x11), 5, 0x8003)});
    {
        const io_fault_at fault(1, EACCES, {io_call::unlink});
        EXPECT_EQ(replay(), -1);
        EXPECT_TRUE(fault.fired());
    }
    const auto lines = log_.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2],
              "vaai_startup_replay(#) Journal Consistent, Remove " + jnl_ + "\n");
    EXPECT_EQ(lines.back(), "ERR: vaai_startup_replay(#) Fail to remove journal " + jnl_ + "\n");
    EXPECT_EQ(jnl_status_of(jnl_), JNL_STATUS_ABNORMAL);
    EXPECT_EQ(tbl_word_of(tbl_, 5), 0x8003);
    EXPECT_EQ(replay(), 0);  // the next run replays it again and removes it
    EXPECT_FALSE(file_exists(jnl_));
}

TEST_F(status_commands, a_replay_that_fails_marks_the_journal_bad) {
    make_sample_volume(volumes_.volume(1), 0x11);
    make_jnl(jnl_, JNL_STATUS_ABNORMAL, {tbl_block(uuid_of(0x11), 5, 0x8003)});
    remove((volumes_.volume(1) + "/@EP/EP_FRI").c_str());
    EXPECT_EQ(replay(), -1);
    EXPECT_EQ(jnl_status_of(jnl_), JNL_STATUS_BAD);
    EXPECT_FALSE(log_.has("Journal Consistent"));
    EXPECT_EQ(replay(), -1);
    EXPECT_EQ(log_.last(), "ERR: vaai_startup_replay(#) Journal In-Consistent\n");
}

TEST_F(status_commands, a_check_that_fails_after_the_replay_marks_the_journal_bad) {
    make_sample_volume(volumes_.volume(1), 0x11);
    make_jnl(jnl_, JNL_STATUS_ABNORMAL, {tbl_block(uuid_of(0x11), 5, 0x8003)});
    spoil(volumes_.volume(1));
    EXPECT_EQ(replay(), -1);
    EXPECT_EQ(tbl_word_of(tbl_, 5), 0x8003);
    EXPECT_EQ(jnl_status_of(jnl_), JNL_STATUS_BAD);
}

TEST_F(status_commands, after_a_clean_shutdown_the_volumes_are_only_checked) {
    make_sample_volume(volumes_.volume(1), 0x11);
    make_jnl(jnl_, JNL_STATUS_SUCCESS, {tbl_block(uuid_of(0x11), 5, 0x8003)});
    const auto before = file_bytes(jnl_, 0, METADATA_DATA_OFFSET + 512);
    EXPECT_EQ(replay(), 0);
    EXPECT_TRUE(file_bytes(jnl_, 0, METADATA_DATA_OFFSET + 512) == before);
    EXPECT_EQ(tbl_word_of(tbl_, 5), 0);
    EXPECT_EQ(log_.lines(), log_lines({}));

    spoil(volumes_.volume(1));
    EXPECT_EQ(replay(), -1);
    EXPECT_EQ(jnl_status_of(jnl_), JNL_STATUS_BAD);
}

// Whichever write or sync fails: either the replay is reported as failed, or all of it is on the
// disk. The journal is deleted only in the second case.
TEST_F(status_commands, a_journal_is_never_removed_after_a_write_or_sync_that_failed) {
    failed_calls failed;
    bool removed = false;
    for (uint64_t n = 1;; n++) {
        ASSERT_LT(n, 1000u);
        make_sample_volume(volumes_.volume(1), 0x11);
        make_jnl(jnl_, JNL_STATUS_ABNORMAL, {tbl_block(uuid_of(0x11), 5, 0x8003)});
        log_.clear();
        keep_journal_forget();
        io_fault_at fault(n, EIO, {io_call::write, io_call::sync});
        const int result = replay();
        if (!failed.add(fault)) {
            EXPECT_EQ(result, 0);
            EXPECT_FALSE(file_exists(jnl_));
            // The table's entry; the table, the volume and the journal's directory.
            EXPECT_EQ(failed.in_order(), "write sync sync sync");
            EXPECT_TRUE(removed) << "by the run whose last sync failed";
            break;
        }
        EXPECT_EQ(result, -1) << n;
        EXPECT_FALSE(removed) << "nothing is written or synced after the journal's directory";
        removed = !file_exists(jnl_);
        if (removed) {  // the journal is gone, and may come back after a power failure
            EXPECT_EQ(log_.last(), "ERR: vaai_startup_replay(#) Journal " + jnl_ +
                                       " is removed, Fail to sync its directory: "
                                       "Input/output error\n");
            continue;
        }
        EXPECT_TRUE(file_exists(jnl_)) << n;
        EXPECT_EQ(jnl_status_of(jnl_), JNL_STATUS_BAD) << n;
        EXPECT_TRUE(log_.has("ERR: vaai_startup_replay(#) Keep journal " + jnl_ + ", reasons "))
            << n;
    }
}

TEST_F(status_commands, a_path_that_was_cut_keeps_the_journal) {
    // 130 characters, and the first 127 of them name another map.
    const std::string directory = volumes_.volume(1) + "/@iSCSITrg/";
    const std::string name = "LUN_Extent_" + std::string(127 - directory.size() - 11, 'a');
    make_sample_volume(volumes_.volume(1), 0x11);
    make_map(directory + name, uuid_of_number(1), uuid_of(0x11));
    make_map(directory + name + "bbb", uuid_of_number(2), uuid_of(0x11));
    make_jnl(jnl_, JNL_STATUS_ABNORMAL, {xcopy_block(uuid_of_number(2), 9, 0x8002)});
    EXPECT_EQ(replay(), -1);
    EXPECT_TRUE(log_.has("path " + directory + name + "bbb is cut to " + directory + name + "\n"));
    EXPECT_EQ(jnl_status_of(jnl_), JNL_STATUS_BAD);
}

TEST_F(status_commands, without_a_journal_root_each_fails_and_logs_one_line) {
    volumes_.let_platform_fail();
    const std::string line = "ERR: get_jnl_root_path(#) Fail to get the journal root\n";
    EXPECT_EQ(check("log"), -1);
    EXPECT_EQ(log_.last(), line);
    log_.clear();
    EXPECT_EQ(set("success"), -1);
    EXPECT_EQ(log_.lines(), log_lines({line}));
    EXPECT_EQ(out_.text(), "");
    log_.clear();
    EXPECT_EQ(replay(), -1);
    EXPECT_EQ(log_.lines(), log_lines({line}));
    EXPECT_EQ(out_.text(), "TARN_INFO: jnlPath=\n");
}
