#include "fri/fri_file.h"

#include <cerrno>
#include <ctime>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "fri/fri_entries.h"
#include "store/descriptor.h"
#include "support/hex.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/open_files.h"
#include "support/pool_files.h"
#include "support/stdout_capture.h"

static const char POOL_UUID[] = "00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f\n";

TEST(fri_file, header_fields_lie_where_the_format_puts_them) {
    pool_files pool;
    current_fri.header.fri_group_count = 0x1122334455667788;
    current_fri.header.fri_free_count = 0x8877665544332211;
    current_fri.header.fri_group_head = 0x0102030405060708;
    ASSERT_EQ(save_fri(), 0);
    EXPECT_EQ(pool.fri_file.read_at<uint64_t>(8), 0x0886255218140633u);
    EXPECT_EQ(pool.fri_file.read_at<uint32_t>(16), 2u);
    EXPECT_EQ(hex_of(pool.fri_file.bytes(20, 16)), POOL_UUID);
    EXPECT_EQ(pool.fri_file.read_at<uint64_t>(36), 0x100000u);
    EXPECT_EQ(pool.fri_file.read_at<uint32_t>(68), 8u);
    EXPECT_EQ(pool.fri_file.read_at<uint64_t>(72), 0x1122334455667788u);
    EXPECT_EQ(pool.fri_file.read_at<uint64_t>(4100), 0x8877665544332211u);
    EXPECT_EQ(pool.fri_file.read_at<uint64_t>(4108), 0x0102030405060708u);

    current_fri.header = {};
    ASSERT_EQ(load_fri(pool.fri_file.path()), 0);
    EXPECT_EQ(current_fri.header.fri_free_count, 0x8877665544332211u);
}

TEST(fri_file, a_new_index_has_its_full_length_every_extent_free_and_the_old_uuid) {
    pool_files pool;
    scratch_dir dir;
    const std::string path = dir.file("EP_FRI");
    const auto before = static_cast<uint32_t>(time(nullptr));
    ASSERT_EQ(create_fri(path.c_str(), pool.tbl_file.path()), 0);  // a table has a uuid too
    ASSERT_EQ(save_fri(), 0);
    close_fri();

    struct stat status = {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 0x100100000);
    ASSERT_EQ(load_fri(path.c_str()), 0);
    const fri_header& header = current_fri.header;
    EXPECT_EQ(header.fri_version, 0x00010000u);
    EXPECT_EQ(header.fri_type, 2u);
    EXPECT_EQ(hex_of(header.fri_uuid), POOL_UUID);
    EXPECT_EQ(header.fri_data_offset, 0x100000u);
    EXPECT_GE(header.fri_create_time, before);
    EXPECT_EQ(header.fri_entry_size, 8u);
    EXPECT_EQ(header.fri_group_count, 0u);
    EXPECT_EQ(header.fri_free_count, 0x000001F800000000u);
    EXPECT_EQ(header.fri_group_head, 0u);
    fri_entry entry{1, 1, 1};
    EXPECT_EQ(fri_entry_read(&entry, 0x1F7FFFFF), 8);
    EXPECT_EQ(fri_entry_read(&entry, 0x1F800000), 0);
    EXPECT_EQ(hex_of(entry), "00 00 00 00 00 00 00 00 ");
}

TEST(fri_file, opening_another_one_syncs_and_closes_the_one_that_is_open) {
    const pool_files pool;  // its index is open
    const scratch_dir dir;
    const size_t before = open_files();
    const io_fault_at syncs(0, 0, {io_call::sync});
    ASSERT_EQ(save_fri(), 0);
    EXPECT_EQ(load_fri(pool.fri_file.path()), 0);
    EXPECT_EQ(syncs.calls(), 1u);
    EXPECT_EQ(open_files(), before);
    ASSERT_EQ(save_fri(), 0);
    EXPECT_EQ(create_fri(dir.file("EP_FRI").c_str(), pool.fri_file.path()), 0);
    EXPECT_EQ(syncs.calls(), 2u);
    EXPECT_EQ(open_files(), before);
}

TEST(fri_file, creating_an_index_without_a_uuid_leaves_none_open) {
    const scratch_dir dir;
    const log_capture log;
    const size_t before = open_files();
    const io_fault_at fault(1, EAGAIN, {io_call::spawn});
    EXPECT_EQ(create_fri(dir.file("EP_FRI").c_str(), nullptr), -1);
    EXPECT_EQ(current_fri.fd, 0);
    EXPECT_EQ(open_files(), before);
    EXPECT_EQ(log.last(), "ERR: uuid_gen(#) fail to OLIBCPopen '/usr/bin/uuidgen'\n");
}

TEST(fri_file, without_an_old_file_the_uuid_is_new) {
    if (access("/usr/bin/uuidgen", X_OK) != 0) {
        GTEST_SKIP() << "uuidgen is not installed";
    }
    scratch_dir dir;
    log_capture log;
    std::string uuids[2];
    for (std::string& uuid : uuids) {
        ASSERT_EQ(create_fri(dir.file("EP_FRI").c_str(), nullptr), 0);
        uuid = hex_of(current_fri.header.fri_uuid);
        close_fri();
    }
    EXPECT_NE(uuids[0], uuids[1]);
    EXPECT_TRUE(log.lines().empty());
    ASSERT_EQ(create_fri(dir.file("EP_FRI").c_str(), "/no-such-file"), 0);
    EXPECT_NE(hex_of(current_fri.header.fri_uuid), uuids[1]);
    EXPECT_TRUE(log.has("extract_fri_uuid(#) fri file descriptor is invalid"));
    close_fri();
}

TEST(fri_file, an_index_is_never_emptied_to_create_itself) {
    pool_files pool;
    log_capture log;
    EXPECT_EQ(create_fri(pool.fri_file.path(), pool.fri_file.path()), -1);
    EXPECT_EQ(log.count("cannot be created from itself"), 1u);
    EXPECT_EQ(load_fri(pool.fri_file.path()), 0);
}

TEST(fri_file, a_new_index_that_cannot_be_created_is_logged) {
    log_capture log;
    EXPECT_EQ(create_fri("/no-such-directory/EP_FRI", nullptr), -1);
    EXPECT_EQ(create_fri(nullptr, nullptr), -1);
    EXPECT_EQ(log.lines(), log_lines({"ERR: open_fd(#) open file /no-such-directory/EP_FRI fail\n",
                                      "ERR: create_file(#) fd NULL pointer\n",
                                      "ERR: create_file(#) name NULL pointer\n"}));
    EXPECT_EQ(current_fri.fd, 0);
}

TEST(fri_file, the_uuid_of_any_metadata_file_can_be_read) {
    pool_files pool;
    uint8_t uuid[16] = {};
    EXPECT_EQ(extract_fri_uuid(pool.tbl_file.path(), uuid), 0);
    EXPECT_EQ(hex_of(uuid), POOL_UUID);
    memset(uuid, 0, sizeof uuid);
    EXPECT_EQ(extract_fri_uuid(pool.fri_file.path(), uuid), 0);
    EXPECT_EQ(hex_of(uuid), POOL_UUID);
}

TEST(fri_file, a_wrong_magic_code_is_logged_and_the_uuid_is_used) {
    scratch_file blank(8192);
    uint8_t uuid[16] = {1};
    log_capture log;
    EXPECT_EQ(extract_fri_uuid(blank.path(), uuid), 0);
    EXPECT_EQ(uuid[0], 0);
    EXPECT_EQ(log.count("mismatched MAGIC_CODE"), 1u);
}

TEST(fri_file, a_uuid_that_cannot_be_read_is_logged) {
    pool_files pool;
    uint8_t uuid[16] = {};
    log_capture log;
    EXPECT_EQ(extract_fri_uuid(nullptr, uuid), -1);
    EXPECT_EQ(extract_fri_uuid("x", nullptr), -1);
    EXPECT_EQ(extract_fri_uuid("/no-such-file", uuid), -1);
    EXPECT_EQ(log.lines(),
              log_lines({"ERR: extract_fri_uuid(#) name NULL pointer\n",
                         "ERR: extract_fri_uuid(#) uuid NULL pointer\n",
                         "ERR: open_fd(#) open file /no-such-file fail\n",
                         "ERR: extract_fri_uuid(#) fri file descriptor is invalid\n"}));
    pool.fri_file.write_at(4100, uint8_t{0x77});  // breaks the variable node
    EXPECT_EQ(extract_fri_uuid(pool.fri_file.path(), uuid), -1);
    EXPECT_TRUE(log.has("var meta node[0] read fail"));
    EXPECT_EQ(uuid[1], 0);
}

TEST(fri_file, operations_without_an_open_index_are_logged) {
    log_capture log;
    EXPECT_EQ(load_fri("/no-such-file"), -1);
    EXPECT_EQ(save_fri(), -1);
    EXPECT_EQ(dump_fri_meta(), -1);
    EXPECT_EQ(log.lines(), log_lines({"ERR: open_fd(#) open file /no-such-file fail\n",
                                      "ERR: load_fri(#) fri file descriptor is invalid\n",
                                      "ERR: save_fri(#) fri file descriptor is invalid\n",
                                      "ERR: dump_fri_meta(#) fri file descriptor is invalid\n"}));
}

TEST(fri_file, a_wrong_magic_code_fails_the_current_index_but_not_a_handle) {
    scratch_file blank(1048576);
    log_capture log;
    EXPECT_EQ(load_fri(blank.path()), -1);
    EXPECT_NE(current_fri.fd, 0);
    close_fri();
    auto handle = std::make_unique<fri_handle>();
    EXPECT_EQ(load_fri_handle(handle.get(), blank.path()), 0);
    EXPECT_STREQ(handle->path, blank.path());
    EXPECT_EQ(close_fri_handle(handle.get()), 0);
    EXPECT_EQ(handle->fd, 0);
    EXPECT_EQ(log.count("mismatched MAGIC_CODE"), 2u);
}

TEST(fri_file, a_damaged_header_fails_both) {
    pool_files pool;
    pool.fri_file.write_at(4100, uint8_t{0x77});
    auto handle = std::make_unique<fri_handle>();
    handle->buffer = new uint8_t[10];  // released
    log_capture log;
    EXPECT_EQ(load_fri(pool.fri_file.path()), -1);
    EXPECT_EQ(load_fri_handle(handle.get(), pool.fri_file.path()), -1);
    EXPECT_EQ(handle->fd, 0);
    EXPECT_EQ(handle->buffer, nullptr);
}

TEST(fri_file, missing_arguments_of_a_handle_are_logged) {
    auto handle = std::make_unique<fri_handle>();
    log_capture log;
    EXPECT_EQ(load_fri_handle(handle.get(), nullptr), -1);
    EXPECT_EQ(load_fri_handle(nullptr, nullptr), -1);
    EXPECT_EQ(load_fri_handle(nullptr, "x"), -1);
    EXPECT_EQ(load_fri_handle(handle.get(), "/no-such-file"), -1);
    EXPECT_EQ(close_fri_handle(nullptr), -1);
    EXPECT_EQ(log.lines(), log_lines({"ERR: load_fri_handle(#) name NULL pointer\n",
                                      "ERR: load_fri_handle(#) name NULL pointer\n",
                                      "ERR: load_fri_handle(#) handle NULL pointer\n",
                                      "ERR: open_fd(#) open file /no-such-file fail\n",
                                      "ERR: load_fri_handle(#) fri file descriptor is invalid\n",
                                      "ERR: close_fri_handle(#) handle NULL pointer\n"}));
}

TEST(fri_file, the_header_prints_line_by_line) {
    pool_files pool;
    current_fri.header.fri_create_time = 77;
    current_fri.header.fri_group_count = 12;
    current_fri.header.fri_group_head = 5;
    current_fri.header.fri_uuid[0] = 0xab;
    stdout_capture out;
    EXPECT_EQ(dump_fri_meta(), 0);
    EXPECT_EQ(out.text(),
              "TARN_INFO: fri_version     65536\n"
              "TARN_INFO: fri_magic_code  0x18140633\n"
              "TARN_INFO: fri_type        2\n"
              "TARN_INFO: fri_uuid        ab 1 2 3- 4 5- 6 7- 8 9- a b c d e f\n"
              "TARN_INFO: fri_data_offset 1048576\n"
              "TARN_INFO: fri_create_time 77\n"
              "TARN_INFO: fri_entry_size  8\n"
              "TARN_INFO: fri_group_count 12\n"
              "TARN_INFO: fri_free_count  1000000\n"
              "TARN_INFO: fri_group_head  5\n");
}

TEST(fri_file, a_new_uuid_is_printed_and_reaches_the_disk_by_the_save) {
    pool_files pool;
    const uint8_t uuid[16] = {0xff, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 0xab};
    stdout_capture out;
    set_fri_uuid(uuid);
    EXPECT_EQ(out.text(),
              "TARN_INFO: chagne FRI uuid:\n"
              "TARN_INFO: from [000102030405060708090a0b0c0d0e0f]\n"
              "TARN_INFO: to   [ff0102030405060708090a0b0c0d0eab]\n");
    EXPECT_EQ(pool.fri_file.read_at<uint8_t>(20), 0);
    EXPECT_EQ(save_fri(), 0);
    EXPECT_EQ(pool.fri_file.read_at<uint8_t>(20), 0xff);
}
