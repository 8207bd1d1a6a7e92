// --startup-replay: by the journal's status, with volumes that are sound or not.
#include <filesystem>
#include <gtest/gtest.h>

#include "support/sample_maps.h"
#include "system/support/sample_server.h"
#include "system/support/tree.h"

namespace fs = std::filesystem;

static constexpr const char* jnl_path_line = "TARN_INFO: jnlPath=/var/lib/tarn/EP_JNL\n";

static std::map<std::string, std::string> all_trees(const sandbox& box) {
    return tree_of(fs::path(box.journal()).parent_path().parent_path());
}

// Group 0 of volume `number` initialised with one free extent that the table does not list.
static void make_inconsistent(const sandbox& box, unsigned number) {
    set_fri_word(box.volume(number) + "/@EP/EP_FRI", 0, uint64_t{0x8001} << 48);
}

TEST(startup_replay, without_a_journal_no_volume_is_examined) {
    const sandbox box;
    box.configure("volumes = /scratch\n");  // would be reported as not a volume
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, jnl_path_line);
    EXPECT_EQ(got.err, "");
    EXPECT_EQ(got.log, lines{});
}

TEST(startup_replay, a_named_journal_is_not_printed) {
    const sandbox box;
    make_jnl(box.journal(), 0x66656800, {});  // the default one is not read
    const run_result got = box.run({"--startup-replay", "--jnlpath", "/scratch/none"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, "");
}

TEST(startup_replay, status_0_or_an_unknown_one_exits_255_and_changes_nothing) {
    for (const uint32_t status : {0U, 5U, 0x25521815U}) {
        const sandbox box;
        make_volumes(box);
        make_inconsistent(box, 1);
        make_jnl(box.journal(), status, {});
        const auto before = all_trees(box);
        const run_result got = box.run({"--startup-replay"});
        EXPECT_EQ(got.status, 255) << status;
        EXPECT_EQ(got.out, jnl_path_line);
        EXPECT_EQ(got.log, lines{});
        EXPECT_EQ(all_trees(box), before);
    }
}

TEST(startup_replay, a_bad_journal_is_never_replayed) {
    const sandbox box;
    make_volumes(box);
    make_jnl(box.journal(), 0x66656800, {tbl_block(uuid_of(0x11), 5, 0x8001)});
    const auto before = all_trees(box);
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out, jnl_path_line);
    EXPECT_EQ(got.log, (lines{"ERR: vaai_startup_replay(#) Journal In-Consistent\n"}));
    EXPECT_EQ(all_trees(box), before);
}

TEST(startup_replay, a_journal_that_cannot_be_loaded_stays_as_it_is) {
    const sandbox box;
    make_volumes(box);
    const std::string text(5000, 'x');
    write_file_bytes(box.journal(), 0, text.data(), text.size());
    const auto before = all_trees(box);
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 255);
    EXPECT_TRUE(
        got.logged("ERR: tarn_get_journal_status(#) Fail to load JNL /var/lib/tarn/EP_JNL\n"));
    ASSERT_FALSE(got.log.empty());
    EXPECT_EQ(got.log.back(),
              "ERR: vaai_startup_replay(#) Fail to get journal status, jnlPath "
              "/var/lib/tarn/EP_JNL\n");
    EXPECT_EQ(all_trees(box), before);
}

TEST(startup_replay, after_a_clean_shutdown_sound_volumes_keep_every_byte) {
    const sandbox box;
    make_volumes(box);
    make_jnl(box.journal(), 0x25521814, {tbl_block(uuid_of(0x11), 5, 0x8001)});
    const auto before = all_trees(box);
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, jnl_path_line + consistent_lines(1) + consistent_lines(2));
    EXPECT_EQ(got.err, "");
    EXPECT_EQ(got.log, lines{});
    EXPECT_EQ(all_trees(box), before);
}

TEST(startup_replay, after_a_clean_shutdown_an_inconsistent_volume_marks_the_journal_bad) {
    const sandbox box;
    make_volumes(box);
    make_inconsistent(box, 1);
    make_jnl(box.journal(), 0x25521814, {});
    const auto volumes = tree_of(box.volume(1));
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 255);
    ASSERT_FALSE(got.log.empty());
    EXPECT_EQ(got.log.back(),
              "ERR: check_metadata_consistent(#) FRI /volume1/@EP/EP_FRI TBL "
              "/volume1/@EP/EP_TBL IS IN-CONSISTENT\n");
    EXPECT_EQ(jnl_status_of(box.journal()), 0x66656800U);
    EXPECT_EQ(tree_of(box.volume(1)), volumes);
    EXPECT_EQ(got.out.find("/volume2"), std::string::npos);  // the first failure stops the check

    const run_result again = box.run({"--startup-replay"});
    EXPECT_EQ(again.log, (lines{"ERR: vaai_startup_replay(#) Journal In-Consistent\n"}));
}

TEST(startup_replay, a_volume_with_a_missing_file_is_skipped_not_inconsistent) {
    for (const char* name : {"/@EP/EP_TBL", "/@EP/EP_FRI"}) {
        const sandbox box;
        make_volumes(box);
        fs::remove(box.volume(1) + name);
        make_jnl(box.journal(), 0x25521814, {});
        const run_result got = box.run({"--startup-replay"});
        EXPECT_EQ(got.status, 0) << name;
        EXPECT_EQ(got.out, jnl_path_line +
                               std::string("TARN_INFO: SKIP VAAI CONSISTENT CHECK, volume "
                                           "/volume1\n") +
                               consistent_lines(2));
        EXPECT_EQ(got.log, lines{});
    }
}

TEST(startup_replay, a_mount_without_metadata_is_reported_and_skipped) {
    const sandbox box;
    make_volume(box, 2, 0x22);
    make_directories(box.volume(1) + "/@EP");
    make_jnl(box.journal(), 0x25521814, {});
    const run_result got = box.run({"--startup-replay"});
    const std::string note = "TARN_INFO: /volume1/@iSCSITrg is not a VAAI volume\n";
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, jnl_path_line + note + note + consistent_lines(2));  // guard, then check
}

TEST(startup_replay, a_journal_that_was_never_used_is_removed) {
    for (const uint32_t status : {0xFFFFFFFFU, 0x77777777U}) {
        const sandbox box;
        make_volumes(box);
        make_jnl(box.journal(), status, {});
        const auto one = tree_of(box.volume(1));
        const auto two = tree_of(box.volume(2));
        const run_result got = box.run({"--startup-replay"});
        EXPECT_EQ(got.status, 0) << status;
        EXPECT_EQ(got.out, jnl_path_line + replay_lines(1) + replay_lines(2) + consistent_lines(1) +
                               consistent_lines(2));
        EXPECT_EQ(got.err, "");
        EXPECT_EQ(got.log, (lines{"vaai_startup_replay(#) Start to replaying Journal\n",
                                  "vaai_startup_replay(#) Journal Consistent, Remove "
                                  "/var/lib/tarn/EP_JNL\n"}));
        EXPECT_FALSE(fs::exists(box.journal()));
        EXPECT_EQ(tree_of(box.volume(1)), one);
        EXPECT_EQ(tree_of(box.volume(2)), two);
    }
}

TEST(startup_replay, recorded_changes_reach_table_and_map_of_their_own_volume) {
    const sandbox box;
    make_volumes(box);
    const std::string map = make_lun(box, 2, "x_Extent_1", 0xA2);
    make_jnl(box.journal(), 0xFFFFFFFF,
             {xcopy_block(uuid_of(0xA2), 300, 0x8002), tbl_block(uuid_of(0x11), 5, 0x8003)});
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 0);
    EXPECT_FALSE(fs::exists(box.journal()));
    EXPECT_EQ(tbl_word_of(box.volume(1) + "/@EP/EP_TBL", 5), 0x8003);
    EXPECT_EQ(tbl_word_of(box.volume(2) + "/@EP/EP_TBL", 5), 0);
    EXPECT_EQ(tbl_word_of(box.volume(2) + "/@EP/EP_TBL", 300), 0x8002);
    EXPECT_EQ(tbl_word_of(box.volume(1) + "/@EP/EP_TBL", 300), 0);
    EXPECT_EQ(map_word_of(map, 0), 0x800000000000012CU);  // mapped, pool row 0, lpa 300
    EXPECT_EQ(mapped_count_of(map), 1U);
}

TEST(startup_replay, a_second_run_finds_nothing_to_do) {
    const sandbox box;
    make_volumes(box);
    make_jnl(box.journal(), 0xFFFFFFFF, {tbl_block(uuid_of(0x11), 5, 0x8003)});
    const run_result first = box.run({"--startup-replay"});
    EXPECT_EQ(first.status, 0);
    const std::string history_ends = "jnl_block_read(#) jnl block all zero value @block 63\n";
    const std::string start = "vaai_startup_replay(#) Start to replaying Journal\n";
    const std::string removed =
        "vaai_startup_replay(#) Journal Consistent, Remove /var/lib/tarn/EP_JNL\n";
    EXPECT_EQ(first.log, (lines{start, history_ends, history_ends,  // 2 files a volume
                                history_ends, history_ends, removed}));
    const auto before = all_trees(box);
    const run_result again = box.run({"--startup-replay"});
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.out, jnl_path_line);
    EXPECT_EQ(again.log, lines{});
    EXPECT_EQ(all_trees(box), before);
}

TEST(startup_replay, a_replay_that_fails_marks_the_journal_bad_and_keeps_it) {
    const sandbox box;
    make_volumes(box);
    jnl_block unmap = {};
    unmap.unmap.type = JNL_BLOCK_UNMAP;  // of no extent: refused for every kind of file
    make_jnl(box.journal(), 0xFFFFFFFF, {unmap});
    const auto one = tree_of(box.volume(1));
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 255);
    EXPECT_TRUE(got.logged("Journal count is zero)\n"));
    EXPECT_TRUE(
        got.logged("ERR: replay_fri_journal(#) Fail to replay FRI /volume1/@EP/EP_FRI with JNL "
                   "/var/lib/tarn/EP_JNL\n"));
    EXPECT_FALSE(got.logged("Journal Consistent"));
    EXPECT_EQ(jnl_status_of(box.journal()), 0x66656800U);
    EXPECT_EQ(tree_of(box.volume(1)), one);
    EXPECT_EQ(got.out.find("/volume2"), std::string::npos);
}

TEST(startup_replay, a_check_that_fails_after_the_replay_marks_the_journal_bad) {
    const sandbox box;
    make_volumes(box);
    make_inconsistent(box, 2);
    make_jnl(box.journal(), 0xFFFFFFFF, {tbl_block(uuid_of(0x11), 5, 0x8003)});
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(jnl_status_of(box.journal()), 0x66656800U);
    EXPECT_EQ(tbl_word_of(box.volume(1) + "/@EP/EP_TBL", 5), 0x8003);  // a replayed entry stays
    ASSERT_FALSE(got.log.empty());
    EXPECT_EQ(got.log.back(),
              "ERR: check_metadata_consistent(#) FRI /volume2/@EP/EP_FRI TBL "
              "/volume2/@EP/EP_TBL IS IN-CONSISTENT\n");
}

TEST(startup_replay, a_volume_with_a_table_but_no_index_fails_the_replay) {
    const sandbox box;
    make_volumes(box);
    fs::remove(box.volume(1) + "/@EP/EP_FRI");
    make_jnl(box.journal(), 0xFFFFFFFF, {});
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 255);
    EXPECT_TRUE(got.logged("ERR: replay_fri_journal(#) Fail to load FRI /volume1/@EP/EP_FRI\n"));
    EXPECT_EQ(jnl_status_of(box.journal()), 0x66656800U);
}

// A batch of 256 maps is open at a time, in addition to the table, the journal and the locks.
TEST(startup_replay, raises_its_limit_of_open_files_for_a_volume_of_many_maps) {
    const sandbox box;
    make_volumes(box);
    for (unsigned i = 0; i < 300; i++) {
        make_lun(box, 1, "LUN_Extent_" + std::to_string(i), static_cast<uint8_t>(i));
    }
    make_jnl(box.journal(), 0xFFFFFFFF, {tbl_block(uuid_of(0x11), 5, 0x8003)});
    const run_result got =
        box.run_program("/bin/sh", {"-c", "ulimit -Sn 256; " TARN_PROGRAM " --startup-replay"}, {});
    EXPECT_EQ(got.status, 0) << testing::PrintToString(got.log);
    EXPECT_FALSE(file_exists(box.journal()));
    EXPECT_EQ(tbl_word_of(box.volume(1) + "/@EP/EP_TBL", 5), 0x8003);
}
