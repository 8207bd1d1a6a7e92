// Damage to maps and to the journal: the command that finds it, the commands that repair it, and
// the losses. Table, index and free lists: repair_test.cpp.
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <string>

#include "map/map_format.h"
#include "metadata.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "system/support/damaged_server.h"
#include "system/support/tree.h"

namespace fs = std::filesystem;

using file_tree = std::map<std::string, std::string>;

static const char* const FULL_CHECK = "tarn --fullck --volpath $V";
static const char* const REPAIR = "tarn --onekeyrepair --volpath $V";
static const char* const BUFFER = "/volume1/@EP/EP_BUF";
static constexpr uint64_t SAMPLE_ENTRIES = 3000;  // of each map but the ROD map
static constexpr uint64_t SAMPLE_NODES = 48;      // (3000 + 62) / 63

// The kind's own option.
static std::string check_command(const damaged_server& server) {
    const std::string check = "tarn --check-map --mappath $MAP";
    return server.map().ends_with("/EP_BUF")   ? check + " --unmap"
           : server.map().ends_with("/EP_ROD") ? check + " --rod"
                                               : check;
}

static bool printed(const run_result& run, const std::string& part) {
    return run.out.find(part) != std::string::npos;
}

// Paths below the root whose lines differ, except the kept files of a one-key repair.
static std::set<std::string> changed_files(const file_tree& was, const file_tree& is) {
    std::set<std::string> changed;
    for (const file_tree* tree : {&was, &is}) {
        for (const auto& [path, line] : *tree) {
            const bool same =
                was.contains(path) && is.contains(path) && was.at(path) == is.at(path);
            if (!same && !path.ends_with(".bkp")) {
                changed.insert(path);
            }
        }
    }
    return changed;
}

static void expect_repair(const damaged_server& server) {
    const run_result repair = server.run(REPAIR);
    EXPECT_EQ(repair.status, 0) << testing::PrintToString(repair.log);
}

TEST(repair_of_a_map, of_a_wrong_mapped_count_loses_nothing) {
    for (unsigned seed : {1u, 2u, 3u, 4u, 5u, 12u}) {  // of every kind of map
        damaged_server server("--seed 5");
        SCOPED_TRACE(server.damage("mapped-count", seed));
        const std::string check = check_command(server);
        const run_result found = server.run(check);
        EXPECT_EQ(found.status, 0);  // reported, but not a failure
        EXPECT_TRUE(printed(found, "TARN_INFO: mapped_cnt mismatched: ("));
        EXPECT_TRUE(printed(server.run(check + " --repair"), "TARN_INFO: mapped_cnt repair: ("));
        EXPECT_TRUE(printed(server.run(check), "TARN_INFO: mapped_cnt matched: ("));
        server.expect_checks_pass();
        EXPECT_EQ(server.verify("").status, 0);
    }
}

// The effect of too low a count before it is repaired.
TEST(repair_of_a_map, with_too_low_a_count_must_come_before_the_rebuild) {
    damaged_server server("--seed 5");
    EXPECT_NE(server.damage("mapped-count", 2).find("1578 -> 1577"), std::string::npos);
    server.set_journal_aside();
    const run_result found = server.run(FULL_CHECK);
    EXPECT_EQ(found.status, 255);
    EXPECT_TRUE(found.logged("ERR: import_map(#) mapped_cnt is wrong\n"));
    server.expect_refused("ERR: import_map(#) mapped_cnt is wrong\n");
}

static bool is_mapped(const std::string& map, uint64_t lea) {
    const uint64_t word = map_word_of(map, lea);
    map_entry entry{};
    memcpy(&entry, &word, sizeof entry);
    return map_entry_is_mapped(&entry) != 0;
}

// The mapped entries of a node.
static uint64_t mapped_in_node(const std::string& map, uint64_t node) {
    uint64_t mapped = 0;
    for (uint64_t slot = 0; slot < MAP_NODE_ENTRIES; slot++) {
        mapped += is_mapped(map, node * MAP_NODE_ENTRIES + slot) ? 1 : 0;
    }
    return mapped;
}

// Those that are not blank.
static uint64_t entries_in_use(const std::string& map, uint64_t node) {
    uint64_t in_use = 0;
    for (uint64_t slot = 0; slot < MAP_NODE_ENTRIES; slot++) {
        in_use += map_word_of(map, node * MAP_NODE_ENTRIES + slot) != 0 ? 1 : 0;
    }
    return in_use;
}

static uint64_t node_in(const std::string& damage) {
    return std::stoull(damage.substr(damage.find("data node ") + 10));
}

TEST(repair_of_a_map, of_a_damaged_node_loses_only_the_entries_of_that_node) {
    for (unsigned seed : {1u, 2u, 12u}) {  // a LUN's map, one in the trash, the ROD map
        damaged_server server("--seed 5");
        const std::string damage = server.damage("map-node-bit", seed);
        SCOPED_TRACE(damage);
        server.set_journal_aside();
        const uint64_t node = node_in(damage);
        const std::string check = check_command(server);
        const run_result found = server.run(check);
        EXPECT_EQ(found.status, 0);
        EXPECT_TRUE(printed(
            found, "TARN_INFO: checksum mismatched: node_num(" + std::to_string(node) + ")\n"));
        const uint64_t mapped = mapped_count_of(server.map());
        const uint64_t lost = mapped_in_node(server.map(), node);
        std::vector<std::vector<uint8_t>> nodes;
        for (uint64_t n = 0; n < SAMPLE_NODES; n++) {
            nodes.push_back(node_bytes(server.map(), n));
        }
        const file_tree before = tree_of(server.file("/volume1"));

        EXPECT_EQ(server.run(check + " --repair").status, 0);
        EXPECT_EQ(server.run(FULL_CHECK).status, 255);  // the table still counts the entries
        EXPECT_EQ(server.run("rm -r $V/@EP_CHK").status, 0);
        expect_repair(server);
        server.expect_checks_pass();
        for (uint64_t n = 0; n < SAMPLE_NODES; n++) {
            EXPECT_TRUE(n == node || node_bytes(server.map(), n) == nodes[n]) << "node " << n;
        }
        EXPECT_EQ(entries_in_use(server.map(), node), 0u);
        EXPECT_EQ(mapped_count_of(server.map()), mapped - lost);
        const std::string path = server.map().substr(server.file("/volume1/").size());
        EXPECT_EQ(changed_files(before, tree_of(server.file("/volume1"))),
                  (std::set<std::string>{path, "@EP/EP_TBL", "@EP/EP_FRI"}));
    }
}

TEST(repair_of_a_map, must_come_before_a_rebuild_which_trusts_every_entry) {
    damaged_server server("--seed 5");
    SCOPED_TRACE(server.damage("map-node-bit", 3));
    server.set_journal_aside();
    expect_repair(server);
    server.expect_checks_pass();  // table and map agree on the wrong extent
    EXPECT_EQ(server.verify("--rebuilt").status, 1);
}

// An emptied buffer: its extents were waiting to be freed, and the rebuild frees them.
TEST(repair_of_a_map, empties_a_damaged_unmap_buffer_and_no_lun_loses_anything) {
    for (const char* kind : {"map-node-bit", "map-truncated", "mapped-count"}) {
        damaged_server server("--seed 5");
        SCOPED_TRACE(server.damage(kind, 3));
        ASSERT_EQ(server.map(), server.file(BUFFER));
        server.set_journal_aside();
        const file_tree before = tree_of(server.file("/volume1"));
        EXPECT_EQ(server
                      .run("tarn --create map --path $V/@EP/EP_BUF.new --oldpath $V/@EP/EP_BUF\n"
                           "tarn --check-map --mappath $V/@EP/EP_BUF.new --unmap --repair\n"
                           "mv $V/@EP/EP_BUF $V/@EP/EP_BUF.damaged\n"
                           "mv $V/@EP/EP_BUF.new $V/@EP/EP_BUF")
                      .status,
                  0);
        expect_repair(server);
        server.expect_checks_pass();
        EXPECT_EQ(mapped_count_of(server.file(BUFFER)), 0u);
        EXPECT_EQ(changed_files(before, tree_of(server.file("/volume1"))),
                  (std::set<std::string>{"@EP/EP_BUF", "@EP/EP_BUF.damaged", "@EP/EP_TBL",
                                         "@EP/EP_FRI"}));
    }
}

TEST(repair_of_a_map, with_a_damaged_header_is_impossible_without_a_copy) {
    for (unsigned seed = 1; seed <= 3; seed++) {
        damaged_server server("--seed 5");
        SCOPED_TRACE(server.damage("map-header-bit", seed));
        server.set_journal_aside();
        const std::string reason =
            "Fail to load MAP " + server.map().substr(server.top().size()) + "\n";
        const run_result found = server.run(FULL_CHECK);
        EXPECT_EQ(found.status, 255);
        EXPECT_TRUE(found.logged("ERR: do_import_volume(#) " + reason));
        server.expect_refused("ERR: do_import_volume(#) " + reason);
        const file_tree before = tree_of(server.file("/volume1"));
        EXPECT_EQ(server.run(check_command(server) + " --repair").status, 255);
        EXPECT_EQ(tree_of(server.file("/volume1")), before);
    }
}

static const char* const TAKE_HEAD = "dd if=$COPY of=$MAP bs=1M count=1 conv=notrunc";

// A copy of the map that is older than its newest entries.
static std::string copy_of(const damaged_server& server, const std::string& inside) {
    std::string copy = "/scratch/copy";
    fs::copy_file(server.file(inside), server.file(copy));
    set_header_u64(server.file(copy), 4096, 4100, 17);
    return copy;
}

TEST(repair_of_a_map, takes_header_and_pools_from_an_older_copy_and_loses_nothing) {
    for (const char* kind : {"map-header-bit", "pool-table"}) {
        damaged_server server("--seed 5");
        server.set("COPY", copy_of(server, "/volume1/@iSCSITrg/LUN_0/LUN_0_Extent_0"));
        SCOPED_TRACE(server.damage(kind, 1));
        ASSERT_TRUE(server.map().ends_with("LUN_0_Extent_0"));
        EXPECT_EQ(server.run(TAKE_HEAD).status, 0);
        EXPECT_EQ(server.run("tarn --check-map --mappath $MAP --repair").status, 0);
        server.expect_checks_pass();
        const ran found = server.verify("");
        EXPECT_EQ(found.status, 0) << found.text;
    }
}

// The row of the pool that the entries name is damaged.
TEST(repair_of_a_map, writes_the_uuid_of_the_volume_into_the_row_that_its_entries_name) {
    damaged_server server("--seed 5");
    const std::string damage = server.damage("pool-table", 2);
    ASSERT_NE(damage.find("@EP_trash/4: byte 8202, row 0 of the pool table"), std::string::npos);
    EXPECT_EQ(server.run("tarn --onekeycheck").status, 0);  // only logged
    const run_result found = server.run("tarn --rpvjnl");
    EXPECT_EQ(found.status, 255);
    EXPECT_TRUE(found.logged("cksum error, 1 pool for MAP /volume1/@EP_trash/4\n"));
    uint64_t lea = 0;
    while (lea < SAMPLE_ENTRIES && !is_mapped(server.map(), lea)) {
        lea++;
    }
    server.set("LEA", std::to_string(lea));
    EXPECT_TRUE(printed(server.run("tarn --search map -p $MAP -a $LEA"), " poolnum[0] mapped[1]"));
    server.set("ROW", "0");
    EXPECT_EQ(server
                  .run("dd if=$V/@EP/EP_DAT_00000 of=$MAP bs=1 skip=20 "
                       "seek=$((8192 + 16 * ROW)) count=16 conv=notrunc")
                  .status,
              0);
    EXPECT_EQ(server.run("tarn --rpvjnl").status, 0);
    server.expect_checks_pass();
    EXPECT_EQ(server.verify("").status, 0);
}

TEST(repair_of_a_map, that_was_cut_off_loses_what_was_after_the_cut) {
    for (unsigned seed : {1u, 2u, 12u}) {  // the last one: the ROD map
        damaged_server server("--seed 5");
        SCOPED_TRACE(server.damage("map-truncated", seed));
        server.set_journal_aside();
        const run_result found = server.run(FULL_CHECK);
        EXPECT_EQ(found.status, 255);
        EXPECT_EQ(server.run("rm -r $V/@EP_CHK").status, 0);
        std::vector<std::vector<uint8_t>> nodes;  // blank after the cut
        uint64_t left = 0;
        for (uint64_t n = 0; n < SAMPLE_NODES; n++) {
            nodes.push_back(node_bytes(server.map(), n));
            left += mapped_in_node(server.map(), n);
        }
        EXPECT_LT(left, mapped_count_of(server.map()));
        const run_result shown = server.run("tarn --search map -p $MAP -m");
        EXPECT_TRUE(printed(shown, "TARN_INFO: map_total_count          3000\n"));
        server.set("TOTAL", server.map().ends_with("/EP_ROD") ? "540672" : "3000");
        EXPECT_EQ(server.run("truncate -s $((1048576 + 512 * ((TOTAL + 62) / 63))) $MAP").status,
                  0);
        EXPECT_EQ(server.run(check_command(server) + " --repair").status, 0);
        expect_repair(server);
        server.expect_checks_pass();
        EXPECT_EQ(mapped_count_of(server.map()), left);
        for (uint64_t n = 0; n < SAMPLE_NODES; n++) {
            EXPECT_EQ(node_bytes(server.map(), n), nodes[n]) << "node " << n;
        }
    }
}

TEST(repair_of_the_journal, after_a_clean_shutdown_sets_it_aside_and_loses_nothing) {
    for (unsigned seed = 1; seed <= 3; seed++) {
        damaged_server server("--seed 5");
        SCOPED_TRACE(server.damage("journal-block", seed));
        EXPECT_TRUE(printed(server.run("tarn --search jnl -m"),
                            "jnl_shutdown_tag                Shutdown Successfully\n"));
        EXPECT_TRUE(server.run("tarn --ckvjnl").logged("jnl checksum error @block "));
        server.set_journal_aside();
        EXPECT_EQ(server.run("tarn --onekeycheck").status, 0);
        server.expect_checks_pass();
        const ran found = tarn_lab("verify " + server.top() + " --rebuilt");
        EXPECT_EQ(found.status, 0) << found.text;
    }
}

static void rebuild_every_volume(damaged_server* server) {
    for (const char* volume : {"/volume2", "/volume1"}) {
        server->set("V", volume);
        EXPECT_EQ(server->run("tarn --onekeyrepair --volpath $V --repair").status, 0);
        server->expect_checks_pass();
    }
    EXPECT_EQ(server->run("tarn --onekeycheck").status, 0);
}

// Crashes in which the damaged block belongs to the newest commits.
TEST(repair_of_the_journal, after_a_crash_rebuilds_every_volume_from_what_its_maps_hold) {
    for (unsigned seed : {2u, 6u, 7u}) {
        damaged_server server("--crash --seed " + std::to_string(seed));
        SCOPED_TRACE(server.damage("journal-block", seed));
        const run_result start = server.run("tarn --startup-replay");
        EXPECT_EQ(start.status, 255);
        EXPECT_TRUE(start.logged("jnl checksum error @block "));
        EXPECT_EQ(server.run("tarn --vaaick log").status, 255);
        server.set_journal_aside();
        rebuild_every_volume(&server);
    }
}

// Crashes in which it belongs to an older one: the replay ends there as at the end of the history.
TEST(repair_of_the_journal, after_a_crash_is_announced_in_the_log_even_if_the_replay_passed) {
    for (unsigned seed : {3u, 4u, 5u}) {
        damaged_server server("--crash --seed " + std::to_string(seed));
        SCOPED_TRACE(server.damage("journal-block", seed));
        const run_result start = server.run("tarn --startup-replay");
        EXPECT_EQ(start.status, 0);
        EXPECT_TRUE(start.logged("jnl checksum error @block "));
        EXPECT_FALSE(file_exists(server.file("/journal/EP_JNL")));
        EXPECT_EQ(server.verify("").status, 1);
        rebuild_every_volume(&server);
    }
}
