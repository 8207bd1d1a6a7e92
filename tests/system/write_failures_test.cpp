// Writes and syncs that the system refuses, by the built program: no run that may have lost data
// ends with 0, and none is ended by a signal.
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "store/data_node.h"
#include "support/sample_maps.h"
#include "system/support/sample_server.h"
#include "system/support/tree.h"

static constexpr const char* NOT_COMPLETE = "ERR: main(#) This run is not complete, failures ";

// Volume 1 holds one map, whose extent the table counts; the journal records one
// change of each.
static void make_server(const sandbox& box) {
    make_volumes(box);
    box.configure("volumes = /volume1\n");
    make_jnl(box.journal(), 0xFFFFFFFF, put_mapped_lun(box.volume(1), 0));
}

static std::vector<std::string> on_volume(std::vector<std::string> words) {
    words.insert(words.end(),
                 {"--volpath", "/volume1", "--fripath", "/volume1/@EP/EP_FRI", "--tblpath",
                  "/volume1/@EP/EP_TBL", "--mappath", "/volume1/@iSCSITrg/LUN_Extent_1"});
    return words;
}

TEST(write_failures, a_sync_that_fails_ends_each_command_that_wrote_with_255) {
    run_conditions conditions;
    conditions.syncs_fail = true;
    const std::vector<std::vector<std::string>> commands = {
        on_volume({"--rpjnl", "fri", "--jnlpath", JOURNAL}),
        on_volume({"--rpjnl", "tbl", "--jnlpath", JOURNAL}),
        on_volume({"--rpjnl", "map", "--jnlpath", JOURNAL}),
        on_volume({"--rpjnl", "vol", "--jnlpath", JOURNAL}),
        {"--rpvjnl"},
        {"--startup-replay"},
        {"--set-status", "ro"},
        on_volume({"--vaaifix"}),
        {"--create", "fri", "--path", "/volume1/new", "--oldpath", "/volume1/@EP/EP_FRI"},
        {"--create", "tbl", "--path", "/volume1/new", "--oldpath", "/volume1/@EP/EP_TBL"},
        on_volume({"--change-uuid", "fri"}),
        on_volume({"--change-uuid", "tbl"}),
        on_volume({"--import"}),
        on_volume({"--import-volume"}),
        on_volume({"--finalize"}),
        on_volume({"--check-map", "--repair"}),
        on_volume({"--fullck"}),
        on_volume({"--reconstruct"}),
        {"--onekeycheck"},
        on_volume({"--onekeyrepair"})};
    for (const std::vector<std::string>& words : commands) {
        const sandbox box;
        make_server(box);
        if (words[0] == "--check-map") {
            spoil_node(box.volume(1) + "/@iSCSITrg/LUN_Extent_1", 0);  // something to repair
        }
        const run_result got = box.run(words, conditions);
        EXPECT_EQ(got.status, 255) << words[0];
        EXPECT_TRUE(got.logged(NOT_COMPLETE)) << words[0];
    }
}

TEST(write_failures, a_sync_that_fails_does_not_affect_a_command_that_reads) {
    run_conditions conditions;
    conditions.syncs_fail = true;
    const sandbox box;
    make_server(box);
    for (const std::vector<std::string>& words :
         {on_volume({"--freeck"}), on_volume({"--check-map"}), {"--vaaick", "log"}, {"--help"}}) {
        const run_result got = box.run(words, conditions);
        EXPECT_EQ(got.status, 0) << words[0];
        EXPECT_FALSE(got.logged("main(")) << words[0];
    }
}

// The limit is given in blocks of 512 bytes: the entries of a table begin right after it.
TEST(write_failures, a_file_size_limit_fails_the_write_and_does_not_end_the_process) {
    const sandbox box;
    make_server(box);
    const run_result got = box.run_program(
        "/bin/sh",
        {"-c", std::string("ulimit -f 2048 && exec " TARN_PROGRAM " --rpjnl tbl --jnlpath ") +
                   JOURNAL + " --tblpath /volume1/@EP/EP_TBL"},
        {});
    EXPECT_EQ(got.signal, 0);
    EXPECT_EQ(got.status, 255);
    EXPECT_TRUE(got.logged("ERR: tbl_entry_write(#) write tbl error, lpa 300\n"));
    EXPECT_TRUE(got.logged(std::string(NOT_COMPLETE) +
                           "1, the first: write of 512 bytes at byte 1049088 of "
                           "/volume1/@EP/EP_TBL: File too large\n"));
}

// Six maps of 300000 entries each, in separate extents, all in sealed nodes.
static void put_large_maps(const std::string& directory) {
    constexpr uint64_t ENTRIES = 300000;
    constexpr uint64_t PER_NODE = 63;
    for (unsigned map = 0; map < 6; map++) {
        const std::string path = directory + "/LUN_Extent_" + std::to_string(map);
        make_filled_map(path, ENTRIES, ENTRIES, {});
        std::vector<data_node> nodes((ENTRIES + PER_NODE - 1) / PER_NODE);
        for (uint64_t lea = 0; lea < ENTRIES; lea++) {
            const uint64_t word = uint64_t{1} << 63 | (map * ENTRIES + lea);
            memcpy(nodes[lea / PER_NODE].payload + lea % PER_NODE * 8, &word, sizeof word);
        }
        for (data_node& node : nodes) {
            data_node_seal(&node);
        }
        write_file_bytes(path, 1048576, nodes.data(), nodes.size() * sizeof(data_node));
    }
}

TEST(write_failures, the_rebuild_of_a_full_volume_fails_with_two_lines) {
    const sandbox box;
    make_server(box);
    put_large_maps(box.volume(1) + "/@iSCSITrg");
    // The rebuilt files' headers and the index fit into the free space, the table's entries do not.
    const run_result got = box.run_program(
        "/bin/sh",
        {"-c",
         "mkdir /tmp/v && mount -t tmpfs -o size=48m t /tmp/v && cp -a --sparse=always /volume1/. "
         "/tmp/v && dd if=/dev/zero of=/tmp/v/rest bs=4096 2>/dev/null; truncate -s -64K "
         "/tmp/v/rest && mount --bind /tmp/v /volume1 && exec " TARN_PROGRAM
         " --import-volume --volpath /volume1"},
        {});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out.find("Rebuild EP_TBL"), std::string::npos);
    ASSERT_EQ(got.log.size(), 3u);
    EXPECT_TRUE(got.log[0].starts_with("ERR: tbl_entry_write(#) write tbl error, lpa "));
    EXPECT_TRUE(got.log[1].starts_with("ERR: import_map(#) Fail to increase mapping, lea "));
    EXPECT_TRUE(got.log[2].starts_with(NOT_COMPLETE));
    EXPECT_TRUE(got.log[2].ends_with(": No space left on device\n"));
}
