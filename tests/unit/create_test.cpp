#include "cli/create.h"

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <gtest/gtest.h>

#include "fri/fri_file.h"
#include "map/map_file.h"
#include "options.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_file.h"

namespace {

using words = std::vector<std::string>;
using handler = int (*)(int argc, char** argv, int argument);

class create : public testing::Test {
protected:
    create() {
        make_sample_volume(volumes_.volume(1), 0x9A);
        fri_ = volumes_.volume(1) + "/@EP/EP_FRI";
        tbl_ = volumes_.volume(1) + "/@EP/EP_TBL";
        map_ = volumes_.volume(1) + "/EP_MAP";
        new_ = volumes_.root() + "/new";
        make_map(map_, uuid_of(0x11), uuid_of(0x9A));
    }

    int run(handler operation, const words& options) {
        log_.clear();
        arguments run(options);
        opt_ctx = option_record{};
        stdout_capture out;
        const int result = operation(run.count(), run.values(), 0);
        text_ = out.text();
        EXPECT_EQ(current_fri.fd + current_tbl.fd + current_map.fd, 0);
        return result;
    }
    std::string last_log() { return log_.lines().empty() ? "" : log_.lines().back(); }
    // `len` bytes of the new file from byte `at` on, as hexadecimal pairs.
    std::string new_bytes(uint64_t at, size_t len) { return hex_of(file_bytes(new_, at, len)); }

    sample_volumes volumes_;
    log_capture log_;
    std::string fri_, tbl_, map_, new_, text_;
};

const std::string UUID_9A = "9a 9a 9a 9a 9a 9a 9a 9a 9a 9a 9a 9a 9a 9a 9a 9a\n";
const std::string UUID_AS_TEXT = "9a9a9a9a9a9a9a9a9a9a9a9a9a9a9a9a";

}  // namespace

TEST_F(create, of_an_index_keeps_the_uuid_of_the_old_file_and_still_exits_255) {
    const auto before = static_cast<uint32_t>(time(nullptr));
    EXPECT_EQ(run(creat_fri_op, {"--path", new_, "--oldpath", tbl_}), -1);
    EXPECT_EQ(log_.lines(), log_lines({}));
    EXPECT_EQ(std::filesystem::file_size(new_), 0x100100000u);
    EXPECT_EQ(new_bytes(4, 16), "00 00 01 00 33 06 14 18 52 25 86 08 02 00 00 00\n");
    EXPECT_EQ(new_bytes(20, 16), UUID_9A);
    ASSERT_EQ(load_fri(new_.c_str()), 0);  // its nodes carry their checksums
    EXPECT_EQ(current_fri.header.fri_data_offset, 0x100000u);
    EXPECT_GE(current_fri.header.fri_create_time, before);
    EXPECT_EQ(current_fri.header.fri_entry_size, 8u);
    EXPECT_EQ(current_fri.header.fri_group_count, 0u);
    EXPECT_EQ(current_fri.header.fri_free_count, 0x000001F800000000u);
    EXPECT_EQ(current_fri.header.fri_group_head, 0u);
    close_fri();
}

TEST_F(create, of_an_index_without_a_path_fails) {
    EXPECT_EQ(run(creat_fri_op, {}), -1);
    EXPECT_EQ(log_.lines(),
              log_lines({"ERR: create_file(#) name NULL pointer\n",
                         "ERR: creat_fri_op(#) Fail to create FRI (null) from (null)\n"}));
    EXPECT_EQ(run(creat_fri_op, {"--path", volumes_.root() + "/none/new", "--oldpath", fri_}), -1);
    EXPECT_EQ(last_log(), "ERR: creat_fri_op(#) Fail to create FRI " + volumes_.root() +
                              "/none/new from " + fri_ + "\n");
}

TEST_F(create, never_empties_the_old_file) {
    const struct {
        handler operation;
        std::string path;
        std::string message;
    } rows[] = {
        {creat_fri_op, fri_, "ERR: creat_fri_op(#) Fail to create FRI "},
        {creat_tbl_op, tbl_, "ERR: creat_tbl_op(#) Fail to create TBL "},
        {creat_map_op, map_, "ERR: creat_map_op(#) Fail to create MAP "},
    };
    for (const auto& [operation, path, message] : rows) {
        const std::string kept = hex_of(file_bytes(path, 0, 8448));
        EXPECT_EQ(run(operation, {"--path", path, "--oldpath", path}), -1);
        EXPECT_EQ(last_log(), message + path + " from " + path + "\n");
        EXPECT_EQ(hex_of(file_bytes(path, 0, 8448)), kept);
    }
}

TEST_F(create, of_a_table_keeps_extent_size_and_uuid_of_the_old_one_and_exits_255) {
    EXPECT_EQ(run(creat_tbl_op, {"--path", new_, "--oldpath", tbl_}), -1);
    EXPECT_EQ(log_.lines(), log_lines({}));
    EXPECT_EQ(std::filesystem::file_size(new_), 0x40000100000u);
    EXPECT_EQ(new_bytes(4, 16), "00 00 01 00 33 06 14 18 52 25 86 08 01 00 00 00\n");
    EXPECT_EQ(new_bytes(20, 16), UUID_9A);
    // extent size 1 MiB, entries of 2 bytes, 504 * 2^32 of them
    EXPECT_EQ(new_bytes(68, 16), "00 00 10 00 02 00 00 00 00 00 00 00 f8 01 00 00\n");
    EXPECT_EQ(load_tbl(new_.c_str()), 0);
    close_tbl();
}

TEST_F(create, of_a_table_needs_the_old_one_and_leaves_the_new_path_alone) {
    EXPECT_EQ(run(creat_tbl_op, {"--path", new_}), -1);
    EXPECT_EQ(last_log(), "ERR: creat_tbl_op(#) Fail to create TBL " + new_ + " from (null)\n");
    EXPECT_EQ(run(creat_tbl_op, {"--path", new_, "--oldpath", "/nonexistent"}), -1);
    EXPECT_EQ(last_log(),
              "ERR: creat_tbl_op(#) Fail to create TBL " + new_ + " from /nonexistent\n");
    EXPECT_FALSE(file_exists(new_));
    EXPECT_EQ(run(creat_tbl_op, {"--oldpath", tbl_}), -1);
    EXPECT_EQ(last_log(), "ERR: creat_tbl_op(#) Fail to create TBL (null) from " + tbl_ + "\n");
}

TEST_F(create, of_a_map_copies_size_header_and_pools_but_no_entry_and_exits_255) {
    make_filled_map(map_, 200, 2, {{62, 1000}, {63, 2000}});
    EXPECT_EQ(run(creat_map_op, {"--path", new_, "--oldpath", map_}), -1);
    EXPECT_EQ(log_.lines(), log_lines({}));
    EXPECT_EQ(std::filesystem::file_size(new_), std::filesystem::file_size(map_));
    EXPECT_EQ(new_bytes(0, 8448), hex_of(file_bytes(map_, 0, 8448)));  // the mapped count, too
    EXPECT_EQ(map_word_of(new_, 62), 0u);
    EXPECT_EQ(map_word_of(new_, 63), 0u);
}

TEST_F(create, of_a_map_needs_both_paths) {
    EXPECT_EQ(run(creat_map_op, {}), -1);
    EXPECT_EQ(last_log(), "ERR: creat_map_op(#) Fail to create MAP (null) from (null)\n");
    EXPECT_EQ(run(creat_map_op, {"--path", new_, "--oldpath", "/nonexistent"}), -1);
    EXPECT_EQ(last_log(),
              "ERR: creat_map_op(#) Fail to create MAP " + new_ + " from /nonexistent\n");
    EXPECT_FALSE(file_exists(new_));
    EXPECT_EQ(run(creat_map_op, {"--oldpath", map_}), -1);
    EXPECT_EQ(last_log(), "ERR: creat_map_op(#) Fail to create MAP (null) from " + map_ + "\n");
}

TEST_F(create, logs_a_header_that_could_not_be_saved) {
    {
        io_fault_at fault(1, EIO, {io_call::write});
        EXPECT_EQ(run(creat_fri_op, {"--path", new_, "--oldpath", fri_}), -1);
    }
    EXPECT_EQ(last_log(), "ERR: creat_fri_op(#) Fail to save FRI " + new_ + "\n");
    {
        io_fault_at fault(1, EIO, {io_call::write});
        EXPECT_EQ(run(creat_tbl_op, {"--path", new_, "--oldpath", tbl_}), -1);
    }
    EXPECT_EQ(last_log(), "ERR: creat_tbl_op(#) Fail to save TBL " + new_ + "\n");
}

TEST_F(create, creates_nothing_if_the_sub_options_fail) {
    for (const handler operation : {creat_fri_op, creat_tbl_op, creat_map_op}) {
        EXPECT_EQ(run(operation, {"--path", new_, "--oldpath", map_, "stray"}), -1);
        EXPECT_EQ(text_, "none-option argv element:stray \n");
        EXPECT_EQ(log_.lines(), log_lines({}));
        EXPECT_FALSE(file_exists(new_));
    }
}

TEST_F(create, is_logged_whichever_call_fails) {
    for (const handler operation : {creat_fri_op, creat_tbl_op, creat_map_op}) {
        const std::string old = operation == creat_map_op ? map_ : tbl_;
        bool fired = true;
        for (uint64_t n = 1; fired; n++) {
            // A failing close is not reported, and a failing sync is only counted.
            io_fault_at fault(
                n, EIO,
                {io_call::open, io_call::read, io_call::write, io_call::seek, io_call::truncate});
            EXPECT_EQ(run(operation, {"--path", new_, "--oldpath", old}), -1);
            fired = fault.fired();
            EXPECT_EQ(log_.lines().empty(), !fired) << n;
            ASSERT_LT(n, 1000u);
        }
    }
}

TEST_F(create, change_uuid_of_an_index_prints_both_and_saves_the_new_one) {
    EXPECT_EQ(
        run(change_uuid_fri_op, {"--fripath", fri_, "--uuid", "00112233445566778899AABBCCDDEEFF"}),
        0);
    EXPECT_EQ(log_.lines(), log_lines({}));
    EXPECT_EQ(text_,
              "Input UUID[0011223344556677ffffff88ffffff99ffffffaaffffffbbffffffccffffffdd"
              "ffffffeeffffffff]\n"
              "TARN_INFO: chagne FRI uuid:\n"
              "TARN_INFO: from [" +
                  UUID_AS_TEXT +
                  "]\n"
                  "TARN_INFO: to   [00112233445566778899aabbccddeeff]\n");
    EXPECT_EQ(hex_of(file_bytes(fri_, 20, 16)),
              "00 11 22 33 44 55 66 77 88 99 aa bb cc dd ee ff\n");
    EXPECT_EQ(load_fri(fri_.c_str()), 0);
    EXPECT_EQ(current_fri.header.fri_free_count, 4096u);  // the rest is unchanged
    close_fri();
}

TEST_F(create, change_uuid_of_a_table_without_a_uuid_writes_zeros) {
    EXPECT_EQ(run(change_uuid_tbl_op, {"--tblpath", tbl_}), 0);
    EXPECT_EQ(text_,
              "TARN_INFO: chagne TBL uuid:\n"
              "TARN_INFO: from [" +
                  UUID_AS_TEXT +
                  "]\n"
                  "TARN_INFO: to   [00000000000000000000000000000000]\n");
    EXPECT_EQ(hex_of(file_bytes(tbl_, 20, 16)),
              "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00\n");
    EXPECT_EQ(load_tbl(tbl_.c_str()), 0);
    close_tbl();
}

TEST_F(create, change_uuid_logs_a_file_that_does_not_load) {
    EXPECT_EQ(run(change_uuid_fri_op, {"--fripath", "/nonexistent"}), -1);
    EXPECT_EQ(last_log(), "ERR: change_uuid_fri_op(#) Fail to load FRI /nonexistent\n");
    EXPECT_EQ(run(change_uuid_tbl_op, {"--tblpath", "/nonexistent"}), -1);
    EXPECT_EQ(last_log(), "ERR: change_uuid_tbl_op(#) Fail to load TBL /nonexistent\n");
    EXPECT_EQ(run(change_uuid_fri_op, {}), -1);
    EXPECT_EQ(last_log(), "ERR: change_uuid_fri_op(#) Fail to load FRI \n");
    EXPECT_EQ(text_, "");
}

TEST_F(create, change_uuid_that_cannot_be_saved_logs_the_other_path_and_exits_0) {
    {
        io_fault_at fault(1, EIO, {io_call::write});
        EXPECT_EQ(run(change_uuid_fri_op, {"--fripath", fri_, "--path", "/other"}), 0);
    }
    EXPECT_EQ(last_log(), "ERR: change_uuid_fri_op(#) Fail to save FRI /other\n");
    {
        io_fault_at fault(1, EIO, {io_call::write});
        EXPECT_EQ(run(change_uuid_tbl_op, {"--tblpath", tbl_}), 0);
    }
    EXPECT_EQ(last_log(), "ERR: change_uuid_tbl_op(#) Fail to save TBL (null)\n");
}

TEST_F(create, change_uuid_changes_nothing_if_the_sub_options_fail) {
    const struct {
        handler operation;
        std::string option;
        std::string path;
    } rows[] = {
        {change_uuid_fri_op, "--fripath", fri_},
        {change_uuid_tbl_op, "--tblpath", tbl_},
    };
    for (const auto& [operation, option, path] : rows) {
        EXPECT_EQ(run(operation, {option, path, "--uuid", "00"}), -1);
        EXPECT_EQ(text_, "UUID length must be 32\n");
        EXPECT_EQ(run(operation, {option, path, "stray"}), -1);
        EXPECT_EQ(hex_of(file_bytes(path, 20, 16)), UUID_9A);
    }
}
