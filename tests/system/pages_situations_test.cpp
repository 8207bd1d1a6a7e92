// The effects of a missing mount, a foreign journal, a lost data file, an interrupted repair, or a
// full disk: the facts on which the warnings of the operator pages are based. Typing errors:
// pages_typing_test.cpp.
#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "system/support/sample_server.h"
#include "system/support/tree.h"
#include "system/support/volume_checks.h"

namespace fs = std::filesystem;

static constexpr const char* CRASHED = "--crash --seed 4";
static constexpr const char* CLEAN = "--seed 4";

// The words before a command that give it another configuration.
static std::string configured(const std::string& text) {
    return "printf '" + text +
           "' >/scratch/own.conf\nexport TARN_PLATFORM_CONF=/scratch/own.conf\n";
}

static bool starts(const ran& found, const std::string& text) {
    return found.text.starts_with(text);
}

static std::vector<std::map<std::string, std::string>> everything(const damaged_server& server) {
    return {tree_of(server.file("/volume1")), tree_of(server.file("/volume2")),
            tree_of(server.file("/journal"))};
}

TEST(situation, a_named_volume_that_is_not_mounted_keeps_the_journal_until_it_is) {
    struct row {
        const char* before;
        const char* line;
    };
    for (const row& missing :
         {row{"umount /volume2", "volume /volume2 is an empty directory: is it mounted?\n"},
          row{"umount /volume2; rmdir /volume2", "volume /volume2 is not there\n"}}) {
        const damaged_server server(CRASHED);
        const auto before = everything(server);
        const run_result got = server.run(std::string(missing.before) + "\n" + START_LINE);
        EXPECT_EQ(got.status, 255);
        EXPECT_TRUE(got.logged(missing.line)) << testing::PrintToString(got.log);
        EXPECT_EQ(everything(server), before);
        EXPECT_EQ(server.run(START_LINE).status, 0);
        EXPECT_EQ(server.verify("").status, 0);
    }
}

TEST(situation, a_volume_that_is_neither_named_nor_mounted_loses_its_part_of_the_journal) {
    const damaged_server server(CRASHED);
    const auto two = tree_of(server.file("/volume2"));
    const run_result got = server.run(configured("") + "umount /volume2\n" + START_LINE);
    EXPECT_EQ(got.status, 0);
    EXPECT_FALSE(journal_is_there(server));
    EXPECT_EQ(tree_of(server.file("/volume2")), two);
    const ran found = server.verify("");  // looks at volume 1 first
    EXPECT_TRUE(starts(found, "volume2/@EP/EP_FRI: free count: ")) << found.text;
}

TEST(situation, after_a_clean_shutdown_a_missing_volume_is_not_noticed) {
    const damaged_server server(CLEAN);
    const run_result start = server.run(std::string("umount /volume2\n") + START_LINE);
    EXPECT_EQ(start.status, 0);
    EXPECT_FALSE(start.logged("volume2"));
    const run_result checked = server.run("umount /volume2\ntarn --onekeycheck");
    EXPECT_EQ(checked.status, 0);
    EXPECT_FALSE(checked.logged("volume2"));
    const std::string line = "FreeList IS CONSISTENT\n";
    const size_t first = checked.out.find(line);
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(checked.out.find(line, first + 1), std::string::npos);  // one volume
}

TEST(situation, a_volume_without_its_metadata_directory_loses_its_part_of_the_journal) {
    const damaged_server server(CRASHED);
    fs::rename(server.file("/volume2/@EP"), server.file("/kept"));
    const run_result got = server.run(START_LINE);
    EXPECT_EQ(got.status, 0);
    EXPECT_FALSE(journal_is_there(server));
    fs::rename(server.file("/kept"), server.file("/volume2/@EP"));
    const ran found = server.verify("");
    EXPECT_TRUE(starts(found, "volume2/@EP/EP_FRI: free count: ")) << found.text;
}

TEST(situation, without_the_journals_file_system_start_up_replay_passes_and_replays_nothing) {
    const damaged_server server(CRASHED);
    const auto before = everything(server);
    const run_result got = server.run(std::string("umount /var/lib/tarn\n") + START_LINE);
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, "TARN_INFO: jnlPath=/var/lib/tarn/EP_JNL\n");
    EXPECT_EQ(got.log, lines{});
    EXPECT_EQ(everything(server), before);
    EXPECT_EQ(server.run(START_LINE).status, 0);
    EXPECT_EQ(server.verify("").status, 0);
}

TEST(situation, the_journal_of_another_server_is_removed_and_nothing_is_replayed) {
    const damaged_server server(CRASHED);
    const damaged_server other("--crash --seed 9");
    fs::copy(other.file("/journal/EP_JNL"), server.file("/journal/EP_JNL"),
             fs::copy_options::overwrite_existing);
    const auto one = tree_of(server.file("/volume1"));
    const auto two = tree_of(server.file("/volume2"));
    const run_result got = server.run(START_LINE);
    EXPECT_EQ(got.status, 0);
    lines log = got.log;
    std::erase_if(log, [](const std::string& line) {
        return line.find("tarn_map_get_pool_uuid error occurs ") != std::string::npos;
    });
    EXPECT_EQ(log, (lines{"vaai_startup_replay(#) Start to replaying Journal\n",
                          "vaai_startup_replay(#) Journal Consistent, Remove "
                          "/var/lib/tarn/EP_JNL\n"}));
    EXPECT_FALSE(journal_is_there(server));
    EXPECT_EQ(tree_of(server.file("/volume1")), one);
    EXPECT_EQ(tree_of(server.file("/volume2")), two);
}

TEST(situation, a_bad_status_stops_start_up_replay_and_no_other_replay) {
    for (const char* command : {"tarn --rpvjnl", "tarn --onekeycheck"}) {
        const damaged_server server(CRASHED);
        const run_result refused = server.run("tarn --set-status bad; tarn --startup-replay");
        EXPECT_EQ(refused.status, 255);
        EXPECT_TRUE(refused.logged("Journal In-Consistent\n"));
        EXPECT_EQ(server.run(command).status, 0);
        EXPECT_TRUE(starts(server.verify(""), "journal/EP_JNL: status: ")) << command;
    }
}

TEST(situation, a_torn_transaction_logs_conflicts_and_is_not_refused) {
    struct row {
        const char* sample;
        const char* line;
    };
    for (const row& torn :
         {row{"--crash --seed 12", " is not equal to jnl_last_trans_id "},
          row{"--crash --seed 13 --luns 4",
              "JOURNAL-CONFLICT Can't find out last complete commit, @"},
          row{"--crash --seed 13 --luns 4", "ERR: commit_last_block(#) blk->jnl_transid "}}) {
        const damaged_server server(torn.sample);
        const run_result got = server.run(START_LINE);
        EXPECT_EQ(got.status, 0) << torn.sample;
        EXPECT_TRUE(got.logged(torn.line)) << torn.line;
        EXPECT_EQ(server.verify("").status, 0);
    }
}

TEST(situation, a_record_of_the_other_volume_logs_an_unresolved_pool) {
    const sandbox box;
    make_volumes(box);
    const std::string map = make_lun(box, 2, "x_Extent_1", 0xA2);
    make_jnl(box.journal(), 0xFFFFFFFF, {xcopy_block(uuid_of(0xA2), 300, 0x8001)});
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 0);
    const std::string line =
        "ERR: __jnl_xcopy_type_replay(#) tarn_map_get_pool_uuid error occurs 1 times\n";
    EXPECT_EQ(std::count(got.log.begin(), got.log.end(), line), 1);  // the replay of volume 1
    EXPECT_EQ(map_word_of(map, 0), 0x800000000000012CU);             // mapped, pool row 0, lpa 300
}

TEST(situation, a_copy_record_of_too_many_entries_is_logged_and_replayed_up_to_40) {
    const sandbox box;
    make_volumes(box);
    const std::string map = make_lun(box, 1, "x_Extent_1", 0xA1);
    jnl_block block = xcopy_block(uuid_of(0xA1), 300, 0x8001);
    block.xcopy.count = 41;
    block.xcopy.map[39].word = MAP_MAPPED_BIT | 301;
    block.xcopy.tbl[39].word = 0x8001;
    make_jnl(box.journal(), 0xFFFFFFFF, {block});
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 0);
    EXPECT_TRUE(got.logged("blk->ej_block_history_xcopy.count 41 is overflow\n"));
    EXPECT_FALSE(fs::exists(box.journal()));
    EXPECT_EQ(map_word_of(map, 39), 0x800000000000012DU);
    EXPECT_EQ(map_word_of(map, 40), 0u);
}

TEST(situation, a_missing_or_cut_data_file_is_not_noticed_by_any_check) {
    for (const char* command : {"rm $V/@EP/EP_DAT_00001", "truncate -s 100 $V/@EP/EP_DAT_00000",
                                "rm $V/@EP/EP_DAT_0000*"}) {
        const damaged_server server("--seed 5");
        EXPECT_EQ(server.run(command).status, 0);
        EXPECT_EQ(server.run(START_LINE).status, 0) << command;
        EXPECT_EQ(checks_of(server), BOTH_PASS) << command;
        EXPECT_EQ(server.run("tarn --onekeycheck").status, 0) << command;
    }
}

TEST(situation, a_repair_without_the_second_data_file_succeeds) {
    const damaged_server server("--seed 5");
    fs::remove(server.file("/volume1/@EP/EP_DAT_00001"));
    expect_repair_succeeds(server);
}

// A directory in place of a backup stops the swap after the table; the step that the program undid
// is done again by hand. A power failure between the two files leaves a volume like this.
static void cut_between_table_and_index(const damaged_server& server) {
    EXPECT_EQ(
        server.run(std::string("mv $J $J.aside; mkdir $V/@EP/EP_FRI.bkp\n") + REPAIR_LINE).status,
        255);
    EXPECT_EQ(server
                  .run("mv $J.aside $J; rmdir $V/@EP/EP_FRI.bkp; rm -f $V/@EP/EP_FRI.bkp.new\n"
                       "mv $V/@EP_FIX/EP_TBL $V/@EP/EP_TBL && ls $V/@EP_FIX")
                  .out,
              "EP_FRI\nswap\n");
}

TEST(situation,
     a_repair_cut_between_table_and_index_is_refused_by_replays_but_the_checks_may_pass) {
    const damaged_server server(CLEAN);
    cut_between_table_and_index(server);
    const auto before = everything(server);
    for (const char* command : {START_LINE, "tarn --rpvjnl"}) {
        const run_result got = server.run(command);
        EXPECT_EQ(got.status, 255) << command;
        EXPECT_TRUE(got.logged(
            "/volume1: table and index do not match until --onekeyrepair is run again\n"));
    }
    for (const char* command :
         {"tarn --reconstruct --volpath $V", "tarn --import-volume --volpath $V"}) {
        const run_result got = server.run(command);
        EXPECT_EQ(got.status, 255) << command;
        EXPECT_TRUE(
            got.logged("/volume1/@EP_FIX belongs to an interrupted repair: run "
                       "--onekeyrepair again\n"));
    }
    EXPECT_EQ(checks_of(server), (check_answers{0, 255}));
    EXPECT_EQ(server.run("tarn --onekeycheck").status, 0);
    EXPECT_EQ(everything(server), before);
    server.set_journal_aside();
    expect_repair_succeeds(server);
    server.expect_rebuilt();
}

TEST(situation, an_empty_work_directory_left_by_a_finished_repair_fails_one_more_run) {
    const damaged_server server(CLEAN);
    server.set_journal_aside();
    expect_repair_succeeds(server);
    fs::create_directory(server.file("/volume1/@EP_FIX"));
    const run_result got = server.run(REPAIR_LINE);
    EXPECT_EQ(got.status, 255);
    EXPECT_TRUE(got.logged("Fail to mkdir(/volume1/@EP_FIX)\n"));
    server.expect_rebuilt();
}

// Scripts that stop and start the service; each writes its name into /scratch/calls.
static std::string service(const std::string& pause, const std::string& resume) {
    return configured(
               "volumes = /volume1 /volume2\\nservice_pause = /scratch/pause\\n"
               "service_resume = /scratch/resume\\n") +
           "printf '#!/bin/sh\\necho pause >>/scratch/calls\\n" + pause +
           "\\n' >/scratch/pause\n"
           "printf '#!/bin/sh\\necho resume >>/scratch/calls\\n" +
           resume +
           "\\n' >/scratch/resume\n"
           "chmod 755 /scratch/pause /scratch/resume\n";
}

TEST(situation, a_stop_signal_while_the_service_is_paused_changes_nothing_and_starts_it_again) {
    for (const char* command : {"tarn --onekeycheck", REPAIR_LINE}) {
        const damaged_server server("--seed 5");
        const auto before = everything(server);
        const run_result got = server.run(service("kill -INT $PPID", "exit 0") + command);
        EXPECT_EQ(got.status, 255) << command;
        EXPECT_TRUE(got.logged("ERR: stop_requested(#) signal 2 (Interrupt) stops this run\n"));
        EXPECT_EQ(server.run("cat /scratch/calls").out, "pause\nresume\n");
        EXPECT_EQ(everything(server), before);
    }
}

TEST(situation, a_run_that_is_killed_leaves_the_service_stopped) {
    const damaged_server server("--seed 5");
    const run_result got =
        server.run(service("kill -KILL $PPID", "exit 0") + "tarn --onekeycheck\ntrue");
    EXPECT_EQ(got.status, 0);  // of the last line
    EXPECT_EQ(server.run("cat /scratch/calls").out, "pause\n");
}

TEST(situation, a_service_that_does_not_start_again_fails_a_repair_whose_files_are_live) {
    const damaged_server server("--seed 5");
    const run_result got = server.run(service("exit 0", "exit 1") + REPAIR_LINE);
    EXPECT_EQ(got.status, 255);
    EXPECT_TRUE(got.out.ends_with("TARN_INFO: Reconstruction procedure has failed\n"));
    EXPECT_TRUE(file_exists(server.file("/volume1/@EP/EP_TBL.bkp")));
    EXPECT_TRUE(file_exists(server.file("/volume1/@EP/EP_FRI.bkp")));
    EXPECT_EQ(checks_of(server), BOTH_PASS);
}

// Volume 1 on a separate file system that is completely full; `after` runs once there is room.
static std::string on_a_full_volume(const std::string& command, const std::string& after) {
    return "mkdir /tmp/v && mount -t tmpfs -o size=48m t /tmp/v\n"
           "cp -a --sparse=always /volume1/. /tmp/v && mount --bind /tmp/v /volume1\n"
           "dd if=/dev/zero of=/volume1/rest bs=4096 2>/dev/null\n" +
           command + "\nE=$?\nrm /volume1/rest\n" + after +
           "\numount /volume1\ncp -a --sparse=always /tmp/v/. /volume1\nexit $E";
}

TEST(situation, a_full_volume_keeps_the_journal_until_there_is_room_for_the_replay) {
    const damaged_server server("--crash --seed 5 --luns 8");
    const run_result got = server.run(on_a_full_volume(
        START_LINE, "tarn --search jnl -m; tarn --set-status abnormal; tarn --startup-replay"));
    EXPECT_EQ(got.status, 255);
    EXPECT_TRUE(got.logged("Keep journal /var/lib/tarn/EP_JNL, reasons "));
    EXPECT_TRUE(got.logged("/volume1/@EP/EP_TBL: No space left on device\n"));
    EXPECT_NE(got.out.find("Status Bad, Inconsistent\n"), std::string::npos);
    EXPECT_FALSE(journal_is_there(server));
    const ran found = server.verify("");
    EXPECT_EQ(found.status, 0) << found.text;
}

TEST(situation, a_repair_of_a_full_volume_leaves_its_table_and_index) {
    const damaged_server server("--seed 5");
    const auto before = tree_of(server.file("/volume1"));
    const run_result got = server.run(on_a_full_volume(REPAIR_LINE, "true"));
    EXPECT_EQ(got.status, 255);
    EXPECT_TRUE(got.logged("/volume1/@EP_FIX/EP_TBL: No space left on device\n"));
    EXPECT_EQ(tree_of(server.file("/volume1")), before);
}
