#include "store/uuid.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/pool_files.h"

TEST(uuid, the_line_gives_its_bytes_in_order) {
    uint8_t out[16] = {};
    EXPECT_TRUE(uuid_of_line("3f2504e0-4f89-41d3-9a0c-0305e82c3301\n", out, 16));
    EXPECT_EQ(hex_of(out), "3f 25 04 e0 4f 89 41 d3 9a 0c 03 05 e8 2c 33 01\n");
}

TEST(uuid, capitals_and_foreign_characters_before_a_pair_are_accepted) {
    uint8_t out[3] = {};
    EXPECT_TRUE(uuid_of_line("{FE--zz 0A.b1", out, 3));
    EXPECT_EQ(hex_of(out), "fe 0a b1 ");
}

TEST(uuid, the_second_character_of_a_pair_is_not_checked) {
    uint8_t out[2] = {};
    EXPECT_TRUE(uuid_of_line("f-12", out, 2));
    EXPECT_EQ(hex_of(out), "0f 12 ");
}

TEST(uuid, a_line_with_too_few_pairs_is_an_error) {
    uint8_t out[16] = {};
    EXPECT_FALSE(uuid_of_line("", out, 1));
    EXPECT_FALSE(uuid_of_line("a", out, 1));
    EXPECT_FALSE(uuid_of_line("3f2504e0-4f89-41d3-9a0c-0305e82c33\n", out, 16));
}

TEST(uuid, asking_for_no_bytes_writes_none) {
    uint8_t out[1] = {0x77};
    EXPECT_TRUE(uuid_of_line("3f", out, 0));
    EXPECT_TRUE(uuid_of_line("3f", out, -1));
    EXPECT_EQ(out[0], 0x77);
}

TEST(uuid, a_missing_array_is_logged) {
    log_capture log;
    EXPECT_EQ(uuid_gen(nullptr, 16), -1);
    EXPECT_EQ(log.lines(), log_lines({"ERR: uuid_gen(#) uuid NULL pointer\n"}));
}

TEST(uuid, a_program_that_does_not_start_is_logged) {
    log_capture log;
    const io_fault_at fault(1, EAGAIN, {io_call::spawn});
    uint8_t out[16] = {};
    EXPECT_EQ(uuid_gen(out, 16), -1);
    EXPECT_EQ(log.lines(), log_lines({"ERR: uuid_gen(#) fail to OLIBCPopen '/usr/bin/uuidgen'\n"}));
}

TEST(uuid, is_inherited_from_the_old_file_or_its_known_uuid_or_is_new) {
    const pool_files pool;
    const log_capture log;
    const uint8_t known[16] = {0x5A};
    uint8_t out[16] = {};
    EXPECT_EQ(inherit_uuid(pool.tbl_file.path(), known, out), 0);
    EXPECT_EQ(hex_of(out), "00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f\n");
    EXPECT_EQ(log.lines(), log_lines({}));
    EXPECT_EQ(inherit_uuid("/no-such-file", known, out), 0);
    EXPECT_EQ(hex_of(out), hex_of(known));
    EXPECT_EQ(log.last(), "ERR: extract_fri_uuid(#) fri file descriptor is invalid\n");
    memset(out, 0, sizeof out);
    EXPECT_EQ(inherit_uuid(nullptr, known, out), 0);
    EXPECT_EQ(hex_of(out), hex_of(known));
    const io_fault_at fault(1, EAGAIN, {io_call::spawn});
    EXPECT_EQ(inherit_uuid(nullptr, nullptr, out), -1);  // no program to make a new one
    EXPECT_EQ(log.last(), "ERR: uuid_gen(#) fail to OLIBCPopen '/usr/bin/uuidgen'\n");
}

TEST(uuid, two_new_ones_differ_and_are_well_formed) {
    if (access("/usr/bin/uuidgen", X_OK) != 0) {
        GTEST_SKIP() << "uuidgen is not installed";
    }
    uint8_t one[17] = {};
    uint8_t other[17] = {};
    EXPECT_EQ(uuid_gen(one, 16), 0);
    EXPECT_EQ(uuid_gen(other, 16), 0);
    EXPECT_NE(hex_of(one), hex_of(other));
    EXPECT_EQ(one[8] & 0xC0, 0x80);  // the variant of the program's uuids
    EXPECT_EQ(one[16], 0);
}
