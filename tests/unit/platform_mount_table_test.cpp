#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "platform/volumes.h"
#include "support/scratch_file.h"

using names = std::vector<std::string>;

static names take_names(ORBASpaceInfo* list) {
    names found;
    for (const ORBASpaceInfo* space = list; space != nullptr; space = space->next) {
        found.emplace_back(space->mount_path);
    }
    ORBASpaceInfoFree(list);
    return found;
}

// The volumes of a mount table of `text`.
static names listed(const std::string& text) {
    const scratch_dir dir;
    write_file_bytes(dir.file("mountinfo"), 0, text.data(), text.size());
    ORBASpaceInfo* list = nullptr;
    EXPECT_EQ(list_mounted_volumes(dir.file("mountinfo").c_str(), &list), 0);
    return take_names(list);
}

static std::string mount_line(const std::string& mount_point) {
    return "36 25 8:1 / " + mount_point + " rw,relatime shared:1 - ext4 /dev/sda1 rw\n";
}

TEST(platform_mount_table, lists_the_mount_points_called_volume_and_a_number_in_order) {
    EXPECT_EQ(listed("25 1 8:2 / / rw - ext4 /dev/sda2 rw\n" + mount_line("/volume10") +
                     mount_line("/volume2") + mount_line("/srv/volume1") + mount_line("/home") +
                     mount_line("/volume3/inner") + mount_line("/volumeX") +
                     mount_line("/volume01") + mount_line("/volume")),
              (names{"/srv/volume1", "/volume2", "/volume10"}));
}

TEST(platform_mount_table, lists_volumes_of_the_same_number_in_mount_order) {
    EXPECT_EQ(listed(mount_line("/b/volume1") + mount_line("/volume2") + mount_line("/a/volume1")),
              (names{"/b/volume1", "/a/volume1", "/volume2"}));
}

TEST(platform_mount_table, lists_a_volume_mounted_over_another_once) {
    EXPECT_EQ(listed(mount_line("/volume1") + mount_line("/volume2") + mount_line("/volume1")),
              (names{"/volume1", "/volume2"}));
}

TEST(platform_mount_table, has_its_escapes_decoded) {
    EXPECT_EQ(listed(mount_line("/two\\040words/volume1") + mount_line("/a\\134b/volume2") +
                     mount_line("/tab\\011/volume\\063")),
              (names{"/two words/volume1", "/a\\b/volume2", "/tab\t/volume3"}));
}

TEST(platform_mount_table, ignores_a_cut_line) {
    const std::string options(20000, ',');
    const std::string long_line =
        "36 25 8:1 / /volume1 rw" + options + " 1 2 3 /volume9 rw - ext4 /dev/sda1 rw\n";
    EXPECT_EQ(listed(long_line + mount_line("/volume2")), (names{"/volume1", "/volume2"}));
    // Room for 12287 characters: the path ends after "/volume1" there, and goes on in the file.
    const std::string path = "/" + std::string(12287 - 12 - 1 - 8, 'p') + "/volume1";
    EXPECT_EQ(listed("36 25 8:1 / " + path + "2345 rw - ext4 /dev/sda1 rw\n"), names{});
    EXPECT_EQ(listed("36 25 8:1 /\n\n36 25 8:1 / /volume1"), names{});
}

TEST(platform_mount_table, may_hold_three_hundred_volumes) {
    std::string text;
    names expected;
    for (int i = 300; i >= 1; i--) {
        text += mount_line("/volume" + std::to_string(i));
        expected.insert(expected.begin(), "/volume" + std::to_string(i));
    }
    EXPECT_EQ(listed(text), expected);
}

TEST(platform_mount_table, that_cannot_be_read_is_a_failure) {
    const scratch_dir dir;
    ORBASpaceInfo* list = nullptr;
    EXPECT_LT(list_mounted_volumes(dir.file("none").c_str(), &list), 0);
    EXPECT_LT(list_mounted_volumes(dir.path().c_str(), &list), 0);
    EXPECT_EQ(list, nullptr);
}
