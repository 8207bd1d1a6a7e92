// Which mounts are volumes and which files are maps, as the check of a volume's journal reports.
#include <filesystem>
#include <gtest/gtest.h>

#include "system/support/sample_server.h"

namespace fs = std::filesystem;

// The maps that --ckjnl vol takes, in its order.
static lines checked_maps(const sandbox& box) {
    make_jnl(box.journal(), 0x25521814, {});
    const std::string out = box.run({"--ckjnl", "vol", "--volpath", "/volume1"}).out;
    const std::string word = "TARN_INFO: CHECK VAAI-LUN ";
    lines found;
    for (size_t at = out.find(word); at != std::string::npos; at = out.find(word, at + 1)) {
        const size_t path = at + word.size();
        found.push_back(out.substr(path, out.find('\n', path) - path));
    }
    return found;
}

static void put_map(const sandbox& box, const std::string& path, uint8_t uuid) {
    make_directories(fs::path(box.volume(1) + path).parent_path());
    make_map(box.volume(1) + path, uuid_of(uuid), uuid_of(0x11));
}

TEST(discovery, a_file_below_the_luns_is_a_map_if_its_name_has_a_certain_word) {
    const sandbox box;
    make_volumes(box);
    put_map(box, "/@iSCSITrg/a/LUN_Extent_1", 1);
    put_map(box, "/@iSCSITrg/a/LUN_extent_1", 2);
    put_map(box, "/@iSCSITrg/a_Extent_/plain", 3);
    make_directories(box.volume(1) + "/@iSCSITrg/directory_Extent_2");
    EXPECT_EQ(checked_maps(box), (lines{"/volume1/@iSCSITrg/a/LUN_Extent_1"}));
}

TEST(discovery, every_file_in_the_trash_is_a_map) {
    const sandbox box;
    make_volumes(box);
    put_map(box, "/@EP_trash/deep/whatever", 1);
    make_directories(box.volume(1) + "/@EP_trash/empty");
    EXPECT_EQ(checked_maps(box), (lines{"/volume1/@EP_trash/deep/whatever"}));
}

TEST(discovery, a_snapshot_at_any_depth_is_a_map_by_the_start_of_its_name) {
    const sandbox box;
    make_volumes(box);
    put_map(box, "/@Snapshot/sub/FAMILY_2", 1);
    put_map(box, "/@Snapshot/MYFAMILY_3", 2);
    put_map(box, "/@Snapshot/family_4", 3);
    EXPECT_EQ(checked_maps(box), (lines{"/volume1/@Snapshot/sub/FAMILY_2"}));
}

TEST(discovery, a_directory_named_like_a_snapshot_is_listed_and_fails_to_load) {
    const sandbox box;
    make_volumes(box);
    make_directories(box.volume(1) + "/@Snapshot/FAMILY_1");
    make_jnl(box.journal(), 0x25521814, {});
    const run_result got = box.run({"--ckjnl", "vol", "--volpath", "/volume1"});
    EXPECT_EQ(got.status, 255);
    EXPECT_TRUE(
        got.logged("ERR: check_map_journal(#) Fail to load MAP /volume1/@Snapshot/FAMILY_1\n"));
}

TEST(discovery, the_order_is_luns_trash_snapshots_unmap_buffer_rod_map) {
    const sandbox box;
    make_volumes(box);
    put_map(box, "/@EP/EP_ROD", 1);
    put_map(box, "/@EP/EP_BUF", 2);
    put_map(box, "/@Snapshot/FAMILY_1", 3);
    put_map(box, "/@EP_trash/t", 4);
    put_map(box, "/@iSCSITrg/l_Extent_", 5);
    EXPECT_EQ(checked_maps(box),
              (lines{"/volume1/@iSCSITrg/l_Extent_", "/volume1/@EP_trash/t",
                     "/volume1/@Snapshot/FAMILY_1", "/volume1/@EP/EP_BUF", "/volume1/@EP/EP_ROD"}));
    const std::string out = box.run({"--ckjnl", "vol", "--volpath", "/volume1"}).out;
    EXPECT_NE(out.find("TARN_INFO: UNMAP /volume1/@EP/EP_BUF exists\n"
                       "TARN_INFO: ROD /volume1/@EP/EP_ROD exists\n"),
              std::string::npos);
}

TEST(discovery, mounts_that_are_not_volumes_are_reported_with_what_they_lack) {
    const sandbox box;
    box.configure("volumes = /scratch /volume1 /volume2\n");
    make_directories(box.volume(2) + "/@EP");
    const run_result got = box.run({"--ckvjnl"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out,
              "TARN_INFO: /scratch is not a VAAI volume\n"
              "TARN_INFO: /volume1/@EP is not a VAAI volume\n"
              "TARN_INFO: /volume2/@iSCSITrg is not a VAAI volume\n");
    EXPECT_EQ(got.log, lines{});
}

TEST(discovery, without_a_configuration_volumes_are_found_by_their_mounts_in_order_of_number) {
    const sandbox box;
    make_volumes(box);
    make_jnl(box.journal(), 0x25521814, {});
    const std::string configured = "volumes = /volume1 /volume2\n";
    const run_result defaults = box.run({"--ckvjnl"});
    box.configure(configured);
    EXPECT_EQ(defaults.out, box.run({"--ckvjnl"}).out);
    EXPECT_EQ(defaults.status, 0);
    box.configure("volumes =\n");
    EXPECT_EQ(box.run({"--ckvjnl"}).out, "");
}

TEST(discovery, a_mount_is_a_volume_by_its_last_component_in_order_of_number) {
    const sandbox box;
    const std::string script =
        "for d in '/tmp/b c/volume10' /tmp/volume3 /tmp/volume03 /tmp/xvolume4 /tmp/volume5/in;"
        "do mkdir -p \"$d\" && mount -t tmpfs t \"$d\" || exit 99; done;"
        "exec " TARN_PROGRAM " --ckvjnl";
    const run_result got = box.run_program("/bin/sh", {"-c", script}, {});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.err, "");
    EXPECT_EQ(got.out,
              "TARN_INFO: /volume1/@EP is not a VAAI volume\n"
              "TARN_INFO: /volume2/@EP is not a VAAI volume\n"
              "TARN_INFO: /tmp/volume3/@EP is not a VAAI volume\n"
              "TARN_INFO: /tmp/b c/volume10/@EP is not a VAAI volume\n");
}
