// What is durable and what may be missing after a power failure, on recordings made by hand.
#include "campaign/power_cut.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "support/scratch_file.h"

namespace fs = std::filesystem;
using names = std::vector<std::string>;

static constexpr file_id FILE_A = {1, 10};
static constexpr file_id FILE_B = {1, 11};
static constexpr file_id FILE_NEW = {1, 12};

// Two files of one block each, of "a" and "b", in a volume's directory; the run is added by a test.
class cut_state : public testing::Test {
protected:
    cut_state() {
        fs::create_directories(place_.file("before/v/d"));
        std::ofstream(place_.file("before/v/d/a")) << std::string(512, 'a');
        std::ofstream(place_.file("before/v/d/b")) << std::string(512, 'b');
        run_ = {place_.file("before"), "/r", {{FILE_A, "v/d/a"}, {FILE_B, "v/d/b"}}, {}};
    }
    void add(op_kind kind, const std::string& path, const std::string& other = "") {
        run_.operations.push_back({kind, {0, 0}, 0, "/r/" + path, "/r/" + other, {}});
    }
    void add_on(op_kind kind, const file_id& file, uint64_t number = 0,
                const std::string& path = "") {
        run_.operations.push_back({kind, file, number, "/r/" + path, "", {}});
    }
    void write(const file_id& file, uint64_t offset, size_t length, char byte) {
        const std::vector<uint8_t> bytes(length, static_cast<uint8_t>(byte));
        run_.operations.push_back({op_kind::write, file, offset, "", "", bytes});
    }
    // Builds the state with what the answers leave, with nothing lost, or with everything lost.
    void keep(const fate& decide) {
        fs::remove_all(place_.file("state"));
        disk_past past = past_of(run_, run_.operations.size());
        write_state(&past, decide, place_.file("state"));
    }
    void keep_all() { keep(nullptr); }
    void lose_all() {
        keep([](const loose_end&) -> size_t { return 0; });
    }
    // "c" is one byte of the file, "aaa" three.
    std::string bytes_at(const std::string& name, uint64_t offset, size_t length) {
        const auto got = file_bytes(place_.file("state/" + name), offset, length);
        return {got.begin(), got.end()};
    }
    uint64_t size_of(const std::string& name) {
        return fs::file_size(place_.file("state/" + name));
    }
    names files() {
        names found;
        for (const auto& entry : fs::recursive_directory_iterator(place_.file("state"))) {
            if (entry.is_regular_file()) {
                found.push_back(entry.path().lexically_relative(place_.file("state")));
            }
        }
        std::sort(found.begin(), found.end());
        return found;
    }
    std::vector<loose_end> ends() {
        disk_past past = past_of(run_, run_.operations.size());
        return loose_ends(&past);
    }

    scratch_dir place_;
    cut_run run_;
};

TEST_F(cut_state, a_write_that_no_sync_covers_is_lost_or_kept) {
    write(FILE_A, 100, 1, 'x');
    keep_all();
    EXPECT_EQ(bytes_at("v/d/a", 99, 3), "axa");
    lose_all();
    EXPECT_EQ(bytes_at("v/d/a", 99, 3), "aaa");
}

TEST_F(cut_state, a_sync_of_the_file_covers_what_was_written_before_it) {
    write(FILE_A, 0, 1, 'x');
    add_on(op_kind::sync_file, FILE_A);
    write(FILE_A, 1, 1, 'y');
    lose_all();
    EXPECT_EQ(bytes_at("v/d/a", 0, 3), "xaa");
}

TEST_F(cut_state, a_sync_of_one_file_covers_no_other) {
    write(FILE_A, 0, 1, 'x');
    add_on(op_kind::sync_file, FILE_B);
    lose_all();
    EXPECT_EQ(bytes_at("v/d/a", 0, 1), "a");
}

TEST_F(cut_state, any_single_block_of_a_write_may_be_missing) {
    write(FILE_A, 0, 1024, 'x');
    EXPECT_EQ(ends().size(), 3u);  // the size and two blocks
    keep([](const loose_end& end) -> size_t { return end.index == 1 ? 0 : 1; });
    EXPECT_EQ(bytes_at("v/d/a", 511, 2), "ax");
    EXPECT_EQ(size_of("v/d/a"), 1024u);
    keep([](const loose_end& end) -> size_t { return end.index == 0 ? 0 : 1; });
    EXPECT_EQ(size_of("v/d/a"), 512u);  // the growth of the file is not on the disk
    EXPECT_EQ(bytes_at("v/d/a", 511, 1), "x");
}

TEST_F(cut_state, a_block_may_hold_what_it_held_between_two_writes) {
    write(FILE_A, 0, 1, 'x');
    write(FILE_A, 0, 2, 'y');
    ASSERT_EQ(ends().size(), 1u);
    EXPECT_EQ(ends()[0].changes, (std::vector<size_t>{0, 1}));
    keep([](const loose_end&) -> size_t { return 1; });
    EXPECT_EQ(bytes_at("v/d/a", 0, 3), "xaa");
    keep([](const loose_end&) -> size_t { return 2; });
    EXPECT_EQ(bytes_at("v/d/a", 0, 3), "yya");
}

TEST_F(cut_state, a_truncation_takes_the_data_and_may_be_lost) {
    add_on(op_kind::truncate, FILE_A, 0);
    add_on(op_kind::truncate, FILE_A, 2048);
    keep_all();
    EXPECT_EQ(size_of("v/d/a"), 2048u);
    EXPECT_EQ(bytes_at("v/d/a", 0, 2), std::string(2, '\0'));
    lose_all();
    EXPECT_EQ(size_of("v/d/a"), 512u);
    EXPECT_EQ(bytes_at("v/d/a", 0, 2), "aa");
}

TEST_F(cut_state, permissions_change_with_the_file) {
    add_on(op_kind::mode, FILE_A, 0640);
    lose_all();
    struct stat status = {};
    ASSERT_EQ(stat(place_.file("state/v/d/a").c_str(), &status), 0);
    EXPECT_NE(status.st_mode & 07777, 0640u);
    add_on(op_kind::sync_file, FILE_A);
    lose_all();
    ASSERT_EQ(stat(place_.file("state/v/d/a").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(cut_state, a_new_file_needs_the_sync_of_its_directory) {
    add_on(op_kind::create, FILE_NEW, 0600, "v/d/new");
    write(FILE_NEW, 0, 3, 'n');
    add_on(op_kind::sync_file, FILE_NEW);
    lose_all();
    EXPECT_EQ(files(), (names{"v/d/a", "v/d/b"}));
    add(op_kind::sync_directory, "v/d");
    lose_all();
    EXPECT_EQ(files(), (names{"v/d/a", "v/d/b", "v/d/new"}));
    EXPECT_EQ(bytes_at("v/d/new", 0, 3), "nnn");
}

TEST_F(cut_state, a_durable_name_does_not_make_the_bytes_durable) {
    add_on(op_kind::create, FILE_NEW, 0600, "v/d/new");
    write(FILE_NEW, 0, 3, 'n');
    add(op_kind::sync_directory, "v/d");
    lose_all();
    EXPECT_EQ(size_of("v/d/new"), 0u);
}

TEST_F(cut_state, a_rename_is_lost_or_kept_as_a_whole) {
    add(op_kind::rename, "v/d/a", "v/d/b");
    keep_all();
    EXPECT_EQ(files(), (names{"v/d/b"}));
    EXPECT_EQ(bytes_at("v/d/b", 0, 1), "a");
    lose_all();
    EXPECT_EQ(files(), (names{"v/d/a", "v/d/b"}));
    EXPECT_EQ(bytes_at("v/d/b", 0, 1), "b");
    add(op_kind::sync_directory, "v/d");
    lose_all();
    EXPECT_EQ(files(), (names{"v/d/b"}));
}

TEST_F(cut_state, a_rename_into_another_directory_is_durable_once_that_directory_is_synced) {
    add(op_kind::mkdir, "v/e");
    add_on(op_kind::create, FILE_NEW, 0600, "v/e/new");
    write(FILE_NEW, 0, 3, 'n');
    add_on(op_kind::sync_file, FILE_NEW);
    add(op_kind::rename, "v/e/new", "v/d/a");
    lose_all();
    EXPECT_EQ(bytes_at("v/d/a", 0, 1), "a");
    add(op_kind::sync_directory, "v/e");  // the old name's directory
    lose_all();
    EXPECT_EQ(bytes_at("v/d/a", 0, 1), "a");
    add(op_kind::sync_directory, "v/d");
    lose_all();
    EXPECT_EQ(files(), (names{"v/d/a", "v/d/b"}));
    EXPECT_EQ(bytes_at("v/d/a", 0, 1), "n");
}

TEST_F(cut_state, a_rename_of_a_file_that_never_got_its_old_name_does_nothing) {
    add(op_kind::rename, "v/d/a", "v/d/c");
    add(op_kind::rename, "v/d/c", "v/d/b");
    keep([](const loose_end& end) -> size_t { return end.index == 0 ? 0 : 1; });
    EXPECT_EQ(files(), (names{"v/d/a", "v/d/b"}));
    EXPECT_EQ(bytes_at("v/d/b", 0, 1), "b");
}

TEST_F(cut_state, a_link_is_a_second_name_of_the_same_file) {
    add(op_kind::link, "v/d/a", "v/d/c");
    keep_all();
    EXPECT_EQ(files(), (names{"v/d/a", "v/d/b", "v/d/c"}));
    EXPECT_EQ(fs::hard_link_count(place_.file("state/v/d/c")), 2u);
    lose_all();
    EXPECT_EQ(files(), (names{"v/d/a", "v/d/b"}));
}

TEST_F(cut_state, a_name_replaced_by_a_link_exists_in_every_state) {
    add(op_kind::link, "v/d/a", "v/d/b.new");
    add(op_kind::rename, "v/d/b.new", "v/d/b");
    for (const size_t kept : {0u, 1u, 2u, 3u}) {
        keep([=](const loose_end& end) -> size_t { return (kept >> end.index) & 1; });
        EXPECT_EQ(bytes_at("v/d/a", 0, 1), "a") << kept;
        EXPECT_EQ(bytes_at("v/d/b", 0, 1), kept == 3 ? "a" : "b") << kept;
    }
}

TEST_F(cut_state, a_rename_between_two_names_of_one_file_leaves_both) {
    add(op_kind::link, "v/d/a", "v/d/c");
    add(op_kind::rename, "v/d/c", "v/d/a");
    keep_all();
    EXPECT_EQ(files(), (names{"v/d/a", "v/d/b", "v/d/c"}));
    EXPECT_EQ(bytes_at("v/d/a", 0, 1), "a");
}

TEST_F(cut_state, an_unlinked_name_comes_back_until_its_directory_is_synced) {
    add(op_kind::unlink, "v/d/a");
    lose_all();
    EXPECT_EQ(files(), (names{"v/d/a", "v/d/b"}));
    add(op_kind::sync_directory, "v/d");
    lose_all();
    EXPECT_EQ(files(), (names{"v/d/b"}));
}

TEST_F(cut_state, a_tree_may_be_removed_halfway) {
    add(op_kind::remove_tree, "v/d");
    EXPECT_EQ(ends().size(), 3u);  // the directory and both files
    keep_all();
    EXPECT_FALSE(fs::exists(place_.file("state/v/d")));
    keep([](const loose_end& end) -> size_t { return end.file != "v/d/b"; });
    EXPECT_EQ(files(), (names{"v/d/b"}));  // a directory that is not empty stays
    lose_all();
    EXPECT_EQ(files(), (names{"v/d/a", "v/d/b"}));
    add(op_kind::sync_directory, "v");
    lose_all();
    EXPECT_FALSE(fs::exists(place_.file("state/v/d")));
}

TEST_F(cut_state, a_sync_of_the_file_system_covers_all_of_it_and_no_other) {
    fs::create_directories(place_.file("before/w"));
    write(FILE_A, 0, 1, 'x');
    add(op_kind::unlink, "v/d/b");
    add(op_kind::sync_all, "w");
    lose_all();
    EXPECT_EQ(files(), (names{"v/d/a", "v/d/b"}));
    EXPECT_EQ(bytes_at("v/d/a", 0, 1), "a");
    add(op_kind::sync_all, "v");
    lose_all();
    EXPECT_EQ(files(), (names{"v/d/a"}));
    EXPECT_EQ(bytes_at("v/d/a", 0, 1), "x");
    EXPECT_TRUE(ends().empty());
}

TEST_F(cut_state, an_earlier_cut_ignores_later_operations) {
    write(FILE_A, 0, 1, 'x');
    add_on(op_kind::sync_file, FILE_A);
    add(op_kind::unlink, "v/d/a");
    disk_past past = past_of(run_, 1);
    EXPECT_EQ(loose_ends(&past).size(), 1u);
    write_state(&past, nullptr, place_.file("state"));
    EXPECT_EQ(bytes_at("v/d/a", 0, 1), "x");
}
