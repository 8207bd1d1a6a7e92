#include "system/support/tree.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/scratch_file.h"

namespace fs = std::filesystem;

static void write_text(const std::string& path, uint64_t offset, const std::string& text) {
    write_file_bytes(path, offset, text.data(), text.size());
}

TEST(tree, names_every_file_and_directory) {
    const scratch_dir dir;
    fs::create_directories(dir.file("d/e"));
    fs::create_symlink("d", dir.file("l"));
    write_text(dir.file("d/f"), 0, "");
    EXPECT_EQ(
        tree_of(dir.path()),
        (std::map<std::string, std::string>{
            {"d", "directory"}, {"d/e", "directory"}, {"d/f", "file of 0"}, {"l", "link to d"}}));
}

TEST(tree, one_changed_byte_is_noticed_wherever_it_is) {
    const scratch_dir dir;
    const std::string path = dir.file("f");
    constexpr uint64_t size = uint64_t{1} << 40;
    write_text(path, 0, "x");
    EXPECT_EQ(truncate(path.c_str(), size), 0);
    for (const uint64_t at : {uint64_t{1}, uint64_t{511}, uint64_t{512}, uint64_t{70000},
                              uint64_t{1} << 30, size - 1}) {
        const auto before = tree_of(dir.path());
        write_text(path, at, "y");
        EXPECT_NE(tree_of(dir.path()), before) << at;
    }
}

TEST(tree, a_hole_is_the_same_as_zeros) {
    const scratch_dir dir;
    const std::string path = dir.file("f");
    write_text(path, 100000, "x");
    const auto before = tree_of(dir.path());
    write_text(path, 20000, std::string(8192, '\0'));
    EXPECT_EQ(tree_of(dir.path()), before);
}

TEST(tree, the_size_is_compared) {
    const scratch_dir dir;
    write_text(dir.file("f"), 0, "x");
    const auto before = tree_of(dir.path());
    EXPECT_EQ(truncate(dir.file("f").c_str(), 2), 0);
    EXPECT_NE(tree_of(dir.path()), before);
}
