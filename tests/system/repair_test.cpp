// Damage to table, index and free lists: the command that finds it, the commands that repair it,
// and what tarn-lab reports about the result. Maps: repair_maps_test.cpp.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "store/data_node.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "system/support/damaged_server.h"
#include "system/support/test_name.h"
#include "system/support/tree.h"

static const std::string TABLE = "/volume1/@EP/EP_TBL";
static const std::string INDEX = "/volume1/@EP/EP_FRI";
static constexpr const char* FULL_CHECK = "tarn --fullck --volpath $V";
static constexpr const char* LIST_CHECK =
    "tarn --freeck --fripath $V/@EP/EP_FRI --tblpath $V/@EP/EP_TBL";
static constexpr const char* REPAIR = "tarn --onekeyrepair --volpath $V";

static void expect_found(const damaged_server& server, const char* check, const char* line) {
    const run_result found = server.run(check);
    EXPECT_EQ(found.status, 255);
    EXPECT_TRUE(found.logged(line)) << testing::PrintToString(found.log);
    if (check == FULL_CHECK) {  // its work directory stays after a failure
        EXPECT_EQ(server.run("rm -r $V/@EP_CHK").status, 0);
    }
}

static void expect_repaired(const damaged_server& server) {
    const run_result repair = server.run(REPAIR);
    EXPECT_EQ(repair.status, 0) << testing::PrintToString(repair.log);
    EXPECT_TRUE(repair.out.ends_with("TARN_INFO: One Key Repair has successfully completed\n"));
}

// Damage that one command repairs without a loss.
struct row {
    const char* kind;
    const char* check;
    const char* line;  // of the log
};
static constexpr row ROWS[] = {
    {"index-lost", LIST_CHECK, "ERR: check_freelist_consistent(#) Fail to load FRI /volume1/@EP/"},
    {"index-block-bit", LIST_CHECK, "ERR: check_freelist_consistent(#) FreeList IS IN-CONSISTENT"},
    {"table-block-bit", FULL_CHECK, "ERR: do_check_full_tbl_consistent(#) TBL: "},
    {"table-noise", FULL_CHECK, "ERR: do_check_full_tbl_consistent(#) TBL: "},
    {"reference-count", FULL_CHECK, "(#) TBL: refer-cnt mismatch, lpa("},
    {"list-loop", LIST_CHECK, "(#) NOT TAIL last entry in TBL freelist, group_num "},
    {"list-used", LIST_CHECK, "(#) USED entry in TBL freelist, group_num "},
    {"list-tail", LIST_CHECK, "(#) NOT TAIL last entry in TBL freelist, group_num "},
    {"list-count", LIST_CHECK, "in TBL freelist, "},
    {"group-loop", LIST_CHECK, "ERR: fri_check_free_group_list(#) error, group-list loops\n"},
};

class repair_by_one_command : public testing::TestWithParam<row> {};

TEST_P(repair_by_one_command, finds_rebuilds_and_loses_nothing) {
    for (unsigned seed = 1; seed <= 3; seed++) {
        damaged_server server("--seed " + std::to_string(seed));
        SCOPED_TRACE(server.damage(GetParam().kind, seed));
        server.set_journal_aside();
        expect_found(server, GetParam().check, GetParam().line);
        expect_repaired(server);
        server.expect_rebuilt();
    }
}

static std::string name_of(const testing::TestParamInfo<row>& info) {
    return test_name(info.param.kind);
}
INSTANTIATE_TEST_SUITE_P(of, repair_by_one_command, testing::ValuesIn(ROWS), name_of);

TEST(repair, of_lists_needs_more_than_the_recount) {
    for (const char* kind : {"list-loop", "list-tail", "list-count", "group-loop"}) {
        damaged_server server("--seed 5");
        SCOPED_TRACE(server.damage(kind));
        const run_result recount =
            server.run("tarn --vaaifix --fripath $V/@EP/EP_FRI --tblpath $V/@EP/EP_TBL");
        EXPECT_EQ(recount.status, 0);
        EXPECT_EQ(server.run(LIST_CHECK).status, 255);
    }
}

// The recount takes the damaged group out of the list of groups, and the check passes.
TEST(repair, by_the_recount_may_hide_the_damage) {
    damaged_server server("--seed 5");
    ASSERT_NE(server.damage("list-used").find("of group 2: "), std::string::npos);
    server.set_journal_aside();
    EXPECT_EQ(fri_group_head_of(server.file(INDEX)), 2u);
    EXPECT_EQ(server.run("tarn --vaaifix --fripath $V/@EP/EP_FRI --tblpath $V/@EP/EP_TBL").status,
              0);
    EXPECT_EQ(fri_group_head_of(server.file(INDEX)), 3u);
    EXPECT_EQ(server.run(LIST_CHECK).status, 0);
    EXPECT_EQ(server.verify("--rebuilt").status, 1);
    expect_repaired(server);
    server.expect_rebuilt();
}

// The rebuilt index gets the table's uuid.
TEST(repair, of_a_damaged_index_header_keeps_the_uuid) {
    for (unsigned seed = 1; seed <= 3; seed++) {
        damaged_server server("--seed 5");
        SCOPED_TRACE(server.damage("index-header-bit", seed));
        server.set_journal_aside();
        expect_found(server, LIST_CHECK, "Fail to load FRI /volume1/@EP/EP_FRI");
        expect_repaired(server);
        EXPECT_EQ(uuid_in(server.file(INDEX)), uuid_in(server.file(TABLE)));
        server.expect_rebuilt();
    }
}

// A volume that was repaired before and still has a backup of its previous table.
static void repair_once(const damaged_server& server) {
    server.set_journal_aside();
    expect_repaired(server);
    EXPECT_TRUE(file_exists(server.file(TABLE + ".bkp")));
}

static void create_from_kept(const damaged_server& server) {
    const run_result shown = server.run(
        "mv $V/@EP/EP_TBL.bkp $V/@EP/EP_TBL.kept\n"
        "tarn --create tbl --path $V/@EP/EP_TBL --oldpath $V/@EP/EP_TBL.kept\n"
        "tarn --search tbl -p $V/@EP/EP_TBL -m");
    EXPECT_EQ(shown.status, 0);
    EXPECT_NE(shown.out.find("TARN_INFO: tbl_extent_size 1048576\n"), std::string::npos);
}

TEST(repair, of_a_lost_table_takes_the_header_from_the_kept_one) {
    for (const char* kind : {"table-lost", "both-lost"}) {
        damaged_server server("--seed 5");
        repair_once(server);
        SCOPED_TRACE(server.damage(kind));
        server.expect_refused("Fail to create TBL /volume1/@EP_FIX/EP_TBL from " + TABLE);
        create_from_kept(server);
        expect_repaired(server);
        server.expect_rebuilt();
    }
}

TEST(repair, of_a_damaged_table_header_takes_it_from_the_kept_one) {
    for (unsigned seed = 1; seed <= 3; seed++) {
        damaged_server server("--seed 5");
        repair_once(server);
        SCOPED_TRACE(server.damage("table-header-bit", seed));
        expect_found(server, LIST_CHECK, "Fail to load TBL /volume1/@EP/EP_TBL");
        server.expect_refused("Fail to create TBL /volume1/@EP_FIX/EP_TBL from " + TABLE);
        EXPECT_EQ(server.run("mv $V/@EP/EP_TBL $V/@EP/EP_TBL.damaged").status, 0);
        create_from_kept(server);
        expect_repaired(server);
        server.expect_rebuilt();
    }
}

static void create_from_other_volume(const damaged_server& server) {
    const run_result run = server.run(
        "tarn --search tbl -p /volume2/@EP/EP_TBL -m\n"
        "tarn --create tbl --path $V/@EP/EP_TBL --oldpath /volume2/@EP/EP_TBL\n"
        "UUID=$(od -A n -t x1 -j 20 -N 16 $V/@EP/EP_DAT_00000 | tr -d ' \\n')\n"
        "tarn --change-uuid tbl --tblpath $V/@EP/EP_TBL --uuid $UUID");
    EXPECT_EQ(run.status, 0) << testing::PrintToString(run.log);
    EXPECT_NE(run.out.find("TARN_INFO: tbl_extent_size 1048576\n"), std::string::npos);
}

TEST(repair, of_a_lost_table_takes_the_header_from_another_volume) {
    for (const char* kind : {"table-lost", "both-lost"}) {
        damaged_server server("--seed 5");
        SCOPED_TRACE(server.damage(kind));
        server.set_journal_aside();
        server.expect_refused("Fail to create TBL /volume1/@EP_FIX/EP_TBL from " + TABLE);
        create_from_other_volume(server);
        expect_repaired(server);
        server.expect_rebuilt();
    }
}

TEST(repair, of_a_damaged_table_header_takes_it_from_another_volume) {
    damaged_server server("--seed 5");
    SCOPED_TRACE(server.damage("table-header-bit"));
    server.set_journal_aside();
    server.expect_refused("Fail to create TBL /volume1/@EP_FIX/EP_TBL from " + TABLE);
    EXPECT_EQ(server.run("mv $V/@EP/EP_TBL $V/@EP/EP_TBL.damaged").status, 0);
    create_from_other_volume(server);
    expect_repaired(server);
    server.expect_rebuilt();
}

TEST(repair, of_a_wrong_sum_of_free_extents_is_noticed_by_comparing_with_a_rebuild) {
    for (unsigned seed = 1; seed <= 3; seed++) {
        damaged_server server("--seed 5");
        server.set_journal_aside();
        const uint64_t right = fri_free_count_of(server.file(INDEX));
        SCOPED_TRACE(server.damage("free-count", seed));
        EXPECT_EQ(server.run(LIST_CHECK).status, 0);  // no check compares the sum
        EXPECT_EQ(server.run(FULL_CHECK).status, 0);
        const run_result shown = server.run(
            "tarn --reconstruct --volpath $V\n"
            "tarn --search fri -p $V/@EP/EP_FRI -m | grep free_count\n"
            "tarn --search fri -p $V/@EP_FIX/EP_FRI -m | grep free_count\n"
            "rm -r $V/@EP_FIX");
        const std::string field = "TARN_INFO: fri_free_count  ";
        const uint64_t wrong = fri_free_count_of(server.file(INDEX));
        EXPECT_NE(wrong, right);
        std::string both = field + std::to_string(wrong) + "\n";
        both += field + std::to_string(right) + "\n";
        EXPECT_TRUE(shown.out.ends_with(both));
        expect_repaired(server);
        server.expect_rebuilt();
    }
}

TEST(repair, over_a_work_directory_removes_it_and_fails_the_first_time) {
    for (const char* command : {REPAIR, "tarn --reconstruct --volpath $V"}) {
        damaged_server server("--seed 5");
        server.set_journal_aside();
        ASSERT_EQ(server.run("mkdir $V/@EP_FIX && echo mine >$V/@EP_FIX/notes").status, 0);
        const run_result first = server.run(command);
        EXPECT_EQ(first.status, 255);
        EXPECT_TRUE(first.logged("Fail to mkdir(/volume1/@EP_FIX)"));
        EXPECT_FALSE(file_exists(server.file("/volume1/@EP_FIX")));
        EXPECT_EQ(server.run(command).status, 0);
    }
}

// A sample whose newest records hold free lists as they were linked before the rebuild.
TEST(repair, is_undone_by_a_journal_that_was_left_in_its_place) {
    damaged_server server("--seed 35");
    expect_repaired(server);
    server.expect_rebuilt();
    EXPECT_EQ(server.run("tarn --onekeycheck").status, 0);
    EXPECT_EQ(server.run(LIST_CHECK).status, 255);
    server.set_journal_aside();
    expect_repaired(server);
    EXPECT_EQ(server.run("tarn --onekeycheck").status, 0);
    server.expect_rebuilt();
}

// Nothing is wrong with these volumes: allocations after the last recorded entry make the index
// differ from it.
TEST(repair, is_not_needed_just_because_a_journal_check_fails) {
    damaged_server server("--seed 5");
    const run_result check = server.run("tarn --ckvjnl");
    EXPECT_EQ(check.status, 255);
    EXPECT_NE(check.out.find("TARN_INFO: FRI VAR0 MISSMATCH: "), std::string::npos);
    EXPECT_EQ(server.verify("").status, 0);
}

// What is left of the journal after it: no replay, so the verification is without it.
static void replay_and_rebuild(const damaged_server& server) {
    const run_result replay = server.run("tarn --rpvjnl");
    EXPECT_EQ(replay.status, 0) << testing::PrintToString(replay.log);
    server.set_journal_aside();
    expect_repaired(server);
    server.expect_checks_pass();
    const ran found = tarn_lab("verify " + server.top() + " --rebuilt");
    EXPECT_EQ(found.status, 0) << found.text;
}

TEST(repair, after_a_crash_gives_the_replay_a_new_index_for_the_lost_one) {
    for (unsigned seed : {1u, 3u, 4u}) {
        damaged_server server("--crash --seed " + std::to_string(seed));
        SCOPED_TRACE(server.damage("index-lost"));
        EXPECT_EQ(server.run("tarn --startup-replay").status, 255);
        const run_result created =
            server.run("tarn --create fri --path $V/@EP/EP_FRI --oldpath $V/@EP/EP_TBL");
        EXPECT_EQ(created.status, 255);  // even though it was created
        replay_and_rebuild(server);
    }
}

TEST(repair, after_a_crash_gives_the_replay_a_new_table_for_the_lost_one) {
    for (unsigned seed : {1u, 3u, 4u}) {
        damaged_server server("--crash --seed " + std::to_string(seed));
        SCOPED_TRACE(server.damage("table-lost"));
        EXPECT_EQ(server.run("tarn --startup-replay").status, 255);
        create_from_other_volume(server);
        replay_and_rebuild(server);
    }
}

TEST(repair, of_a_volume_without_its_first_data_file_is_refused) {
    damaged_server server("--seed 5");
    server.set_journal_aside();
    ASSERT_EQ(server.run("rm $V/@EP/EP_DAT_00000").status, 0);
    const auto before = tree_of(server.file("/volume1"));
    const run_result repair = server.run(REPAIR);
    EXPECT_EQ(repair.status, 255);
    EXPECT_NE(repair.out.find("dat metadata files missing (/volume1/@EP/EP_DAT_00000)\n"),
              std::string::npos);
    EXPECT_EQ(tree_of(server.file("/volume1")), before);
}

TEST(repair, begins_with_copies_of_the_metadata) {
    damaged_server server("--seed 5");
    const run_result copy = server.run(
        "mkdir -p /root/copy\n"
        "cp -a --sparse=always $V/@EP/EP_TBL $V/@EP/EP_FRI $V/@EP/EP_BUF $V/@EP/EP_ROD "
        "/root/copy/\n"
        "cp -a --sparse=always $V/@iSCSITrg $V/@Snapshot $V/@EP_trash /root/copy/\n"
        "cp -a $J /root/copy/\n"
        "tarn --search tbl -p $V/@EP/EP_TBL -m");
    EXPECT_EQ(copy.status, 0) << copy.err;
    EXPECT_EQ(copy.err, "");
}

// The paths of the first volume, which is still empty.
static std::string empty_volume(const damaged_server& server) {
    std::string volume = server.file("/volume1");
    std::filesystem::remove_all(volume);
    make_sample_volume(volume, 0x11);
    make_dat(volume + "/@EP/EP_DAT_00000", 0x11, 0);
    return volume;
}

// The groups that have free extents, the others full, of a volume with one map. The last group in
// use is full: the rebuild leaves the end of the list open.
class full_last_group : public testing::TestWithParam<std::vector<uint64_t>> {};

static std::vector<sample_entry> all_but(const std::vector<uint64_t>& free_extents, uint64_t end) {
    std::vector<sample_entry> entries;
    for (uint64_t lpa = 0; lpa < end; lpa++) {
        if (std::find(free_extents.begin(), free_extents.end(), lpa) == free_extents.end()) {
            entries.push_back({entries.size(), lpa});
        }
    }
    return entries;
}

TEST_P(full_last_group, has_its_list_closed_by_hand) {
    const uint64_t groups = 4;
    damaged_server server("--seed 1");
    server.set_journal_aside();
    const std::string volume = empty_volume(server);
    const std::vector<sample_entry> entries = all_but(GetParam(), groups * 4096);
    make_filled_map(volume + "/@iSCSITrg/LUN_Extent_1", 5 * 4096, entries.size(), entries);
    ASSERT_EQ(server.run(REPAIR).status, 0);
    ASSERT_EQ(server.run(LIST_CHECK).status, 255);

    server.set("L", std::to_string(GetParam().back() / 4096));
    const run_result closed = server.run(
        "    G=$((L + 1))\n"
        "    while tarn --search fri -p $V/@EP/EP_FRI -g $G | grep -q 'init.1.'; do G=$((G + 1)); "
        "done\n"
        "    for B in $((G % 256)) $((G / 256 % 256)) $((G / 65536 % 256)) $((G / 16777216)); do\n"
        "        printf \"\\\\$(printf %o $B)\"\n"
        "    done | dd of=$V/@EP/EP_FRI bs=1 seek=$((1048576 + 512 * (L / 63) + 8 * (L % 63))) "
        "conv=notrunc\n"
        "    tarn --finalize --fripath $V/@EP/EP_FRI --tblpath $V/@EP/EP_TBL");
    EXPECT_EQ(closed.status, 0) << closed.out;
    EXPECT_EQ(fri_word_of(server.file(INDEX), GetParam().back() / 4096) & 0xFFFFFFFF, groups);
    data_node block;
    const std::vector<uint8_t> bytes = file_bytes(server.file(INDEX), 1048576, sizeof block);
    memcpy(&block, bytes.data(), sizeof block);
    const uint32_t checksum = block.checksum;
    data_node_seal(&block);
    EXPECT_EQ(checksum, block.checksum);
    server.expect_checks_pass();
}

INSTANTIATE_TEST_SUITE_P(of, full_last_group,
                         testing::Values(std::vector<uint64_t>{7},  // its list loops
                                         std::vector<uint64_t>{4096, 4100,
                                                               8195}));  // group 0: full

// What to count before a rebuild that would not end: one entry far after all others.
TEST(repair, of_a_far_entry_is_stopped_and_its_groups_counted) {
    damaged_server server("--seed 1");
    server.set_journal_aside();
    const std::string volume = empty_volume(server);
    make_filled_map(volume + "/@iSCSITrg/LUN_Extent_1", 63, 2, {{0, 5}, {1, 5000 * 4096}});
    make_directories(volume + "/@EP_FIX");  // of the rebuild that was stopped
    const run_result counted = server.run(
        "rm -rf $V/@EP_FIX\n"
        "tarn --import-volume --volpath $V\n"
        "tarn --search fri -p $V/@EP_FIX/EP_FRI -m | grep group_count\n"
        "rm -r $V/@EP_FIX");
    EXPECT_EQ(counted.status, 0);
    EXPECT_NE(counted.out.find("fri_group_count 5001\n"), std::string::npos) << counted.out;
    EXPECT_FALSE(file_exists(volume + "/@EP_FIX"));
}
