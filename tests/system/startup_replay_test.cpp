// Start-up replay and the replay commands of the built program, on volumes of their own.
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "journal_status.h"
#include "metadata.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "system/support/sandbox.h"
#include "system/support/tree.h"

using log_text = std::vector<std::string>;

static const std::string history_ends = "jnl_block_read(#) jnl block all zero value @block 63\n";

static size_t times(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        count++;
    }
    return count;
}

// Two sound volumes; the journal changes extent 5 of the first and extent 6 of the second.
class startup_replay : public testing::Test {
protected:
    startup_replay() {
        make_sample_volume(box_.volume(1), 0x11);
        make_sample_volume(box_.volume(2), 0x22);
        make_journal(JNL_STATUS_ABNORMAL);
    }
    void make_journal(uint32_t status) const {
        make_jnl(box_.journal(), status,
                 {tbl_block(uuid_of(0x11), 5, 0x8003), tbl_block(uuid_of(0x22), 6, 0x8004)});
    }
    std::string table(unsigned number) const { return box_.volume(number) + "/@EP/EP_TBL"; }
    std::string index(unsigned number) const { return box_.volume(number) + "/@EP/EP_FRI"; }
    // A group whose free list does not match its count.
    void spoil(unsigned number) const {
        const uint16_t entry[4] = {1, 0, 0, 0x8005};
        write_file_bytes(index(number), METADATA_DATA_OFFSET, entry, sizeof entry);
    }

    sandbox box_;
};

TEST_F(startup_replay, after_an_unclean_shutdown_replays_every_volume_and_removes_the_journal) {
    const auto index_before = tree_of(box_.volume(1)).at("@EP/EP_FRI");
    const run_result got = box_.run({"--startup-replay"});
    EXPECT_EQ(got.status, 0);
    EXPECT_TRUE(
        got.out.starts_with("TARN_INFO: jnlPath=/var/lib/tarn/EP_JNL\n"
                            "TARN_INFO: REPLAY volume /volume1\n"
                            "TARN_INFO: REPLAY FRI /volume1/@EP/EP_FRI\n"))
        << got.out;
    EXPECT_TRUE(
        got.out.ends_with("TARN_INFO: FRI /volume2/@EP/EP_FRI TBL /volume2/@EP/EP_TBL "
                          "IS CONSISTENT\n"))
        << got.out;
    EXPECT_EQ(got.log, (log_text{"vaai_startup_replay(#) Start to replaying Journal\n",
                                 history_ends, history_ends, history_ends, history_ends,
                                 "vaai_startup_replay(#) Journal Consistent, Remove "
                                 "/var/lib/tarn/EP_JNL\n"}));
    EXPECT_EQ(tbl_word_of(table(1), 5), 0x8003);
    EXPECT_EQ(tbl_word_of(table(2), 6), 0x8004);
    EXPECT_EQ(tree_of(box_.volume(1)).at("@EP/EP_FRI"), index_before);
    EXPECT_FALSE(file_exists(box_.journal()));

    const auto replayed = tree_of(box_.volume(1));
    const run_result again = box_.run({"--startup-replay"});
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.out, "TARN_INFO: jnlPath=/var/lib/tarn/EP_JNL\n");
    EXPECT_EQ(again.log, log_text{});
    EXPECT_EQ(tree_of(box_.volume(1)), replayed);
}

TEST_F(startup_replay, without_a_journal_exits_0_without_enumerating_volumes) {
    std::filesystem::remove(box_.journal());
    std::filesystem::remove_all(box_.volume(2) + "/@EP");  // an enumeration would note that
    const run_result got = box_.run({"--startup-replay"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, "TARN_INFO: jnlPath=/var/lib/tarn/EP_JNL\n");
}

TEST_F(startup_replay, a_journal_that_was_never_used_exits_255_and_nothing_changes) {
    make_journal(JNL_STATUS_INIT);
    const auto volume = tree_of(box_.volume(1));
    const auto journal = file_bytes(box_.journal(), 0, METADATA_DATA_OFFSET + 64 * 512);
    const run_result got = box_.run({"--startup-replay"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log, log_text{});
    EXPECT_EQ(tree_of(box_.volume(1)), volume);
    EXPECT_TRUE(file_bytes(box_.journal(), 0, METADATA_DATA_OFFSET + 64 * 512) == journal);
}

TEST_F(startup_replay, a_read_only_volume_marks_the_journal_and_stops_everything) {
    for (const uint32_t status : {JNL_STATUS_ABNORMAL, JNL_STATUS_RO, JNL_STATUS_SUCCESS}) {
        make_journal(status);
        run_conditions conditions;
        conditions.read_only[1] = true;
        const run_result got = box_.run({"--startup-replay"}, conditions);
        EXPECT_EQ(got.status, 255);
        EXPECT_EQ(got.log, (log_text{"ERR: is_read_only(#) Found read-only volume /volume2\n",
                                     "ERR: set_journal_ro_bad_when_ro_volume_exist(#) Set journal "
                                     "/var/lib/tarn/EP_JNL Read-Only BAD\n"}));
        EXPECT_EQ(jnl_status_of(box_.journal()), JNL_STATUS_RO);
        EXPECT_EQ(tbl_word_of(table(1), 5), 0);
    }
    EXPECT_EQ(box_.run({"--startup-replay"}).status, 0);  // both are writable again
    EXPECT_EQ(tbl_word_of(table(1), 5), 0x8003);
}

TEST_F(startup_replay, a_bad_journal_stays_bad) {
    make_journal(JNL_STATUS_BAD);
    const run_result got = box_.run({"--startup-replay"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log, (log_text{"ERR: vaai_startup_replay(#) Journal In-Consistent\n"}));
    EXPECT_EQ(tbl_word_of(table(1), 5), 0);
    EXPECT_EQ(jnl_status_of(box_.journal()), JNL_STATUS_BAD);
}

TEST_F(startup_replay, a_failing_replay_and_a_failing_check_mark_the_journal_bad) {
    std::filesystem::rename(index(2), index(2) + ".away");
    EXPECT_EQ(box_.run({"--startup-replay"}).status, 255);
    EXPECT_EQ(jnl_status_of(box_.journal()), JNL_STATUS_BAD);
    std::filesystem::rename(index(2) + ".away", index(2));

    spoil(2);
    make_journal(JNL_STATUS_ABNORMAL);
    const run_result replayed = box_.run({"--startup-replay"});
    EXPECT_EQ(replayed.status, 255);
    EXPECT_TRUE(
        replayed.logged("ERR: check_metadata_consistent(#) FRI /volume2/@EP/EP_FRI TBL "
                        "/volume2/@EP/EP_TBL IS IN-CONSISTENT\n"));
    EXPECT_EQ(jnl_status_of(box_.journal()), JNL_STATUS_BAD);

    make_journal(JNL_STATUS_SUCCESS);
    EXPECT_EQ(box_.run({"--startup-replay"}).status, 255);
    EXPECT_EQ(jnl_status_of(box_.journal()), JNL_STATUS_BAD);
}

TEST_F(startup_replay, after_a_clean_shutdown_the_journal_stays) {
    make_journal(JNL_STATUS_SUCCESS);
    const run_result got = box_.run({"--startup-replay"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.log, log_text{});
    EXPECT_EQ(jnl_status_of(box_.journal()), JNL_STATUS_SUCCESS);
    EXPECT_EQ(tbl_word_of(table(1), 5), 0);
}

TEST_F(startup_replay, the_exit_status_of_the_all_volume_commands_follows_the_first_failure) {
    EXPECT_EQ(box_.run({"--ckvjnl"}).status, 255);
    EXPECT_EQ(box_.run({"--rpvjnl"}).status, 0);
    EXPECT_EQ(box_.run({"--ckvjnl"}).status, 0);
    EXPECT_EQ(jnl_status_of(box_.journal()), JNL_STATUS_ABNORMAL);  // neither touches it
}

TEST_F(startup_replay, a_volume_without_table_and_index_is_passed_over_by_check_and_replay) {
    std::filesystem::remove(table(1));
    std::filesystem::remove(index(1));
    const run_result check = box_.run({"--ckjnl", "vol", "--volpath", "/volume1"});
    EXPECT_EQ(check.status, 0);
    EXPECT_EQ(check.out,
              "TARN_INFO: CHECK volume /volume1\n"
              "TARN_INFO: FRI /volume1/@EP/EP_FRI fripath doesn't exist\n"
              "TARN_INFO: TBL /volume1/@EP/EP_TBL tblpath doesn't exist\n"
              "TARN_INFO: Skip CHECK volume /volume1\n");
    const run_result replay = box_.run({"--rpjnl", "vol", "--volpath", "/volume1"});
    EXPECT_EQ(replay.status, 0);
    EXPECT_EQ(replay.out,
              "TARN_INFO: REPLAY volume /volume1\n"
              "TARN_INFO: FRI /volume1/@EP/EP_FRI fripath isn't exist\n"
              "TARN_INFO: TBL /volume1/@EP/EP_TBL tblpath isn't exist\n");
}

TEST_F(startup_replay, a_volume_with_a_table_and_no_index_is_not_passed_over) {
    std::filesystem::remove(index(1));
    for (const char* command : {"--ckjnl", "--rpjnl"}) {
        const run_result got = box_.run({command, "vol", "--volpath", "/volume1"});
        EXPECT_EQ(got.status, 255);
        EXPECT_TRUE(got.logged("Fail to load FRI /volume1/@EP/EP_FRI\n"));
    }
}

TEST_F(startup_replay, a_volume_of_257_maps_replays_its_table_twice) {
    for (uint32_t i = 0; i < 257; i++) {
        make_map(box_.volume(1) + "/@iSCSITrg/LUN_Extent_" + std::to_string(i), uuid_of_number(i),
                 uuid_of(0x11));
    }
    const run_result got = box_.run({"--rpjnl", "vol", "--volpath", "/volume1"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(times(got.out, "TARN_INFO: REPLAY TBL "), 2U);
    EXPECT_EQ(times(got.out, "TARN_INFO: REPLAY VAAI-LUN "), 257U);
}

TEST_F(startup_replay, of_the_single_files_the_map_alone_replays_in_silence) {
    make_map(box_.volume(1) + "/@iSCSITrg/LUN_Extent_1", uuid_of_number(1), uuid_of(0x11));
    const std::vector<std::string> paths = {
        "--jnlpath", "/var/lib/tarn/EP_JNL", "--fripath", "/volume1/@EP/EP_FRI",
        "--tblpath", "/volume1/@EP/EP_TBL",  "--mappath", "/volume1/@iSCSITrg/LUN_Extent_1"};
    for (const char* word : {"fri", "tbl", "map"}) {
        std::vector<std::string> words = {"--rpjnl", word};
        words.insert(words.end(), paths.begin(), paths.end());
        const run_result got = box_.run(words);
        EXPECT_EQ(got.status, 0);
        EXPECT_EQ(times(got.out, "replay successfully\n"), word == std::string("map") ? 0U : 1U);
    }
}

TEST_F(startup_replay, a_journal_that_is_no_file_is_noted_and_fails_at_its_load) {
    const run_result got =
        box_.run({"--rpjnl", "vol", "--volpath", "/volume1", "--jnlpath", "/nowhere"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out,
              "TARN_INFO: REPLAY volume /volume1\n"
              "TARN_INFO: REPLAY jnlPath doesn't exist /nowhere\n"
              "TARN_INFO: REPLAY FRI /volume1/@EP/EP_FRI\n");
    EXPECT_TRUE(got.logged("ERR: replay_fri_journal(#) Fail to load JNL /nowhere\n"));
    std::filesystem::remove(box_.journal());
    EXPECT_TRUE(box_.run({"--ckjnl", "vol", "--volpath", "/volume1"})
                    .logged("ERR: check_fri_journal(#) Fail to load JNL /var/lib/tarn/EP_JNL\n"));
}

TEST_F(startup_replay, metack_needs_the_journal_and_freeck_does_not) {
    const std::vector<std::string> files = {"--fripath", "/volume1/@EP/EP_FRI", "--tblpath",
                                            "/volume1/@EP/EP_TBL"};
    std::vector<std::string> metack = {"--metack", "--jnlpath", "/var/lib/tarn/EP_JNL"};
    metack.insert(metack.end(), files.begin(), files.end());
    std::vector<std::string> freeck = {"--freeck"};
    freeck.insert(freeck.end(), files.begin(), files.end());
    EXPECT_EQ(box_.run(metack).status, 0);
    EXPECT_EQ(box_.run(freeck).status, 0);
    std::filesystem::remove(box_.journal());
    EXPECT_EQ(box_.run(metack).status, 255);
    EXPECT_EQ(box_.run(freeck).status, 0);
}

TEST_F(startup_replay, a_volume_that_misses_a_file_is_skipped_by_the_check) {
    make_journal(JNL_STATUS_SUCCESS);
    std::filesystem::remove(index(1));
    const run_result got = box_.run({"--startup-replay"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(times(got.out, "TARN_INFO: SKIP VAAI CONSISTENT CHECK, volume /volume1\n"), 1U);
    EXPECT_EQ(times(got.out, " IS CONSISTENT\n"), 1U);
}

TEST_F(startup_replay, every_map_of_a_volume_is_found_in_the_documented_order) {
    const std::string root = box_.volume(1);
    uint32_t number = 0;
    for (const char* name :
         {"/@EP/EP_ROD", "/@EP/EP_BUF", "/@Snapshot/below/FAMILY_2", "/@Snapshot/MYFAMILY_3",
          "/@EP_trash/any", "/@iSCSITrg/LUN_Extent_1", "/@iSCSITrg/LUN_extent_1"}) {
        make_directories(std::filesystem::path(root + name).parent_path());
        make_map(root + name, uuid_of_number(number++), uuid_of(0x11));
    }
    const run_result got = box_.run({"--rpjnl", "vol", "--volpath", "/volume1"});
    EXPECT_EQ(got.status, 0);
    const size_t maps = got.out.find("TARN_INFO: REPLAY VAAI-LUN ");
    ASSERT_NE(maps, std::string::npos);
    std::string lines;
    for (size_t at = maps; at < got.out.size(); at = got.out.find('\n', at) + 1) {
        const std::string line = got.out.substr(at, got.out.find('\n', at) + 1 - at);
        lines += line.find("VAAI-LUN") != std::string::npos ? line : "";
    }
    EXPECT_EQ(lines,
              "TARN_INFO: REPLAY VAAI-LUN /volume1/@iSCSITrg/LUN_Extent_1\n"
              "TARN_INFO: REPLAY VAAI-LUN /volume1/@EP_trash/any\n"
              "TARN_INFO: REPLAY VAAI-LUN /volume1/@Snapshot/below/FAMILY_2\n"
              "TARN_INFO: REPLAY VAAI-LUN /volume1/@EP/EP_BUF\n"
              "TARN_INFO: REPLAY VAAI-LUN /volume1/@EP/EP_ROD\n");
}
