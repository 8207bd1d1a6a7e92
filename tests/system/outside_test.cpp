// Names that lead out of a volume: a repair changes no byte outside, and fails.
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include "support/sample_maps.h"
#include "support/scratch_file.h"
#include "system/support/sample_server.h"
#include "system/support/tree.h"

namespace fs = std::filesystem;

// Volume 1 is sound. /scratch/outside holds two maps, each with a damaged node, which a repair
// would zero.
class outside_names : public testing::Test {
protected:
    outside_names() {
        make_volumes(box_);
        make_filled_map(root() + "/@iSCSITrg/LUN_Extent_1", 63, 1, {{0, 5}});
        for (const char* name : {"/outside/FAMILY_9", "/outside/LUN_Extent_9"}) {
            make_filled_map(box_.scratch() + name, 63, 2, {{0, 6}, {1, 7}});
            spoil_node(box_.scratch() + name, 0);
        }
    }
    std::string root() const { return box_.volume(1); }
    // The files outside the volumes are unchanged after a rebuild with repairs, which must fail.
    void expect_refused(const std::string& line) {
        const auto before = tree_of(box_.scratch());
        const run_result got = box_.run({"--import-volume", "--repair", "--volpath", "/volume1"});
        EXPECT_EQ(got.status, 255);
        EXPECT_TRUE(got.logged(line));
        EXPECT_EQ(tree_of(box_.scratch()), before);
    }

    sandbox box_;
};

TEST_F(outside_names, a_sound_volume_passes) {
    EXPECT_EQ(box_.run({"--import-volume", "--repair", "--volpath", "/volume1"}).status, 0);
}

TEST_F(outside_names, a_linked_snapshot_is_refused) {
    fs::create_symlink("/scratch/outside/FAMILY_9", root() + "/@Snapshot/FAMILY_9");
    expect_refused(
        "ERR: enum_all_vaai_luns(#) /volume1/@Snapshot/FAMILY_9 leads out of the volume, to "
        "/scratch/outside/FAMILY_9\n");
}

TEST_F(outside_names, a_linked_directory_is_refused) {
    fs::remove(root() + "/@Snapshot");
    fs::create_symlink("/scratch/outside", root() + "/@Snapshot");
    expect_refused(
        "ERR: enum_all_vaai_luns(#) /volume1/@Snapshot/FAMILY_9 leads out of the volume, to "
        "/scratch/outside/FAMILY_9\n");
}

TEST_F(outside_names, a_linked_rod_map_is_refused) {
    fs::create_symlink("/scratch/outside/FAMILY_9", root() + "/@EP/EP_ROD");
    expect_refused(
        "ERR: enum_all_vaai_luns(#) /volume1/@EP/EP_ROD leads out of the volume, to "
        "/scratch/outside/FAMILY_9\n");
}

// find prints it as two lines, of which the second names a map outside.
TEST_F(outside_names, a_file_name_with_a_line_end_is_refused) {
    make_empty_file(root() + "/@iSCSITrg/a\n/scratch/outside/LUN_Extent_9");
    expect_refused(
        "ERR: enum_all_vaai_luns(#) '/usr/bin/find /volume1/@iSCSITrg/' printed "
        "/scratch/outside/LUN_Extent_9, which is not below it\n");
}

TEST_F(outside_names, a_name_s_control_bytes_stay_out_of_the_log) {
    const std::string map = root() + "/@iSCSITrg/LUN_Extent_\x1b[2J\t";
    make_filled_map(map, 63, 0, {});
    write_file_bytes(map, 0, "damage", 6);
    const run_result got = box_.run({"--import-volume", "--volpath", "/volume1"});
    EXPECT_EQ(got.status, 255);
    EXPECT_TRUE(
        got.logged("ERR: do_import_volume(#) Fail to load MAP "
                   "/volume1/@iSCSITrg/LUN_Extent_\\x1b[2J\\x09\n"));
}
