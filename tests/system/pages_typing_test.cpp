// What a wrong word, path or option does to sound volumes: the facts on which the warnings of the
// operator pages are based. Failures of the machine: pages_situations_test.cpp.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "system/support/tree.h"
#include "system/support/volume_checks.h"

using log_of_run = std::vector<std::string>;

static constexpr uint64_t ENTRIES_BEGIN = 1048576;  // byte
static constexpr uint64_t SAMPLE_ENTRIES = 3000;    // of each map
static const uuid_bytes NO_UUID(16, 0);

static bool is_mapped(const std::string& map, uint64_t lea) {
    return map_word_of(map, lea) >> 63 != 0;
}

// The first extent that only this map uses.
static uint64_t extent_of_its_own(const std::string& map, const std::string& table) {
    for (uint64_t lea = 0; lea < SAMPLE_ENTRIES; lea++) {
        const uint64_t lpa = map_word_of(map, lea) & 0xFFFFFFFFF;
        if (is_mapped(map, lea) && (tbl_word_of(table, lpa) & 0x8FFF) == 0x8001) {
            return lpa;
        }
    }
    ADD_FAILURE() << "no such extent in " << map;
    return 0;
}

// A command that changes nothing below the two volumes and in the journal.
static run_result run_without_a_change(const damaged_server& server, const std::string& command) {
    const auto one = tree_of(server.file("/volume1"));
    const auto two = tree_of(server.file("/volume2"));
    const auto journal = tree_of(server.file("/journal"));
    run_result got = server.run(command);
    EXPECT_EQ(tree_of(server.file("/volume1")), one) << command;
    EXPECT_EQ(tree_of(server.file("/volume2")), two) << command;
    EXPECT_EQ(tree_of(server.file("/journal")), journal) << command;
    return got;
}

TEST(typing, a_data_file_given_as_a_table_lets_finalize_overwrite_data_unnoticed) {
    const damaged_server server("--seed 5");
    const auto data = file_bytes(server.file(DATA_FILE), ENTRIES_BEGIN, 512);
    const auto table = tree_of(server.file("/volume1")).at("@EP/EP_TBL");
    const run_result got =
        server.run("tarn --finalize --fripath $V/@EP/EP_FRI --tblpath " + std::string(DATA_FILE));
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.log, log_of_run{});
    EXPECT_NE(file_bytes(server.file(DATA_FILE), ENTRIES_BEGIN, 512), data);
    EXPECT_EQ(tree_of(server.file("/volume1")).at("@EP/EP_TBL"), table);
    EXPECT_EQ(checks_of(server), (check_answers{0, 255}));
    expect_repair_succeeds(server);
    EXPECT_EQ(checks_of(server), BOTH_PASS);
    EXPECT_NE(server.verify("--rebuilt").text.find("EP_DAT_00000: byte 1048576: "),
              std::string::npos);
}

TEST(typing, a_table_of_the_other_volume_lets_finalize_change_both_volumes) {
    const damaged_server server("--seed 5");
    const auto one = tree_of(server.file("/volume1"));
    const auto two = tree_of(server.file("/volume2"));
    const run_result got =
        server.run("tarn --finalize --fripath $V/@EP/EP_FRI --tblpath /volume2/@EP/EP_TBL");
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.log, log_of_run{});
    EXPECT_NE(tree_of(server.file("/volume1")).at("@EP/EP_FRI"), one.at("@EP/EP_FRI"));
    EXPECT_NE(tree_of(server.file("/volume2")).at("@EP/EP_TBL"), two.at("@EP/EP_TBL"));
    EXPECT_EQ(checks_of(server), (check_answers{0, 255}));
}

TEST(typing, create_over_a_live_map_empties_it_and_a_repair_then_frees_what_it_held) {
    const damaged_server server("--seed 5");
    const std::string map = server.file(LUN_MAP);
    const std::string other = server.file(OTHER_LUN_MAP);
    const uint64_t extent = extent_of_its_own(map, server.file(TABLE_FILE));
    ASSERT_NE(uuid_in(map), uuid_in(other));
    const run_result got = server.run("tarn --create map --path " + std::string(LUN_MAP) +
                                      " --oldpath " + OTHER_LUN_MAP);
    EXPECT_EQ(got.status, 255);  // as after every creation
    EXPECT_EQ(got.log, log_of_run{});
    EXPECT_EQ(uuid_in(map), uuid_in(other));
    EXPECT_EQ(mapped_count_of(map), mapped_count_of(other));
    EXPECT_EQ(file_bytes(map, ENTRIES_BEGIN, 48 * 512), std::vector<uint8_t>(size_t{48} * 512, 0));
    EXPECT_EQ(checks_of(server), (check_answers{255, 0}));
    expect_repair_succeeds(server);
    EXPECT_EQ(checks_of(server), (check_answers{0, 0}));
    EXPECT_EQ(tbl_word_of(server.file(TABLE_FILE), extent) & 0x8000, 0);  // no longer used
}

TEST(typing, create_of_a_file_from_itself_changes_nothing) {
    const damaged_server server("--seed 5");
    const run_result map = run_without_a_change(
        server, "M=" + std::string(LUN_MAP) + "; tarn --create map --path $M --oldpath $M");
    EXPECT_EQ(map.status, 255);
    EXPECT_TRUE(map.logged(" are the same file\n"));
    const run_result table = run_without_a_change(
        server, "tarn --create tbl --path $V/@EP/EP_TBL --oldpath $V/@EP/EP_TBL");
    EXPECT_EQ(table.status, 255);
    EXPECT_TRUE(table.logged(" cannot be created from itself\n"));
}

TEST(typing, create_over_the_live_index_empties_it_and_no_check_finds_it) {
    const damaged_server server("--seed 5");
    ASSERT_NE(fri_word_of(server.file(INDEX_FILE), 0), 0u);
    const run_result got =
        server.run("tarn --create fri --path $V/@EP/EP_FRI --oldpath $V/@EP/EP_TBL");
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log, log_of_run{});
    EXPECT_EQ(fri_word_of(server.file(INDEX_FILE), 0), 0u);
    EXPECT_EQ(checks_of(server), BOTH_PASS);
    server.set_journal_aside();
    expect_repair_succeeds(server);
    server.expect_rebuilt();
}

TEST(typing, create_of_an_index_without_an_old_file_gives_a_uuid_that_a_repair_keeps) {
    const damaged_server server("--seed 5");
    const uuid_bytes right = uuid_in(server.file(TABLE_FILE));
    EXPECT_EQ(server.run("tarn --create fri --path $V/@EP/EP_FRI").status, 255);
    const uuid_bytes fresh = uuid_in(server.file(INDEX_FILE));
    EXPECT_NE(fresh, right);
    expect_repair_succeeds(server);
    EXPECT_EQ(uuid_in(server.file(INDEX_FILE)), fresh);
    EXPECT_EQ(checks_of(server), BOTH_PASS);
}

TEST(typing, create_over_the_live_table_gives_it_the_other_uuid_which_a_repair_keeps) {
    const damaged_server server("--seed 5");
    const run_result got =
        server.run("tarn --create tbl --path $V/@EP/EP_TBL --oldpath /volume2/@EP/EP_TBL");
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log, log_of_run{});
    EXPECT_EQ(checks_of(server), (check_answers{255, 255}));
    expect_repair_succeeds(server);
    EXPECT_EQ(checks_of(server), BOTH_PASS);
    EXPECT_EQ(uuid_in(server.file(TABLE_FILE)), uuid_in(server.file("/volume2/@EP/EP_TBL")));
}

TEST(typing, change_uuid_without_a_uuid_makes_it_zero_and_neither_check_nor_repair_notices) {
    for (const std::string kind :
         {"tbl --tblpath /volume1/@EP/EP_TBL", "fri --fripath /volume1/@EP/EP_FRI"}) {
        const damaged_server server("--seed 5");
        const std::string file = server.file(kind.substr(kind.rfind(' ') + 1));
        EXPECT_EQ(server.run("tarn --change-uuid " + kind).status, 0);
        EXPECT_EQ(uuid_in(file), NO_UUID);
        EXPECT_EQ(checks_of(server), BOTH_PASS);
        EXPECT_EQ(server.run(START_LINE).status, 0);
        expect_repair_succeeds(server);
        EXPECT_EQ(uuid_in(file), NO_UUID);
        const std::string mend =
            "UUID=$(od -A n -t x1 -j 20 -N 16 $V/@EP/EP_DAT_00000 | tr -d ' \\n')\n"
            "tarn --change-uuid " +
            kind + " --uuid $UUID";
        EXPECT_EQ(server.run(mend).status, 0);
        EXPECT_EQ(server.verify("--rebuilt").status, 0);
    }
}

TEST(typing, help_after_start_up_replay_is_ignored_and_the_journal_is_replayed_and_removed) {
    const damaged_server server("--crash --seed 4");
    EXPECT_EQ(server.verify("").status, 1);
    const run_result got = server.run("tarn --startup-replay --help");
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.err, "tarn: unrecognized option '--help'\n");
    EXPECT_EQ(server.verify("").status, 0);
    EXPECT_FALSE(journal_is_there(server));
}

TEST(typing, an_unknown_or_shortened_option_does_not_stop_a_repair) {
    struct row {
        const char* command;
        const char* errors;
    };
    for (const row& typed :
         {row{"tarn --onekeyrepair --volpath $V --dry-run",
              "tarn: unrecognized option '--dry-run'\n"},
          row{"tarn --onekeyrepair --volpath $V --help", "tarn: unrecognized option '--help'\n"},
          row{"tarn --onekeyr --vol $V", ""}, row{"tarn -onekeyrepair -volpath $V", ""}}) {
        const damaged_server server("--seed 5");
        const run_result got = server.run(typed.command);
        EXPECT_EQ(got.status, 0) << typed.command;
        EXPECT_EQ(got.err, typed.errors);
        EXPECT_TRUE(file_exists(server.file("/volume1/@EP/EP_TBL.bkp"))) << typed.command;
        EXPECT_TRUE(file_exists(server.file("/volume1/@EP/EP_FRI.bkp"))) << typed.command;
    }
}

TEST(typing, an_unknown_status_word_makes_start_up_replay_refuse_silently_until_it_is_set_back) {
    const damaged_server server("--crash --seed 4");
    const run_result set = server.run("tarn --set-status abnormall");
    EXPECT_EQ(set.log, log_of_run{});
    const run_result shown = server.run("tarn --search jnl -m");
    EXPECT_NE(shown.out.find("jnl_shutdown_tag                Not Initialized\n"),
              std::string::npos);
    const run_result refused = run_without_a_change(server, START_LINE);
    EXPECT_EQ(refused.status, 255);
    EXPECT_EQ(refused.log, log_of_run{});
    EXPECT_EQ(server.run("tarn --set-status abnormal; tarn --startup-replay").status, 0);
    EXPECT_EQ(server.verify("").status, 0);
}

TEST(typing,
     repair_of_a_map_as_the_unmap_buffer_sets_its_count_to_0_and_a_correct_repair_restores_it) {
    struct row {
        std::string map;
        const char* right_kind;
    };
    for (const row& typed : {row{LUN_MAP, ""}, row{"/volume1/@EP/EP_ROD", " --rod"}}) {
        const damaged_server server("--seed 5");
        const std::string map = server.file(typed.map);
        const uint64_t mapped = mapped_count_of(map);
        ASSERT_NE(mapped, 0u);
        ASSERT_FALSE(is_mapped(map, 0));  // where a scan of an unmap buffer ends
        const std::string check = "tarn --check-map --mappath " + typed.map;
        EXPECT_EQ(server.run(check + " --unmap --repair").status, 0);
        EXPECT_EQ(mapped_count_of(map), 0u);
        EXPECT_EQ(checks_of(server), (check_answers{255, 0}));
        server.set_journal_aside();
        server.expect_refused("ERR: import_map(#) mapped_cnt is wrong\n");
        EXPECT_EQ(server.run(check + typed.right_kind + " --repair").status, 0);
        EXPECT_EQ(mapped_count_of(map), mapped);
        EXPECT_EQ(server.verify("").status, 0);
    }
}

TEST(typing, repair_of_a_sound_map_of_another_kind_changes_nothing) {
    const damaged_server server("--seed 5");
    for (const char* words :
         {"$V/@iSCSITrg/LUN_1/LUN_1_Extent_0 --rod", "$V/@EP/EP_BUF", "$V/@EP/EP_ROD"}) {
        const run_result got = run_without_a_change(
            server, std::string("tarn --check-map --repair --mappath ") + words);
        EXPECT_EQ(got.status, 0) << words;
        EXPECT_EQ(got.out.find("mismatched"), std::string::npos) << words;
    }
}

TEST(typing, repair_of_a_table_as_a_map_writes_into_its_header) {
    const damaged_server server("--seed 5");
    const std::string table = server.file(TABLE_FILE);
    const auto entries = file_bytes(table, ENTRIES_BEGIN, 65536);
    const auto header = file_bytes(table, 0, 8192);
    const run_result got = server.run("tarn --check-map --repair --mappath $V/@EP/EP_TBL");
    EXPECT_EQ(got.status, 0);
    EXPECT_NE(file_bytes(table, 0, 8192), header);
    EXPECT_EQ(file_bytes(table, ENTRIES_BEGIN, 65536), entries);
    EXPECT_EQ(checks_of(server), BOTH_PASS);
    EXPECT_EQ(server.verify("").status, 1);
}

TEST(typing, one_key_check_with_repair_blanks_a_damaged_node) {
    damaged_server server("--seed 5");
    const std::string damage = server.damage("map-node-bit");
    const uint64_t node = std::stoull(damage.substr(damage.find("data node ") + 10));
    const std::vector<uint8_t> blank(512, 0);
    ASSERT_NE(node_bytes(server.map(), node), blank);
    EXPECT_EQ(server.run("tarn --onekeycheck").status, 0);
    EXPECT_NE(node_bytes(server.map(), node), blank);
    const run_result got = server.run("tarn --onekeycheck --repair");
    EXPECT_EQ(got.status, 255);  // the table still counts what the node held
    auto entries = node_bytes(server.map(), node);
    entries.resize(504);
    EXPECT_EQ(entries, std::vector<uint8_t>(504, 0));
}

TEST(typing, replay_of_one_file_does_nothing_without_the_journals_path) {
    const damaged_server server("--crash --seed 8");
    for (const std::string words :
         {"tbl --tblpath $V/@EP/EP_TBL", "fri --fripath $V/@EP/EP_FRI --tblpath $V/@EP/EP_TBL",
          "map --mappath $V/@EP/EP_BUF"}) {
        const run_result got = run_without_a_change(server, "tarn --rpjnl " + words);
        EXPECT_EQ(got.status, 255) << words;
        EXPECT_TRUE(got.logged("Fail to load JNL \n")) << words;
    }
}

TEST(typing, replay_of_the_table_alone_leaves_table_and_maps_of_different_times) {
    const damaged_server server("--crash --seed 8");
    auto before = tree_of(server.file("/volume1"));
    const run_result got = server.run("tarn --rpjnl tbl --tblpath $V/@EP/EP_TBL --jnlpath $J");
    EXPECT_EQ(got.status, 0);
    auto after = tree_of(server.file("/volume1"));
    EXPECT_NE(after.at("@EP/EP_TBL"), before.at("@EP/EP_TBL"));
    after.erase("@EP/EP_TBL");
    before.erase("@EP/EP_TBL");
    EXPECT_EQ(after, before);
    EXPECT_EQ(checks_of(server).full, 255);
}

// Groups that are initialised and have no free extent.
static uint64_t full_groups(const std::string& index) {
    uint64_t full = 0;
    for (uint64_t group = 0; group < 64; group++) {
        full += fri_word_of(index, group) >> 48 == 0x8000 ? 1 : 0;
    }
    return full;
}

TEST(typing, vaaifix_of_sound_files_logs_two_lines_for_each_full_group) {
    const damaged_server server("--seed 5");
    const uint64_t full = full_groups(server.file(INDEX_FILE));
    ASSERT_EQ(full, 2u);
    const run_result got = run_without_a_change(
        server, "tarn --vaaifix --fripath $V/@EP/EP_FRI --tblpath $V/@EP/EP_TBL");
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.log.size(), 2 * full) << testing::PrintToString(got.log);
    EXPECT_TRUE(got.logged("USED entry in TBL freelist, group_num "));
    EXPECT_TRUE(got.logged(" count 0 check_free_count 0\n"));
}

TEST(typing, import_into_the_live_files_counts_a_map_twice) {
    const damaged_server server("--seed 5");
    const uint64_t extent = extent_of_its_own(server.file(LUN_MAP), server.file(TABLE_FILE));
    const run_result got =
        server.run("tarn --import --fripath $V/@EP/EP_FRI --tblpath $V/@EP/EP_TBL --mappath " +
                   std::string(LUN_MAP));
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.log, log_of_run{});
    EXPECT_EQ(tbl_word_of(server.file(TABLE_FILE), extent) & 0x8FFF, 0x8002);
    EXPECT_EQ(checks_of(server), (check_answers{255, 0}));
}

TEST(typing, repair_of_a_path_that_is_not_a_volume_changes_nothing) {
    const damaged_server server("--seed 5");
    for (const std::string path : {"$V/@EP", "/volume", "/volume3", "volume1", "/volume1x"}) {
        const run_result got =
            run_without_a_change(server, "tarn --onekeyrepair --volpath " + path);
        EXPECT_EQ(got.status, 255) << path;
        EXPECT_TRUE(got.logged("the journal was not replayed into ")) << path;
    }
}

// The list of groups then leads into a group that has no list.
TEST(typing, finalize_before_the_group_count_is_right_leaves_groups_without_lists) {
    const damaged_server server("--seed 5");
    EXPECT_EQ(server.run("tarn --import-volume --volpath $V").status, 0);
    const std::string index = server.file("/volume1/@EP_FIX/EP_FRI");
    ASSERT_EQ(fri_group_count_of(index), 3u);
    set_header_u64(index, 64, 72, 2);
    const std::string files = " --fripath $V/@EP_FIX/EP_FRI --tblpath $V/@EP_FIX/EP_TBL";
    const run_result linked = server.run("tarn --finalize" + files);
    EXPECT_EQ(linked.status, 0);
    EXPECT_EQ(linked.log, log_of_run{});
    EXPECT_EQ(server.run("tarn --freeck" + files).status, 255);
    // The first run set the count to the maximum of an index, so a second run reaches every group.
    EXPECT_EQ(server.run("tarn --finalize" + files).status, 0);
    EXPECT_EQ(server.run("tarn --freeck" + files).status, 0);
}
