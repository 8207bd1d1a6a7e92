// --startup-replay deletes the journal only if every change was surely applied: each reason to keep
// it.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>

#include "store/crc32c.h"
#include "support/begun_swap.h"
#include "support/sample_maps.h"
#include "system/support/sample_server.h"
#include "system/support/tree.h"
#include "volume/swap_marker.h"

namespace fs = std::filesystem;

static constexpr uint32_t ABNORMAL = 0xFFFFFFFF;
static constexpr uint32_t READ_ONLY = 0x77777777;
static constexpr uint32_t BAD = 0x66656800;
static constexpr const char* JNL_PATH_LINE = "TARN_INFO: jnlPath=/var/lib/tarn/EP_JNL\n";

static std::map<std::string, std::string> all_trees(const sandbox& box) {
    return tree_of(fs::path(box.journal()).parent_path().parent_path());
}

// A journal that sets lpa 5 of volume 1's table.
static void make_pending_journal(const sandbox& box, uint32_t status = ABNORMAL) {
    make_jnl(box.journal(), status, {tbl_block(uuid_of(0x11), 5, 0x8003)});
}

static bool was_replayed(const sandbox& box) {
    return tbl_word_of(box.volume(1) + "/@EP/EP_TBL", 5) == 0x8003;
}

// The journal is there and marked bad, and one line gives `first` as the first reason.
static void expect_kept(const sandbox& box, const run_result& got, const std::string& first) {
    EXPECT_EQ(got.status, 255);
    ASSERT_TRUE(file_exists(box.journal()));
    EXPECT_EQ(jnl_status_of(box.journal()), BAD);
    const std::string begin =
        "ERR: vaai_startup_replay(#) Keep journal /var/lib/tarn/EP_JNL, reasons ";
    size_t found = 0;
    for (const std::string& line : got.log) {
        if (line.rfind(begin, 0) == 0) {
            found++;
            EXPECT_TRUE(line.ends_with(", the first: " + first + "\n")) << line;
        }
    }
    EXPECT_EQ(found, 1u) << testing::PrintToString(got.log);
}

// Nothing was touched, the journal's status included, and `line` is the only line.
static void expect_refused_untouched(const sandbox& box, const std::string& line) {
    const auto before = all_trees(box);
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out, JNL_PATH_LINE);
    EXPECT_EQ(got.log, (lines{line}));
    EXPECT_EQ(all_trees(box), before);
}

TEST(keep_journal, without_a_reason_it_is_deleted) {
    const sandbox box;
    make_volumes(box);
    make_pending_journal(box);
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 0);
    EXPECT_FALSE(file_exists(box.journal()));
    EXPECT_TRUE(was_replayed(box));
}

TEST(keep_journal, if_the_status_of_a_directory_is_unknown) {
    for (const std::string name : {"@EP", "@iSCSITrg"}) {
        const sandbox box;
        make_volumes(box);
        make_pending_journal(box);
        fs::rename(box.volume(2) + "/" + name, box.volume(2) + "/kept");
        fs::create_symlink(name, box.volume(2) + "/" + name);  // a loop
        const run_result got = box.run({"--startup-replay"});
        const std::string text =
            "Fail to get the status of /volume2/" + name + ": Too many levels of symbolic links";
        EXPECT_TRUE(got.logged("ERR: is_directory(#) " + text + "\n"));
        EXPECT_NE(got.out.find("TARN_INFO: /volume2/" + name + " is not a VAAI volume\n"),
                  std::string::npos);
        EXPECT_TRUE(was_replayed(box));
        expect_kept(box, got, text);
    }
}

TEST(keep_journal, if_the_status_of_a_table_is_unknown) {
    const sandbox box;
    make_volumes(box);
    make_pending_journal(box);
    for (const std::string name : {"/@EP/EP_TBL", "/@EP/EP_FRI"}) {
        fs::remove(box.volume(2) + name);
        fs::create_symlink(fs::path(name).filename(), box.volume(2) + name);
    }
    const run_result got = box.run({"--startup-replay"});
    expect_kept(box, got,
                "Fail to get the status of /volume2/@EP/EP_FRI: Too many levels of symbolic links");
}

TEST(keep_journal, a_journal_of_unknown_status_is_not_a_missing_one) {
    const sandbox box;
    make_volumes(box);
    fs::create_symlink("EP_JNL", box.journal());
    const auto before = all_trees(box);
    const std::string text =
        "Fail to get the status of /var/lib/tarn/EP_JNL: Too many levels of symbolic links\n";
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log,
              (lines{"ERR: vaai_startup_replay(#) " + text,
                     "ERR: main(#) This run is not complete, failures 1, the first: " + text}));
    EXPECT_EQ(all_trees(box), before);
    const run_result asked = box.run({"--vaaick", "log"});  // not a file: as without a journal
    EXPECT_EQ(asked.status, 0);
    EXPECT_TRUE(asked.logged("ERR: is_regular_file(#) Fail to get the status of "));
}

TEST(keep_journal, if_a_volume_root_is_too_long_for_its_buffer) {
    for (const size_t length : {53u, 54u}) {
        const sandbox box;
        make_volumes(box);
        make_pending_journal(box);
        const std::string root = "/scratch/volume" + std::string(length - 15, '7');
        make_sample_volume(box.scratch() + root.substr(8), 0x33);
        box.configure("volumes = /volume1 " + root + "\n");
        const run_result got = box.run({"--startup-replay"});
        if (length == 53) {
            EXPECT_EQ(got.status, 0);
            EXPECT_FALSE(file_exists(box.journal()));
        } else {
            EXPECT_NE(got.out.find("TARN_INFO: " + root + " is not a VAAI volume\n"),
                      std::string::npos);
            expect_kept(box, got, "volume root " + root + " is too long");
        }
    }
}

// "on-disk(<stored>) != (<computed>)" of the 512 bytes at `offset`.
static std::string checksums_at(const std::string& path, uint64_t offset) {
    std::vector<uint8_t> node = file_bytes(path, offset, 512);
    uint32_t stored = 0;
    memcpy(&stored, node.data() + 508, sizeof stored);
    memset(node.data() + 508, 0, sizeof stored);
    uint32_t computed = 0;
    tarn_crc32c(node.data(), 512, &computed);
    char text[64];
    snprintf(text, sizeof text, "on-disk(%08x) != (%08x)", stored, computed);
    return text;
}

// Flips a bit in block 1, 2, ... of a table or an index. Returns checksums_at(that block).
static std::string damage_block(const std::string& path, uint64_t block) {
    const uint64_t offset = (2048 + block) * 512;
    std::vector<uint8_t> byte = file_bytes(path, offset + 100, 1);
    byte[0] ^= 1;
    write_file_bytes(path, offset + 100, byte.data(), 1);
    return checksums_at(path, offset);
}

// Replays `block` over a damaged block, whose damage is logged by `writer` and keeps the journal.
static void expect_kept_for_damage(const sandbox& box, const jnl_block& block,
                                   const std::string& writer, const std::string& damage) {
    make_jnl(box.journal(), ABNORMAL, {block});
    const run_result got = box.run({"--startup-replay"});
    EXPECT_TRUE(got.logged("ERR: " + writer + "(#) " + damage + "\n"))
        << testing::PrintToString(got.log);
    expect_kept(box, got, damage);
}

TEST(keep_journal, if_the_replay_rewrites_a_damaged_map_node) {
    const sandbox box;
    make_volumes(box);
    const std::string map = make_lun(box, 1, "LUN_Extent_0", 0xA1);
    jnl_block block = xcopy_block(uuid_of(0xA1), 9, 0x8001);
    block.xcopy.dst_lea = 70;  // in node 1: lea 63 to 125
    const uint64_t node = (2048 + 1) * 512;
    const uint32_t wrong = 0x12345678;
    write_file_bytes(map, node + 508, &wrong, sizeof wrong);
    expect_kept_for_damage(box, block, "map_entry_replay",
                           "/volume1/@iSCSITrg/LUN/LUN_Extent_0: node 1, lea 63 to 125, is damaged "
                           "and gets a fresh checksum: " +
                               checksums_at(map, node));
    EXPECT_EQ(map_word_of(map, 70), 0x8000000000000009u);  // rewritten nevertheless
}

TEST(keep_journal, if_the_replay_rewrites_a_damaged_table_block) {
    const sandbox box;
    make_volumes(box);
    const std::string table = box.volume(1) + "/@EP/EP_TBL";
    set_tbl_word(table, 260, 0x8001);  // block 1: lpa 252 to 503
    const std::string sums = damage_block(table, 1);
    expect_kept_for_damage(
        box, tbl_block(uuid_of(0x11), 253, 0x8003), "tbl_entry_replay",
        "/volume1/@EP/EP_TBL: block 1, lpa 252 to 503, is damaged and gets a fresh checksum: " +
            sums);
    EXPECT_EQ(tbl_word_of(table, 253), 0x8003);
}

// A record of an index entry: group 70, in block 1 of the index (groups 63 to 125), which is
// initialised already. Its extents are 258048 (63 * 4096) to 516095.
TEST(keep_journal, if_the_replay_rewrites_a_damaged_index_block) {
    const sandbox box;
    make_volumes(box);
    const std::string index = box.volume(1) + "/@EP/EP_FRI";
    set_fri_word(index, 65, uint64_t{0x8000} << 48);
    const std::string sums = damage_block(index, 1);
    expect_kept_for_damage(box, fri_block(uuid_of(0x11), 70, 0x8000, 0x8000), "fri_entry_replay",
                           "/volume1/@EP/EP_FRI: block 1, lpa 258048 to 516095, is damaged and "
                           "gets a fresh checksum: " +
                               sums);
}

// The group is initialised by the record: its free list is linked, which rewrites its 17 blocks.
TEST(keep_journal, if_the_replay_links_a_group_with_a_damaged_table_block) {
    const sandbox box;
    make_volumes(box);
    const std::string table = box.volume(1) + "/@EP/EP_TBL";
    set_tbl_word(table, 520, 0x8001);  // block 2: lpa 504 to 755
    const std::string sums = damage_block(table, 2);
    make_jnl(box.journal(), ABNORMAL,
             {fri_block(uuid_of(0x11), 0, 0, 0x8FFF)});  // 4095 free, from offset 0 on
    const run_result got = box.run({"--startup-replay"});
    EXPECT_TRUE(got.logged(
        "/volume1/@EP/EP_TBL: block 2, lpa 504 to 755, is damaged and gets a fresh checksum: " +
        sums));
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(jnl_status_of(box.journal()), BAD);
}

// A volume without table and index is skipped, and the journal's changes of its maps are not made.
TEST(keep_journal, if_a_volume_without_table_and_index_has_a_map) {
    for (const std::string map : {"@iSCSITrg/LUN_1/LUN_1_Extent_0", "@EP_trash/old/7",
                                  "@Snapshot/S/FAMILY_3", "@EP/EP_BUF", "@EP/EP_ROD"}) {
        const sandbox box;
        make_volumes(box);
        make_pending_journal(box);
        fs::remove(box.volume(2) + "/@EP/EP_TBL");
        fs::remove(box.volume(2) + "/@EP/EP_FRI");
        make_directories(fs::path(box.volume(2) + "/" + map).parent_path());
        make_map(box.volume(2) + "/" + map, uuid_of(0xA1), uuid_of(0x22));
        const run_result got = box.run({"--startup-replay"});
        const std::string text =
            "/volume2 has the map /volume2/" + map + " but neither table nor index";
        EXPECT_TRUE(got.logged("ERR: vaai_startup_replay(#) " + text + "\n")) << map;
        expect_kept(box, got, text);
    }
}

TEST(keep_journal, a_volume_without_table_index_and_maps_is_not_a_reason) {
    const sandbox box;
    make_volumes(box);
    make_pending_journal(box);
    fs::remove(box.volume(2) + "/@EP/EP_TBL");
    fs::remove(box.volume(2) + "/@EP/EP_FRI");
    make_empty_file(box.volume(2) + "/@iSCSITrg/LUN_1/config");
    make_empty_file(box.volume(2) + "/@Snapshot/S/MYFAMILY_3");
    make_directories(box.volume(2) + "/@EP_trash/empty");
    make_directories(box.volume(2) + "/@iSCSITrg/LUN_Extent_0");  // a directory there is not a map
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 0);
    EXPECT_FALSE(file_exists(box.journal()));
    for (const std::string& line : got.log) {
        EXPECT_EQ(line.find("ERR:"), std::string::npos) << line;
    }
}

TEST(keep_journal, a_missing_or_unmounted_named_volume_is_refused_and_nothing_is_changed) {
    for (const uint32_t status : {ABNORMAL, READ_ONLY}) {
        const sandbox box;
        make_volumes(box);
        make_pending_journal(box, status);
        box.configure("volumes = /volume1 /volume3\n");
        expect_refused_untouched(box, "ERR: vaai_startup_replay(#) volume /volume3 is not there\n");
        make_directories(box.scratch() + "/volume3");
        box.configure("volumes = /volume1 /scratch/volume3\n");
        expect_refused_untouched(
            box,
            "ERR: vaai_startup_replay(#) volume /scratch/volume3 is an empty directory: is it "
            "mounted?\n");
        make_empty_file(box.scratch() + "/volume3/share/picture");  // a plain volume
        const run_result got = box.run({"--startup-replay"});
        EXPECT_EQ(got.status, 0);
        EXPECT_FALSE(file_exists(box.journal()));
    }
}

// Leaves volume 1 like a repair that was cut between table and index.
static void make_cut_swap(const sandbox& box) {
    const fs::path root = box.volume(1);
    put_begun_swap(root, 0x11, 0x11);
    fs::rename(root / "@EP/EP_TBL", root / "@EP/EP_TBL.bkp");
    fs::rename(root / "@EP_FIX/EP_TBL", root / "@EP/EP_TBL");
}

static constexpr const char* TWO_AGES =
    "ERR: one_key_repair(#) /volume1: table and index do not match until --onekeyrepair is run "
    "again\n";

TEST(keep_journal, a_repair_cut_between_table_and_index_is_refused_and_nothing_is_changed) {
    for (const uint32_t status : {ABNORMAL, READ_ONLY, 0x25521814u}) {
        const sandbox box;
        make_volumes(box);
        make_pending_journal(box, status);
        make_cut_swap(box);
        expect_refused_untouched(box, TWO_AGES);
    }
}

TEST(keep_journal, every_replay_refuses_a_volume_whose_repair_was_cut) {
    const sandbox box;
    make_volumes(box);
    make_pending_journal(box);
    make_cut_swap(box);
    const auto before = all_trees(box);
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"--rpvjnl"}, {"--rpjnl", "vol", "--volpath", "/volume1"}}) {
        const run_result got = box.run(words);
        EXPECT_EQ(got.status, 255);
        EXPECT_TRUE(got.logged(TWO_AGES)) << testing::PrintToString(got.log);
        EXPECT_EQ(all_trees(box), before);
    }
}

TEST(keep_journal, a_rebuild_does_not_remove_the_files_of_an_interrupted_repair) {
    const sandbox box;
    make_volumes(box);
    make_cut_swap(box);
    const auto before = all_trees(box);
    for (const char* command : {"--reconstruct", "--import-volume"}) {
        const run_result got = box.run({command, "--volpath", "/volume1"});
        EXPECT_EQ(got.status, 255);
        EXPECT_EQ(got.log, (lines{"ERR: one_key_repair(#) /volume1/@EP_FIX belongs to an "
                                  "interrupted repair: run --onekeyrepair again\n"}));
        EXPECT_EQ(all_trees(box), before);
    }
}

TEST(keep_journal, a_named_volume_that_cannot_be_examined_is_refused_and_nothing_is_changed) {
    const sandbox box;
    make_volumes(box);
    make_pending_journal(box);
    box.configure("volumes = /volume1 /scratch/loop\n");
    fs::create_symlink("loop", box.scratch() + "/loop");
    const auto before = all_trees(box);
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 255);
    EXPECT_TRUE(got.logged("Too many levels of symbolic links")) << testing::PrintToString(got.log);
    EXPECT_EQ(all_trees(box), before);
}

TEST(keep_journal, after_a_clean_shutdown_a_missing_volume_is_skipped) {
    const sandbox box;
    make_volumes(box);
    make_pending_journal(box, 0x25521814);
    box.configure("volumes = /volume1 /volume3\n");
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(jnl_status_of(box.journal()), 0x25521814u);
}

TEST(keep_journal, without_any_mounted_volume_the_replay_is_refused_and_nothing_is_changed) {
    const sandbox box;
    make_volumes(box);
    make_pending_journal(box);
    const auto before = all_trees(box);
    const run_result got = box.run_program(
        "/bin/sh", {"-c", "umount /volume1 /volume2; " TARN_PROGRAM " --startup-replay"}, {});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out, JNL_PATH_LINE);
    EXPECT_EQ(got.log, (lines{"ERR: vaai_startup_replay(#) no volume is mounted\n"}));
    EXPECT_EQ(all_trees(box), before);
}

TEST(keep_journal, if_the_configuration_names_no_volume_it_is_deleted) {
    const sandbox box;
    make_volumes(box);
    make_pending_journal(box);
    box.configure("volumes =\n");
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 0);
    EXPECT_FALSE(file_exists(box.journal()));
}

TEST(keep_journal, a_missing_or_too_long_journal_root_is_logged_and_fails) {
    for (const std::string& configuration :
         {std::string("journal_root =\n"), "journal_root = /" + std::string(300, 'j') + "\n"}) {
        const sandbox box;
        make_volumes(box);
        make_pending_journal(box);
        box.configure(configuration);
        const auto before = all_trees(box);
        const lines line = {"ERR: get_jnl_root_path(#) Fail to get the journal root\n"};
        const run_result got = box.run({"--startup-replay"});
        EXPECT_EQ(got.status, 255);
        EXPECT_EQ(got.out, "TARN_INFO: jnlPath=\n");
        EXPECT_EQ(got.log, line);
        EXPECT_EQ(box.run({"--vaaick", "log"}).log, line);
        EXPECT_EQ(box.run({"--ckjnl", "vol", "--volpath", "/volume1"}).log, line);
        EXPECT_EQ(all_trees(box), before);
    }
}

TEST(keep_journal, a_header_that_points_past_the_ring_rolls_nothing_back) {
    const sandbox box;
    make_volumes(box);
    make_jnl(box.journal(), ABNORMAL,
             {tbl_block(uuid_of(0x11), 5, 0x8003), tbl_block(uuid_of(0x11), 5, 0x8004)});
    set_header_u64(box.journal(), 4160, 4168, 64);  // the ring has 64 blocks
    const auto before = tree_of(box.volume(1));
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"--rpvjnl"}, {"--ckvjnl"}, {"--startup-replay"}}) {
        const run_result got = box.run(command);
        EXPECT_EQ(got.status, 255) << command[0];
        EXPECT_TRUE(
            got.logged("ERR: last_complete_commit(#) jnl_last_record_start 64 is past the "
                       "ring of 64 blocks\n"))
            << command[0];
        EXPECT_EQ(tree_of(box.volume(1)), before) << command[0];
    }
    EXPECT_EQ(jnl_status_of(box.journal()), BAD);
}

TEST(keep_journal, a_record_past_the_header_count_of_the_rod_map_is_written) {
    const sandbox box;
    make_volumes(box);
    const std::string rod = box.volume(1) + "/@EP/EP_ROD";
    make_map(rod, uuid_of(0xA1), uuid_of(0x11));  // 126 entries, and 64 nodes in the file
    jnl_block block = xcopy_block(uuid_of(0xA1), 9, 0x8001);
    block.xcopy.dst_lea = 540671;  // the last of ((1 << 10) + 32) * 512 with extents of 1 MiB
    make_jnl(box.journal(), ABNORMAL, {block});
    const run_result got = box.run({"--startup-replay"});
    EXPECT_EQ(got.status, 0) << testing::PrintToString(got.log);
    EXPECT_EQ(map_word_of(rod, 540671), 0x8000000000000009u);

    block.xcopy.dst_lea = 540729;  // the first of a node that the file does not have
    make_jnl(box.journal(), ABNORMAL, {block});
    EXPECT_EQ(box.run({"--startup-replay"}).status, 255);
    EXPECT_EQ(jnl_status_of(box.journal()), BAD);
}
