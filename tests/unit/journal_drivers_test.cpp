
#include <cerrno>
#include <gtest/gtest.h>
#include <string>

#include "cli/operations.h"
#include "fri/fri_file.h"
#include "jnl/jnl_file.h"
#include "journal_status.h"
#include "map/map_file.h"
#include "options.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_file.h"

// One volume with a map of lea 0 mapped to extent 5 by the only transaction of the journal.
// Logged by each walk after the oldest transaction, in a ring that was never full.
static const char* const HISTORY_ENDS = "jnl_block_read(#) jnl block all zero value @block 63\n";

class journal_drivers : public testing::Test {
protected:
    journal_drivers() {
        make_sample_volume(volumes_.volume(1), 0x11);
        make_map(map_, uuid_of_number(1), uuid_of(0x11));
        make_jnl(jnl_, JNL_STATUS_ABNORMAL, {tbl_block(uuid_of(0x11), 5, 0x8003)});
        set(opt_ctx.fripath, fri_);
        set(opt_ctx.tblpath, tbl_);
        set(opt_ctx.mappath, map_);
        set(opt_ctx.jnlpath, jnl_);
    }

    static void set(char* field, const std::string& path) {
        snprintf(field, PATH_TEXT_SIZE, "%s", path.c_str());
    }

    static void expect_everything_closed() {
        EXPECT_EQ(current_fri.fd, 0);
        EXPECT_EQ(current_tbl.fd, 0);
        EXPECT_EQ(current_map.fd, 0);
        EXPECT_EQ(current_jnl.fd, 0);
    }

    // The lines that the drivers themselves print: the search's lines are left out.
    std::string reported() {
        std::string text = out_.text();
        std::string kept;
        for (size_t at = 0; at < text.size();) {
            const size_t end = text.find('\n', at) + 1;
            const std::string line = text.substr(at, end - at);
            if (line.find("jnl_last_record_start") == std::string::npos &&
                line.find("JOURNAL-LAST-COMMIT") == std::string::npos) {
                kept += line;
            }
            at = end;
        }
        return kept;
    }

    sample_volumes volumes_;
    const std::string fri_ = volumes_.volume(1) + "/@EP/EP_FRI";
    const std::string tbl_ = volumes_.volume(1) + "/@EP/EP_TBL";
    const std::string map_ = volumes_.volume(1) + "/@iSCSITrg/LUN_Extent_1";
    const std::string jnl_ = volumes_.journal();
    arguments none_{{}};
    stdout_capture out_;
    log_capture log_;
};

TEST_F(journal_drivers, an_index_that_the_journal_does_not_name_checks_and_replays) {
    EXPECT_EQ(check_fri_journal(none_.count(), none_.values(), 0), 0);
    EXPECT_EQ(replay_fri_journal(none_.count(), none_.values(), 0), 0);
    EXPECT_EQ(reported(), "TARN_INFO: CHECK FRI " + fri_ + "\n" + "TARN_INFO: FRI " + fri_ +
                              " check successfully\n" + "TARN_INFO: REPLAY FRI " + fri_ + "\n" +
                              "TARN_INFO: FRI " + fri_ + " replay successfully\n");
    EXPECT_EQ(log_.lines(), log_lines({HISTORY_ENDS, HISTORY_ENDS}));
    expect_everything_closed();
}

TEST_F(journal_drivers, a_table_without_the_recorded_change_fails_the_check_until_it_is_replayed) {
    EXPECT_EQ(check_tbl_journal(none_.count(), none_.values(), 0), -1);
    EXPECT_EQ(log_.count("ERR: check_tbl_journal(#) TBL " + tbl_ + " is not match with JNL " +
                         jnl_ + "\n"),
              1u);
    expect_everything_closed();
    EXPECT_EQ(tbl_word_of(tbl_, 5), 0);
    EXPECT_EQ(replay_tbl_journal(none_.count(), none_.values(), 0), 0);
    EXPECT_EQ(tbl_word_of(tbl_, 5), 0x8003);
    expect_everything_closed();
    log_.clear();
    EXPECT_EQ(check_tbl_journal(none_.count(), none_.values(), 0), 0);
    EXPECT_EQ(log_.lines(), log_lines({HISTORY_ENDS}));
    const std::string text = reported();
    EXPECT_NE(text.find("TARN_INFO: REPLAY TBL " + tbl_ + "\nTARN_INFO: TBL " + tbl_ +
                        " replay successfully\n"),
              std::string::npos)
        << text;
    EXPECT_TRUE(text.ends_with("TARN_INFO: TBL " + tbl_ + " check successfully\n")) << text;
}

TEST_F(journal_drivers, a_map_replays_without_a_success_line_and_checks_with_one) {
    make_jnl(jnl_, JNL_STATUS_ABNORMAL, {xcopy_block(uuid_of_number(1), 9, 0x8002)});
    EXPECT_EQ(replay_map_journal(none_.count(), none_.values(), 0), 0);
    EXPECT_EQ(reported(), "TARN_INFO: REPLAY VAAI-LUN " + map_ + "\n");
    EXPECT_EQ(map_word_of(map_, 0) & ~(uint64_t{1} << 60), 0x8000000000000009u);
    EXPECT_EQ(check_map_journal(none_.count(), none_.values(), 0), 0);
    EXPECT_EQ(reported(), "TARN_INFO: REPLAY VAAI-LUN " + map_ + "\n" +
                              "TARN_INFO: CHECK VAAI-LUN " + map_ + "\n" + "TARN_INFO: MAP " +
                              map_ + " check successfully\n");
    expect_everything_closed();
}

struct named_driver {
    const char* name;
    int (*run)(int argc, char** argv, int argument);
    const char* kinds;  // of the files it loads, in order
};
static constexpr named_driver drivers[] = {
    {"check_fri_journal", check_fri_journal, "FJ"},
    {"check_tbl_journal", check_tbl_journal, "TJ"},
    {"check_map_journal", check_map_journal, "MJ"},
    {"replay_fri_journal", replay_fri_journal, "FTJ"},
    {"replay_tbl_journal", replay_tbl_journal, "TJ"},
    {"replay_map_journal", replay_map_journal, "MJ"},
};

TEST_F(journal_drivers, the_first_file_that_does_not_load_is_named_and_ends_the_driver) {
    for (const named_driver& driver : drivers) {
        for (const char* kind = driver.kinds; *kind != '\0'; kind++) {
            const std::string title = *kind == 'F'   ? "FRI"
                                      : *kind == 'T' ? "TBL"
                                      : *kind == 'M' ? "MAP"
                                                     : "JNL";
            char* field = *kind == 'F'   ? opt_ctx.fripath
                          : *kind == 'T' ? opt_ctx.tblpath
                          : *kind == 'M' ? opt_ctx.mappath
                                         : opt_ctx.jnlpath;
            const std::string kept = field;
            set(field, "/nowhere/file");
            log_.clear();
            EXPECT_EQ(driver.run(none_.count(), none_.values(), 0), -1) << driver.name;
            EXPECT_EQ(log_.last(), std::string("ERR: ") + driver.name + "(#) Fail to load " +
                                       title + " /nowhere/file\n");
            EXPECT_EQ(log_.count("Fail to load"), 1u) << driver.name;
            expect_everything_closed();
            set(field, kept);
        }
    }
}

TEST_F(journal_drivers, a_journal_without_an_end_fails_each_driver_with_its_own_line) {
    make_jnl(jnl_, JNL_STATUS_ABNORMAL, {tbl_block(uuid_of(0x11), 5, 0x8003)});
    write_file_bytes(jnl_, METADATA_DATA_OFFSET + 100, "damage", 6);
    for (const named_driver& driver : drivers) {
        log_.clear();
        EXPECT_EQ(driver.run(none_.count(), none_.values(), 0), -1) << driver.name;
        const std::string kind = *driver.kinds == 'F'   ? "FRI " + fri_
                                 : *driver.kinds == 'T' ? "TBL " + tbl_
                                                        : "MAP " + map_;
        const bool replays = std::string(driver.name).starts_with("replay");
        const std::string message =
            replays ? "Fail to replay " + kind + " with JNL " : kind + " is not match with JNL ";
        EXPECT_EQ(log_.last(), std::string("ERR: ") + driver.name + "(#) " + message + jnl_ + "\n");
        expect_everything_closed();
    }
}

TEST_F(journal_drivers, replay_reads_the_options_and_check_does_not) {
    arguments run({"--tblpath", "/nowhere/tbl"});
    EXPECT_EQ(check_map_journal(run.count(), run.values(), 0), 0);
    EXPECT_EQ(opt_ctx.tblpath, tbl_);
    EXPECT_EQ(replay_tbl_journal(run.count(), run.values(), 0), -1);
    EXPECT_STREQ(opt_ctx.tblpath, "/nowhere/tbl");
}

TEST_F(journal_drivers, leftover_words_stop_a_replay_before_its_first_line) {
    for (const named_driver& driver : {drivers[3], drivers[4], drivers[5]}) {
        arguments run({"x"});
        stdout_capture out;
        EXPECT_EQ(driver.run(run.count(), run.values(), 0), -1);
        EXPECT_EQ(out.text(), "none-option argv element:x \n");
    }
    EXPECT_EQ(tbl_word_of(tbl_, 5), 0);
}

TEST_F(journal_drivers, everything_is_closed_whichever_call_fails) {
    for (const named_driver& driver : drivers) {
        failed_calls failed;
        for (uint64_t n = 1;; n++) {
            ASSERT_LT(n, 1000u);
            make_tbl(tbl_, uuid_of(0x11));
            io_fault_at fault(n, EIO, {io_call::open, io_call::read, io_call::seek});
            const int result = driver.run(none_.count(), none_.values(), 0);
            expect_everything_closed();
            if (!failed.add(fault)) {
                EXPECT_EQ(result, driver.run == check_tbl_journal ? -1 : 0) << driver.name;
                EXPECT_EQ(failed.kinds(), "open read seek") << driver.name;
                EXPECT_EQ(failed.count(io_call::open), strlen(driver.kinds)) << driver.name;
                break;
            }
        }
    }
}
