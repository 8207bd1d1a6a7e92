#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

#include "support/hex.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "system/support/sandbox.h"
#include "system/support/tree.h"

namespace fs = std::filesystem;

namespace {

using words = std::vector<std::string>;

class create_command : public testing::Test {
protected:
    create_command() { make_sample_volume(box_.volume(1), 0x9A); }
    [[nodiscard]] std::string file(const std::string& name) const {
        return box_.volume(1) + "/@EP/" + name;
    }

    sandbox box_;
    const std::string fri_ = "/volume1/@EP/EP_FRI";
    const std::string tbl_ = "/volume1/@EP/EP_TBL";
};

}  // namespace

TEST_F(create_command, exits_255_even_when_the_new_table_was_written) {
    const run_result got =
        box_.run({"--create", "tbl", "--path", "/volume1/@EP/new", "--oldpath", tbl_});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log, words{});
    EXPECT_EQ(got.out, "");
    EXPECT_EQ(fs::file_size(file("new")), 0x40000100000u);
    EXPECT_EQ(uuid_in(file("new")), uuid_of(0x9A));
    EXPECT_EQ(box_.run({"--search", "tbl", "-p", "/volume1/@EP/new", "-a", "1"}).out,
              "TARN_INFO: used[0] tail[0] count/next 0\n");
}

TEST_F(create_command, gives_an_index_without_an_old_file_a_new_uuid) {
    for (const char* name : {"one", "two"}) {
        const std::string path = std::string("/volume1/@EP/") + name;
        const run_result got = box_.run({"--create", "fri", "--path", path});
        EXPECT_EQ(got.status, 255);
        EXPECT_EQ(got.log, words{});
        EXPECT_EQ(fri_free_count_of(file(name)), 0x000001F800000000u);
    }
    EXPECT_NE(uuid_in(file("one")), uuid_in(file("two")));
}

// /usr/bin/uuidgen is another program, for this run alone.
TEST_F(create_command, of_an_index_fails_without_a_uuid) {
    if (!fs::exists("/usr/bin/uuidgen")) {
        GTEST_SKIP() << "uuidgen is not installed";
    }
    const struct {
        const char* program;
        const char* line;
    } rows[] = {
        {"exit 0", "ERR: uuid_gen(#) fail to get string from '/usr/bin/uuidgen'\n"},
        {"echo 3f2504e0-4f89-41d3-9a0c-0305e82c33",
         "ERR: uuid_gen(#) '/usr/bin/uuidgen' gave fewer than 16 bytes\n"},
    };
    for (const auto& [program, line] : rows) {
        std::ofstream(box_.scratch() + "/uuidgen") << "#!/bin/sh\n" << program << "\n";
        fs::permissions(box_.scratch() + "/uuidgen", fs::perms(0755));
        const run_result got = box_.run_program(
            "/bin/sh",
            {"-c", "mount --bind /scratch/uuidgen /usr/bin/uuidgen && exec " TARN_PROGRAM
                   " --create fri --path /volume1/@EP/new"},
            {});
        EXPECT_EQ(got.status, 255);
        EXPECT_EQ(got.log, (words{line,
                                  "ERR: creat_fri_op(#) Fail to create FRI "
                                  "/volume1/@EP/new from (null)\n"}));
    }
}

TEST_F(create_command, makes_a_map_with_the_header_of_the_old_one) {
    make_filled_map(file("EP_MAP"), 200, 1, {{63, 2000}});
    const run_result got = box_.run(
        {"--create", "map", "--oldpath", "/volume1/@EP/EP_MAP", "--path", "/volume1/@EP/new"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log, words{});
    EXPECT_EQ(fs::file_size(file("new")), fs::file_size(file("EP_MAP")));
    EXPECT_EQ(mapped_count_of(file("new")), 1u);
    EXPECT_EQ(map_word_of(file("new"), 63), 0u);
}

TEST_F(create_command, touches_nothing_if_it_fails) {
    const auto before = tree_of(box_.volume(1));
    const words failing[] = {
        {"--create", "fri"},
        {"--create", "tbl", "--path", "/volume1/@EP/new"},
        {"--create", "tbl", "--path", "/volume1/@EP/new", "--oldpath", "/volume1/none"},
        {"--create", "map", "--path", "/volume1/@EP/new"},
        {"--create", "tbl", "--path", tbl_, "--oldpath", tbl_},
        {"--create", "fri", "--path", fri_, "--oldpath", fri_},
    };
    for (const words& options : failing) {
        const run_result got = box_.run(options);
        EXPECT_EQ(got.status, 255) << testing::PrintToString(options);
        EXPECT_TRUE(got.logged("Fail to create ")) << testing::PrintToString(options);
    }
    EXPECT_EQ(box_.run({"--create", "jnl", "--path", "/volume1/@EP/new"}).status, 255);
    EXPECT_EQ(box_.run({"--create", "fri", "--path", "/volume1/@EP/new", "x"}).status, 255);
    EXPECT_EQ(tree_of(box_.volume(1)), before);
}

TEST_F(create_command, change_uuid_of_an_index_exits_0_and_the_file_carries_it) {
    const run_result got = box_.run(
        {"--change-uuid", "fri", "--fripath", fri_, "--uuid", "0123456789abcdefFEDCBA9876543210"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.log, words{});
    EXPECT_EQ(got.out,
              "Input UUID[01234567ffffff89ffffffabffffffcdffffffeffffffffeffffffdcffffffba"
              "ffffff9876543210]\n"
              "TARN_INFO: chagne FRI uuid:\n"
              "TARN_INFO: from [9a9a9a9a9a9a9a9a9a9a9a9a9a9a9a9a]\n"
              "TARN_INFO: to   [0123456789abcdeffedcba9876543210]\n");
    EXPECT_EQ(hex_of(uuid_in(file("EP_FRI"))), "01 23 45 67 89 ab cd ef fe dc ba 98 76 54 32 10\n");
    EXPECT_EQ(uuid_in(file("EP_TBL")), uuid_of(0x9A));
}

TEST_F(create_command, change_uuid_of_a_file_that_is_not_a_table_exits_255) {
    const run_result got = box_.run({"--change-uuid", "tbl", "--tblpath", "/volume1/none"});
    EXPECT_EQ(got.status, 255);
    EXPECT_TRUE(got.logged("ERR: change_uuid_tbl_op(#) Fail to load TBL /volume1/none\n"));
}

TEST_F(create_command, change_uuid_refuses_an_invalid_uuid) {
    const auto before = tree_of(box_.volume(1));
    for (const size_t length : {size_t{31}, size_t{33}}) {
        const run_result got = box_.run(
            {"--change-uuid", "fri", "--fripath", fri_, "--uuid", std::string(length, '0')});
        EXPECT_EQ(got.status, 255);
        EXPECT_EQ(got.out, "UUID length must be 32\n");
    }
    const run_result got =
        box_.run({"--change-uuid", "fri", "--fripath", fri_, "--uuid", std::string(31, '0') + "G"});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.out, "UUID string has invalid char\n");
    EXPECT_EQ(tree_of(box_.volume(1)), before);
}
