// What checks, replays and repairs do with maps that are missing, exchanged, copied, older or
// damaged: the facts on which the rules of the operator pages about maps are based.
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "system/support/volume_checks.h"

namespace fs = std::filesystem;

static constexpr uint64_t ENTRIES_OF_A_NODE = 63;
static constexpr uint64_t SAMPLE_ENTRIES = 3000;

static std::string seed_words(unsigned seed) {
    return "--crash --seed " + std::to_string(seed);
}

// --check-map of the damaged map, with the option of its kind.
static std::string check_line(const std::string& map) {
    if (map.ends_with("/EP_BUF")) {
        return "tarn --check-map --mappath $MAP --unmap";
    }
    return map.ends_with("/EP_ROD") ? "tarn --check-map --mappath $MAP --rod"
                                    : "tarn --check-map --mappath $MAP";
}

static bool finds_damage(const damaged_server& server, const std::string& check) {
    const run_result got = server.run(check);
    EXPECT_EQ(got.status, 0);
    return got.out.find("checksum mismatched: node_num(") != std::string::npos;
}

static uint64_t free_extents_of_a_rebuild(const damaged_server& server) {
    EXPECT_EQ(server.run("tarn --reconstruct --volpath $V").status, 0);
    const uint64_t count = fri_free_count_of(server.file("/volume1/@EP_FIX/EP_FRI"));
    EXPECT_EQ(server.run("rm -r $V/@EP_FIX").status, 0);
    return count;
}

TEST(pages_on_maps, the_full_check_names_the_table_first_and_the_maps_second) {
    const damaged_server server("--seed 5");
    const std::string table = server.file(TABLE_FILE);
    uint64_t lpa = 0;
    while (tbl_word_of(table, lpa) != 0x8001) {
        lpa++;
    }
    set_tbl_word(table, lpa, 0x8002);
    const reference_pair more = first_difference(server);
    EXPECT_EQ(more.lpa, lpa);
    EXPECT_EQ(more.table, 2);
    EXPECT_EQ(more.maps, 1);
    set_tbl_word(table, lpa, 0);
    const reference_pair unused = first_difference(server);
    EXPECT_EQ(unused.lpa, lpa);
    EXPECT_EQ(unused.table, 0);  // the used bits now
    EXPECT_EQ(unused.maps, 1);
}

TEST(pages_on_maps, a_rebuild_next_to_a_damaged_table_counts_the_same_free_extents) {
    for (const char* kind : {"reference-count", "table-block-bit", "table-noise"}) {
        damaged_server server("--seed 5");
        SCOPED_TRACE(server.damage(kind));
        EXPECT_EQ(free_extents_of_a_rebuild(server), fri_free_count_of(server.file(INDEX_FILE)));
    }
}

TEST(pages_on_maps, a_rebuild_counts_more_free_extents_if_a_map_is_missing) {
    const damaged_server server("--seed 5");
    fs::remove(server.file(LUN_MAP));
    EXPECT_GT(free_extents_of_a_rebuild(server), fri_free_count_of(server.file(INDEX_FILE)));
}

TEST(pages_on_maps, a_missing_map_is_unnoticed_by_start_up_replay_and_found_by_the_full_check) {
    for (const unsigned seed : {4u, 8u}) {
        const damaged_server server(seed_words(seed));
        fs::remove(server.file(LUN_MAP));
        EXPECT_EQ(server.run(START_LINE).status, 0);
        EXPECT_FALSE(journal_is_there(server));
        const reference_pair pair = first_difference(server);
        EXPECT_GT(pair.table, pair.maps);
        expect_repair_succeeds(server);
        EXPECT_EQ(checks_of(server), BOTH_PASS);  // its extents are free now
    }
}

TEST(pages_on_maps, two_exchanged_maps_are_found_by_no_check) {
    const damaged_server server("--seed 5");
    fs::rename(server.file(LUN_MAP), server.file("/map"));
    fs::rename(server.file(OTHER_LUN_MAP), server.file(LUN_MAP));
    fs::rename(server.file("/map"), server.file(OTHER_LUN_MAP));
    EXPECT_EQ(checks_of(server), BOTH_PASS);
    const run_result checked = server.run("tarn --onekeycheck");
    EXPECT_EQ(checked.status, 0);
    EXPECT_EQ(checked.out.find("mismatched"), std::string::npos);
    EXPECT_EQ(server.run(START_LINE).status, 0);
    EXPECT_EQ(server.verify("").status, 1);
}

TEST(pages_on_maps,
     a_copy_that_looks_like_a_map_is_counted_and_a_repair_makes_the_count_permanent) {
    for (const char* copy :
         {"/volume1/@iSCSITrg/LUN_1/LUN_1_Extent_0.bak", "/volume1/@iSCSITrg/LUN_1_Extent_0",
          "/volume1/@EP_trash/any name", "/volume1/@Snapshot/FAMILY_copy"}) {
        const damaged_server server("--seed 5");
        fs::create_directories(fs::path(server.file(copy)).parent_path());
        fs::copy(server.file(LUN_MAP), server.file(copy));
        const reference_pair pair = first_difference(server);
        EXPECT_EQ(pair.maps, pair.table + 1) << copy;
        expect_repair_succeeds(server);
        EXPECT_EQ(checks_of(server), BOTH_PASS) << copy;
        fs::remove(server.file(copy));
        const reference_pair stale = first_difference(server);
        EXPECT_EQ(stale.table, stale.maps + 1) << copy;
    }
}

TEST(pages_on_maps, a_copy_of_another_name_is_ignored) {
    const damaged_server server("--seed 5");
    for (const char* copy : {"/volume1/@iSCSITrg/LUN_1/copy-of-map", "/volume1/@EP/copy_Extent_0",
                             "/volume1/@Snapshot/copy_of_FAMILY_1"}) {
        fs::copy(server.file(LUN_MAP), server.file(copy));
    }
    EXPECT_EQ(checks_of(server), BOTH_PASS);
    expect_repair_succeeds(server);
    EXPECT_EQ(server.verify("--rebuilt").status, 0);
}

TEST(pages_on_maps, an_older_copy_is_unnoticed_by_start_up_replay_and_found_by_the_full_check) {
    const damaged_server server(seed_words(8));
    const damaged_server earlier("--seed 8 --transactions 120");
    ASSERT_EQ(uuid_in(earlier.file(LUN_MAP)), uuid_in(server.file(LUN_MAP)));
    fs::copy(earlier.file(LUN_MAP), server.file(LUN_MAP), fs::copy_options::overwrite_existing);
    EXPECT_EQ(server.run(START_LINE).status, 0);
    EXPECT_FALSE(journal_is_there(server));
    EXPECT_EQ(checks_of(server), (check_answers{255, 0}));
    server.expect_refused("ERR: import_map(#) mapped_cnt is wrong\n");
}

TEST(pages_on_maps, a_damaged_node_that_the_journal_does_not_touch_survives_start_up_replay) {
    for (const unsigned seed : {1u, 2u, 3u}) {
        damaged_server server(seed_words(seed));
        SCOPED_TRACE(server.damage("map-node-bit", seed));
        const std::string check = check_line(server.map());
        EXPECT_TRUE(finds_damage(server, check));
        const run_result replay = server.run(START_LINE);
        EXPECT_EQ(replay.status, 0);
        EXPECT_FALSE(replay.logged("mismatched"));
        EXPECT_FALSE(journal_is_there(server));
        EXPECT_TRUE(finds_damage(server, check));
    }
}

// The journal holds a newer image of an entry of that node, so the replay rewrites the node.
TEST(pages_on_maps, a_damaged_node_that_the_journal_changes_is_hidden_by_the_replay_and_logged) {
    damaged_server server("--crash --seed 10");
    SCOPED_TRACE(server.damage("map-node-bit", 10));
    ASSERT_TRUE(finds_damage(server, check_line(server.map())));
    const run_result replay = server.run(START_LINE);
    EXPECT_EQ(replay.status, 255);
    EXPECT_TRUE(replay.logged(" is damaged and gets a fresh checksum: "));
    EXPECT_TRUE(replay.logged("Keep journal /var/lib/tarn/EP_JNL, reasons 1, the first: "));
    EXPECT_TRUE(journal_is_there(server));
    EXPECT_FALSE(finds_damage(server, check_line(server.map())));
}

// The entries of the map that differ from those of the truth: all in `node`, none mapped.
static void expect_lost_in_node_only(const std::string& map, const std::string& truth,
                                     uint64_t node) {
    for (uint64_t lea = 0; lea < SAMPLE_ENTRIES; lea++) {
        const uint64_t word = map_word_of(map, lea);
        if (word != map_word_of(truth, lea)) {
            EXPECT_EQ(lea / ENTRIES_OF_A_NODE, node) << lea;
            EXPECT_EQ(word >> 63, 0u) << lea;
        }
    }
}

TEST(pages_on_maps, repair_replay_repair_and_rebuild_lose_only_entries_of_the_damaged_node) {
    for (const unsigned seed : {1u, 3u, 10u, 16u}) {
        damaged_server server(seed_words(seed));
        const damaged_server truth(seed_words(seed));
        const std::string damage = server.damage("map-node-bit", seed);
        SCOPED_TRACE(damage);
        const std::string repair = check_line(server.map()) + " --repair";
        EXPECT_TRUE(finds_damage(server, repair));
        EXPECT_EQ(server.run(START_LINE).status, 0);
        EXPECT_FALSE(finds_damage(server, repair));
        expect_repair_succeeds(server);
        EXPECT_EQ(checks_of(server), BOTH_PASS);
        EXPECT_EQ(truth.run(START_LINE).status, 0);
        const std::string name = "/" + damage.substr(0, damage.find(':'));
        const uint64_t node = std::stoull(damage.substr(damage.find("data node ") + 10));
        expect_lost_in_node_only(server.map(), truth.file(name), node);
    }
}

// The damaged entries no longer match the table, and the check of that volume ends there.
TEST(pages_on_maps, the_one_key_check_does_not_reach_the_maps_of_a_volume_whose_table_differs) {
    damaged_server server("--crash --seed 3 --luns 6");
    SCOPED_TRACE(server.damage("map-node-bit", 3));
    EXPECT_TRUE(finds_damage(server, check_line(server.map())));
    const run_result checked = server.run("tarn --onekeycheck");
    EXPECT_EQ(checked.status, 255);
    EXPECT_EQ(checked.out.find("checksum mismatched"), std::string::npos);
}
